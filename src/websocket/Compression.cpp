#include "websocket/Compression.hpp"

#include "websocket/Text.hpp"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <string_view>

namespace kelvane::websocket {
namespace {

// The tail a sync flush ends with, which the sender leaves off every message.
constexpr Bytef kTail[4] = {0x00, 0x00, 0xFF, 0xFF};

WSError compressionError(const char* message) { return WSError{ErrorType::compressionError, message, 0}; }

bool initInflate(z_stream& strm, int windowBits) {
    if (windowBits == INT_MIN) return false;
    strm = z_stream{};
    return inflateInit2_(&strm, -windowBits, ZLIB_VERSION, static_cast<int>(sizeof(z_stream))) == Z_OK;
}

bool initDeflate(z_stream& strm, int windowBits) {
    if (windowBits == INT_MIN) return false;
    strm = z_stream{};
    return deflateInit2_(&strm, -1, 8, -windowBits, 8, 0, ZLIB_VERSION, static_cast<int>(sizeof(z_stream))) == Z_OK;
}

// Appends at most one byte past `limit` (out.size() <= limit on entry); returns false once
// `out` has gone past it. Past half the limit the buffer grows straight to limit + 1, so
// that a message stopped at the limit costs at most one and a half times the limit while
// it grows, not a doubling beyond it.
bool appendWithin(Bytes& out, const Bytef* bytes, std::size_t count, std::size_t limit) {
    const std::size_t room = limit - out.size();
    const std::size_t kept = count > room ? room + 1 : count;
    if (out.size() + kept > out.capacity() && limit < SIZE_MAX) {
        std::size_t grown = std::max(out.capacity() * 2, out.size() + kept);
        if (grown > limit / 2) grown = limit + 1;
        out.reserve(grown);
    }
    out.insert(out.end(), bytes, bytes + kept);
    return kept == count && out.size() <= limit;
}

// Runs zlib over `data` through the fixed buffer until it stops filling it. Accepts a call
// that ended with room left, or one that had nothing at all to do. Stops early, accepted,
// once `out` holds more than `limit` bytes.
template <class Step>
bool drain(z_stream& strm, ByteView data, Bytef* buffer, std::size_t capacity, Bytes& out, std::size_t limit,
           Step step) {
    strm.next_in = const_cast<Bytef*>(data.data());
    strm.avail_in = static_cast<uInt>(data.size());
    int result;
    do {
        strm.next_out = buffer;
        strm.avail_out = static_cast<uInt>(capacity);
        result = step(&strm);
        if (!appendWithin(out, buffer, capacity - strm.avail_out, limit)) return true;
    } while (result == Z_OK && strm.avail_out == 0);
    return (result == Z_OK && strm.avail_out > 0) || (result == Z_BUF_ERROR && strm.avail_out == capacity);
}

// The window bits after "name=", when they are a whole integer.
std::optional<long long> bitsParameter(std::string_view part) {
    return decimal<long long>(trimmed(part.substr(part.find('=') + 1)));
}

// A stream of the given window, or none when zlib (or int) cannot have it.
template <class Stream>
std::unique_ptr<Stream> makeStream(long long bits) {
    if (bits <= INT_MIN || bits > INT_MAX) return nullptr;
    auto stream = std::make_unique<Stream>(static_cast<int>(bits));
    if (!stream->initialized()) return nullptr;
    return stream;
}

}  // namespace

Decompressor::Decompressor(int windowBits) : windowBits_(windowBits) {
    inflateInitialized_ = initInflate(strm_, windowBits_);
}

Decompressor::~Decompressor() {
    if (inflateInitialized_) inflateEnd(&strm_);
}

std::optional<WSError> Decompressor::inflateInto(ByteView data, Bytes& out, std::size_t limit) {
    if (!inflateInitialized_) return compressionError("Error on decompressing");
    bool ok = drain(strm_, data, buffer_.data(), buffer_.size(), out, limit,
                    [](z_stream* s) { return inflate(s, Z_NO_FLUSH); });
    if (!ok) return compressionError("Error on decompressing");
    return std::nullopt;
}

CompressionResult Decompressor::decompress(ByteView data, bool finish, std::size_t limit) {
    Bytes out;
    if (auto error = inflateInto(data, out, limit)) return *error;
    if (finish && out.size() <= limit) {
        if (auto error = inflateInto(ByteView(kTail, sizeof(kTail)), out, limit)) return *error;
    }
    return out;
}

std::optional<WSError> Decompressor::reset() {
    if (inflateInitialized_) inflateEnd(&strm_);
    inflateInitialized_ = initInflate(strm_, windowBits_);
    if (!inflateInitialized_) return compressionError("Error for decompressor on reset");
    return std::nullopt;
}

Compressor::Compressor(int windowBits) : windowBits_(windowBits) {
    deflateInitialized_ = initDeflate(strm_, windowBits_);
}

Compressor::~Compressor() {
    if (deflateInitialized_) deflateEnd(&strm_);
}

CompressionResult Compressor::compress(ByteView data) {
    if (!deflateInitialized_) return compressionError("Error on compressing");
    Bytes out;
    bool ok = drain(strm_, data, buffer_.data(), buffer_.size(), out, SIZE_MAX,
                    [](z_stream* s) { return deflate(s, Z_SYNC_FLUSH); });
    if (!ok) return compressionError("Error on compressing");
    if (out.empty()) {
        // zlib flushes nothing twice in a row, so an empty message after another yields no
        // bytes; the peer, adding the tail, needs the stored block's first byte all the same.
        out.push_back(0x00);
        return out;
    }
    out.resize(out.size() >= sizeof(kTail) ? out.size() - sizeof(kTail) : 0);
    return out;
}

std::optional<WSError> Compressor::reset() {
    if (deflateInitialized_) deflateEnd(&strm_);
    deflateInitialized_ = initDeflate(strm_, windowBits_);
    if (!deflateInitialized_) return compressionError("Error for compressor on reset");
    return std::nullopt;
}

void WSCompression::load(const Headers& headers) {
    auto field = headers.find(headerWSExtensionName);
    if (field == headers.end()) return;
    decompressor_ = makeStream<Decompressor>(15);
    compressor_ = makeStream<Compressor>(15);

    std::string_view rest = field->second;
    for (;;) {
        auto semicolon = rest.find(';');
        auto part = trimmed(rest.substr(0, semicolon));
        if (part.starts_with("server_max_window_bits=")) {
            if (auto bits = bitsParameter(part)) decompressor_ = makeStream<Decompressor>(*bits);
        } else if (part.starts_with("client_max_window_bits=")) {
            if (auto bits = bitsParameter(part)) compressor_ = makeStream<Compressor>(*bits);
        } else if (part == "client_no_context_takeover") {
            compressorTakeOver_ = true;
        } else if (part == "server_no_context_takeover") {
            decompressorTakeOver_ = true;
        }
        if (semicolon == std::string_view::npos) break;
        rest.remove_prefix(semicolon + 1);
    }
}

// With no context takeover the stream starts afresh after every call, fragments included.
// A call cut short at the limit did not succeed: the connection ends over it anyway.
std::optional<Bytes> WSCompression::decompress(ByteView data, bool isFinal, std::size_t limit) {
    if (!decompressor_) return std::nullopt;
    auto result = decompressor_->decompress(data, isFinal, limit);
    auto* bytes = std::get_if<Bytes>(&result);
    if (!bytes) return std::nullopt;
    if (decompressorTakeOver_ && bytes->size() <= limit && decompressor_->reset()) return std::nullopt;
    return std::move(*bytes);
}

std::optional<Bytes> WSCompression::compress(ByteView data) {
    if (!compressor_) return std::nullopt;
    auto result = compressor_->compress(data);
    auto* bytes = std::get_if<Bytes>(&result);
    if (!bytes) return std::nullopt;
    if (compressorTakeOver_ && compressor_->reset()) return std::nullopt;
    return std::move(*bytes);
}

}  // namespace kelvane::websocket
