// Engine.IO messages and polling bodies. The first byte picks the revision (bit 0) and whether
// the rest is one message or a polling body (bit 1). The engine never connects here, so
// nothing it does reaches the network.
#include "socketio/SocketEngine.hpp"
#include "support/Fatal.hpp"
#include "support/Utf8.hpp"

#include <cstdint>
#include <memory>
#include <string>

using namespace kelvane;
using namespace kelvane::socketio;

namespace {

struct SilentClient final : SocketEngineClient {
    void engineDidError(std::string) override {}
    void engineDidClose(std::string) override {}
    void engineDidOpen(std::string) override {}
    void engineDidReceivePing() override {}
    void engineDidSendPing() override {}
    void engineDidReceivePong() override {}
    void engineDidSendPong() override {}
    void parseEngineMessage(std::string) override {}
    void parseEngineBinaryData(Bytes) override {}
    void engineDidWebsocketUpgrade(websocket::Headers) override {}
};

std::shared_ptr<SocketEngine> makeEngine(const std::shared_ptr<SilentClient>& client, SocketIOVersion version) {
    return std::make_shared<SocketEngine>(
        client, *URL::make("http://127.0.0.1:1/"),
        SocketIOClientConfiguration{SocketIOClientOption::version(version), SocketIOClientOption::forceWebsockets(true)});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto client = std::make_shared<SilentClient>();
    static auto two = makeEngine(client, SocketIOVersion::two);
    static auto three = makeEngine(client, SocketIOVersion::three);
    if (size == 0) return 0;
    const bool revisionTwo = data[0] & 1;
    const bool body = data[0] & 2;
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    // Bodies reach the engine only as valid UTF-8, and WebSocket texts are checked before too.
    if (!isValidUTF8(text)) return 0;
    auto& engine = revisionTwo ? two : three;
    engine->engineQueue()->sync([&] {
        try {
            if (body) {
                engine->parsePollingMessage(text);
            } else {
                engine->parseEngineMessage(text);
            }
        } catch (const FatalStop&) {
            // A polling count past the end of the body stops the process by design.
        }
    });
    return 0;
}
