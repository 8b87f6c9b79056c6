// The namespace client over a fake manager and engine, on a manual handle queue.
#include "ManualQueue.hpp"
#include "socketio/SocketIOClient.hpp"
#include "socketio/SocketIOClientOption.hpp"
#include "socketio/SocketLogger.hpp"
#include "support/fakes/FakePlatform.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kelvane::socketio {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Status = SocketIOStatus;
using Strings = std::vector<std::string>;

class FakeEngine final : public SocketEngineSpec {
public:
    struct Sent {
        std::string text;
        std::vector<Bytes> data;
        Completion completion;
    };
    std::vector<Sent> sent;

    Strings texts() const {
        Strings result;
        for (const auto& each : sent) result.push_back(each.text);
        return result;
    }

    const std::shared_ptr<Queue>& engineQueue() const override { return queue_; }
    void setClient(std::weak_ptr<SocketEngineClient>) override {}
    bool setConfigs(const SocketIOClientConfiguration&) override { return false; }
    bool underWay() const override { return false; }
    void connect() override {}
    void disconnect(std::string) override {}
    void send(std::string text, std::vector<Bytes> data, Completion completion) override {
        sent.push_back({std::move(text), std::move(data), std::move(completion)});
    }
    void write(std::string, SocketEnginePacketType, std::vector<Bytes>, Completion) override {}
    void didError(std::string) override {}
    void doFastUpgrade() override {}
    void flushWaitingForPostToWebSocket() override {}
    void parseEngineData(Bytes) override {}
    void parseEngineMessage(std::string) override {}

private:
    std::shared_ptr<Queue> queue_ = std::make_shared<ManualQueue>("engine");
};

// Joins are only recorded; leaving writes the disconnect packet and closes the namespace, as
// the real manager does.
class FakeManager final : public SocketManagerSpec {
public:
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>("handle");
    std::shared_ptr<FakeEngine> fakeEngine = std::make_shared<FakeEngine>();
    Status managerStatus = Status::connected;
    SocketIOVersion managerVersion = SocketIOVersion::three;
    std::vector<std::optional<Json>> joins;

    void connectSocket(SocketIOClient&, const std::optional<Json>& payload) override { joins.push_back(payload); }
    void disconnectSocket(SocketIOClient& socket) override {
        fakeEngine->send("1" + socket.nsp() + ",", {}, {});
        socket.didDisconnect("Namespace leave");
    }
    void reconnect() override {}
    std::shared_ptr<SocketEngineSpec> engine() const override { return fakeEngine; }
    std::shared_ptr<Queue> handleQueue() const override { return queue; }
    Status status() const override { return managerStatus; }
    SocketIOVersion version() const override { return managerVersion; }
};

struct Harness {
    explicit Harness(std::string nsp = "/") {
        logWasOn = defaultLogger()->log();
        defaultLogger()->setLog(true);
        client = std::make_shared<SocketIOClient>(manager, std::move(nsp));
        // Every event that reaches the handlers, as "name data".
        client->onAny([this](const SocketAnyEvent& event) {
            events.push_back(event.event + " " + printed(*event.items));
        });
    }
    ~Harness() { defaultLogger()->setLog(logWasOn); }

    void connect() { client->didConnect(client->nsp(), std::nullopt); }
    bool logged(const std::string& line) const { return log.contains(line); }

    fakes::LogCapture log;
    bool logWasOn = false;
    std::shared_ptr<FakeManager> manager = std::make_shared<FakeManager>();
    std::shared_ptr<SocketIOClient> client;
    Strings events;
};

struct Failing final : SocketData {
    Result<Json> socketRepresentation() const override { return Error{"Test", 7, "no"}; }
};
struct Point final : SocketData {
    Result<Json> socketRepresentation() const override { return Json{{"x", 1}}; }
};

const std::string kFailingText = R"(Error Domain=Test Code=7 "no")";

