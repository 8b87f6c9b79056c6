#include "socketio/SocketIOClient.hpp"

#include "socketio/SocketLogger.hpp"
#include "support/Fatal.hpp"
#include "support/UUID.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>

namespace kelvane::socketio {
namespace {

// Doubles as the platform prints them: "2.0", "0.5", "-inf".
[[maybe_unused]] std::string printedDouble(double value) {
    char buffer[64];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, ec == std::errc() ? end : buffer);
    if (std::isfinite(value) && text.find_first_of(".e") == std::string::npos) text += ".0";
    return text;
}

Queue::Duration delay(double seconds) {
    // A negative (release build) or NaN timeout fires at once rather than overflowing.
    if (!(seconds > 0)) return Queue::Duration::zero();
    // A century at most: the clock's ticks would overflow long before a time-out of 1e300 s.
    constexpr double kLongest = 100.0 * 365 * 24 * 3600;
    return std::chrono::duration_cast<Queue::Duration>(std::chrono::duration<double>(std::min(seconds, kLongest)));
}

// The items' values, after the event's name when there is one.
Result<std::vector<Json>> represent(const std::vector<SocketItem>& items, const std::string* event = nullptr) {
    std::vector<Json> values;
    values.reserve(items.size() + 1);
    if (event) values.emplace_back(*event);
    for (const auto& item : items) {
        auto value = item.socketRepresentation();
        if (!value) return value.error();
        values.push_back(std::move(*value));
    }
    return values;
}

// The items' values moved out, after the event's name, when every item is a plain value.
std::optional<std::vector<Json>> takeValues(std::vector<SocketItem>& items, const std::string& event) {
    for (auto& item : items) {
        if (item.isCustom()) return std::nullopt;
    }
    std::vector<Json> values;
    values.reserve(items.size() + 1);
    values.emplace_back(event);
    for (auto& item : items) values.push_back(*item.takeValue());
    return values;
}

// For log lines and error events: an item that does not convert shows as its error's text.
Json shown(const std::vector<SocketItem>& items) {
    Json list = Json::array();
    for (const auto& item : items) {
        auto value = item.socketRepresentation();
        list.push_back(value ? std::move(*value) : Json(value.error().text()));
    }
    return list;
}

std::vector<Json> withEvent(const std::string& event, std::vector<Json> items) {
    items.insert(items.begin(), Json(event));
    return items;
}

constexpr std::string_view kAckLogType = "OnAckCallback";

}  // namespace

// SocketItem

Result<Json> SocketItem::socketRepresentation() const {
    if (custom_) return custom_->socketRepresentation();
    return value_;
}

// SocketEventHandler, SocketAnyEvent

void SocketEventHandler::executeCallback(const std::vector<Json>& items, std::int64_t ack,
                                         const std::shared_ptr<SocketIOClient>& socket) const {
    SocketAckEmitter emitter(socket, ack);
    (*callback)(items, emitter);
}

std::string SocketAnyEvent::description() const {
    return "SocketAnyEvent: Event: " + event + " items: " + (items ? printed(*items) : std::string("nil"));
}

// SocketAckManager

namespace {
// Where `ack` is or would go in a list sorted by number.
template <class Acks>
auto ackPosition(Acks& acks, std::int64_t ack) {
    return std::lower_bound(acks.begin(), acks.end(), ack,
                            [](const auto& entry, std::int64_t number) { return entry.ack < number; });
}
}  // namespace

void SocketAckManager::dropDeadline(const Deadline& entry) {
    auto at = std::lower_bound(deadlines_.begin(), deadlines_.end(), entry);
    if (at != deadlines_.end() && *at == entry) deadlines_.erase(at);
}

void SocketAckManager::addAck(std::int64_t ack, AckCallback callback, std::optional<Queue::Duration> deadline) {
    auto at = ackPosition(acks_, ack);
    if (at == acks_.end() || at->ack != ack) {
        acks_.insert(at, SocketAck{ack, std::move(callback), deadline});
    } else {
        if (!deadline || (at->deadline && *at->deadline <= *deadline)) return;
        if (at->deadline) dropDeadline({*at->deadline, ack});
        at->deadline = deadline;
    }
    if (!deadline) return;
    const Deadline entry{*deadline, ack};
    deadlines_.insert(std::upper_bound(deadlines_.begin(), deadlines_.end(), entry), entry);
}

