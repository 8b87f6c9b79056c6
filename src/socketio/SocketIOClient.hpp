#pragma once

#include "socketio/SocketManagerSpec.hpp"
#include "socketio/SocketPacket.hpp"
#include "socketio/SocketTypes.hpp"
#include "support/Fifo.hpp"

#include <kelvane/Error.hpp>
#include <kelvane/Json.hpp>
#include <kelvane/Queue.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace kelvane::socketio {

class SocketIOClient;

// A value of the application's own that knows how to become JSON; it may fail.
class SocketData {
public:
    virtual ~SocketData() = default;
    virtual Result<Json> socketRepresentation() const = 0;
};

// One item of an emit: a JSON value (byte buffers as binary values) or a SocketData.
class SocketItem {
public:
    template <class T>
        requires std::is_constructible_v<Json, T&&> &&
                 (!std::is_convertible_v<T&&, std::shared_ptr<const SocketData>>)
    SocketItem(T&& value) : value_(Json(std::forward<T>(value))) {}
    SocketItem(std::shared_ptr<const SocketData> custom) : custom_(std::move(custom)) {}
    template <class T>
        requires std::is_base_of_v<SocketData, T>
    SocketItem(std::shared_ptr<T> custom) : custom_(std::move(custom)) {}

    Result<Json> socketRepresentation() const;
    bool isCustom() const { return custom_ != nullptr; }
    // A plain value, given up rather than copied; nothing for a SocketData.
    std::optional<Json> takeValue() {
        if (custom_) return std::nullopt;
        return std::move(value_);
    }

private:
    Json value_;
    std::shared_ptr<const SocketData> custom_;
};

// Answers the ack that an incoming event asked for. The socket is held weakly.
class SocketAckEmitter {
public:
    SocketAckEmitter(std::weak_ptr<SocketIOClient> socket, std::int64_t ackNum);

    std::int64_t ackNum() const { return ackNum_; }
    // Converts the items; nothing is sent when ackNum is -1.
    void with(const std::vector<SocketItem>& items);
    // The items as they stand, with no conversion.
    void withRaw(std::vector<Json> items);

private:
    std::weak_ptr<SocketIOClient> socket_;
    std::int64_t ackNum_;
};

using NormalCallback = std::function<void(const std::vector<Json>& data, SocketAckEmitter& ack)>;
using AckCallback = std::function<void(const std::vector<Json>& data)>;

struct SocketEventHandler {
    std::string event;
    std::string id;  // a UUID
    // Shared, so that a dispatch holds the callbacks it runs without copying them.
    std::shared_ptr<const NormalCallback> callback;

    void executeCallback(const std::vector<Json>& items, std::int64_t ack,
                         const std::shared_ptr<SocketIOClient>& socket) const;
};

struct SocketAnyEvent {
    std::string event;
    std::optional<std::vector<Json>> items;
    // "SocketAnyEvent: Event: <event> items: <printed items>"
    std::string description() const;
};

// Pending acks, by number, and when each times out. Handle queue only.
class SocketAckManager {
public:
    // An ack number already present keeps its callback; the new one is dropped, and of the two
    // deadlines the earlier holds. `deadline` is on the handle queue's clock; none waits for ever.
    void addAck(std::int64_t ack, AckCallback callback, std::optional<Queue::Duration> deadline = std::nullopt);
    void executeAck(std::int64_t ack, const std::vector<Json>& items);
    // Calls the callback with ["NO ACK"].
    void timeoutAck(std::int64_t ack);
    // Times out every ack whose deadline is at or before `now`, earliest first.
    void timeoutDue(Queue::Duration now);
    std::optional<Queue::Duration> nextDeadline() const;
    bool contains(std::int64_t ack) const;
    std::size_t size() const { return acks_.size(); }

private:
    struct SocketAck {
        std::int64_t ack = 0;
        AckCallback callback;
        std::optional<Queue::Duration> deadline;
    };
    using Deadline = std::pair<Queue::Duration, std::int64_t>;
    // Out of both lists; nothing if `ack` is not pending.
    std::optional<AckCallback> take(std::int64_t ack);
    void dropDeadline(const Deadline& entry);

    // Sorted lists over vectors: acks are numbered and mostly answered in the order they are
    // asked, so both grow at the back and shrink at the front, with no allocation per ack. An
    // answered ack leaves its deadline at once: it holds nothing and wakes nothing afterwards.
    Fifo<SocketAck> acks_;           // by number
    Fifo<Deadline> deadlines_;       // by (deadline, number), for the acks that have one
};

// What emitWithAck returns: nothing is sent until timingOut() is called. Movable, not copyable.
class OnAckCallback {
public:
    OnAckCallback(std::int64_t ackNumber, std::vector<Json> items, std::weak_ptr<SocketIOClient> socket,
                  bool binary = true);
    OnAckCallback(OnAckCallback&& other) noexcept;
    OnAckCallback& operator=(OnAckCallback&&) = delete;
    OnAckCallback(const OnAckCallback&) = delete;
    ~OnAckCallback();

