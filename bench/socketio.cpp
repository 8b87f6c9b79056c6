// The Socket.IO packet codec on its hot paths: writing an event's text, parsing it back, and a
// binary event shredded into attachments and put together again, with logging off as in a
// session that does not trace.
#include "Figures.hpp"

#include "socketio/SocketLogger.hpp"
#include "socketio/SocketPacket.hpp"

#include <string>
#include <vector>

using namespace kelvane;
using namespace kelvane::socketio;

namespace {

// About 100 bytes of text: 2["message",{"room":"lobby","text":"...","ts":...,"user":"alice"}]
SocketPacket eventPacket() {
    return SocketPacket(PacketType::event, {"message", Json{{"room", "lobby"},
                                                            {"user", "alice"},
                                                            {"text", "hello there, how are you?"},
                                                            {"ts", 1700000000123}}});
}

void Encode100B(benchmark::State& state) {
    defaultLogger()->setLog(false);
    SocketPacket packet = eventPacket();
    for (auto _ : state) benchmark::DoNotOptimize(packet.packetString());
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
    state.SetLabel(std::to_string(packet.packetString().size()) + " bytes");
}
BENCHMARK(Encode100B);

void Parse100B(benchmark::State& state) {
    defaultLogger()->setLog(false);
    const std::string text = eventPacket().packetString();
    SocketParsable parser;
    for (auto _ : state) {
        auto packet = parser.parseSocketMessage(text);
        if (!packet) {
            state.SkipWithError("no packet");
            break;
        }
        benchmark::DoNotOptimize(packet->data.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(Parse100B);

// The reference: the JSON library alone parsing the same payload.
void JsonParse100B(benchmark::State& state) {
    const std::string text = eventPacket().packetString().substr(1);
    for (auto _ : state) benchmark::DoNotOptimize(Json::parse(text));
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(JsonParse100B);

// The reference: the JSON library alone writing the same payload.
void JsonDump100B(benchmark::State& state) {
    const Json payload = Json(eventPacket().data);
    for (auto _ : state) benchmark::DoNotOptimize(payload.dump());
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(JsonDump100B);

// An event with two 64-byte attachments, one nested in an object, as a client emits it and
// the other side takes it in: shred, text, parse, then the two blobs.
void BinaryRoundTrip(benchmark::State& state) {
    defaultLogger()->setLog(false);
    Bytes first(64, 0xA5), second(64, 0x5A);
    const std::vector<Json> items = {"upload", Json{{"name", "a.png"}, {"data", Json::binary(first)}},
                                     Json::binary(second)};
    SocketParsable parser;
    for (auto _ : state) {
        auto outgoing = SocketPacket::packetFromEmit(items, -1, "/", false);
        auto announced = parser.parseSocketMessage(outgoing.packetString());
        if (!announced) {
            state.SkipWithError("no packet");
            break;
        }
        parser.waitingPackets.push_back(std::move(*announced));
        parser.parseBinaryData(std::move(outgoing.binary[0]));
        auto complete = parser.parseBinaryData(std::move(outgoing.binary[1]));
        if (!complete) {
            state.SkipWithError("packet not completed");
            break;
        }
        benchmark::DoNotOptimize(complete->data.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BinaryRoundTrip);

}  // namespace

int main(int argc, char** argv) {
    auto results = bench::runAll(argc, argv);
    if (results.count("Encode100B")) {
        bench::figure("socketio_encode_100b", results["Encode100B"].itemsPerSecond, "packets/s");
    }
    if (results.count("Parse100B")) {
        bench::figure("socketio_parse_100b", results["Parse100B"].itemsPerSecond, "packets/s");
    }
    if (results.count("BinaryRoundTrip")) {
        bench::figure("socketio_binary_roundtrip", results["BinaryRoundTrip"].itemsPerSecond, "packets/s");
    }
    return 0;
}
