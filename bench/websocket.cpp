// The WebSocket codecs on their hot paths: cutting frames out of reads and joining them into
// messages, masking outgoing frames, and permessage-deflate, each beside a plain reference
// (memcpy, raw zlib) measured in the same run.
#include "Figures.hpp"

#include "websocket/Compression.hpp"
#include "websocket/Framer.hpp"

#include <zlib.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

using namespace kelvane;
using namespace kelvane::websocket;

namespace {

constexpr std::size_t kRead = 4096;

// As the engine wires it: framer events into the collector, messages counted.
struct Counter : FramerEventClient, FrameCollector::Delegate {
    FrameCollector collector;
    std::size_t messages = 0;
    void frameProcessed(FrameEvent event) override {
        if (!event.isError) collector.add(std::move(event.frame));
    }
    void didForm(FrameCollector::Event event) override {
        ++messages;
        benchmark::DoNotOptimize(event.data.data());
    }
    std::optional<Bytes> decompress(ByteView, bool, std::size_t) override { return std::nullopt; }
};

struct Reader {
    std::shared_ptr<WSFramer> framer = std::make_shared<WSFramer>();
    std::shared_ptr<Counter> counter = std::make_shared<Counter>();
    Reader() {
        framer->registerDelegate(counter);
        counter->collector.setDelegate(counter);
    }
    void feed(const Bytes& stream) {
        for (std::size_t at = 0; at < stream.size(); at += kRead) {
            framer->addInPlace(ByteView(stream).subspan(at, std::min(kRead, stream.size() - at)));
        }
    }
};

Bytes payload(std::size_t size) {
    Bytes out(size);
    for (std::size_t i = 0; i < size; ++i) out[i] = static_cast<std::uint8_t>(i * 31 + 7);
    return out;
}

// Server frames back to back, as a client reads them.
Bytes serverStream(std::size_t frameSize, std::size_t count) {
    WSFramer server(true);
    Bytes body = payload(frameSize);
    Bytes stream;
    for (std::size_t i = 0; i < count; ++i) {
        Bytes frame = server.createWriteFrame(FrameOpCode::binaryFrame, body, false);
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    return stream;
}

void Frames100B(benchmark::State& state) {
    constexpr std::size_t kFrames = 640;  // about 64 KiB of reads
    Bytes stream = serverStream(100, kFrames);
    Reader reader;
    for (auto _ : state) reader.feed(stream);
    if (reader.counter->messages != kFrames * state.iterations()) state.SkipWithError("frames lost");
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kFrames));
}
BENCHMARK(Frames100B);

void Frames64KiB(benchmark::State& state) {
    constexpr std::size_t kFrames = 16;
    Bytes stream = serverStream(64 * 1024, kFrames);
    Reader reader;
    for (auto _ : state) reader.feed(stream);
    if (reader.counter->messages != kFrames * state.iterations()) state.SkipWithError("frames lost");
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFrames * 64 * 1024));
}
BENCHMARK(Frames64KiB);

// The reference: each frame's bytes copied once into a buffer of its size.
void MemcpyFrames64KiB(benchmark::State& state) {
    constexpr std::size_t kFrames = 16;
    Bytes stream = serverStream(64 * 1024, kFrames);
    Bytes target(64 * 1024);
    const std::size_t stride = stream.size() / kFrames;
    for (auto _ : state) {
        for (std::size_t i = 0; i < kFrames; ++i) {
            std::memcpy(target.data(), stream.data() + i * stride + 10, target.size());
            benchmark::ClobberMemory();
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kFrames * 64 * 1024));
}
BENCHMARK(MemcpyFrames64KiB);

// One frame of the given size fed in 4096-byte reads.
void OneFrameInReads(benchmark::State& state) {
    auto size = static_cast<std::size_t>(state.range(0));
    Bytes stream = serverStream(size, 1);
    Reader reader;
    for (auto _ : state) reader.feed(stream);
    if (reader.counter->messages != static_cast<std::size_t>(state.iterations())) state.SkipWithError("frames lost");
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}
BENCHMARK(OneFrameInReads)->Arg(64 * 1024)->Arg(16 * 1024 * 1024);

