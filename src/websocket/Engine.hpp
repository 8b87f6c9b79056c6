#pragma once

#include "websocket/Compression.hpp"
#include "websocket/Framer.hpp"
#include "websocket/HTTPHandler.hpp"
#include "websocket/Limits.hpp"
#include "websocket/Request.hpp"
#include "websocket/Security.hpp"
#include "websocket/Transport.hpp"
#include "websocket/WSError.hpp"

#include <kelvane/Queue.hpp>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kelvane::websocket {

struct WebSocketEvent {
    enum class Kind {
        connected,
        disconnected,
        text,
        binary,
        pong,
        ping,
        error,
        viabilityChanged,
        reconnectSuggested,
        cancelled,
        peerClosed,
    };
    WebSocketEvent(Kind kind = Kind::cancelled) : kind(kind) {}

    Kind kind;
    Headers headers;               // connected
    std::string text;              // text; disconnected: the reason
    std::uint16_t code = 0;        // disconnected
    Bytes data;                    // binary
    std::optional<Bytes> payload;  // ping, pong
    std::optional<Failure> error;  // error
    bool flag = false;             // viabilityChanged, reconnectSuggested
};

const char* eventKindName(WebSocketEvent::Kind kind);

class EngineDelegate {
public:
    virtual ~EngineDelegate() = default;
    // On the queue of whatever raised it (transport or framer); see WebSocket for the hop.
    virtual void didReceive(WebSocketEvent event) = 0;
};

class Engine {
public:
    using WriteCompletion = std::function<void()>;

    virtual ~Engine() = default;
    virtual void registerDelegate(std::weak_ptr<EngineDelegate> delegate) = 0;
    virtual void start(Request request) = 0;
    virtual void stop(std::uint16_t closeCode = static_cast<std::uint16_t>(CloseCode::normal)) = 0;
    virtual void forceStop() = 0;
    virtual void write(Bytes data, FrameOpCode opcode, WriteCompletion completion = {}) = 0;
    virtual void write(std::string string, WriteCompletion completion = {}) = 0;
};

// The full client: handshake, framing, deflate and close over a Transport. All members may be
// called from any thread. Make it with std::make_shared.
class WSEngine final : public Engine,
                       public TransportEventClient,
                       public FramerEventClient,
                       public HTTPHandlerDelegate,
                       public FrameCollector::Delegate,
                       public std::enable_shared_from_this<WSEngine> {
public:
    WSEngine(std::shared_ptr<Transport> transport, std::shared_ptr<CertificatePinning> certPinner = nullptr,
             std::shared_ptr<Framer> framer = nullptr, std::shared_ptr<CompressionHandler> compressionHandler = nullptr,
             std::shared_ptr<HTTPHandler> httpHandler = nullptr, std::shared_ptr<HeaderValidator> headerChecker = nullptr);

    void registerDelegate(std::weak_ptr<EngineDelegate> delegate) override;
    // A second start while connecting or open does nothing. A request with a line break in a
    // header field is refused with an `error` naming the field, and nothing is connected.
    void start(Request request) override;
    // Sends a close frame with the code; once it is written, resets and cuts the transport.
    void stop(std::uint16_t closeCode = static_cast<std::uint16_t>(CloseCode::normal)) override;
    void forceStop() override;
    // Dropped, completion and all, unless the upgrade has finished. Frames leave whole, in call
    // order; the completion runs once the transport has taken them, whatever the outcome.
    // With deflate agreed, data frames are compressed; close, ping and pong never are.
    void write(Bytes data, FrameOpCode opcode, WriteCompletion completion = {}) override;
    void write(std::string string, WriteCompletion completion = {}) override;

    bool respondToPingWithPong() const { return respondToPingWithPong_; }
    void setRespondToPingWithPong(bool respond) { respondToPingWithPong_ = respond; }

    // Before start(). What crosses a limit ends the connection with 1009 and an `error` event
    // carrying a protocolError WSError of code 1009; before the upgrade, the transport is cut.
    void setLimits(const Limits& limits);
    const Limits& limits() const { return limits_; }

    // The engine's guarded flags, for tests and callers that must look.
    struct Flags {
        bool isConnecting = false;
        bool canSend = false;
        bool didUpgrade = false;
    };
    Flags flags() const;
    // Where writes are framed and sent, in order; tests wait on it for writes already made.
    const std::shared_ptr<Queue>& writeQueue() const { return writeQueue_; }

    // Transport's queue.
    void connectionChanged(ConnectionState state) override;
    // Transport's queue, from inside the HTTP handler's parse.
    void didReceiveHTTP(const HTTPEvent& event) override;
    // Framer's queue.
    void frameProcessed(FrameEvent event) override;
    std::optional<Bytes> decompress(ByteView data, bool isFinal, std::size_t limit) override;
    void didForm(FrameCollector::Event event) override;

private:
    template <class Payload>
    void enqueue(Payload payload, FrameOpCode opcode, WriteCompletion completion);
    void broadcast(WebSocketEvent event);
    void handleError(std::optional<Failure> error);
    void reset();

    std::shared_ptr<Transport> transport_;
    std::shared_ptr<Framer> framer_;
    std::shared_ptr<HTTPHandler> httpHandler_;
    std::shared_ptr<CompressionHandler> compressionHandler_;
    std::shared_ptr<CertificatePinning> certPinner_;
    std::shared_ptr<HeaderValidator> headerChecker_;
    std::optional<Request> request_;
    std::shared_ptr<FrameCollector> frameHandler_ = std::make_shared<FrameCollector>();
    Limits limits_;
    std::string secKeyValue_;
    std::shared_ptr<Queue> writeQueue_ = Queue::makeSerial("websocket.write");
    mutable std::mutex mutex_;
    Flags flags_;  // guarded by mutex_
    std::mutex delegateMutex_;
    std::weak_ptr<EngineDelegate> delegate_;
    std::atomic<bool> respondToPingWithPong_{true};
};

}  // namespace kelvane::websocket