TEST(SocketIOClientConnect, TimesOutJoinsAndSkips) {
    Harness h("/chat");
    int timedOut = 0;
    h.client->connect(Json{{"token", "t"}}, 2.0, [&] { ++timedOut; });
    EXPECT_EQ(h.client->status(), Status::connecting);
    ASSERT_EQ(h.manager->joins.size(), 1u);
    EXPECT_EQ(h.client->connectPayload, (Json{{"token", "t"}}));
    EXPECT_TRUE(h.logged("LOG SocketIOClient{/chat}: Joining namespace /chat"));

    h.manager->queue->advance(1999ms);
    EXPECT_EQ(timedOut, 0);
    h.manager->queue->advance(1ms);
    EXPECT_EQ(timedOut, 1);
    EXPECT_EQ(h.client->status(), Status::disconnected);
    EXPECT_EQ(h.manager->fakeEngine->texts(), Strings{"1/chat,"});
    EXPECT_TRUE(h.logged("LOG SocketIOClient{/chat}: Timeout: Socket not connected, so setting to disconnected"));
    // Leaving finds the namespace already disconnected, so no disconnect event follows.
    EXPECT_THAT(h.events, ElementsAre(R"(statusChange ["connecting",2])", R"(statusChange ["disconnected",1])"));

    // Connected in time: the timer finds nothing to do.
    h.client->connect(std::nullopt, 1.0, [&] { ++timedOut; });
    h.connect();
    h.manager->queue->advance(1s);
    EXPECT_EQ(timedOut, 1);
    EXPECT_EQ(h.client->status(), Status::connected);

    h.client->connect();
    EXPECT_TRUE(h.logged("LOG SocketIOClient{/chat}: Tried connecting on an already connected socket"));
    EXPECT_EQ(h.manager->joins.size(), 2u);

    // A client released before its timer fires is left alone.
    h.client->didDisconnect("x");
    h.client->connect(std::nullopt, 1.0, [&] { ++timedOut; });
    h.client.reset();
    EXPECT_TRUE(h.logged("LOG SocketIOClient{/chat}: Client is being released"));
    h.manager->queue->advance(1s);
    EXPECT_EQ(timedOut, 1);

    // Revision two sends no connect packet for "/": an open engine means joined.
    Harness two;
    two.manager->managerVersion = SocketIOVersion::two;
    two.client->connect(std::nullopt, 1.0, [&] { ++timedOut; });
    EXPECT_EQ(two.client->status(), Status::connected);
    EXPECT_FALSE(two.manager->queue->hasDelayedTasks());

    // No manager: nothing but the log line.
    auto orphan = std::make_shared<SocketIOClient>(std::weak_ptr<SocketManagerSpec>(), "/");
    orphan->connect();
    EXPECT_EQ(orphan->status(), Status::notConnected);
    orphan->disconnect();
    EXPECT_TRUE(two.logged("LOG SocketIOClient{/}: Closing socket"));

#ifndef NDEBUG
    EXPECT_DEATH(orphan->connect(std::nullopt, -1, {}), "Fatal error: Invalid timeout: -1.0");
#endif
}

TEST(SocketIOClientStatus, TransitionsRaiseStatusChangeFirst) {
    Harness h;
    h.client->didConnect("/", Json{{"sid", "abc"}});
    h.client->didConnect("/", std::nullopt);
    EXPECT_EQ(h.client->sid, "abc");
    h.client->didDisconnect("gone");
    h.client->didDisconnect("again");
    EXPECT_EQ(h.client->sid, "");
    h.client->setReconnecting("lost");
    EXPECT_THAT(h.events, ElementsAre(R"(statusChange ["connected",3])", R"(connect ["/",{"sid":"abc"}])",
                                      R"(statusChange ["disconnected",1])", R"(disconnect ["gone"])",
                                      R"(statusChange ["connecting",2])", R"(reconnect ["lost"])"));
    EXPECT_TRUE(h.logged("LOG SocketIOClient{/}: Socket connected"));
    EXPECT_TRUE(h.logged("LOG SocketIOClient{/}: Disconnected: gone"));
    EXPECT_FALSE(h.logged("LOG SocketIOClient{/}: Disconnected: again"));

    // Packets: another namespace is ignored; a payload that is no object is no payload.
    h.events.clear();
    h.client->handlePacket(SocketPacket(PacketType::connect, {}, -1, "/other"));
    h.client->handlePacket(SocketPacket(PacketType::connect, {Json("text")}));
    EXPECT_EQ(h.client->sid, std::nullopt);
    h.client->handlePacket(SocketPacket(PacketType::disconnect));
    h.client->handlePacket(SocketPacket(PacketType::error, {Json("not allowed")}));
    h.client->handlePacket(SocketPacket(PacketType::connect, {Json{{"sid", "s2"}}}));
    EXPECT_EQ(h.client->sid, "s2");
    EXPECT_THAT(h.events,
                ElementsAre(R"(statusChange ["connected",3])", R"(connect ["/"])", R"(statusChange ["disconnected",1])",
                            R"(disconnect ["Got Disconnect"])", R"(error ["not allowed"])",
                            R"(statusChange ["connected",3])", R"(connect ["/",{"sid":"s2"}])"));
}