    std::int64_t ackNumber() const { return ackNumber_; }
    const std::vector<Json>& items() const { return items_; }
    // Sends the items with the ack number; the callback gets the answer, or ["NO ACK"] after
    // `seconds` (0 waits for ever). Handle queue only; once (the packet takes the items).
    void timingOut(double seconds, AckCallback callback);

private:
    std::int64_t ackNumber_;
    std::vector<Json> items_;
    std::weak_ptr<SocketIOClient> socket_;
    bool binary_;
    bool live_ = true;
};

// One namespace of a connection. Make it with std::make_shared (the manager does). Everything
// here belongs to the manager's handle queue: call it from there.
class SocketIOClient : public std::enable_shared_from_this<SocketIOClient> {
public:
    SocketIOClient(std::weak_ptr<SocketManagerSpec> manager, std::string nsp);
    ~SocketIOClient();
    SocketIOClient(const SocketIOClient&) = delete;
    SocketIOClient& operator=(const SocketIOClient&) = delete;

    const std::string& nsp() const { return nsp_; }
    std::shared_ptr<SocketManagerSpec> manager() const { return manager_.lock(); }

    std::function<void(const SocketAnyEvent&)> anyHandler;
    std::vector<SocketEventHandler> handlers;
    std::optional<std::string> sid;
    SocketAckManager ackHandlers;
    std::optional<Json> connectPayload;
    std::int64_t currentAck = -1;

    SocketIOStatus status() const { return status_; }
    // Raises statusChange on every assignment, also of the same value.
    void setStatus(SocketIOStatus status);

    // Connection.
    void connect(std::optional<Json> payload = std::nullopt);
    // `timeout` in seconds; 0 means none. The handler runs if the namespace did not connect in time.
    void connect(std::optional<Json> payload, double timeout, std::function<void()> handler);
    void disconnect();
    void joinNamespace(std::optional<Json> payload);
    void leaveNamespace();
    void reconnect();

    void didConnect(const std::string& toNamespace, std::optional<Json> payload);
    void didDisconnect(const std::string& reason);
    void setReconnecting(const std::string& reason);

    // Handlers; each returns the handler's UUID.
    std::string on(const std::string& event, NormalCallback callback);
    std::string on(SocketClientEvent event, NormalCallback callback);
    std::string once(const std::string& event, NormalCallback callback);
    std::string once(SocketClientEvent event, NormalCallback callback);
    void off(const std::string& event);
    void off(SocketClientEvent event);
    void offId(const std::string& id);
    void onAny(std::function<void(const SocketAnyEvent&)> handler);
    void removeAllHandlers();

    // Sending.
    void emit(const std::string& event, const std::vector<SocketItem>& items, std::function<void()> completion = {});
    OnAckCallback emitWithAck(const std::string& event, const std::vector<SocketItem>& items);
    // The same for items made for the call: plain values are moved into the packet, not copied.
    void emit(const std::string& event, std::vector<SocketItem>&& items, std::function<void()> completion = {});
    OnAckCallback emitWithAck(const std::string& event, std::vector<SocketItem>&& items);
    // The raw emit: `data` as it stands (event name first for events).
    void emit(std::vector<Json> data, std::int64_t ack = -1, bool binary = true, bool isAck = false,
              std::function<void()> completion = {});
    void emitAck(std::int64_t ack, std::vector<Json> items);
    OnAckCallback createOnAck(std::vector<Json> items, bool binary);

    // Incoming, from the manager.
    void handlePacket(SocketPacket packet);
    void handleAck(std::int64_t ack, const std::vector<Json>& data);
    void handleEvent(const std::string& event, const std::vector<Json>& data, bool isInternalMessage,
                     std::int64_t ack = -1);
    void handleClientEvent(SocketClientEvent event, const std::vector<Json>& data);

    // Emits that take items as they stand, with no conversion.
    class RawView {
    public:
        explicit RawView(std::weak_ptr<SocketIOClient> socket) : socket_(std::move(socket)) {}
        void emit(const std::string& event, std::vector<Json> items, std::function<void()> completion = {});
        OnAckCallback emitWithAck(const std::string& event, std::vector<Json> items);

    private:
        std::weak_ptr<SocketIOClient> socket_;
    };
    RawView rawEmitView() { return RawView(weak_from_this()); }

    // "SocketIOClient{<nsp>}"
    const std::string& logType() const { return logType_; }

private:
    friend class OnAckCallback;
    // One timer for all of this namespace's ack time-outs, set for the earliest deadline.
    void armAckTimer(Queue& queue);
    void ackTimerFired(Queue& queue, Queue::Duration due);

    std::string nsp_;
    std::weak_ptr<SocketManagerSpec> manager_;
    std::optional<Queue::Duration> ackTimerDue_;
    SocketIOStatus status_ = SocketIOStatus::notConnected;
    std::string logType_;
};

}  // namespace kelvane::socketio