std::optional<AckCallback> SocketAckManager::take(std::int64_t ack) {
    auto at = ackPosition(acks_, ack);
    if (at == acks_.end() || at->ack != ack) return std::nullopt;
    if (at->deadline) dropDeadline({*at->deadline, ack});
    auto callback = std::move(at->callback);
    acks_.erase(at);
    return callback;
}

void SocketAckManager::executeAck(std::int64_t ack, const std::vector<Json>& items) {
    // Out of the lists before the call, so that the callback may ask for new acks.
    auto callback = take(ack);
    if (callback && *callback) (*callback)(items);
}

void SocketAckManager::timeoutAck(std::int64_t ack) { executeAck(ack, {Json(kNoAck)}); }

void SocketAckManager::timeoutDue(Queue::Duration now) {
    // One at a time from the front: a callback may add or answer acks.
    while (!deadlines_.empty() && deadlines_.front().first <= now) timeoutAck(deadlines_.front().second);
}

std::optional<Queue::Duration> SocketAckManager::nextDeadline() const {
    if (deadlines_.empty()) return std::nullopt;
    return deadlines_.front().first;
}

bool SocketAckManager::contains(std::int64_t ack) const {
    auto at = ackPosition(acks_, ack);
    return at != acks_.end() && at->ack == ack;
}

// SocketAckEmitter

SocketAckEmitter::SocketAckEmitter(std::weak_ptr<SocketIOClient> socket, std::int64_t ackNum)
    : socket_(std::move(socket)), ackNum_(ackNum) {}

void SocketAckEmitter::with(const std::vector<SocketItem>& items) {
    if (ackNum_ == -1) return;
    auto socket = socket_.lock();
    if (!socket) return;
    auto values = represent(items);
    if (!values) {
        socket->handleClientEvent(SocketClientEvent::error, {Json(ackNum_), shown(items), Json(values.error().text())});
        return;
    }
    socket->emitAck(ackNum_, std::move(*values));
}

void SocketAckEmitter::withRaw(std::vector<Json> items) {
    if (ackNum_ == -1) return;
    if (auto socket = socket_.lock()) socket->emitAck(ackNum_, std::move(items));
}

// OnAckCallback

OnAckCallback::OnAckCallback(std::int64_t ackNumber, std::vector<Json> items, std::weak_ptr<SocketIOClient> socket,
                             bool binary)
    : ackNumber_(ackNumber), items_(std::move(items)), socket_(std::move(socket)), binary_(binary) {}

OnAckCallback::OnAckCallback(OnAckCallback&& other) noexcept
    : ackNumber_(other.ackNumber_),
      items_(std::move(other.items_)),
      socket_(std::move(other.socket_)),
      binary_(other.binary_),
      live_(other.live_) {
    // Only the last holder is released in the log's sense.
    other.live_ = false;
}

OnAckCallback::~OnAckCallback() {
    if (!live_) return;
    socketLog(kAckLogType, [&] { return "OnAckCallback for " + std::to_string(ackNumber_) + " being released"; });
}

void OnAckCallback::timingOut(double seconds, AckCallback callback) {
    auto socket = socket_.lock();
    if (!socket || ackNumber_ == -1) return;
    auto manager = socket->manager();
    auto queue = seconds != 0 && manager ? manager->handleQueue() : nullptr;
    std::optional<Queue::Duration> deadline;
    if (queue) deadline = queue->now() + delay(seconds);
    socket->ackHandlers.addAck(ackNumber_, std::move(callback), deadline);
    // Sent once: the packet takes the items.
    socket->emit(std::move(items_), ackNumber_, binary_);
    if (queue) socket->armAckTimer(*queue);
}

// SocketIOClient

void SocketIOClient::armAckTimer(Queue& queue) {
    auto next = ackHandlers.nextDeadline();
    if (!next || (ackTimerDue_ && *ackTimerDue_ <= *next)) return;
    ackTimerDue_ = next;
    // The task runs on `queue`, so the queue outlives it.
    queue.asyncAfter(*next - queue.now(), [weak = weak_from_this(), queue = &queue, due = *next] {
        if (auto socket = weak.lock()) socket->ackTimerFired(*queue, due);
    });
}

