#include "ManualQueue.hpp"
#include "socketio/SocketManager.hpp"

#include "SocketTestSupport.hpp"

#include <kelvane/Log.hpp>

#include <gtest/gtest.h>

#include <algorithm>

namespace kelvane::socketio {
namespace {

using testing::EventLog;
using Option = SocketIOClientOption;
using namespace std::chrono_literals;

// An engine that records what the manager asks of it; its queue is the test's queue.
class FakeEngine final : public SocketEngineSpec {
public:
    explicit FakeEngine(std::shared_ptr<Queue> queue) : queue_(std::move(queue)) {}

    const std::shared_ptr<Queue>& engineQueue() const override { return queue_; }
    void setClient(std::weak_ptr<SocketEngineClient> client) override {
        cutOff = client.expired();
    }
    bool setConfigs(const SocketIOClientConfiguration&) override { return true; }
    bool underWay() const override { return busy; }
    void connect() override { calls.push_back("connect"); }
    void disconnect(std::string reason) override { calls.push_back("disconnect " + reason); }
    void send(std::string text, std::vector<Bytes>, Completion completion) override {
        calls.push_back("send " + text);
        if (completion) completion();
    }
    void write(std::string text, SocketEnginePacketType, std::vector<Bytes>, Completion) override {
        calls.push_back("write " + text);
    }
    void didError(std::string reason) override { errors.push_back(std::move(reason)); }
    void doFastUpgrade() override {}
    void flushWaitingForPostToWebSocket() override {}
    void parseEngineData(Bytes) override {}
    void parseEngineMessage(std::string) override {}

    std::vector<std::string> calls;
    bool cutOff = false;
    bool busy = false;
    std::vector<std::string> errors;

private:
    std::shared_ptr<Queue> queue_;
};

class SocketManagerTest : public ::testing::Test {
protected:
    void make(SocketIOClientConfiguration config) {
        config.insert(Option::handleQueue(queue));
        manager = std::make_shared<SocketManager>(*URL::make("https://backend.example/"), config);
        manager->random = [this] { return draw; };
        manager->engineFactory = [this](SocketManager&) {
            engines.push_back(std::make_shared<FakeEngine>(queue));
            return engines.back();
        };
    }

