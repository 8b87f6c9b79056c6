#include "websocket/Compression.hpp"
#include "websocket/Framer.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>

using namespace kelvane;
using namespace kelvane::websocket;

namespace {

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
Bytes text(std::string_view s) { return Bytes(s.begin(), s.end()); }
Bytes pattern(std::size_t n) {
    Bytes out(n);
    for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
    return out;
}

// An unmasked frame as a server sends it, its first byte given whole.
Bytes serverFrame(std::uint8_t b0, const Bytes& payload) {
    Bytes out{b0};
    std::uint64_t n = payload.size();
    int lengthBytes = n < 126 ? 0 : n <= 0xFFFF ? 2 : 8;
    out.push_back(static_cast<std::uint8_t>(lengthBytes == 0 ? n : lengthBytes == 2 ? 126 : 127));
    for (int i = lengthBytes - 1; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(n >> (8 * i)));
    return out + payload;
}

struct Reader : FramerEventClient {
    std::shared_ptr<WSFramer> framer;
    std::vector<FrameEvent> events;
    void frameProcessed(FrameEvent event) override { events.push_back(std::move(event)); }
    static std::shared_ptr<Reader> make(bool isServer = false, bool compression = false) {
        auto reader = std::make_shared<Reader>();
        reader->framer = std::make_shared<WSFramer>(isServer);
        reader->framer->registerDelegate(reader);
        reader->framer->updateCompression(compression);
        return reader;
    }
    void feed(const Bytes& data, std::size_t piece = SIZE_MAX) {
        for (std::size_t at = 0; at < data.size(); at += piece) {
            framer->addInPlace(ByteView(data).subspan(at, std::min(piece, data.size() - at)));
        }
    }
};

bool sameEvent(const FrameEvent& a, const FrameEvent& b) {
    const Frame &x = a.frame, &y = b.frame;
    return a.isError == b.isError && a.error == b.error && x.isFin == y.isFin &&
           x.needsDecompression == y.needsDecompression && x.isMasked == y.isMasked && x.opcode == y.opcode &&
           x.payloadLength == y.payloadLength && x.payload == y.payload && x.closeCode == y.closeCode;
}

WSError protocolFailure(const std::string& message) { return WSError{ErrorType::protocolError, message, 1002}; }
WSError tooBig(const std::string& message) { return WSError{ErrorType::protocolError, message, 1009}; }

}  // namespace

TEST(Framer, WaitsForMissingBytesWithoutTrustingTheLength) {
    auto reader = Reader::make();
    Bytes wire = serverFrame(0x82, pattern(200));
    using Step = std::tuple<int, int, int>;
    for (auto [from, count, held] : {Step{0, 2, 2}, Step{2, 1, 3}, Step{3, 101, 104}}) {
        reader->framer->addInPlace(ByteView(wire).subspan(from, count));
        EXPECT_TRUE(reader->events.empty());
        EXPECT_EQ(reader->framer->bufferedBytes(), std::size_t(held));
    }
    reader->framer->addInPlace(ByteView(wire).subspan(104));
    ASSERT_EQ(reader->events.size(), 1u);
    EXPECT_EQ(reader->events[0].frame.payload, pattern(200));
    EXPECT_EQ(reader->framer->bufferedBytes(), 0u);

    auto queued = Reader::make();
    queued->framer->add(serverFrame(0x81, text("hi")));
    queued->framer->queue()->sync([] {});
    ASSERT_EQ(queued->events.size(), 1u);
}

