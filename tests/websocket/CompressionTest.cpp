#include "websocket/Compression.hpp"

#include <gtest/gtest.h>

#include <random>
#include <string>

using namespace kelvane;
using namespace kelvane::websocket;

namespace {

Bytes json(std::size_t atLeast) {
    std::string out;
    for (int i = 0; out.size() < atLeast; ++i) {
        out += "42[\"update\",{\"id\":" + std::to_string(i * 37) + ",\"price\":" + std::to_string(1000 + i % 97) +
               ",\"state\":\"open\"}]";
    }
    return Bytes(out.begin(), out.end());
}

Bytes noise(std::size_t n) {
    std::mt19937 engine(7);
    Bytes out(n);
    for (auto& b : out) b = static_cast<std::uint8_t>(engine());
    return out;
}

Bytes unwrap(const CompressionResult& result) {
    EXPECT_TRUE(std::holds_alternative<Bytes>(result));
    return std::holds_alternative<Bytes>(result) ? std::get<Bytes>(result) : Bytes{};
}

WSCompression loaded(const std::string& extensions) {
    WSCompression compression;
    compression.load({{"Sec-WebSocket-Extensions", extensions}});
    return compression;
}

}  // namespace

TEST(Compression, LoadsWhatTheServerAgreed) {
    WSCompression none;
    none.load({{"sec-websocket-extensions", "permessage-deflate"}});
    EXPECT_EQ(none.decompressor(), nullptr);
    EXPECT_EQ(none.compressor(), nullptr);
    EXPECT_FALSE(none.compress(asBytes("x")));

    auto plain = loaded("permessage-deflate; client_max_window_bits");
    ASSERT_NE(plain.decompressor(), nullptr);
    ASSERT_NE(plain.compressor(), nullptr);
    EXPECT_EQ(plain.decompressor()->windowBits(), 15);
    EXPECT_EQ(plain.compressor()->windowBits(), 15);
    EXPECT_FALSE(plain.compressorTakeOver());
    EXPECT_FALSE(plain.decompressorTakeOver());

    auto sized = loaded("permessage-deflate;server_max_window_bits = 10 ; client_max_window_bits=  9 ");
    EXPECT_EQ(sized.decompressor()->windowBits(), 15);  // "server_max_window_bits =" is no such part
    EXPECT_EQ(sized.compressor()->windowBits(), 9);
    EXPECT_EQ(loaded("permessage-deflate; server_max_window_bits=10")
                  .decompressor()->windowBits(), 10);
    EXPECT_EQ(loaded("permessage-deflate; server_max_window_bits=ten").decompressor()->windowBits(), 15);

    auto takeover = loaded("permessage-deflate; client_no_context_takeover; server_no_context_takeover");
    EXPECT_TRUE(takeover.compressorTakeOver());
    EXPECT_TRUE(takeover.decompressorTakeOver());

    auto refused = loaded("permessage-deflate; server_max_window_bits=3; client_max_window_bits=99");
    EXPECT_EQ(refused.decompressor(), nullptr);
    EXPECT_EQ(refused.compressor(), nullptr);
    EXPECT_FALSE(refused.decompress(asBytes("x"), true));
    auto huge = loaded("server_max_window_bits=-2147483648; client_max_window_bits=99999999999999999999");
    EXPECT_EQ(huge.decompressor(), nullptr);
    EXPECT_EQ(huge.compressor()->windowBits(), 15);
}

TEST(Compression, RoundTripsMessagesOfAnySize) {
    Compressor compressor(15);
    Decompressor decompressor(15);
    for (const Bytes& message : {json(100), Bytes{}, json(200000), noise(30000), json(100)}) {
        Bytes packed = unwrap(compressor.compress(message));
        if (message.size() > 20000) {
            EXPECT_GT(packed.size(), 8192u);
        }
        EXPECT_EQ(unwrap(decompressor.decompress(packed, true)), message);
    }

    // An empty message after another is still one stored block's first byte.
    EXPECT_EQ(unwrap(compressor.compress(Bytes{})), Bytes{0x00});
    EXPECT_EQ(unwrap(decompressor.decompress(Bytes{0x00}, true)), Bytes{});

    // A message split anywhere inflates the same when only the last call adds the tail.
    Bytes message = json(50000);
    Bytes packed = unwrap(compressor.compress(message));
    Bytes joined = unwrap(decompressor.decompress(ByteView(packed).first(1000), false));
    Bytes rest = unwrap(decompressor.decompress(ByteView(packed).subspan(1000), true));
    joined.insert(joined.end(), rest.begin(), rest.end());
    EXPECT_EQ(joined, message);

    auto broken = decompressor.decompress(noise(64), true);
    ASSERT_TRUE(std::holds_alternative<WSError>(broken));
    EXPECT_EQ(std::get<WSError>(broken), (WSError{ErrorType::compressionError, "Error on decompressing", 0}));
    EXPECT_FALSE(decompressor.reset());
    EXPECT_EQ(unwrap(decompressor.decompress(unwrap(Compressor(15).compress(message)), true)), message);
}

TEST(Compression, ContextTakeoverDecidesWhetherRepeatsShrink) {
    Bytes message = json(300);
    auto fresh = loaded("permessage-deflate; client_no_context_takeover; server_no_context_takeover");
    auto first = fresh.compress(message);
    auto second = fresh.compress(message);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(*first, *second);
    EXPECT_EQ(fresh.decompress(*first, true), message);
    EXPECT_EQ(fresh.decompress(*second, true), message);
    // Only a call that succeeded is followed by a reset: a failed one leaves the stream broken.
    EXPECT_FALSE(fresh.decompress(noise(40), true));
    EXPECT_FALSE(fresh.decompress(*first, true));

    auto kept = loaded("permessage-deflate");
    auto one = kept.compress(message);
    auto two = kept.compress(message);
    ASSERT_TRUE(one && two);
    EXPECT_LT(two->size(), one->size());
    EXPECT_EQ(kept.decompress(*one, true), message);
    EXPECT_EQ(kept.decompress(*two, true), message);
    EXPECT_FALSE(kept.decompress(noise(40), true));
}