TEST(SocketIOClientHandlers, RunInOrderOnceAndOverACopy) {
    Harness h;
    h.connect();
    Strings calls;
    h.client->on("ev", [&](const std::vector<Json>& data, SocketAckEmitter&) {
        calls.push_back("a" + printed(data));
    });
    h.client->on("ev", [&](const std::vector<Json>&, SocketAckEmitter&) { calls.push_back("b"); });
    std::size_t handlersInOnce = 0;
    h.client->once("ev", [&](const std::vector<Json>&, SocketAckEmitter&) {
        handlersInOnce = h.client->handlers.size();
        calls.push_back("once");
    });
    h.client->on(SocketClientEvent::error, [&](const std::vector<Json>&, SocketAckEmitter&) { calls.push_back("e"); });

    h.client->handleEvent("ev", {Json(1)}, false);
    h.client->handleEvent("ev", {Json(2)}, false);
    EXPECT_THAT(calls, ElementsAre("a[1]", "b", "once", "a[2]", "b"));
    EXPECT_EQ(handlersInOnce, 3u);
    EXPECT_TRUE(h.logged("LOG SocketIOClient{/}: Adding handler for event: ev"));
    EXPECT_TRUE(h.logged("LOG SocketIOClient{/}: Adding once handler for event: ev"));
    EXPECT_TRUE(h.logged("LOG SocketIOClient{/}: Handling event: ev with data: [1]"));

    // A handler removed by an earlier one still runs in the same dispatch.
    calls.clear();
    h.client->handlers.front().callback =
        std::make_shared<const NormalCallback>([&](const std::vector<Json>&, SocketAckEmitter&) {
            calls.push_back("a");
            h.client->off("ev");
        });
    h.client->handleEvent("ev", {}, false);
    h.client->handleEvent("ev", {}, false);
    EXPECT_THAT(calls, ElementsAre("a", "b"));
    EXPECT_TRUE(h.logged("LOG SocketIOClient{/}: Removing handler for event: ev"));

    // Events from the server wait for the connection; the client's own do not.
    calls.clear();
    h.client->didDisconnect("x");
    h.client->handleEvent("error", {}, false);
    h.client->handleEvent("error", {}, true);
    EXPECT_THAT(calls, ElementsAre("e"));

    // The any handler outlives removeAllHandlers.
    h.client->removeAllHandlers();
    h.events.clear();
    h.client->handleClientEvent(SocketClientEvent::ping, {});
    EXPECT_THAT(h.events, ElementsAre("ping []"));
}

TEST(SocketIOClientEmit, SendsOnlyWhenConnected) {
    Harness h;
    auto& engine = *h.manager->fakeEngine;
    h.client->connect();
    int completed = 0;
    h.client->emit("ev", {1}, [&] { ++completed; });
    EXPECT_EQ(completed, 0);
    EXPECT_THAT(h.events, Contains(R"(error ["Tried emitting when not connected"])"));
    h.manager->queue->runUntilIdle();
    EXPECT_EQ(completed, 1);
    EXPECT_TRUE(engine.sent.empty());

    h.connect();
    h.client->emit("ev", {1, "two"}, [&] { ++completed; });
    ASSERT_EQ(engine.texts(), Strings{R"(2["ev",1,"two"])"});
    EXPECT_TRUE(h.logged(R"(LOG SocketIOClient{/}: Emitting: 2["ev",1,"two"], Ack: false)"));
    // The completion hops to the handle queue once the engine is done with the text.
    engine.sent[0].completion();
    EXPECT_EQ(completed, 1);
    h.manager->queue->runUntilIdle();
    EXPECT_EQ(completed, 2);

    h.client->emit("file", {Json::binary(Bytes{1, 2, 3}), Json{{"nested", Json::binary(Bytes{4})}}});
    ASSERT_EQ(engine.sent.size(), 2u);
    EXPECT_EQ(engine.sent[1].text,
              R"(52-["file",{"_placeholder":true,"num":0},{"nested":{"_placeholder":true,"num":1}}])");
    EXPECT_THAT(engine.sent[1].data, ElementsAre(Bytes{1, 2, 3}, Bytes{4}));

    // A completion whose client is gone is dropped.
    h.client->emit("late", {}, [&] { ++completed; });
    auto completion = engine.sent.back().completion;
    h.client.reset();
    completion();
    h.manager->queue->runUntilIdle();
    EXPECT_EQ(completed, 2);
}