TEST(Framer, RefusesAFrameOverItsLimitAndCountsItsPayloadOffUnkept) {
    Limits limits;
    limits.maxFrameSize = 100;
    Bytes stream = serverFrame(0x82, pattern(100)) + serverFrame(0x82, pattern(101)) + serverFrame(0x81, text("next"));
    for (std::size_t piece : {SIZE_MAX, std::size_t{1}, std::size_t{7}}) {
        auto reader = Reader::make();
        reader->framer->setLimits(limits);
        reader->feed(Bytes(stream.begin(), stream.begin() + 120), piece);
        EXPECT_EQ(reader->framer->bufferedBytes(), 0u) << piece;
        reader->feed(Bytes(stream.begin() + 120, stream.end()), piece);
        ASSERT_EQ(reader->events.size(), 3u) << piece;
        EXPECT_EQ(reader->events[0].frame.payload, pattern(100));
        EXPECT_EQ(reader->events[1].error, tooBig("frame too big"));
        EXPECT_EQ(reader->events[2].frame.payload, text("next"));
    }

    // 2^63 bytes announced, under the default limits: refused at once, nothing held.
    auto huge = Reader::make();
    huge->feed(Bytes{0x82, 127, 0x80, 0, 0, 0, 0, 0, 0, 0} + pattern(1000));
    ASSERT_EQ(huge->events.size(), 1u);
    EXPECT_EQ(huge->events[0].error, tooBig("frame too big"));
    EXPECT_EQ(huge->framer->bufferedBytes(), 0u);
}

TEST(Framer, CutsTheSameFramesHoweverTheReadsFall) {
    auto three = Reader::make();
    three->feed(serverFrame(0x81, text("one")) + serverFrame(0x82, text("two")) + serverFrame(0x8A, text("3")));
    ASSERT_EQ(three->events.size(), 3u);
    EXPECT_EQ(three->events[0].frame.opcode, FrameOpCode::textFrame);
    EXPECT_EQ(three->events[1].frame.payload, text("two"));
    EXPECT_EQ(three->events[2].frame.opcode, FrameOpCode::pong);

    Bytes stream = serverFrame(0x01, text("frag")) + serverFrame(0x89, text("p")) + serverFrame(0x80, text("ment")) +
                   serverFrame(0x82, pattern(300)) + serverFrame(0x82, {}) + serverFrame(0x82, pattern(70000)) +
                   serverFrame(0x88, Bytes{0x03, 0xE9} + text("bye")) + serverFrame(0x81, text("tail"));
    auto whole = Reader::make();
    whole->feed(stream);
    ASSERT_EQ(whole->events.size(), 8u);
    for (std::size_t piece : {1, 3, 13, 4096}) {
        auto split = Reader::make();
        split->feed(stream, piece);
        ASSERT_EQ(split->events.size(), 8u) << piece;
        for (std::size_t i = 0; i < 8; ++i) EXPECT_TRUE(sameEvent(split->events[i], whole->events[i])) << piece;
    }

    Bytes payload = pattern((1u << 20) + 3);
    auto large = Reader::make();
    large->feed(serverFrame(0x82, payload) + serverFrame(0x81, text("next")), 4096);
    ASSERT_EQ(large->events.size(), 2u);
    EXPECT_EQ(large->events[0].frame.payload, payload);
    EXPECT_EQ(large->events[1].frame.payload, text("next"));
}

TEST(Framer, ReadsCloseCodes) {
    auto oneByte = Reader::make();
    oneByte->feed(Bytes{0x88, 0x01, 0x41});
    ASSERT_GE(oneByte->events.size(), 1u);
    EXPECT_EQ(oneByte->events[0].frame.closeCode, 1002);
    EXPECT_TRUE(oneByte->events[0].frame.payload.empty());

    auto codeOf = [](int code) -> int {
        auto reader = Reader::make();
        reader->feed(serverFrame(0x88, Bytes{std::uint8_t(code >> 8), std::uint8_t(code)} + text("why")));
        if (reader->events.size() != 1 || reader->events[0].frame.payload != text("why")) return -1;
        return reader->events[0].frame.closeCode;
    };
    for (int bad : {0, 999, 1004, 1005, 1006, 1014, 2999}) EXPECT_EQ(codeOf(bad), 1002) << bad;
    for (int good : {1000, 1003, 1007, 1012, 1013, 3000, 65535}) EXPECT_EQ(codeOf(good), good);
}

