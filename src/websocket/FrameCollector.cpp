#include "websocket/Framer.hpp"

#include "support/Utf8.hpp"

namespace kelvane::websocket {
namespace {

FrameCollector::Event protocolError(std::string message, std::uint16_t code = 1002) {
    FrameCollector::Event event;
    event.kind = FrameCollector::Event::Kind::error;
    event.error = WSError{ErrorType::protocolError, std::move(message), code};
    return event;
}

}  // namespace

void FrameCollector::add(Frame frame) {
    using Kind = Event::Kind;
    auto delegate = delegate_.lock();
    auto deliver = [&](Event event) {
        if (delegate) delegate->didForm(std::move(event));
    };

    // Control frames may arrive between fragments and leave the message being joined alone.
    if (frame.opcode == FrameOpCode::connectionClose) {
        Event event;
        event.kind = Kind::closed;
        event.code = frame.closeCode;
        auto reason = asText(frame.payload);
        if (isValidUTF8(reason)) {
            event.text.assign(reason);
        } else {
            event.text = "connection closed by server";
            event.code = 1002;
        }
        deliver(std::move(event));
        return;
    }
    if (frame.opcode == FrameOpCode::pong || frame.opcode == FrameOpCode::ping) {
        Event event;
        event.kind = frame.opcode == FrameOpCode::pong ? Kind::pong : Kind::ping;
        event.data = std::move(frame.payload);
        deliver(std::move(event));
        return;
    }
    if (skipping_) {
        skipping_ = false;
        if (frame.opcode == FrameOpCode::continueFrame) {
            skipping_ = !frame.isFin;
            return;
        }
    }
    if (frame.opcode == FrameOpCode::continueFrame && frameCount_ == 0) {
        deliver(protocolError("first frame can't be a continue frame"));
        reset();
        return;
    }
    if (frameCount_ > 0 && frame.opcode != FrameOpCode::continueFrame) {
        deliver(protocolError("second and beyond of fragment message must be a continue frame"));
        reset();
        return;
    }
    if (frameCount_ == 0) {
        isText_ = frame.opcode == FrameOpCode::textFrame;
        needsDecompression_ = frame.needsDecompression;
    }

    // What this frame may still add; the buffer never holds more than the limit.
    const std::size_t room = limits_.maxMessageSize - std::min(buffer_.size(), limits_.maxMessageSize);
    Bytes payload;
    if (needsDecompression_ && delegate) {
        auto inflated = delegate->decompress(frame.payload, frame.isFin, room);
        payload = inflated ? std::move(*inflated) : std::move(frame.payload);
    } else {
        payload = std::move(frame.payload);
    }
    if (payload.size() > room) {
        reset();
        skipping_ = !frame.isFin;
        deliver(protocolError("message too big", 1009));
        return;
    }

    // A message of one frame skips the buffer.
    if (frameCount_ > 0 || !frame.isFin) {
        buffer_.insert(buffer_.end(), payload.begin(), payload.end());
        ++frameCount_;
        if (!frame.isFin) return;
        payload = std::move(buffer_);
        reset();
    }

    if (isText_) {
        if (isValidUTF8(asText(payload))) {
            Event event;
            event.kind = Kind::text;
            event.text.assign(asText(payload));
            deliver(std::move(event));
        } else {
            deliver(protocolError("not valid UTF-8 data"));
        }
    } else {
        Event event;
        event.kind = Kind::binary;
        event.data = std::move(payload);
        deliver(std::move(event));
    }
}

void FrameCollector::reset() {
    buffer_.clear();
    frameCount_ = 0;
}

}  // namespace kelvane::websocket