void SocketIOClient::ackTimerFired(Queue& queue, Queue::Duration due) {
    // A timer set for a deadline that an earlier one replaced finds another still set.
    if (ackTimerDue_ == due) ackTimerDue_.reset();
    ackHandlers.timeoutDue(queue.now());
    armAckTimer(queue);
}

SocketIOClient::SocketIOClient(std::weak_ptr<SocketManagerSpec> manager, std::string nsp)
    : nsp_(std::move(nsp)), manager_(std::move(manager)), logType_("SocketIOClient{" + nsp_ + "}") {}

SocketIOClient::~SocketIOClient() {
    socketLog(logType_, [] { return "Client is being released"; });
}

void SocketIOClient::setStatus(SocketIOStatus status) {
    status_ = status;
    handleClientEvent(SocketClientEvent::statusChange,
                      {Json(std::string(description(status))), Json(static_cast<int>(status))});
}

void SocketIOClient::connect(std::optional<Json> payload) { connect(std::move(payload), 0, {}); }

void SocketIOClient::connect(std::optional<Json> payload, double timeout, std::function<void()> handler) {
#ifndef NDEBUG
    if (!(timeout >= 0)) fatalStop("Invalid timeout: " + printedDouble(timeout));
#endif
    auto manager = manager_.lock();
    if (!manager || status_ == SocketIOStatus::connected) {
        socketLog(logType_, [] { return "Tried connecting on an already connected socket"; });
        return;
    }
    setStatus(SocketIOStatus::connecting);
    joinNamespace(std::move(payload));
    // Revision two sends no connect packet for the default namespace: an open engine means joined.
    if (manager->version() == SocketIOVersion::two && manager->status() == SocketIOStatus::connected && nsp_ == "/") {
        didConnect(nsp_, std::nullopt);
        return;
    }
    if (timeout == 0) return;
    manager->handleQueue()->asyncAfter(delay(timeout), [weak = weak_from_this(), handler = std::move(handler)] {
        auto self = weak.lock();
        if (!self) return;
        if (self->status_ != SocketIOStatus::connecting && self->status_ != SocketIOStatus::notConnected) return;
        socketLog(self->logType_, [] { return "Timeout: Socket not connected, so setting to disconnected"; });
        self->setStatus(SocketIOStatus::disconnected);
        self->leaveNamespace();
        if (handler) handler();
    });
}

void SocketIOClient::disconnect() {
    socketLog(logType_, [] { return "Closing socket"; });
    leaveNamespace();
}

void SocketIOClient::joinNamespace(std::optional<Json> payload) {
    socketLog(logType_, [&] { return "Joining namespace " + nsp_; });
    connectPayload = std::move(payload);
    if (auto manager = manager_.lock()) manager->connectSocket(*this, connectPayload);
}

void SocketIOClient::leaveNamespace() {
    if (auto manager = manager_.lock()) manager->disconnectSocket(*this);
}

void SocketIOClient::reconnect() {
    if (auto manager = manager_.lock()) manager->reconnect();
}

void SocketIOClient::didConnect(const std::string& toNamespace, std::optional<Json> payload) {
    if (status_ == SocketIOStatus::connected) return;
    socketLog(logType_, [] { return "Socket connected"; });
    setStatus(SocketIOStatus::connected);
    sid = payload ? json::getString(*payload, "sid") : std::nullopt;
    std::vector<Json> data{Json(toNamespace)};
    if (payload) data.push_back(std::move(*payload));
    handleClientEvent(SocketClientEvent::connect, data);
}

void SocketIOClient::didDisconnect(const std::string& reason) {
    if (status_ == SocketIOStatus::disconnected) return;
    socketLog(logType_, [&] { return "Disconnected: " + reason; });
    setStatus(SocketIOStatus::disconnected);
    sid = "";
    handleClientEvent(SocketClientEvent::disconnect, {Json(reason)});
}

void SocketIOClient::setReconnecting(const std::string& reason) {
    setStatus(SocketIOStatus::connecting);
    handleClientEvent(SocketClientEvent::reconnect, {Json(reason)});
}

