#include "socketio/SocketEngine.hpp"

#include <kelvane/Log.hpp>

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

namespace kelvane::socketio {
namespace {

using Option = SocketIOClientOption;

// Records the engine's reports as lines; they arrive on the engine queue.
class RecordingClient final : public SocketEngineClient {
public:
    void engineDidError(std::string reason) override { add("error " + reason); }
    void engineDidClose(std::string reason) override { add("close " + reason); }
    void engineDidOpen(std::string reason) override { add("open " + reason); }
    void engineDidReceivePing() override { add("ping"); }
    void engineDidSendPing() override { add("sent ping"); }
    void engineDidReceivePong() override { add("pong"); }
    void engineDidSendPong() override { add("sent pong"); }
    void parseEngineMessage(std::string message) override { add("message " + message); }
    void parseEngineBinaryData(Bytes data) override {
        std::string hex;
        for (auto byte : data) hex += "0123456789abcdef"[byte >> 4], hex += "0123456789abcdef"[byte & 15];
        add("binary " + hex);
    }
    void engineDidWebsocketUpgrade(websocket::Headers) override { add("upgrade"); }

    std::vector<std::string> take() {
        std::lock_guard lock(mutex_);
        return std::exchange(lines_, {});
    }
    bool waitFor(const std::string& line) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] {
            return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
        });
    }

