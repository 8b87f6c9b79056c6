#include "websocket/Framer.hpp"

#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>

namespace kelvane::websocket {
namespace {

// Enough for any header: 2 + 8 length bytes + 4 mask bytes.
constexpr std::size_t kMaxHeader = 14;

std::uint64_t readBigEndian(const std::uint8_t* bytes, std::size_t count) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < count; ++i) value = (value << 8) | bytes[i];
    return value;
}

void writeBigEndian(std::uint8_t* out, std::uint64_t value, std::size_t count) {
    for (std::size_t i = count; i-- > 0;) {
        out[i] = static_cast<std::uint8_t>(value);
        value >>= 8;
    }
}

// XORs with the key that starts `phase` bytes into its four, eight bytes per step.
void applyMask(std::uint8_t* out, const std::uint8_t* in, std::size_t count, const std::uint8_t key[4],
               std::size_t phase) {
    std::uint8_t rotated[8];
    for (std::size_t i = 0; i < 8; ++i) rotated[i] = key[(phase + i) & 3];
    std::uint64_t wide;
    std::memcpy(&wide, rotated, 8);
    std::size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, in + i, 8);
        word ^= wide;
        std::memcpy(out + i, &word, 8);
    }
    for (; i < count; ++i) out[i] = in[i] ^ rotated[i & 3];
}

void appendPayload(Bytes& payload, const std::uint8_t* in, std::size_t count, const std::uint8_t* key) {
    if (count == 0) return;
    if (!key) {
        payload.insert(payload.end(), in, in + count);
        return;
    }
    std::size_t old = payload.size();
    payload.resize(old + count);
    applyMask(payload.data() + old, in, count, key, old & 3);
}

// Masking keys from OpenSSL, drawn in batches so that a frame costs no lock.
std::uint32_t maskingKey() {
    thread_local std::array<std::uint32_t, 64> pool{};
    thread_local std::size_t next = pool.size();
    if (next == pool.size()) {
        if (RAND_bytes(reinterpret_cast<unsigned char*>(pool.data()), static_cast<int>(sizeof(pool))) != 1) {
            std::random_device device;
            for (auto& key : pool) key = device();
        }
        next = 0;
    }
    return pool[next++];
}

bool isInvalidCloseCode(std::uint16_t code) {
    return code < 1000 || (code >= 1004 && code <= 1006) || (code >= 1014 && code <= 2999);
}

}  // namespace

FrameOpCode frameOpCode(std::uint8_t raw) {
    switch (raw) {
        case 0: return FrameOpCode::continueFrame;
        case 1: return FrameOpCode::textFrame;
        case 2: return FrameOpCode::binaryFrame;
        case 8: return FrameOpCode::connectionClose;
        case 9: return FrameOpCode::ping;
        case 10: return FrameOpCode::pong;
        default: return FrameOpCode::unknown;
    }
}

struct WSFramer::Header {
    bool isFin = false;
    bool isMasked = false;
    bool needsDecompression = false;
    FrameOpCode opcode = FrameOpCode::unknown;
    std::uint64_t dataLength = 0;
    std::size_t offset = 0;     // where the payload starts
    std::size_t maskStart = 0;
    std::uint16_t closeCode = 1000;
    std::uint8_t mask[4] = {};  // server side only
};

WSFramer::WSFramer(bool isServer) : queue_(Queue::makeSerial("websocket.framer")), isServer_(isServer) {}

void WSFramer::add(Bytes data) {
    queue_->async([weak = weak_from_this(), data = std::move(data)] {
        if (auto self = weak.lock()) self->addInPlace(data);
    });
}

std::size_t WSFramer::bufferedBytes() const {
    if (!pending_.active || pending_.discard) return buffer_.size();
    return buffer_.size() + pending_.headerLength + pending_.frame.payload.size();
}

void WSFramer::deliver(FrameEvent event) {
    if (auto delegate = delegate_.lock()) delegate->frameProcessed(std::move(event));
}

