// Raw inflate of hostile bytes: the first byte picks the window (low nibble) and which
// calls add the tail (high nibble, one bit per call, the last call always does); the second
// sets the size of the pieces. Then our own deflate of the same bytes must inflate back.
#include "websocket/Compression.hpp"

#include <cstdint>
#include <cstdlib>

using namespace kelvane;
using namespace kelvane::websocket;

namespace {
void check(bool holds) {
    if (!holds) std::abort();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const int bits = 8 + (data[0] & 7);
    const unsigned finishes = data[0] >> 4;
    const std::size_t piece = data[1] + 1;
    ByteView stream(data + 2, size - 2);

    Decompressor decompressor(bits);
    check(decompressor.initialized());
    std::size_t call = 0;
    for (std::size_t at = 0; at < stream.size(); at += piece, ++call) {
        bool last = at + piece >= stream.size();
        bool finish = last || ((finishes >> (call % 4)) & 1);
        if (std::holds_alternative<WSError>(decompressor.decompress(stream.subspan(at, std::min(piece, stream.size() - at)), finish))) {
            check(!decompressor.reset());
        }
    }

    const int deflateBits = bits < 9 ? 9 : bits;
    Compressor compressor(deflateBits);
    Decompressor inflater(deflateBits);
    for (int round = 0; round < 2; ++round) {
        auto packed = compressor.compress(stream);
        check(std::holds_alternative<Bytes>(packed));
        auto unpacked = inflater.decompress(std::get<Bytes>(packed), true);
        check(std::holds_alternative<Bytes>(unpacked));
        check(std::get<Bytes>(unpacked) == Bytes(stream.begin(), stream.end()));
    }
    return 0;
}