TEST(SocketIOClientAcks, AnsweredTimedOutAndLate) {
    Harness h("/chat");
    auto& engine = *h.manager->fakeEngine;
    h.connect();
    std::vector<std::vector<Json>> firstAnswers;
    std::vector<std::vector<Json>> secondAnswers;
    {
        auto first = h.client->emitWithAck("ev", {"x"});
        auto second = h.client->emitWithAck("ev", {"y"});
        EXPECT_EQ(first.ackNumber(), 0);
        EXPECT_EQ(second.ackNumber(), 1);
        EXPECT_TRUE(engine.sent.empty());
        first.timingOut(0, [&](const std::vector<Json>& data) { firstAnswers.push_back(data); });
        second.timingOut(5, [&](const std::vector<Json>& data) { secondAnswers.push_back(data); });
    }
    EXPECT_TRUE(h.logged("LOG OnAckCallback: OnAckCallback for 0 being released"));
    EXPECT_EQ(engine.texts(), (Strings{R"(2/chat,0["ev","x"])", R"(2/chat,1["ev","y"])"}));

    h.client->handlePacket(SocketPacket(PacketType::ack, {Json("ok")}, 0, "/chat"));
    EXPECT_THAT(firstAnswers, ElementsAre(std::vector<Json>{"ok"}));
    EXPECT_TRUE(h.logged(R"(LOG SocketIOClient{/chat}: Handling ack: 0 with data: ["ok"])"));

    h.manager->queue->advance(4999ms);
    EXPECT_TRUE(secondAnswers.empty());
    h.manager->queue->advance(1ms);
    EXPECT_THAT(secondAnswers, ElementsAre(std::vector<Json>{"NO ACK"}));
    h.client->handlePacket(SocketPacket(PacketType::ack, {Json("late")}, 1, "/chat"));
    h.client->handlePacket(SocketPacket(PacketType::binaryAck, {Json("again")}, 0, "/chat"));
    EXPECT_EQ(secondAnswers.size(), 1u);
    EXPECT_EQ(firstAnswers.size(), 1u);
    EXPECT_EQ(h.client->ackHandlers.size(), 0u);

    // Time-outs of different lengths come earliest first, and answered acks leave no timer
    // behind: one per namespace, whatever the number of acks.
    Strings order;
    auto track = [&](const std::string& name) { return [&, name](const std::vector<Json>&) { order.push_back(name); }; };
    h.client->emitWithAck("ev", {}).timingOut(10, track("long"));
    h.client->emitWithAck("ev", {}).timingOut(2, track("short"));
    h.client->emitWithAck("ev", {}).timingOut(2, track("short too"));
    for (int i = 0; i < 100; ++i) {
        h.client->emitWithAck("ev", {}).timingOut(5, track("answered"));
        h.client->handlePacket(SocketPacket(PacketType::ack, {}, h.client->currentAck, "/chat"));
    }
    EXPECT_EQ(order.size(), 100u);
    order.clear();
    EXPECT_LE(h.manager->queue->pendingCount(), 2u);
    h.manager->queue->advance(2s);
    EXPECT_EQ(order, (Strings{"short", "short too"}));
    h.manager->queue->advance(8s);
    EXPECT_EQ(order, (Strings{"short", "short too", "long"}));
    EXPECT_EQ(h.manager->queue->pendingCount(), 0u);

    // Answers are not taken while disconnected.
    h.client->ackHandlers.addAck(9, {});
    h.client->didDisconnect("x");
    h.client->handleAck(9, {});
    EXPECT_TRUE(h.client->ackHandlers.contains(9));
}