    // The default namespace, connected through an engine that opened.
    std::shared_ptr<SocketIOClient> connected(EventLog& log) {
        auto socket = manager->defaultSocket();
        log.attach(*socket);
        socket->connect();
        manager->engineDidOpen("Connect");
        queue->runUntilIdle();
        manager->parseEngineMessage(R"(0{"sid":"abc"})");
        queue->runUntilIdle();
        return socket;
    }

    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>("handle");
    std::shared_ptr<SocketManager> manager;
    std::vector<std::shared_ptr<FakeEngine>> engines;
    double draw = 0.0;
};

TEST_F(SocketManagerTest, ConfigurationAndConnectPackets) {
    make({Option::reconnectWait(-5), Option::reconnectAttempts(3), Option::forceNew(false),
          Option::connectParams({{"a", 1}})});
    EXPECT_EQ(manager->reconnectWait, 5);
    EXPECT_EQ(manager->reconnectAttempts, 3);
    // An https address makes the engine secure; the path is the Socket.IO one unless given.
    auto options = manager->config().options();
    EXPECT_NE(std::find(options.begin(), options.end(), Option::secure(true)), options.end());
    auto path = std::find(options.begin(), options.end(), Option::path(""));
    ASSERT_NE(path, options.end());
    EXPECT_EQ(*path->get<std::string>(), "/socket.io/");

    EventLog log;
    auto socket = connected(log);
    ASSERT_EQ(engines.size(), 1u);
    EXPECT_EQ(engines[0]->calls, (std::vector<std::string>{"connect", "send 0/,"}));
    EXPECT_EQ(socket->status(), SocketIOStatus::connected);
    EXPECT_EQ(socket->sid, "abc");

    auto chat = manager->socket("/chat");
    chat->connect(Json{{"token", 1}});
    EXPECT_EQ(engines[0]->calls.back(), R"(send 0/chat,{"token":1})");
    manager->disconnectSocket(std::string("/chat"));
    EXPECT_EQ(engines[0]->calls.back(), "send 1/chat,");
    EXPECT_EQ(manager->nsps.count("/chat"), 0u);

    // A second connect while connected changes nothing.
    manager->connect();
    EXPECT_EQ(engines[0]->calls.back(), "send 1/chat,");
}

TEST_F(SocketManagerTest, RevisionTwoConnectsTheDefaultNamespaceOnOpen) {
    make({Option::version(SocketIOVersion::two)});
    EventLog log;
    auto socket = manager->defaultSocket();
    log.attach(*socket);
    auto chat = manager->socket("/chat");
    socket->connect();
    chat->connect(Json{{"ignored", true}});
    manager->engineDidOpen("Connect");
    queue->runUntilIdle();
    EXPECT_EQ(socket->status(), SocketIOStatus::connected);
    EXPECT_EQ(log.first("connect "), R"(connect ["/"])");
    // No packet for "/", and no payload in this revision.
    EXPECT_EQ(engines[0]->calls, (std::vector<std::string>{"connect", "send 0/chat,"}));
}

TEST_F(SocketManagerTest, ReconnectLoopCountsDownAndGivesUp) {
    make({Option::reconnectAttempts(2)});
    EventLog log;
    connected(log);
    manager->engineDidClose("Socket Disconnected");
    queue->runUntilIdle();
    EXPECT_EQ(log.first("reconnect "), R"(reconnect ["Socket Disconnected"])");
    EXPECT_EQ(log.count("reconnectAttempt "), 1u);
    EXPECT_EQ(log.first("reconnectAttempt "), "reconnectAttempt [2]");
    EXPECT_EQ(engines[0]->calls.back(), "connect");

    // A close during the loop does not start a second one, and a manual reconnect is ignored.
    manager->engineDidClose("Socket Disconnected");
    manager->reconnect();
    queue->runUntilIdle();
    EXPECT_EQ(log.count("reconnect "), 1u);

    // First wait: 10 s times 1.5 with no jitter.
    queue->advance(14900ms);
    EXPECT_EQ(log.count("reconnectAttempt "), 1u);
    queue->advance(100ms);
    EXPECT_EQ(log.count("reconnectAttempt "), 2u);
    EXPECT_EQ(log.lines().back(), "reconnectAttempt [1]");
    queue->advance(22500ms);
    EXPECT_EQ(log.lines().back(), R"(disconnect ["Reconnect Failed"])");
    EXPECT_FALSE(queue->hasDelayedTasks());
    EXPECT_EQ(manager->status(), SocketIOStatus::connecting);
    EXPECT_EQ(engines.size(), 1u);
}

TEST_F(SocketManagerTest, LoopEndsOnOpenAndRespectsLimits) {
    // No attempts allowed: the first close fails at once.
    make({Option::reconnectAttempts(0)});
    EventLog first;
    connected(first);
    manager->engineDidClose("Ping timeout");
    queue->runUntilIdle();
    EXPECT_EQ(first.lines().back(), R"(disconnect ["Reconnect Failed"])");
    EXPECT_EQ(first.count("reconnectAttempt "), 0u);

    // An opened engine ends the loop; the pending round finds nothing to do.
    make({});
    EventLog second;
    connected(second);
    manager->engineDidClose("Socket Disconnected");
    queue->runUntilIdle();
    EXPECT_EQ(second.first("reconnectAttempt "), "reconnectAttempt [-1]");
    manager->engineDidOpen("Connect");
    manager->parseEngineMessage("0");
    queue->runUntilIdle();
    EXPECT_FALSE(manager->reconnecting);
    EXPECT_EQ(manager->currentReconnectAttempt, 0);
    queue->advance(60s);
    EXPECT_EQ(second.count("reconnectAttempt "), 1u);
    EXPECT_EQ(second.count("connect "), 2u);

    // A deliberate disconnect: the engine's close reports and does not reconnect.
    manager->disconnect();
    EXPECT_EQ(engines.back()->calls.back(), "disconnect Disconnect");
    manager->engineDidClose("Disconnect");
    queue->runUntilIdle();
    EXPECT_EQ(second.lines().back(), R"(disconnect ["Disconnect"])");
    EXPECT_EQ(second.count("reconnect "), 1u);
}

TEST_F(SocketManagerTest, OneReconnectLoopAtATime) {
    make({});
    EventLog log;
    connected(log);
    auto& engine = *engines[0];
    auto connects = [&] { return std::count(engine.calls.begin(), engine.calls.end(), "connect"); };
    manager->engineDidClose("Socket Disconnected");
    queue->runUntilIdle();
    EXPECT_EQ(connects(), 2);
    // The engine opens: the loop ends, its next round (due at 15 s) with it.
    queue->advance(5s);
    manager->engineDidOpen("Connect");
    manager->parseEngineMessage("0");
    queue->runUntilIdle();
    // A drop before that round is due starts one new loop, and the old round does nothing.
    queue->advance(5s);
    manager->engineDidClose("Socket Disconnected");
    queue->runUntilIdle();
    EXPECT_EQ(log.count("reconnect "), 2u);
    EXPECT_EQ(log.count("reconnectAttempt "), 2u);
    queue->advance(5s);
    EXPECT_EQ(log.count("reconnectAttempt "), 2u);
    EXPECT_EQ(connects(), 3);

    // A round that finds the engine still connecting waits for it, and counts nothing.
    engine.busy = true;
    queue->advance(10s);
    EXPECT_EQ(log.count("reconnectAttempt "), 2u);
    EXPECT_EQ(connects(), 3);
    engine.busy = false;
    queue->advance(15s);
    EXPECT_EQ(log.count("reconnectAttempt "), 3u);
    EXPECT_EQ(log.lines().back(), "reconnectAttempt [-2]");
    EXPECT_EQ(connects(), 4);

    // disconnect() ends the loop; a connect that then fails starts a new one.
    manager->disconnect();
    queue->advance(60s);
    EXPECT_EQ(log.count("reconnectAttempt "), 3u);
    EXPECT_FALSE(manager->reconnecting);
    manager->connect();
    manager->engineDidClose("Socket Disconnected");
    queue->runUntilIdle();
    EXPECT_EQ(log.count("reconnect "), 3u);
    EXPECT_EQ(log.lines().back(), "reconnectAttempt [-1]");
}

TEST_F(SocketManagerTest, WaitingBinaryPacketsHoldNoMoreThanAMessage) {
    websocket::Limits limits;
    limits.maxMessageSize = 100;
    make({Option::limits(limits)});
    EventLog log;
    connected(log);
    // Attachments that complete their packet are given back, and hold nothing after.
    for (int i = 0; i < 10; ++i) {
        manager->parseEngineMessage(R"(51-["file",{"_placeholder":true,"num":0}])");
        manager->parseEngineBinaryData(Bytes(40, 1));
    }
    queue->runUntilIdle();
    EXPECT_EQ(log.count("file "), 10u);
    EXPECT_TRUE(engines[0]->errors.empty());
    // Packets that wait together for more than a message: the engine closes as for a protocol
    // failure, and what waited is forgotten.
    manager->parseEngineMessage(R"(52-["file",{"_placeholder":true,"num":0},{"_placeholder":true,"num":1}])");
    manager->parseEngineBinaryData(Bytes(20, 1));
    manager->parseEngineMessage(R"(51-["more",{"_placeholder":true,"num":0}])");
    queue->runUntilIdle();
    EXPECT_EQ(engines[0]->errors, (std::vector<std::string>{"message too big. code=1009, type=protocolError"}));
    EXPECT_TRUE(manager->waitingPackets.empty());
    manager->parseEngineBinaryData(Bytes(1, 1));
    queue->runUntilIdle();
    EXPECT_EQ(log.count("file "), 10u);
}

TEST_F(SocketManagerTest, ReconnectIntervalStaysWithinItsBounds) {
    make({});
    draw = 0.0;
    EXPECT_DOUBLE_EQ(manager->reconnectInterval(1), 15.0);
    EXPECT_DOUBLE_EQ(manager->reconnectInterval(2), 22.5);
    EXPECT_DOUBLE_EQ(manager->reconnectInterval(3), 30.0);
    draw = 0.999;
    EXPECT_DOUBLE_EQ(manager->reconnectInterval(1), 15.0 + 0.999 * 0.5 * 15.0);
    EXPECT_DOUBLE_EQ(manager->reconnectInterval(2), 30.0);
    EXPECT_DOUBLE_EQ(manager->reconnectInterval(0), 10.0 + 0.999 * 0.5 * 10.0);
    // The floor is the base wait, whatever the ceiling says.
    make({Option::reconnectWait(20), Option::reconnectWaitMax(5), Option::randomizationFactor(0.0)});
    EXPECT_DOUBLE_EQ(manager->reconnectInterval(4), 20.0);
}

TEST_F(SocketManagerTest, NewEnginesCutTheOldOneOff) {
    make({Option::forceNew(true)});
    manager->connect();
    manager->disconnect();
    manager->connect();
    ASSERT_EQ(engines.size(), 2u);
    EXPECT_TRUE(engines[0]->cutOff);
    EXPECT_EQ(engines[0]->calls.back(), "disconnect Adding new engine");

    make({});
    manager->connect();
    manager->disconnect();
    manager->connect();
    EXPECT_EQ(engines.size(), 3u);
    EXPECT_EQ(engines[2]->calls, (std::vector<std::string>{"connect", "disconnect Disconnect", "connect"}));
}

TEST_F(SocketManagerTest, BinaryPacketsWaitForTheirAttachments) {
    make({});
    EventLog log;
    auto socket = connected(log);
    std::vector<std::string> lines;
    setLogSink([&](std::string_view line) { lines.emplace_back(line); });
    defaultLogger()->setLog(true);

    manager->parseEngineMessage(R"(51-["file",{"_placeholder":true,"num":0}])");
    manager->parseEngineBinaryData({7, 8});
    queue->runUntilIdle();
    ASSERT_TRUE(log.waitFor("file ", 1, 0ms));
    EXPECT_EQ(log.itemsOf("file ")[0], Json::binary({7, 8}));

    // A namespace nobody joined: reassembled, then dropped.
    manager->parseEngineMessage(R"(51-/nobody,["file",{"_placeholder":true,"num":0}])");
    manager->parseEngineBinaryData({1});
    // A close forgets packets still waiting.
    manager->parseEngineMessage(R"(51-["late",{"_placeholder":true,"num":0}])");
    manager->disconnect();
    manager->engineDidClose("Disconnect");
    manager->parseEngineBinaryData({2});
    queue->runUntilIdle();
    defaultLogger()->setLog(false);
    setLogSink({});

    EXPECT_EQ(log.count("file "), 1u);
    EXPECT_EQ(log.count("late "), 0u);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "ERROR SocketParser: Got data when not remaking packet"),
              lines.end());
    EXPECT_NE(std::find(lines.begin(), lines.end(), "LOG SocketManager: Manager closing"), lines.end());
}

}  // namespace
}  // namespace kelvane::socketio