void WSFramer::fail(std::string message) {
    buffer_.clear();
    FrameEvent event;
    event.isError = true;
    event.error = WSError{ErrorType::protocolError, std::move(message), 1002};
    deliver(std::move(event));
}

WSFramer::Cut WSFramer::readHeader(ByteView bytes, Header& header, std::string& failure) const {
    if (bytes.size() < 2) return Cut::needsMoreData;
    const std::uint8_t b0 = bytes[0], b1 = bytes[1];
    header.isFin = (b0 & 0x80) != 0;
    const bool rsv = (b0 & 0x70) != 0;
    const bool rsv1 = (b0 & 0x40) != 0;
    const std::uint8_t raw = b0 & 0x0F;
    header.isMasked = (b1 & 0x80) != 0;
    const std::uint8_t len7 = b1 & 0x7F;
    header.opcode = frameOpCode(raw);
    const FrameOpCode op = header.opcode;

    // A continuation never says whether its message is compressed; the collector remembers.
    header.needsDecompression = compressionEnabled_ && op != FrameOpCode::continueFrame && rsv1;
    if (!isServer_ && (header.isMasked || rsv) && op != FrameOpCode::pong && !header.needsDecompression) {
        failure = "masked and rsv data is not currently supported";
        return Cut::failed;
    }
    const bool control = op == FrameOpCode::connectionClose || op == FrameOpCode::ping;
    if (!control && op != FrameOpCode::binaryFrame && op != FrameOpCode::continueFrame &&
        op != FrameOpCode::textFrame && op != FrameOpCode::pong) {
        failure = "unknown opcode: " + std::to_string(raw);
        return Cut::failed;
    }
    if (control && !header.isFin) {
        failure = "control frames can't be fragmented";
        return Cut::failed;
    }
    std::size_t offset = 2;
    if (control && len7 > 125) {
        failure = "payload length is longer than allowed for a control frame";
        return Cut::failed;
    }
    header.dataLength = len7;
    header.closeCode = 1000;
    if (op == FrameOpCode::connectionClose) {
        if (len7 == 1) {
            header.closeCode = 1002;
            header.dataLength = 0;
        } else if (len7 > 1) {
            if (bytes.size() < 4) return Cut::needsMoreData;
            auto code = static_cast<std::uint16_t>(readBigEndian(bytes.data() + offset, 2));
            offset += 2;
            header.dataLength -= 2;
            header.closeCode = isInvalidCloseCode(code) ? 1002 : code;
        }
    }
    if (len7 == 127) {
        if (bytes.size() < offset + 8) return Cut::needsMoreData;
        header.dataLength = readBigEndian(bytes.data() + offset, 8);
        offset += 8;
    } else if (len7 == 126) {
        if (bytes.size() < offset + 2) return Cut::needsMoreData;
        header.dataLength = readBigEndian(bytes.data() + offset, 2);
        offset += 2;
    }
    header.maskStart = offset;
    if (isServer_) offset += 4;
    if (bytes.size() < offset) return Cut::needsMoreData;
    if (isServer_) std::memcpy(header.mask, bytes.data() + header.maskStart, 4);
    header.offset = offset;
    return Cut::header;
}

std::size_t WSFramer::takePayload(const Header& header, ByteView rest) {
    if (header.dataLength > limits_.maxFrameSize) {
        FrameEvent event;
        event.isError = true;
        event.error = WSError{ErrorType::protocolError, "frame too big", 1009};
        deliver(std::move(event));
        // Counted off as it comes, so that what follows it is still read as frames.
        auto count = static_cast<std::size_t>(std::min<std::uint64_t>(header.dataLength, rest.size()));
        pending_ = Pending{};
        if (header.dataLength > count) {
            pending_.active = true;
            pending_.discard = true;
            pending_.remaining = header.dataLength - count;
        }
        return count;
    }
    const std::uint8_t* key = isServer_ ? header.mask : nullptr;
    Frame frame;
    frame.isFin = header.isFin;
    frame.needsDecompression = header.needsDecompression;
    frame.isMasked = header.isMasked;
    frame.opcode = header.opcode;
    frame.payloadLength = header.dataLength;
    frame.closeCode = header.closeCode;

    if (header.dataLength <= rest.size()) {
        auto length = static_cast<std::size_t>(header.dataLength);
        appendPayload(frame.payload, rest.data(), length, key);
        FrameEvent event;
        event.frame = std::move(frame);
        deliver(std::move(event));
        return length;
    }
    appendPayload(frame.payload, rest.data(), rest.size(), key);
    pending_.active = true;
    pending_.frame = std::move(frame);
    pending_.remaining = header.dataLength - rest.size();
    pending_.headerLength = header.offset;
    if (key) std::memcpy(pending_.mask, key, 4);
    return rest.size();
}

