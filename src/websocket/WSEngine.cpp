#include "websocket/Engine.hpp"

#include "websocket/HTTPWSHeader.hpp"

#include <cerrno>

namespace kelvane::websocket {

const char* eventKindName(WebSocketEvent::Kind kind) {
    switch (kind) {
        case WebSocketEvent::Kind::connected: return "connected";
        case WebSocketEvent::Kind::disconnected: return "disconnected";
        case WebSocketEvent::Kind::text: return "text";
        case WebSocketEvent::Kind::binary: return "binary";
        case WebSocketEvent::Kind::pong: return "pong";
        case WebSocketEvent::Kind::ping: return "ping";
        case WebSocketEvent::Kind::error: return "error";
        case WebSocketEvent::Kind::viabilityChanged: return "viabilityChanged";
        case WebSocketEvent::Kind::reconnectSuggested: return "reconnectSuggested";
        case WebSocketEvent::Kind::cancelled: return "cancelled";
        case WebSocketEvent::Kind::peerClosed: return "peerClosed";
    }
    return "?";
}

WSEngine::WSEngine(std::shared_ptr<Transport> transport, std::shared_ptr<CertificatePinning> certPinner,
                   std::shared_ptr<Framer> framer, std::shared_ptr<CompressionHandler> compressionHandler,
                   std::shared_ptr<HTTPHandler> httpHandler, std::shared_ptr<HeaderValidator> headerChecker)
    : transport_(std::move(transport)),
      framer_(framer ? std::move(framer) : std::make_shared<WSFramer>()),
      httpHandler_(httpHandler ? std::move(httpHandler) : std::make_shared<FoundationHTTPHandler>()),
      compressionHandler_(std::move(compressionHandler)),
      certPinner_(std::move(certPinner)),
      headerChecker_(headerChecker ? std::move(headerChecker) : std::make_shared<FoundationSecurity>()) {
    // Decided by whether we offer deflate, whatever the server later agrees to.
    framer_->updateCompression(compressionHandler_ != nullptr);
}

WSEngine::Flags WSEngine::flags() const {
    std::lock_guard lock(mutex_);
    return flags_;
}

void WSEngine::setLimits(const Limits& limits) {
    limits_ = limits;
    transport_->setLimits(limits);
    framer_->setLimits(limits);
    httpHandler_->setLimits(limits);
    frameHandler_->setLimits(limits);
}

void WSEngine::registerDelegate(std::weak_ptr<EngineDelegate> delegate) {
    std::lock_guard lock(delegateMutex_);
    delegate_ = std::move(delegate);
}

void WSEngine::start(Request request) {
    {
        std::lock_guard lock(mutex_);
        if (flags_.isConnecting || flags_.canSend) return;
    }
    request_ = std::move(request);
    auto self = weak_from_this();
    transport_->registerDelegate(self);
    framer_->registerDelegate(self);
    httpHandler_->registerDelegate(self);
    frameHandler_->setDelegate(self);
    if (!request_->url) return;
    if (auto field = request_->fieldWithLineBreak()) {
        handleError(Error{"kelvane.websocket", EINVAL, "header field \"" + *field + "\" holds a line break"});
        return;
    }
    {
        std::lock_guard lock(mutex_);
        flags_.isConnecting = true;
    }
    transport_->connect(*request_->url, request_->timeoutInterval, certPinner_);
}

void WSEngine::stop(std::uint16_t closeCode) {
    Bytes payload{static_cast<std::uint8_t>(closeCode >> 8), static_cast<std::uint8_t>(closeCode & 0xFF)};
    write(std::move(payload), FrameOpCode::connectionClose, [weak = weak_from_this()] {
        if (auto self = weak.lock()) {
            self->reset();
            self->forceStop();
        }
    });
}

void WSEngine::forceStop() {
    {
        std::lock_guard lock(mutex_);
        flags_.isConnecting = false;
    }
    transport_->disconnect();
}

void WSEngine::write(std::string string, WriteCompletion completion) {
    enqueue(std::move(string), FrameOpCode::textFrame, std::move(completion));
}

void WSEngine::write(Bytes data, FrameOpCode opcode, WriteCompletion completion) {
    enqueue(std::move(data), opcode, std::move(completion));
}

// The payload rides to the write queue as it came, text or bytes, and is copied once, into
// the frame, as it is masked.
template <class Payload>
void WSEngine::enqueue(Payload payload, FrameOpCode opcode, WriteCompletion completion) {
    writeQueue_->async([weak = weak_from_this(), payload = std::move(payload), opcode,
                        completion = std::move(completion)]() mutable {
        auto self = weak.lock();
        if (!self) return;
        {
            std::lock_guard lock(self->mutex_);
            if (!self->flags_.canSend) return;
        }
        const ByteView view(reinterpret_cast<const std::uint8_t*>(payload.data()), payload.size());
        std::optional<Bytes> compressed;
        // Servers fail the connection on a control frame with RSV1, as the extension says.
        const bool control = opcode == FrameOpCode::connectionClose || opcode == FrameOpCode::ping ||
                             opcode == FrameOpCode::pong;
        if (self->compressionHandler_ && !control) compressed = self->compressionHandler_->compress(view);
        Bytes frame = self->framer_->createWriteFrame(opcode, compressed ? ByteView(*compressed) : view,
                                                      compressed.has_value());
        Transport::WriteCompletion done;
        if (completion) done = [completion = std::move(completion)](std::optional<Failure>) { completion(); };
        self->transport_->write(std::move(frame), std::move(done));
    });
}

void WSEngine::connectionChanged(ConnectionState state) {
    switch (state.kind) {
        case ConnectionState::Kind::connected: {
            secKeyValue_ = HTTPWSHeader::generateWebSocketKey();
            auto upgrade = HTTPWSHeader::createUpgrade(*request_, framer_->supportsCompression(), secKeyValue_);
            transport_->write(httpHandler_->convert(upgrade), nullptr);
            break;
        }
        case ConnectionState::Kind::waiting:
            break;
        case ConnectionState::Kind::failed:
            handleError(std::move(state.error));
            break;
        case ConnectionState::Kind::viability: {
            WebSocketEvent event{WebSocketEvent::Kind::viabilityChanged};
            event.flag = state.flag;
            broadcast(std::move(event));
            break;
        }
        case ConnectionState::Kind::shouldReconnect: {
            WebSocketEvent event{WebSocketEvent::Kind::reconnectSuggested};
            event.flag = state.flag;
            broadcast(std::move(event));
            break;
        }
        case ConnectionState::Kind::receive: {
            bool upgraded;
            {
                std::lock_guard lock(mutex_);
                upgraded = flags_.didUpgrade;
            }
            if (upgraded) {
                framer_->add(std::move(state.data));
                break;
            }
            auto offset = httpHandler_->parse(state.data);
            if (offset > 0) {
                framer_->add(Bytes(state.data.begin() + offset, state.data.end()));
            }
            break;
        }
        case ConnectionState::Kind::cancelled: {
            {
                std::lock_guard lock(mutex_);
                flags_.isConnecting = false;
            }
            broadcast(WebSocketEvent{WebSocketEvent::Kind::cancelled});
            break;
        }
        case ConnectionState::Kind::peerClosed:
            broadcast(WebSocketEvent{WebSocketEvent::Kind::peerClosed});
            break;
    }
}

void WSEngine::didReceiveHTTP(const HTTPEvent& event) {
    if (!event.success) {
        if (event.tooBig) {
            // No close frame can go before the upgrade: the transport is cut instead.
            handleError(Failure(*event.tooBig));
            forceStop();
            return;
        }
        handleError(Failure(event.error));
        return;
    }
    if (auto refusal = headerChecker_->validate(event.headers, secKeyValue_)) {
        handleError(Failure(*refusal));
        return;
    }
    {
        std::lock_guard lock(mutex_);
        flags_.isConnecting = false;
        flags_.didUpgrade = true;
        flags_.canSend = true;
    }
    if (compressionHandler_) compressionHandler_->load(event.headers);
    // No shared cookie store on this platform: nothing to keep from the response.
    WebSocketEvent connected{WebSocketEvent::Kind::connected};
    connected.headers = event.headers;
    broadcast(std::move(connected));
}

void WSEngine::frameProcessed(FrameEvent event) {
    if (event.isError) {
        handleError(Failure(std::move(event.error)));
        return;
    }
    frameHandler_->add(std::move(event.frame));
}

std::optional<Bytes> WSEngine::decompress(ByteView data, bool isFinal, std::size_t limit) {
    if (!compressionHandler_) return std::nullopt;
    return compressionHandler_->decompress(data, isFinal, limit);
}

void WSEngine::didForm(FrameCollector::Event event) {
    using Kind = FrameCollector::Event::Kind;
    switch (event.kind) {
        case Kind::text: {
            WebSocketEvent text{WebSocketEvent::Kind::text};
            text.text = std::move(event.text);
            broadcast(std::move(text));
            break;
        }
        case Kind::binary: {
            WebSocketEvent binary{WebSocketEvent::Kind::binary};
            binary.data = std::move(event.data);
            broadcast(std::move(binary));
            break;
        }
        case Kind::pong: {
            WebSocketEvent pong{WebSocketEvent::Kind::pong};
            pong.payload = std::move(event.data);
            broadcast(std::move(pong));
            break;
        }
        case Kind::ping: {
            WebSocketEvent ping{WebSocketEvent::Kind::ping};
            ping.payload = event.data;
            broadcast(std::move(ping));
            if (respondToPingWithPong_) write(std::move(event.data), FrameOpCode::pong);
            break;
        }
        case Kind::closed: {
            WebSocketEvent disconnected{WebSocketEvent::Kind::disconnected};
            disconnected.text = std::move(event.text);
            disconnected.code = event.code;
            broadcast(std::move(disconnected));
            stop(event.code);
            break;
        }
        case Kind::error:
            handleError(Failure(std::move(event.error)));
            break;
    }
}

void WSEngine::broadcast(WebSocketEvent event) {
    std::shared_ptr<EngineDelegate> delegate;
    {
        std::lock_guard lock(delegateMutex_);
        delegate = delegate_.lock();
    }
    if (delegate) delegate->didReceive(std::move(event));
}

void WSEngine::handleError(std::optional<Failure> error) {
    if (error && std::holds_alternative<WSError>(*error)) {
        stop(std::get<WSError>(*error).code);
    } else {
        stop();
    }
    WebSocketEvent event{WebSocketEvent::Kind::error};
    event.error = std::move(error);
    broadcast(std::move(event));
}

void WSEngine::reset() {
    std::lock_guard lock(mutex_);
    flags_.isConnecting = false;
    flags_.canSend = false;
    flags_.didUpgrade = false;
}

}  // namespace kelvane::websocket