private:
    void add(std::string line) {
        std::lock_guard lock(mutex_);
        lines_.push_back(std::move(line));
        changed_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

std::shared_ptr<SocketEngine> makeEngine(const std::shared_ptr<RecordingClient>& client, std::string_view url,
                                         SocketIOClientConfiguration config = {}) {
    return std::make_shared<SocketEngine>(client, *URL::make(url), config);
}

// Feeds messages on the engine's queue and returns what the client heard.
std::vector<std::string> feed(SocketEngine& engine, RecordingClient& client, std::vector<std::string> messages) {
    engine.engineQueue()->sync([&] {
        for (auto& message : messages) engine.parseEngineMessage(message);
    });
    // Reports hop nowhere in this client, so they are all in once the queue has run.
    return client.take();
}

TEST(SocketEngine, BuildsItsURLs) {
    auto client = std::make_shared<RecordingClient>();
    auto engine = makeEngine(client, "http://h.example:8443/ignored?x=1",
                             {Option::connectParams({{"a b", "c&d/\u00e9"}, {"n", 1}}), Option::path("/custom"),
                              Option::secure(true)});
    EXPECT_EQ(engine->urlPolling().absoluteString(),
              "https://h.example:8443/custom/?transport=polling&b64=1&a%20b=c%26d%2F%C3%A9&n=1&EIO=4");
    EXPECT_EQ(engine->urlWebSocket().absoluteString(),
              "wss://h.example:8443/custom/?transport=websocket&a%20b=c%26d%2F%C3%A9&n=1&EIO=4");
    // Every delimiter and quote is encoded; what no URL carries is too, so the URL stays whole.
    auto all = makeEngine(client, "http://h.example/", {Option::connectParams({{"k", "!*'();:@&=+$,/?%#[]\" {}^|-._~<`\t"}})});
    EXPECT_EQ(all->urlPolling().absoluteString(),
              "http://h.example/engine.io/?transport=polling&b64=1&k=%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23"
              "%5B%5D%22%20%7B%7D%5E%7C-._~%3C%60%09&EIO=4");

    // Anything that spells EIO stands in for the revision's parameter.
    auto two = makeEngine(client, "https://h.example/", {Option::version(SocketIOVersion::two),
                                                          Option::connectParams({{"LEIOx", true}})});
    EXPECT_EQ(two->urlWebSocket().absoluteString(), "ws://h.example/engine.io/?transport=websocket&LEIOx=true");
    auto plain = makeEngine(client, "https://h.example/", {Option::version(SocketIOVersion::two)});
    EXPECT_EQ(plain->urlPolling().absoluteString(), "http://h.example/engine.io/?transport=polling&b64=1&EIO=3");
    // Without its sid yet, the WebSocket URL carries none; the polling one always does.
    EXPECT_EQ(plain->urlWebSocketWithSid().absoluteString(), plain->urlWebSocket().absoluteString());
    EXPECT_EQ(plain->urlPollingWithSid().absoluteString(),
              "http://h.example/engine.io/?transport=polling&b64=1&EIO=3&sid=");

    feed(*plain, *client, {R"(0{"sid":"a/b+c","pingInterval":100,"pingTimeout":250})"});
    plain->engineQueue()->sync([&] {
        EXPECT_EQ(plain->urlWebSocketWithSid().absoluteString(),
                  "ws://h.example/engine.io/?transport=websocket&EIO=3&sid=a%2Fb%2Bc");
        EXPECT_EQ(plain->pongsMissedMax(), 2);
    });

    std::shared_ptr<RecordingClient> gone;
    auto orphan = makeEngine(gone, "https://h.example/");
    EXPECT_EQ(orphan->urlPolling().absoluteString(), "http://localhost/");
}

TEST(SocketEngine, ReadsEngineMessages) {
    auto client = std::make_shared<RecordingClient>();
    auto engine = makeEngine(client, "http://h.example/", {Option::forceWebsockets(true)});
    EXPECT_EQ(feed(*engine, *client, {"0not json"}),
              (std::vector<std::string>{"error Error parsing open packet", "close Error parsing open packet"}));
    EXPECT_EQ(feed(*engine, *client, {R"(0{"sid":7})"}),
              (std::vector<std::string>{"error Open packet contained no sid", "close Open packet contained no sid"}));
    // Not a packet: the server's own message closes, anything else is only reported.
    EXPECT_EQ(feed(*engine, *client, {"hello", "8", R"({"code":1})"}),
              (std::vector<std::string>{"error Got unknown error from server hello",
                                        "error Got unknown error from server 8"}));
    EXPECT_EQ(feed(*engine, *client, {R"({"message":"bad"})"}), (std::vector<std::string>{"error bad", "close bad"}));

    std::vector<std::string> logged;
    setLogSink([&](std::string_view line) { logged.emplace_back(line); });
    defaultLogger()->setLog(true);
    EXPECT_EQ(feed(*engine, *client, {"4hello", "bAQID", "2", "3", "5", "1bye", "6"}),
              (std::vector<std::string>{"message hello", "binary 010203", "ping", "pong", "close 1bye"}));
    defaultLogger()->setLog(false);
    setLogSink({});
    EXPECT_NE(std::find(logged.begin(), logged.end(), "LOG SocketEngine: Got unknown packet type"), logged.end());

    auto two = makeEngine(client, "http://h.example/", {Option::version(SocketIOVersion::two)});
    EXPECT_EQ(feed(*two, *client, {"b4AQID", "bAQID"}),
              (std::vector<std::string>{"binary 010203", "error Got unknown error from server bAQID"}));
    two->engineQueue()->sync([&] { two->parseEngineData({4, 9}); });
    EXPECT_EQ(client->take(), (std::vector<std::string>{"binary 09"}));
}

TEST(SocketEngine, SplitsPollingBodies) {
    auto client = std::make_shared<RecordingClient>();
    auto three = makeEngine(client, "http://h.example/");
    three->engineQueue()->sync([&] { three->parsePollingMessage("4a\x1e" "4b\x1e" "bAQ=="); });
    EXPECT_EQ(client->take(), (std::vector<std::string>{"message a", "message b", "binary 01"}));

    auto two = makeEngine(client, "http://h.example/", {Option::version(SocketIOVersion::two)});
    two->engineQueue()->sync([&] {
        two->parsePollingMessage("6:4h\u00e9llo3:4\U0001F600");  // lengths in UTF-16 units
        two->parsePollingMessage("x:4abc");
        two->parsePollingMessage("6");
    });
    EXPECT_EQ(client->take(), (std::vector<std::string>{"message h\u00e9llo", "message \U0001F600",
                                                        "error Got unknown error from server x:4abc"}));
    EXPECT_DEATH(two->engineQueue()->sync([&] { two->parsePollingMessage("9:4ab"); }),
                 "Fatal error: String index is out of bounds");
}

TEST(SocketEngine, SilenceClosesWithPingTimeout) {
    // Without ping figures the deadline is zero, so the first check already finds silence.
    auto client = std::make_shared<RecordingClient>();
    auto engine = makeEngine(client, "http://h.example/", {Option::forceWebsockets(true)});
    engine->engineQueue()->sync([&] { engine->parseEngineMessage(R"(0{"sid":"s"})"); });
    EXPECT_TRUE(client->waitFor("close Ping timeout"));
    engine->engineQueue()->sync([&] {
        EXPECT_FALSE(engine->connected());
        EXPECT_TRUE(engine->sid().empty());
    });

    // A write on a closed engine only runs its completion.
    bool completed = false;
    engine->send("2[\"x\"]", {}, [&] { completed = true; });
    engine->engineQueue()->sync([] {});
    EXPECT_TRUE(completed);
}

}  // namespace
}  // namespace kelvane::socketio
