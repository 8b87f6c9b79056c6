// Frames off the wire into messages. The first byte sets compression (bit 0), the server
// side (bit 1) and the size of the reads (the rest); the bytes after it are the stream.
// Whole, in reads of that size, and in reads that grow from it as the transport's do, the
// same stream must give the same events up to the framer's first failure. The limits are small enough for short inputs to cross them: no frame, message or
// inflated piece may come out larger than they allow.
#include <kelvane/Log.hpp>

#include "websocket/Compression.hpp"
#include "websocket/Framer.hpp"
#include "websocket/Transport.hpp"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

using namespace kelvane;
using namespace kelvane::websocket;

namespace {

void check(bool holds) {
    if (!holds) std::abort();
}

struct Recorded {
    bool framerFailure = false;
    FrameCollector::Event::Kind kind{};
    std::string text;
    Bytes data;
    WSError error;
    std::uint16_t code = 0;
    bool operator==(const Recorded&) const = default;
};

const Limits kLimits = [] {
    Limits limits;
    limits.maxFrameSize = 1024;
    limits.maxMessageSize = 4096;
    return limits;
}();

struct Pipeline : FramerEventClient, FrameCollector::Delegate {
    std::shared_ptr<WSFramer> framer;
    FrameCollector collector;
    WSCompression compression;
    std::vector<Recorded> events;
    bool failed = false;

    static std::shared_ptr<Pipeline> make(bool compressed, bool isServer) {
        auto pipeline = std::make_shared<Pipeline>();
        pipeline->framer = std::make_shared<WSFramer>(isServer);
        pipeline->framer->registerDelegate(pipeline);
        pipeline->framer->updateCompression(compressed);
        pipeline->framer->setLimits(kLimits);
        pipeline->collector.setDelegate(pipeline);
        pipeline->collector.setLimits(kLimits);
        if (compressed) pipeline->compression.load({{"Sec-WebSocket-Extensions", "permessage-deflate; server_max_window_bits=15"}});
        return pipeline;
    }
    void frameProcessed(FrameEvent event) override {
        if (failed) return;  // past this point reads in pieces and whole reads part ways
        if (event.isError) {
            failed = true;
            events.push_back(Recorded{true, {}, {}, {}, event.error, 0});
            return;
        }
        check(event.frame.payload.size() == event.frame.payloadLength);
        check(event.frame.payload.size() <= kLimits.maxFrameSize);
        collector.add(std::move(event.frame));
    }
    void didForm(FrameCollector::Event event) override {
        check(event.text.size() <= kLimits.maxMessageSize && event.data.size() <= kLimits.maxMessageSize);
        events.push_back(Recorded{false, event.kind, event.text, event.data, event.error, event.code});
    }
    std::optional<Bytes> decompress(ByteView data, bool isFinal, std::size_t limit) override {
        check(limit <= kLimits.maxMessageSize);
        auto inflated = compression.decompress(data, isFinal, limit);
        check(!inflated || inflated->size() <= limit + 1);
        return inflated;
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = (kelvane::setLogSink([](std::string_view) {}), true);
    (void)quiet;
    if (size == 0) return 0;
    const bool compressed = data[0] & 1;
    const bool isServer = data[0] & 2;
    const std::size_t piece = (data[0] >> 2) + 1;
    ByteView stream(data + 1, size - 1);

    auto whole = Pipeline::make(compressed, isServer);
    whole->framer->addInPlace(stream);
    auto split = Pipeline::make(compressed, isServer);
    for (std::size_t at = 0; at < stream.size(); at += piece) {
        split->framer->addInPlace(stream.subspan(at, std::min(piece, stream.size() - at)));
    }
    // Reads as the transport sizes them, from `piece` up: each takes what its buffer holds of
    // what is waiting, and the next grows while they come back full.
    auto grown = Pipeline::make(compressed, isServer);
    const std::size_t readLimit = kLimits.maxFrameSize + 14;
    for (std::size_t at = 0, size = piece; at < stream.size();) {
        const std::size_t got = std::min(size, stream.size() - at);
        grown->framer->addInPlace(stream.subspan(at, got));
        at += got;
        const std::size_t next = nextReadSize(size, got, piece, readLimit);
        check(next >= piece && next <= std::max(readLimit, piece));
        size = next;
    }

    for (const auto* pieces : {split.get(), grown.get()}) {
        if (whole->failed) {
            check(pieces->events.size() >= whole->events.size());
            check(std::equal(whole->events.begin(), whole->events.end(), pieces->events.begin()));
        } else {
            check(pieces->events == whole->events);
            check(pieces->framer->bufferedBytes() == whole->framer->bufferedBytes());
        }
    }
    check(whole->framer->bufferedBytes() <= stream.size());

    // What we write reads back the same on the other side.
    WSFramer writer(isServer);
    WSFramer reader(!isServer);
    auto frame = writer.createWriteFrame(FrameOpCode::binaryFrame, stream, false);
    struct Last : FramerEventClient {
        Bytes payload;
        int count = 0;
        void frameProcessed(FrameEvent event) override {
            check(!event.isError);
            payload = std::move(event.frame.payload);
            ++count;
        }
    };
    auto last = std::make_shared<Last>();
    reader.registerDelegate(last);
    reader.addInPlace(frame);
    check(last->count == 1 && last->payload == Bytes(stream.begin(), stream.end()));
    return 0;
}
