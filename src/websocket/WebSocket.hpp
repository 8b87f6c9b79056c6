#pragma once

#include "support/Inbox.hpp"

#include "websocket/Engine.hpp"

#include <kelvane/Queue.hpp>

#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace kelvane::websocket {

class WebSocket;

class WebSocketDelegate {
public:
    virtual ~WebSocketDelegate() = default;
    // On the socket's callbackQueue.
    virtual void didReceive(const WebSocketEvent& event, WebSocket& client) = 0;
    // The same, when nothing else will see the event (no onEvent is set): a delegate may keep
    // its parts instead of copying them.
    virtual void didReceive(WebSocketEvent&& event, WebSocket& client) { didReceive(std::as_const(event), client); }
};

// The public face of a connection. Events reach the delegate, then onEvent, in order, on
// callbackQueue (the main queue unless set). Make it with std::make_shared; members may be
// called from any thread, but set the delegate, onEvent and callbackQueue before connect().
class WebSocket final : public EngineDelegate, public std::enable_shared_from_this<WebSocket> {
public:
    WebSocket(Request request, std::shared_ptr<Engine> engine);
    // WSEngine over TCPTransport. The default pinner is a FoundationSecurity; pass nullptr for
    // the system's store and host-name check without one.
    WebSocket(Request request, std::shared_ptr<CertificatePinning> certPinner,
              std::shared_ptr<CompressionHandler> compressionHandler = nullptr, bool useCustomEngine = true);
    explicit WebSocket(Request request);

    std::weak_ptr<WebSocketDelegate> delegate;
    std::function<void(const WebSocketEvent&)> onEvent;
    std::shared_ptr<Queue> callbackQueue = Queue::main();

    const Request& request() const { return request_; }
    const std::shared_ptr<Engine>& engine() const { return engine_; }
    // WSEngine's flag; false (and unsettable) for other engines.
    bool respondToPingWithPong() const;
    void setRespondToPingWithPong(bool respond);
    // WSEngine's limits (the defaults for other engines, which ignore them). Set before connect():
    // a frame, a message or an upgrade response over its limit ends the connection with 1009.
    Limits limits() const;
    void setLimits(const Limits& limits);

    void connect();
    void disconnect(std::uint16_t closeCode = static_cast<std::uint16_t>(CloseCode::normal));
    void forceDisconnect();
    void write(Bytes data, Engine::WriteCompletion completion = {});
    void write(std::string string, Engine::WriteCompletion completion = {});
    // Bytes that are already UTF-8 text, sent as a text frame.
    void writeStringData(Bytes stringData, Engine::WriteCompletion completion = {});
    void writePing(Bytes ping, Engine::WriteCompletion completion = {});
    void writePong(Bytes pong, Engine::WriteCompletion completion = {});

    void didReceive(WebSocketEvent event) override;

private:
    std::shared_ptr<Engine> engine_;
    Request request_;
    // Events on their way to callbackQueue: a text message as its text, anything else whole.
    struct Arrival {
        std::string text;
        std::unique_ptr<WebSocketEvent> event;
    };
    Inbox<Arrival> inbox_;
};

}  // namespace kelvane::websocket