TEST(Framer, RefusesWhatItCannotRead) {
    auto failure = [](const Bytes& wire, bool compression = false) -> std::string {
        auto reader = Reader::make(false, compression);
        reader->feed(wire + serverFrame(0x81, text("dropped with the read")));
        EXPECT_EQ(reader->framer->bufferedBytes(), 0u);
        if (reader->events.size() != 1 || !reader->events[0].isError) return "no failure";
        EXPECT_EQ(reader->events[0].error, protocolFailure(reader->events[0].error.message));
        return reader->events[0].error.message;
    };
    const std::string rsv = "masked and rsv data is not currently supported";
    EXPECT_EQ(failure(Bytes{0x81, 0x82, 1, 2, 3, 4, 'h' ^ 1, 'i' ^ 2}), rsv);
    EXPECT_EQ(failure(serverFrame(0xA1, text("x"))), rsv);
    EXPECT_EQ(failure(serverFrame(0xC1, text("x"))), rsv);
    EXPECT_EQ(failure(serverFrame(0x40, text("x")), true), rsv);
    EXPECT_EQ(failure(serverFrame(0x83, {})), "unknown opcode: 3");
    EXPECT_EQ(failure(serverFrame(0x8B, {})), "unknown opcode: 11");
    EXPECT_EQ(failure(serverFrame(0x09, {})), "control frames can't be fragmented");
    EXPECT_EQ(failure(serverFrame(0x89, pattern(126))), "payload length is longer than allowed for a control frame");

    auto passes = Reader::make(false, true);
    passes->feed(serverFrame(0xCA, text("p")) + serverFrame(0x41, text("a")) + serverFrame(0x80, text("b")) +
                 Bytes{0x8A, 0x80});
    ASSERT_EQ(passes->events.size(), 4u);
    EXPECT_EQ(passes->events[0].frame.payload, text("p"));
    EXPECT_TRUE(passes->events[1].frame.needsDecompression);
    EXPECT_FALSE(passes->events[2].frame.needsDecompression);
    EXPECT_TRUE(passes->events[3].frame.isMasked);

    // The buffer is emptied: the next read starts afresh.
    auto after = Reader::make();
    after->feed(serverFrame(0x83, {}) + Bytes{0x81});
    after->feed(serverFrame(0x81, text("ok")));
    ASSERT_EQ(after->events.size(), 2u);
    EXPECT_EQ(after->events[1].frame.payload, text("ok"));
}

TEST(Framer, WritesFramesThatReadBack) {
    WSFramer server(true);
    using Form = std::tuple<int, int, int>;
    for (auto [size, header, len7] : {Form{125, 2, 125}, Form{126, 4, 126}, Form{65535, 4, 126}, Form{65536, 10, 127}}) {
        Bytes frame = server.createWriteFrame(FrameOpCode::binaryFrame, pattern(size), false);
        ASSERT_EQ(frame.size(), std::size_t(header + size));
        EXPECT_EQ(frame[0], 0x82);
        EXPECT_EQ(frame[1], len7);
        std::uint64_t announced = header == 2 ? frame[1] : 0;
        for (int i = 2; i < header; ++i) announced = (announced << 8) | frame[i];
        EXPECT_EQ(announced, std::uint64_t(size));
        EXPECT_EQ(Bytes(frame.begin() + header, frame.end()), pattern(size));
    }
    EXPECT_EQ(server.createWriteFrame(FrameOpCode::textFrame, text("x"), true)[0], 0xC1);

    WSFramer client;
    Bytes ping = client.createWriteFrame(FrameOpCode::ping, text("abc"), false);
    ASSERT_EQ(ping.size(), 9u);
    EXPECT_EQ(ping[1], 0x83);

    std::vector<Bytes> payloads;
    Bytes stream;
    for (std::size_t size : {0, 1, 5, 8, 125, 126, 1001, 70003}) {
        payloads.push_back(pattern(size));
        stream = stream + client.createWriteFrame(FrameOpCode::binaryFrame, payloads.back(), false);
    }
    for (std::size_t piece : {SIZE_MAX, std::size_t{7}}) {
        auto reader = Reader::make(true);
        reader->feed(stream, piece);
        ASSERT_EQ(reader->events.size(), payloads.size());
        for (std::size_t i = 0; i < payloads.size(); ++i) EXPECT_EQ(reader->events[i].frame.payload, payloads[i]);
    }
}

