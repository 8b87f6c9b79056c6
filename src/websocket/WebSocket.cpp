#include "websocket/WebSocket.hpp"

namespace kelvane::websocket {

WebSocket::WebSocket(Request request, std::shared_ptr<Engine> engine)
    : engine_(std::move(engine)), request_(std::move(request)) {}

WebSocket::WebSocket(Request request, std::shared_ptr<CertificatePinning> certPinner,
                     std::shared_ptr<CompressionHandler> compressionHandler, bool /*useCustomEngine*/)
    // No platform WebSocket task here: every configuration gets our own engine.
    : engine_(std::make_shared<WSEngine>(std::make_shared<TCPTransport>(), std::move(certPinner), nullptr,
                                         std::move(compressionHandler))),
      request_(std::move(request)) {}

WebSocket::WebSocket(Request request) : WebSocket(std::move(request), std::make_shared<FoundationSecurity>()) {}

bool WebSocket::respondToPingWithPong() const {
    auto* engine = dynamic_cast<WSEngine*>(engine_.get());
    return engine && engine->respondToPingWithPong();
}

void WebSocket::setRespondToPingWithPong(bool respond) {
    if (auto* engine = dynamic_cast<WSEngine*>(engine_.get())) engine->setRespondToPingWithPong(respond);
}

Limits WebSocket::limits() const {
    auto* engine = dynamic_cast<WSEngine*>(engine_.get());
    return engine ? engine->limits() : Limits{};
}

void WebSocket::setLimits(const Limits& limits) {
    if (auto* engine = dynamic_cast<WSEngine*>(engine_.get())) engine->setLimits(limits);
}

void WebSocket::connect() {
    engine_->registerDelegate(weak_from_this());
    engine_->start(request_);
}

void WebSocket::disconnect(std::uint16_t closeCode) { engine_->stop(closeCode); }

void WebSocket::forceDisconnect() { engine_->forceStop(); }

void WebSocket::write(Bytes data, Engine::WriteCompletion completion) {
    engine_->write(std::move(data), FrameOpCode::binaryFrame, std::move(completion));
}

void WebSocket::write(std::string string, Engine::WriteCompletion completion) {
    engine_->write(std::move(string), std::move(completion));
}

void WebSocket::writeStringData(Bytes stringData, Engine::WriteCompletion completion) {
    engine_->write(std::move(stringData), FrameOpCode::textFrame, std::move(completion));
}

void WebSocket::writePing(Bytes ping, Engine::WriteCompletion completion) {
    engine_->write(std::move(ping), FrameOpCode::ping, std::move(completion));
}

void WebSocket::writePong(Bytes pong, Engine::WriteCompletion completion) {
    engine_->write(std::move(pong), FrameOpCode::pong, std::move(completion));
}

void WebSocket::didReceive(WebSocketEvent event) {
    Arrival arrival;
    if (event.kind == WebSocketEvent::Kind::text) {
        arrival.text = std::move(event.text);
    } else {
        arrival.event = std::make_unique<WebSocketEvent>(std::move(event));
    }
    if (!inbox_.put(std::move(arrival))) return;
    callbackQueue->async([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self) return;
        self->inbox_.deliver([&](Arrival& arrival) {
            WebSocketEvent event;
            if (arrival.event) {
                event = std::move(*arrival.event);
            } else {
                event.kind = WebSocketEvent::Kind::text;
                event.text = std::move(arrival.text);
            }
            if (auto delegate = self->delegate.lock()) {
                if (!self->onEvent) return delegate->didReceive(std::move(event), *self);
                delegate->didReceive(std::as_const(event), *self);
            }
            if (self->onEvent) self->onEvent(event);
        });
    });
}

}  // namespace kelvane::websocket