// Handlers

std::string SocketIOClient::on(const std::string& event, NormalCallback callback) {
    socketLog(logType_, [&] { return "Adding handler for event: " + event; });
    auto id = makeUUIDString();
    handlers.push_back(SocketEventHandler{event, id, std::make_shared<const NormalCallback>(std::move(callback))});
    return id;
}

std::string SocketIOClient::on(SocketClientEvent event, NormalCallback callback) {
    return on(std::string(rawValue(event)), std::move(callback));
}

std::string SocketIOClient::once(const std::string& event, NormalCallback callback) {
    socketLog(logType_, [&] { return "Adding once handler for event: " + event; });
    auto id = makeUUIDString();
    auto wrapped = [weak = weak_from_this(), id, callback = std::move(callback)](const std::vector<Json>& data,
                                                                                 SocketAckEmitter& ack) {
        auto self = weak.lock();
        if (!self) return;
        self->offId(id);
        callback(data, ack);
    };
    handlers.push_back(SocketEventHandler{event, id, std::make_shared<const NormalCallback>(std::move(wrapped))});
    return id;
}

std::string SocketIOClient::once(SocketClientEvent event, NormalCallback callback) {
    return once(std::string(rawValue(event)), std::move(callback));
}

void SocketIOClient::off(const std::string& event) {
    socketLog(logType_, [&] { return "Removing handler for event: " + event; });
    std::erase_if(handlers, [&](const SocketEventHandler& handler) { return handler.event == event; });
}

void SocketIOClient::off(SocketClientEvent event) { off(std::string(rawValue(event))); }

void SocketIOClient::offId(const std::string& id) {
    socketLog(logType_, [&] { return "Removing handler with id: " + id; });
    std::erase_if(handlers, [&](const SocketEventHandler& handler) { return handler.id == id; });
}

void SocketIOClient::onAny(std::function<void(const SocketAnyEvent&)> handler) { anyHandler = std::move(handler); }

void SocketIOClient::removeAllHandlers() { handlers.clear(); }

// Sending

void SocketIOClient::emit(const std::string& event, const std::vector<SocketItem>& items,
                          std::function<void()> completion) {
    auto values = represent(items, &event);
    if (!values) {
        socketError(logType_, [&] {
            return "Error creating socketRepresentation for emit: " + event + ", " + printed(shown(items));
        });
        handleClientEvent(SocketClientEvent::error, {Json(event), shown(items), Json(values.error().text())});
        return;
    }
    emit(std::move(*values), -1, true, false, std::move(completion));
}

void SocketIOClient::emit(const std::string& event, std::vector<SocketItem>&& items, std::function<void()> completion) {
    auto values = takeValues(items, event);
    if (!values) return emit(event, std::as_const(items), std::move(completion));
    emit(std::move(*values), -1, true, false, std::move(completion));
}

OnAckCallback SocketIOClient::emitWithAck(const std::string& event, std::vector<SocketItem>&& items) {
    auto values = takeValues(items, event);
    if (!values) return emitWithAck(event, std::as_const(items));
    return createOnAck(std::move(*values), true);
}

OnAckCallback SocketIOClient::emitWithAck(const std::string& event, const std::vector<SocketItem>& items) {
    auto values = represent(items, &event);
    if (!values) {
        socketError(logType_, [&] {
            return "Error creating socketRepresentation for emit: " + event + ", " + printed(shown(items));
        });
        handleClientEvent(SocketClientEvent::error, {Json(event), shown(items), Json(values.error().text())});
        return OnAckCallback(-1, {}, weak_from_this());
    }
    return createOnAck(std::move(*values), true);
}