namespace {

// Framer into collector, as the engine wires them.
struct Pipeline : FramerEventClient, FrameCollector::Delegate {
    std::shared_ptr<WSFramer> framer = std::make_shared<WSFramer>();
    FrameCollector collector;
    WSCompression compression;
    std::vector<FrameCollector::Event> events;
    std::vector<bool> finalCalls;
    std::size_t largestInflated = 0;

    static std::shared_ptr<Pipeline> make(bool compressed = false, Limits limits = {}) {
        auto pipeline = std::make_shared<Pipeline>();
        pipeline->framer->registerDelegate(pipeline);
        pipeline->collector.setDelegate(pipeline);
        pipeline->collector.setLimits(limits);
        pipeline->framer->updateCompression(compressed);
        if (compressed) pipeline->compression.load({{"Sec-WebSocket-Extensions", "permessage-deflate"}});
        return pipeline;
    }
    void feed(const Bytes& data) { framer->addInPlace(data); }
    void frameProcessed(FrameEvent event) override {
        if (!event.isError) collector.add(std::move(event.frame));
    }
    void didForm(FrameCollector::Event event) override { events.push_back(std::move(event)); }
    std::optional<Bytes> decompress(ByteView data, bool isFinal, std::size_t limit) override {
        finalCalls.push_back(isFinal);
        auto inflated = compression.decompress(data, isFinal, limit);
        if (inflated) largestInflated = std::max(largestInflated, inflated->size());
        return inflated;
    }
};

using Kind = FrameCollector::Event::Kind;

}  // namespace

TEST(FrameCollector, InflatesACompressedMessageAcrossFragments) {
    std::string message;
    for (int i = 0; i < 200; ++i) message += "[\"event\",{\"n\":" + std::to_string(i) + "}]";
    Compressor deflater(15);
    Bytes packed = std::get<Bytes>(deflater.compress(asBytes(message)));
    auto half = static_cast<std::ptrdiff_t>(packed.size() / 2);

    auto pipeline = Pipeline::make(true);
    pipeline->feed(serverFrame(0x41, Bytes(packed.begin(), packed.begin() + half)) + serverFrame(0x89, text("ping")) +
                   serverFrame(0x80, Bytes(packed.begin() + half, packed.end())));
    ASSERT_EQ(pipeline->events.size(), 2u);
    EXPECT_EQ(pipeline->events[0].kind, Kind::ping);
    EXPECT_EQ(pipeline->events[1].text, message);
    EXPECT_EQ(pipeline->finalCalls, (std::vector<bool>{false, true}));

    // The context carries over; a plain message in between is left alone.
    Bytes again = std::get<Bytes>(deflater.compress(asBytes(message)));
    pipeline->feed(serverFrame(0x82, text("raw")) + serverFrame(0xC1, again));
    ASSERT_EQ(pipeline->events.size(), 4u);
    EXPECT_EQ(pipeline->events[2].data, text("raw"));
    EXPECT_EQ(pipeline->events[3].text, message);
}