TEST(SocketIOClientAcks, AnswersIncomingEvents) {
    Harness h;
    auto& engine = *h.manager->fakeEngine;
    h.connect();
    h.client->on("ask", [](const std::vector<Json>& data, SocketAckEmitter& ack) {
        if (data.at(0) == "items") ack.with({"ok", 2});
        if (data.at(0) == "raw") ack.withRaw({Json::binary(Bytes{7})});
        if (data.at(0) == "bad") ack.with({std::make_shared<Failing>()});
    });

    h.client->handlePacket(SocketPacket(PacketType::event, {"ask", "items"}, 31));
    h.client->handlePacket(SocketPacket(PacketType::event, {"ask", "items"}));
    h.client->handlePacket(SocketPacket(PacketType::binaryEvent, {"ask", "raw"}, 4));
    EXPECT_EQ(engine.texts(), (Strings{R"(331["ok",2])", R"(61-4[{"_placeholder":true,"num":0}])"}));
    EXPECT_THAT(engine.sent[1].data, ElementsAre(Bytes{7}));
    EXPECT_TRUE(h.logged(R"(LOG SocketIOClient{/}: Emitting: 331["ok",2], Ack: true)"));

    h.events.clear();
    h.client->handlePacket(SocketPacket(PacketType::event, {"ask", "bad"}, 5));
    EXPECT_EQ(engine.sent.size(), 2u);
    auto items = Json::array({kFailingText});
    EXPECT_THAT(h.events, Contains("error " + printed(std::vector<Json>{5, items, kFailingText})));
}

TEST(SocketIOClientEmit, ConversionFailuresRaiseError) {
    Harness h;
    auto& engine = *h.manager->fakeEngine;
    h.connect();
    h.client->emit("ev", {std::make_shared<Point>()});
    EXPECT_EQ(engine.texts(), Strings{R"(2["ev",{"x":1}])"});

    h.events.clear();
    int completed = 0;
    h.client->emit("ev", {1, std::make_shared<Failing>()}, [&] { ++completed; });
    auto items = Json::array({1, kFailingText});
    EXPECT_THAT(h.events, ElementsAre("error " + printed(std::vector<Json>{"ev", items, kFailingText})));
    EXPECT_TRUE(h.logged("ERROR SocketIOClient{/}: Error creating socketRepresentation for emit: ev, " +
                         printed(items)));

    auto ack = h.client->emitWithAck("ev", {std::make_shared<Failing>()});
    EXPECT_EQ(ack.ackNumber(), -1);
    EXPECT_EQ(h.client->currentAck, -1);
    ack.timingOut(1, [&](const std::vector<Json>&) { ++completed; });
    h.manager->queue->advance(1s);
    EXPECT_EQ(completed, 0);
    EXPECT_EQ(engine.sent.size(), 1u);
    EXPECT_EQ(h.client->ackHandlers.size(), 0u);
}

TEST(SocketIOClientConfiguration, InsertsReplacesAndReadsObjects) {
    using Option = SocketIOClientOption;
    EXPECT_EQ(Option::reconnectWait(1), Option::reconnectWait(2));
    EXPECT_FALSE(Option::reconnectWait(1) == Option::reconnectWaitMax(1));
    EXPECT_EQ(Option::useCustomEngine(true).description(), "customEngine");

    SocketIOClientConfiguration config{Option::log(true), Option::path("/a/")};
    config.insert(Option::log(false));
    config.insert(Option::path("/b/"), false);
    config.insert(Option::compress());
    ASSERT_EQ(config.size(), 3u);
    EXPECT_EQ(*config.options()[0].get<bool>(), false);
    EXPECT_EQ(*config.options()[1].get<std::string>(), "/a/");
    EXPECT_EQ(config.options()[2].kind(), Option::Kind::compress);

    auto read = SocketIOClientConfiguration::fromObject({
        {"compress", std::string("anything")},
        {"connectParams", Json{{"a", 1}}},
        {"customEngine", true},
        {"log", true},
        {"path", true},
        {"randomizationFactor", std::int64_t{1}},
        {"reconnectWait", std::int64_t{5}},
        {"unknown", true},
        {"version", SocketIOVersion::two},
    });
    Strings names;
    for (const auto& option : read) names.emplace_back(option.description());
    EXPECT_THAT(names, ElementsAre("compress", "connectParams", "log", "reconnectWait", "version"));
    EXPECT_EQ(*read.options()[3].get<std::int64_t>(), 5);
    EXPECT_EQ(*read.options()[4].get<SocketIOVersion>(), SocketIOVersion::two);
}

}  // namespace
}  // namespace kelvane::socketio