void SocketIOClient::emit(std::vector<Json> data, std::int64_t ack, bool binary, bool isAck,
                          std::function<void()> completion) {
    std::function<void()> wrapped;
    if (completion) {
        wrapped = [weak = weak_from_this(), completion = std::move(completion)] {
            auto self = weak.lock();
            if (!self) return;
            if (auto manager = self->manager_.lock()) manager->handleQueue()->async(completion);
        };
    }
    if (status_ != SocketIOStatus::connected) {
        if (wrapped) wrapped();
        handleClientEvent(SocketClientEvent::error, {Json("Tried emitting when not connected")});
        return;
    }
    auto packet = SocketPacket::packetFromEmit(std::move(data), ack, nsp_, isAck, binary);
    auto text = packet.packetString();
    socketLog(logType_, [&] { return "Emitting: " + text + ", Ack: " + (isAck ? "true" : "false"); });
    auto manager = manager_.lock();
    if (!manager) return;
    if (auto engine = manager->engine()) engine->send(std::move(text), std::move(packet.binary), std::move(wrapped));
}

void SocketIOClient::emitAck(std::int64_t ack, std::vector<Json> items) {
    emit(std::move(items), ack, true, true);
}

OnAckCallback SocketIOClient::createOnAck(std::vector<Json> items, bool binary) {
    currentAck += 1;
    return OnAckCallback(currentAck, std::move(items), weak_from_this(), binary);
}

// Incoming

void SocketIOClient::handlePacket(SocketPacket packet) {
    if (packet.nsp() != nsp_) return;
    switch (packet.type()) {
        case PacketType::event:
        case PacketType::binaryEvent: {
            // The packet is ours: its arguments are taken, not copied (what args() gives).
            std::string event = packet.event();
            std::vector<Json> args = std::move(packet.data);
            if (!args.empty()) args.erase(args.begin());
            handleEvent(event, args, false, packet.id());
            break;
        }
        case PacketType::ack:
        case PacketType::binaryAck: handleAck(packet.id(), packet.data); break;
        case PacketType::connect: {
            std::optional<Json> payload;
            if (!packet.data.empty() && packet.data[0].is_object()) payload = packet.data[0];
            didConnect(nsp_, std::move(payload));
            break;
        }
        case PacketType::disconnect: didDisconnect("Got Disconnect"); break;
        case PacketType::error: handleEvent("error", packet.data, true, packet.id()); break;
    }
}

void SocketIOClient::handleAck(std::int64_t ack, const std::vector<Json>& data) {
    if (status_ != SocketIOStatus::connected) return;
    socketLog(logType_, [&] { return "Handling ack: " + std::to_string(ack) + " with data: " + printed(data); });
    ackHandlers.executeAck(ack, data);
}

void SocketIOClient::handleEvent(const std::string& event, const std::vector<Json>& data, bool isInternalMessage,
                                 std::int64_t ack) {
    if (status_ != SocketIOStatus::connected && !isInternalMessage) return;
    socketLog(logType_, [&] { return "Handling event: " + event + " with data: " + printed(data); });
    // Keeps the client alive through handlers that drop the last outside reference.
    auto self = weak_from_this().lock();
    if (anyHandler) anyHandler(SocketAnyEvent{event, data});
    // Over the callbacks that match when it starts: handlers added or removed by a callback do
    // not change this dispatch. Most events have one handler, which needs no list.
    std::shared_ptr<const NormalCallback> first;
    std::vector<std::shared_ptr<const NormalCallback>> more;
    for (const auto& handler : handlers) {
        if (handler.event != event) continue;
        if (first) {
            more.push_back(handler.callback);
        } else {
            first = handler.callback;
        }
    }
    if (!first) return;
    auto run = [&](const NormalCallback& callback) {
        SocketAckEmitter emitter(self, ack);
        callback(data, emitter);
    };
    run(*first);
    for (const auto& callback : more) run(*callback);
}

void SocketIOClient::handleClientEvent(SocketClientEvent event, const std::vector<Json>& data) {
    handleEvent(std::string(rawValue(event)), data, true);
}

// RawView

void SocketIOClient::RawView::emit(const std::string& event, std::vector<Json> items,
                                   std::function<void()> completion) {
    auto socket = socket_.lock();
    if (!socket) return;
    socket->emit(withEvent(event, std::move(items)), -1, true, false, std::move(completion));
}

OnAckCallback SocketIOClient::RawView::emitWithAck(const std::string& event, std::vector<Json> items) {
    auto socket = socket_.lock();
    if (!socket) return OnAckCallback(-1, {}, socket_);
    return socket->createOnAck(withEvent(event, std::move(items)), true);
}

}  // namespace kelvane::socketio