// The reference: the same bytes copied in the same reads into a buffer of the frame's size.
void MemcpyInReads(benchmark::State& state) {
    auto size = static_cast<std::size_t>(state.range(0));
    Bytes stream = serverStream(size, 1);
    Bytes target(size);
    for (auto _ : state) {
        for (std::size_t at = 0; at < size; at += kRead) {
            std::memcpy(target.data() + at, stream.data() + 14 + at, std::min(kRead, size - at));
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}
BENCHMARK(MemcpyInReads)->Arg(64 * 1024)->Arg(16 * 1024 * 1024);

void MaskFrame64KiB(benchmark::State& state) {
    WSFramer client;
    Bytes body = payload(64 * 1024);
    for (auto _ : state) benchmark::DoNotOptimize(client.createWriteFrame(FrameOpCode::binaryFrame, body, false));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 64 * 1024);
}
BENCHMARK(MaskFrame64KiB);

void Memcpy64KiB(benchmark::State& state) {
    Bytes body = payload(64 * 1024);
    Bytes target(body.size());
    for (auto _ : state) {
        std::memcpy(target.data(), body.data(), body.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 64 * 1024);
}
BENCHMARK(Memcpy64KiB);

// Socket.IO-like event arrays with numbers that change from one to the next.
std::vector<Bytes> jsonMessages(std::size_t size, std::size_t count) {
    std::vector<Bytes> messages;
    unsigned seed = 12345;
    auto next = [&] {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 8) % 100000;
    };
    for (std::size_t m = 0; m < count; ++m) {
        std::string text = "42[\"quotes\",[";
        do {
            text += "{\"s\":\"EX" + std::to_string(next() % 500) + "\",\"b\":" + std::to_string(next()) + "." +
                    std::to_string(next() % 100) + ",\"a\":" + std::to_string(next()) + ",\"t\":" +
                    std::to_string(1700000000 + next()) + "},";
        } while (text.size() + 80 < size);
        text.back() = ']';
        text += "]";
        text.resize(std::min(text.size(), size));
        messages.emplace_back(text.begin(), text.end());
    }
    return messages;
}

// The raw references make the same zlib calls through the same 8192-byte buffer.
struct RawDeflate {
    z_stream strm{};
    Bytef buffer[8192];
    RawDeflate() { deflateInit2(&strm, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY); }
    ~RawDeflate() { deflateEnd(&strm); }
    Bytes compress(const Bytes& data) {
        Bytes out;
        strm.next_in = const_cast<Bytef*>(data.data());
        strm.avail_in = static_cast<uInt>(data.size());
        int result;
        do {
            strm.next_out = buffer;
            strm.avail_out = sizeof(buffer);
            result = deflate(&strm, Z_SYNC_FLUSH);
            out.insert(out.end(), buffer, buffer + (sizeof(buffer) - strm.avail_out));
        } while (result == Z_OK && strm.avail_out == 0);
        out.resize(out.size() - 4);
        return out;
    }
};

struct RawInflate {
    z_stream strm{};
    Bytef buffer[8192];
    RawInflate() { inflateInit2(&strm, -15); }
    ~RawInflate() { inflateEnd(&strm); }
    void run(const Bytef* data, std::size_t size, Bytes& out) {
        strm.next_in = const_cast<Bytef*>(data);
        strm.avail_in = static_cast<uInt>(size);
        int result;
        do {
            strm.next_out = buffer;
            strm.avail_out = sizeof(buffer);
            result = inflate(&strm, Z_NO_FLUSH);
            out.insert(out.end(), buffer, buffer + (sizeof(buffer) - strm.avail_out));
        } while (result == Z_OK && strm.avail_out == 0);
    }
    Bytes decompress(const Bytes& data) {
        static const Bytef tail[4] = {0x00, 0x00, 0xFF, 0xFF};
        Bytes out;
        run(data.data(), data.size(), out);
        run(tail, 4, out);
        return out;
    }
};

// Messages of one stream in turn, one per iteration; a pass over all of them starts a fresh
// pair of streams, set up outside the timing.
enum class Way { deflate, inflate };

void Zlib(benchmark::State& state, Way way, std::size_t size, bool raw) {
    auto messages = jsonMessages(size, size < 1024 ? 4096 : 64);
    if (way == Way::inflate) {
        Compressor compressor(15);
        for (auto& message : messages) message = std::get<Bytes>(compressor.compress(message));
    }
    std::unique_ptr<WSCompression> ours;
    std::unique_ptr<RawDeflate> deflater;
    std::unique_ptr<RawInflate> inflater;
    std::size_t next = 0;
    for (auto _ : state) {
        if (next == 0) {
            state.PauseTiming();
            ours = std::make_unique<WSCompression>();
            ours->load({{"Sec-WebSocket-Extensions", "permessage-deflate"}});
            deflater = std::make_unique<RawDeflate>();
            inflater = std::make_unique<RawInflate>();
            state.ResumeTiming();
        }
        const Bytes& message = messages[next];
        if (way == Way::deflate) {
            benchmark::DoNotOptimize(raw ? deflater->compress(message) : ours->compress(message));
        } else {
            benchmark::DoNotOptimize(raw ? inflater->decompress(message) : ours->decompress(message, true));
        }
        next = (next + 1) % messages.size();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK_CAPTURE(Zlib, Deflate/ours_100b, Way::deflate, 100, false);
BENCHMARK_CAPTURE(Zlib, Deflate/raw_100b, Way::deflate, 100, true);
BENCHMARK_CAPTURE(Zlib, Deflate/ours_64k, Way::deflate, 64 * 1024, false);
BENCHMARK_CAPTURE(Zlib, Deflate/raw_64k, Way::deflate, 64 * 1024, true);
BENCHMARK_CAPTURE(Zlib, Inflate/ours_100b, Way::inflate, 100, false);
BENCHMARK_CAPTURE(Zlib, Inflate/raw_100b, Way::inflate, 100, true);
BENCHMARK_CAPTURE(Zlib, Inflate/ours_64k, Way::inflate, 64 * 1024, false);
BENCHMARK_CAPTURE(Zlib, Inflate/raw_64k, Way::inflate, 64 * 1024, true);

}  // namespace

int main(int argc, char** argv) {
    auto results = bench::runAll(argc, argv);
    auto has = [&](std::initializer_list<const char*> names) {
        for (const char* name : names) {
            if (!results.count(name)) return false;
        }
        return true;
    };
    if (has({"Frames100B"})) bench::figure("ws_frames_100b", results["Frames100B"].itemsPerSecond, "frames/s");
    if (has({"Frames64KiB", "MemcpyFrames64KiB"})) {
        bench::figure("ws_frames_64k_vs_memcpy",
                      results["Frames64KiB"].bytesPerSecond / results["MemcpyFrames64KiB"].bytesPerSecond, "x");
    }
    if (has({"MaskFrame64KiB", "Memcpy64KiB"})) {
        bench::figure("ws_mask_64k_vs_memcpy",
                      results["MaskFrame64KiB"].bytesPerSecond / results["Memcpy64KiB"].bytesPerSecond, "x");
    }
    if (has({"OneFrameInReads/65536", "OneFrameInReads/16777216"})) {
        double large = results["OneFrameInReads/16777216"].nanosecondsPerIteration / (16.0 * 1024 * 1024);
        double small = results["OneFrameInReads/65536"].nanosecondsPerIteration / (64.0 * 1024);
        bench::figure("ws_16m_per_byte_vs_64k", large / small, "x");
    }
    if (has({"MemcpyInReads/65536", "MemcpyInReads/16777216"})) {
        // What the memory alone makes of the same two sizes.
        double large = results["MemcpyInReads/16777216"].nanosecondsPerIteration / (16.0 * 1024 * 1024);
        double small = results["MemcpyInReads/65536"].nanosecondsPerIteration / (64.0 * 1024);
        bench::figure("ws_16m_per_byte_vs_64k_memcpy", large / small, "x");
    }
    for (const char* pass : {"Deflate", "Inflate"}) {
        for (const char* size : {"100b", "64k"}) {
            std::string ours = std::string("Zlib/") + pass + "/ours_" + size;
            std::string raw = std::string("Zlib/") + pass + "/raw_" + size;
            if (!has({ours.c_str(), raw.c_str()})) continue;
            double overhead =
                (results[ours].nanosecondsPerIteration / results[raw].nanosecondsPerIteration - 1.0) * 100.0;
            bench::figure(std::string("ws_") + (pass[0] == 'D' ? "deflate_" : "inflate_") + size + "_overhead",
                          overhead, "%");
        }
    }
    return 0;
}
