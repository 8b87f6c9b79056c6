#pragma once

#include "websocket/WSError.hpp"

#include <kelvane/Bytes.hpp>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <variant>

#include <zlib.h>

namespace kelvane::websocket {

// Bytes, or the error that stopped the stream.
using CompressionResult = std::variant<Bytes, WSError>;

// Raw inflate with a given window. The output buffer is reused for the life of the object.
// Not movable: zlib keeps pointers into the stream.
class Decompressor {
public:
    explicit Decompressor(int windowBits);
    ~Decompressor();
    Decompressor(const Decompressor&) = delete;
    Decompressor& operator=(const Decompressor&) = delete;

    bool initialized() const { return inflateInitialized_; }
    int windowBits() const { return windowBits_; }
    // Inflates `data`; with `finish`, inflates the 00 00 FF FF tail into the same output.
    // Stops once the output passes `limit`, cut to limit + 1 bytes: the stream is then left
    // mid-message, and only a reset makes it usable again.
    CompressionResult decompress(ByteView data, bool finish, std::size_t limit = SIZE_MAX);
    // Starts a fresh stream; "Error for decompressor on reset" when zlib refuses.
    std::optional<WSError> reset();

private:
    std::optional<WSError> inflateInto(ByteView data, Bytes& out, std::size_t limit);
    z_stream strm_{};
    std::array<Bytef, 8192> buffer_{};
    bool inflateInitialized_ = false;
    int windowBits_;
};

// Raw deflate with sync flushes, the trailing 00 00 FF FF cut off.
class Compressor {
public:
    explicit Compressor(int windowBits);
    ~Compressor();
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;

    bool initialized() const { return deflateInitialized_; }
    int windowBits() const { return windowBits_; }
    CompressionResult compress(ByteView data);
    std::optional<WSError> reset();

private:
    z_stream strm_{};
    std::array<Bytef, 8192> buffer_{};
    bool deflateInitialized_ = false;
    int windowBits_;
};

class CompressionHandler {
public:
    virtual ~CompressionHandler() = default;
    // On the transport's queue, once the upgrade has been accepted.
    virtual void load(const Headers& headers) = 0;
    // On the framer's queue. Nothing means: use the payload as it stands. Inflates no further
    // than one byte past `limit`; a longer result means the message is over its limit.
    virtual std::optional<Bytes> decompress(ByteView data, bool isFinal, std::size_t limit) = 0;
    // On the write queue. Nothing means: send the payload uncompressed.
    virtual std::optional<Bytes> compress(ByteView data) = 0;
};

// permessage-deflate: reads the server's agreement and owns the connection's two streams.
// Without context takeover a stream is reset after each call that succeeded; a failed call
// leaves it where it stopped, and a failed reset counts as a failed call.
class WSCompression final : public CompressionHandler {
public:
    static constexpr const char* headerWSExtensionName = "Sec-WebSocket-Extensions";

    void load(const Headers& headers) override;
    std::optional<Bytes> decompress(ByteView data, bool isFinal, std::size_t limit = SIZE_MAX) override;
    std::optional<Bytes> compress(ByteView data) override;

    // What load() agreed (for tests).
    const Decompressor* decompressor() const { return decompressor_.get(); }
    const Compressor* compressor() const { return compressor_.get(); }
    // True: reset after every message (no context takeover).
    bool decompressorTakeOver() const { return decompressorTakeOver_; }
    bool compressorTakeOver() const { return compressorTakeOver_; }

private:
    std::unique_ptr<Decompressor> decompressor_;
    std::unique_ptr<Compressor> compressor_;
    bool decompressorTakeOver_ = false;
    bool compressorTakeOver_ = false;
};

}  // namespace kelvane::websocket