TEST(FrameCollector, JoinsFragmentsAndRefusesBrokenSequences) {
    auto pipeline = Pipeline::make();
    auto& events = pipeline->events;
    pipeline->feed(serverFrame(0x01, text("ab")) + serverFrame(0x89, text("p")) + serverFrame(0x8A, text("q")) +
                   serverFrame(0x80, text("cd")) + serverFrame(0x80, text("x")) + serverFrame(0x02, text("b1")) +
                   serverFrame(0x00, text("b2")) + serverFrame(0x81, text("t")) + serverFrame(0x82, text("whole")) +
                   serverFrame(0x01, Bytes{0xE2, 0x82}) + serverFrame(0x80, Bytes{0xAC}) +
                   serverFrame(0x81, Bytes{0xC0, 0xAF}) + serverFrame(0x82, Bytes{0xC0, 0xAF}));
    ASSERT_EQ(events.size(), 9u);
    EXPECT_EQ(events[0].kind, Kind::ping);
    EXPECT_EQ(events[1].kind, Kind::pong);
    EXPECT_EQ(events[2].text, "abcd");
    EXPECT_EQ(events[3].error, protocolFailure("first frame can't be a continue frame"));
    EXPECT_EQ(events[4].error, protocolFailure("second and beyond of fragment message must be a continue frame"));
    EXPECT_EQ(events[5].data, text("whole"));
    EXPECT_EQ(events[6].text, "\xE2\x82\xAC");
    EXPECT_EQ(events[7].error, protocolFailure("not valid UTF-8 data"));
    EXPECT_EQ(events[8].data, (Bytes{0xC0, 0xAF}));

    auto closed = [](const Bytes& payload) {
        auto pipeline = Pipeline::make();
        pipeline->feed(serverFrame(0x88, payload));
        EXPECT_EQ(pipeline->events.at(0).kind, Kind::closed);
        return std::make_pair(pipeline->events.at(0).text, int(pipeline->events.at(0).code));
    };
    EXPECT_EQ(closed(Bytes{0x03, 0xE9} + text("going")), std::make_pair(std::string("going"), 1001));
    EXPECT_EQ(closed(Bytes{0x03, 0xE9}), std::make_pair(std::string(), 1001));
    EXPECT_EQ(closed({}), std::make_pair(std::string(), 1000));
    EXPECT_EQ(closed(Bytes{0x0F, 0xA0, 0xFF}), std::make_pair(std::string("connection closed by server"), 1002));
}

TEST(FrameCollector, AMessageOverItsLimitIsRefusedBeforeItIsHeld) {
    Limits limits;
    limits.maxMessageSize = 1000;
    Compressor deflater(15);
    auto packed = [&](std::size_t size) { return std::get<Bytes>(deflater.compress(Bytes(size, 'a'))); };

    // Inflated: exactly the limit passes; a bomb is stopped one byte past it, not inflated whole.
    auto inflating = Pipeline::make(true, limits);
    Bytes exact = serverFrame(0xC2, packed(1000));
    inflating->feed(exact + serverFrame(0xC2, packed(8 << 20)));
    ASSERT_EQ(inflating->events.size(), 2u);
    EXPECT_EQ(inflating->events[0].data.size(), 1000u);
    EXPECT_EQ(inflating->events[1].error, tooBig("message too big"));
    EXPECT_EQ(inflating->largestInflated, 1001u);

    // Joined fragments count together; the rest of a refused message is dropped, the next
    // message and the control frames between are not.
    auto joining = Pipeline::make(false, limits);
    joining->feed(serverFrame(0x02, pattern(600)) + serverFrame(0x00, pattern(401)) + serverFrame(0x89, text("p")) +
                  serverFrame(0x80, pattern(5)) + serverFrame(0x02, pattern(2)) + serverFrame(0x80, pattern(998)));
    ASSERT_EQ(joining->events.size(), 3u);
    EXPECT_EQ(joining->events[0].error, tooBig("message too big"));
    EXPECT_EQ(joining->events[1].kind, Kind::ping);
    EXPECT_EQ(joining->events[2].data, pattern(2) + pattern(998));
}