ByteView WSFramer::feedPending(ByteView data) {
    auto count = static_cast<std::size_t>(std::min<std::uint64_t>(pending_.remaining, data.size()));
    pending_.remaining -= count;
    if (pending_.discard) {
        if (pending_.remaining == 0) pending_ = Pending{};
        return data.subspan(count);
    }
    appendPayload(pending_.frame.payload, data.data(), count, isServer_ ? pending_.mask : nullptr);
    if (pending_.remaining == 0) {
        FrameEvent event;
        event.frame = std::move(pending_.frame);
        pending_ = Pending{};
        deliver(std::move(event));
    }
    return data.subspan(count);
}

void WSFramer::addInPlace(ByteView data) {
    if (pending_.active) {
        data = feedPending(data);
        if (data.empty()) return;
    }
    Header header;
    std::string failure;
    if (!buffer_.empty()) {
        // Finish the waiting header with as few of the new bytes as it takes.
        const std::size_t old = buffer_.size();
        const std::size_t borrowed = std::min(data.size(), kMaxHeader - std::min(old, kMaxHeader));
        buffer_.insert(buffer_.end(), data.begin(), data.begin() + static_cast<std::ptrdiff_t>(borrowed));
        switch (readHeader(buffer_, header, failure)) {
            case Cut::needsMoreData: return;
            case Cut::failed: fail(std::move(failure)); return;
            case Cut::header: break;
        }
        data = data.subspan(header.offset > old ? header.offset - old : 0);
        buffer_.clear();
        data = data.subspan(takePayload(header, data));
    }
    while (!data.empty()) {
        switch (readHeader(data, header, failure)) {
            case Cut::needsMoreData: buffer_.assign(data.begin(), data.end()); return;
            case Cut::failed: fail(std::move(failure)); return;
            case Cut::header: break;
        }
        data = data.subspan(header.offset);
        data = data.subspan(takePayload(header, data));
    }
}

Bytes WSFramer::createWriteFrame(FrameOpCode opcode, ByteView payload, bool isCompressed) {
    const std::size_t length = payload.size();
    std::uint8_t head[kMaxHeader];
    head[0] = static_cast<std::uint8_t>(static_cast<std::uint8_t>(opcode) | 0x80);
    if (isCompressed) head[0] |= 0x40;
    std::size_t offset;
    if (length < 126) {
        head[1] = static_cast<std::uint8_t>(length);
        offset = 2;
    } else if (length <= 0xFFFF) {
        head[1] = 126;
        writeBigEndian(head + 2, length, 2);
        offset = 4;
    } else {
        head[1] = 127;
        writeBigEndian(head + 2, length, 8);
        offset = 10;
    }
    Bytes frame;
    if (isServer_) {
        frame.reserve(offset + length);
        frame.insert(frame.end(), head, head + offset);
        frame.insert(frame.end(), payload.begin(), payload.end());
        return frame;
    }
    head[1] |= 0x80;
    std::uint8_t key[4];
    writeBigEndian(key, maskingKey(), 4);
    std::memcpy(head + offset, key, 4);
    offset += 4;
    frame.resize(offset + length);
    std::memcpy(frame.data(), head, offset);
    applyMask(frame.data() + offset, payload.data(), length, key, 0);
    return frame;
}

}  // namespace kelvane::websocket
