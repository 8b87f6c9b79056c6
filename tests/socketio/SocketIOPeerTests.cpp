#include "socketio/SocketEngine.hpp"
#include "socketio/SocketManager.hpp"

#include "PeerProcess.hpp"
#include "SocketTestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <deque>
#include <functional>

namespace kelvane::socketio {
namespace {

using kelvane::testing::PeerProcess;
using testing::EventLog;
using Option = SocketIOClientOption;

Json handshakeOf(const std::string& line) {
    // "CONNECT <nsp> <json>"
    auto space = line.find(' ', 8);
    return Json::parse(line.substr(space + 1));
}

class SocketIOPeer : public ::testing::Test {
protected:
    template <class Work>
    auto onQueue(Work work) {
        using Result = decltype(work());
        if constexpr (std::is_void_v<Result>) {
            queue->sync(work);
        } else {
            std::optional<Result> result;
            queue->sync([&] { result = work(); });
            return *result;
        }
    }

    void TearDown() override {
        if (!manager) return;
        std::weak_ptr<SocketEngineSpec> engine = onQueue([&] { return manager->engine(); });
        onQueue([&] {
            manager->disconnect();
            manager.reset();
        });
        // Nothing but queued work may keep the engine once its manager is gone.
        EXPECT_TRUE(testing::eventually([&] { return engine.expired(); }));
    }

    void startServer(Json options = Json::object()) {
        server = std::make_unique<PeerProcess>("socketio-server.js", std::vector<std::string>{options.dump()});
        ASSERT_GT(server->port(), 0);
        port = server->port();
    }

    void restartServer() {
        server.reset();
        startServer({{"port", port}});
    }

    void makeManager(SocketIOClientConfiguration config) {
        config.insert(Option::handleQueue(queue));
        auto url = *URL::make("http://127.0.0.1:" + std::to_string(port) + "/");
        manager = std::make_shared<SocketManager>(url, config);
    }

    // Connects the namespace and waits for its connect event.
    std::shared_ptr<SocketIOClient> connectSocket(const std::string& nsp, EventLog& log) {
        auto socket = onQueue([&] {
            auto made = manager->socket(nsp);
            log.attach(*made);
            made->connect();
            return made;
        });
        EXPECT_TRUE(log.waitFor("connect ")) << nsp;
        return socket;
    }

    // One acked echo, answered within the bound.
    std::vector<Json> echo(const std::shared_ptr<SocketIOClient>& socket, std::vector<SocketItem> items) {
        EventLog& answers = makeLog();
        onQueue([&] {
            socket->emitWithAck("echo", items).timingOut(10, [&](const std::vector<Json>& data) {
                answers.add("ack", data);
            });
        });
        EXPECT_TRUE(answers.waitFor("ack"));
        return answers.itemsOf("ack");
    }

    // Connects the default namespace without waiting; `onConnect` runs on the handle queue at
    // each of its connects.
    void connectDefaultSocket(EventLog& log, std::function<void(SocketIOClient&)> onConnect) {
        onQueue([&] {
            auto socket = manager->defaultSocket();
            log.attach(*socket);
            socket->on(SocketClientEvent::connect,
                       [onConnect = std::move(onConnect), weak = std::weak_ptr<SocketIOClient>(socket)](auto&, auto&) {
                           if (auto self = weak.lock()) onConnect(*self);
                       });
            socket->connect();
        });
    }

    void restartFiftyTimes(SocketIOClientConfiguration config);

    // Logs outlive the manager, whose handlers write to them until TearDown releases it.
    EventLog& makeLog() { return logs.emplace_back(); }

    std::deque<EventLog> logs;
    std::shared_ptr<Queue> queue = Queue::makeSerial("handle");
    std::unique_ptr<PeerProcess> server;
    int port = 0;
    std::shared_ptr<SocketManager> manager;
};

TEST_F(SocketIOPeer, WebSocketSessionCarriesEventsAcksAndAttachments) {
    startServer();
    makeManager({Option::compress(), Option::forceWebsockets(true),
                 Option::extraHeaders({{"chatcode", "code-42"}}), Option::connectParams({{"token", "a b&c"}})});
    EventLog& log = makeLog();
    auto socket = connectSocket("/", log);

    auto handshake = handshakeOf(*server->waitForLine("CONNECT / "));
    EXPECT_EQ(handshake["headers"]["chatcode"], "code-42");
    EXPECT_EQ(handshake["query"]["token"], "a b&c");
    EXPECT_EQ(handshake["query"]["EIO"], "4");
    EXPECT_EQ(handshake["query"]["transport"], "websocket");
    EXPECT_EQ(log.count("websocketUpgrade "), 1u);
    EXPECT_EQ(onQueue([&] { return socket->status(); }), SocketIOStatus::connected);

    // Integers and booleans stay apart on the way there and back.
    EXPECT_EQ(Json(echo(socket, {1, true, "text", Json{{"k", {1, 2.5}}}})),
              Json::parse(R"([1,true,"text",{"k":[1,2.5]}])"));

    // Attachments out: the server sees Buffers where the byte buffers were.
    onQueue([&] { socket->emit("echo", {Json::binary({1, 2}), Json{{"nested", {Json::binary({3})}}}}); });
    auto received = server->waitForLine([](const std::string& line) { return line.starts_with("EVENT / echo [{"); });
    ASSERT_TRUE(received);
    EXPECT_EQ(*received, R"(EVENT / echo [{"buffer":"0102"},{"nested":[{"buffer":"03"}]}])");
    ASSERT_TRUE(log.waitFor("echo "));
    auto echoed = log.itemsOf("echo ");
    ASSERT_EQ(echoed.size(), 2u);
    EXPECT_EQ(echoed[0], Json::binary({1, 2}));
    EXPECT_EQ(echoed[1]["nested"][0], Json::binary({3}));

    // Attachments in, nested in objects and arrays, plus one at the top level.
    onQueue([&] { socket->emit("binary", {}); });
    ASSERT_TRUE(log.waitFor("binary "));
    auto binary = log.itemsOf("binary ");
    ASSERT_EQ(binary.size(), 2u);
    EXPECT_EQ(binary[0]["first"], Json::binary({1, 2, 3}));
    EXPECT_EQ(binary[0]["list"][0], Json::binary({'x', 'y'}));
    EXPECT_EQ(binary[0]["list"][1]["deep"], Json::binary({255}));
    EXPECT_EQ(binary[1], Json::binary({9}));

    // Events the server raises on its own, and an ack the server asks for.
    server->writeLine(R"(emit / news ["hello",7])");
    ASSERT_TRUE(log.waitFor("news "));
    EXPECT_EQ(Json(log.itemsOf("news ")), Json::parse(R"(["hello",7])"));
    onQueue([&] {
        socket->on("noAck", [](const std::vector<Json>&, SocketAckEmitter& ack) { ack.with({"thanks"}); });
        socket->emit("noAck", {});
    });
    EXPECT_TRUE(server->waitForLine("ACKED noAck"));

    // An ack that never comes.
    EventLog& timeouts = makeLog();
    onQueue([&] {
        socket->emitWithAck("ignore", {}).timingOut(0.2, [&](const std::vector<Json>& data) {
            timeouts.add("ack", data);
        });
    });
    ASSERT_TRUE(timeouts.waitFor("ack"));
    EXPECT_EQ(Json(timeouts.itemsOf("ack")), Json::parse(R"(["NO ACK"])"));
}

// Frames queued behind a write under way leave together; every one arrives, and every answer
// comes back to its own ack, in order.
TEST_F(SocketIOPeer, TenThousandPipelinedAcksArriveWholeAndInOrder) {
    startServer({{"quiet", true}});
    makeManager({Option::forceWebsockets(true)});
    EventLog& log = makeLog();
    auto socket = connectSocket("/", log);
    EXPECT_EQ(testing::pipelinedEchoes(*queue, socket, 10000, 64, std::string(100, 'p')), 10000);
}

TEST_F(SocketIOPeer, NamespacesJoinLeaveAndRefuse) {
    startServer();
    makeManager({Option::forceWebsockets(true)});
    EventLog& main = makeLog();
    EventLog& chat = makeLog();
    EventLog& refused = makeLog();
    auto socket = connectSocket("/", main);
    auto chatSocket = connectSocket("/chat", chat);
    // Revision three's connect packet carries the namespace's own sid.
    EXPECT_TRUE(chat.first("connect ").starts_with(R"(connect ["/chat",{"sid":")")) << chat.first("connect ");
    EXPECT_TRUE(server->waitForLine("CONNECT /chat "));

    // The server throws one namespace out; the other stays up.
    onQueue([&] { chatSocket->emit("kickMe", {}); });
    ASSERT_TRUE(chat.waitFor("disconnect "));
    EXPECT_EQ(chat.first("disconnect "), R"(disconnect ["Got Disconnect"])");
    EXPECT_EQ(Json(echo(socket, {"still here"})), Json::parse(R"(["still here"])"));

    // Leaving a namespace tells the server.
    onQueue([&] { socket->disconnect(); });
    EXPECT_TRUE(server->waitForLine("DISCONNECT / client namespace disconnect"));
    EXPECT_EQ(main.first("disconnect "), R"(disconnect ["Namespace leave"])");

    // A namespace whose middleware refuses: an error event, then the connect time-out. (Its leave
    // packet names a namespace the server never joined, which makes the server drop the connection.)
    auto timedOut = std::make_shared<std::atomic<bool>>(false);
    onQueue([&] {
        auto made = manager->socket("/refused");
        refused.attach(*made);
        made->connect(std::nullopt, 0.3, [timedOut] { *timedOut = true; });
    });
    ASSERT_TRUE(refused.waitFor("error "));
    EXPECT_EQ(Json(refused.itemsOf("error ")), Json::parse(R"([{"message":"not allowed"}])"));
    ASSERT_TRUE(refused.waitFor("statusChange [\"disconnected\""));
    onQueue([] {});
    EXPECT_TRUE(*timedOut);
}

TEST_F(SocketIOPeer, LongPollingCarriesEverythingAsText) {
    startServer({{"transports", {"polling"}}});
    makeManager({Option::connectParams({{"EIO", "4"}, {"k", 1}})});
    EventLog& log = makeLog();
    auto socket = connectSocket("/", log);
    auto handshake = handshakeOf(*server->waitForLine("CONNECT / "));
    EXPECT_EQ(handshake["query"]["transport"], "polling");
    EXPECT_EQ(handshake["query"]["b64"], "1");
    EXPECT_EQ(handshake["query"]["k"], "1");

    EXPECT_EQ(Json(echo(socket, {"polled", false})), Json::parse(R"(["polled",false])"));
    onQueue([&] { socket->emit("binary", {}); });
    ASSERT_TRUE(log.waitFor("binary "));
    EXPECT_EQ(log.itemsOf("binary ")[0]["list"][1]["deep"], Json::binary({255}));

    // Writes made while a POST is out leave together in the next body; their acks all come back.
    EventLog& answers = makeLog();
    onQueue([&] {
        for (int i = 0; i < 40; ++i) {
            socket->emitWithAck("echo", {i, Json::binary({static_cast<std::uint8_t>(i)})})
                .timingOut(10, [&answers, i](const std::vector<Json>& data) {
                    answers.add("ack " + std::to_string(i), data);
                });
        }
    });
    ASSERT_TRUE(answers.waitFor("ack ", 40));
    for (int i = 0; i < 40; ++i) {
        auto data = answers.itemsOf("ack " + std::to_string(i));
        ASSERT_EQ(data.size(), 2u);
        EXPECT_EQ(data[0], i);
        EXPECT_EQ(data[1], Json::binary({static_cast<std::uint8_t>(i)}));
    }

    onQueue([&] { manager->disconnect(); });
    ASSERT_TRUE(log.waitFor("disconnect "));
    EXPECT_EQ(log.first("disconnect "), R"(disconnect ["Disconnect"])");
    EXPECT_TRUE(server->waitForLine("DISCONNECT / "));
}

TEST_F(SocketIOPeer, PollingUpgradesToWebSocketWithoutLosingOrder) {
    startServer();
    makeManager({});
    EventLog& log = makeLog();
    EventLog& answers = makeLog();
    auto socket = onQueue([&] {
        auto made = manager->defaultSocket();
        log.attach(*made);
        // Acks asked for as soon as the namespace is up cross the upgrade.
        made->on(SocketClientEvent::connect, [&, weak = std::weak_ptr<SocketIOClient>(made)](auto&, auto&) {
            auto self = weak.lock();
            for (int i = 0; i < 30; ++i) {
                self->emitWithAck("echo", {i}).timingOut(10, [&answers](const std::vector<Json>& data) {
                    answers.add("ack " + data.at(0).dump(), data);
                });
            }
        });
        made->connect();
        return made;
    });
    ASSERT_TRUE(log.waitFor("websocketUpgrade "));
    ASSERT_TRUE(answers.waitFor("ack ", 30));
    auto lines = answers.lines();
    for (int i = 0; i < 30; ++i) EXPECT_EQ(lines[i], "ack " + std::to_string(i));

    auto engine = std::dynamic_pointer_cast<SocketEngine>(onQueue([&] { return manager->engine(); }));
    ASSERT_TRUE(engine);
    EXPECT_TRUE(testing::eventually([&] {
        bool upgraded = false;
        engine->engineQueue()->sync([&] { upgraded = !engine->polling() && engine->connected(); });
        return upgraded;
    }));
    EXPECT_EQ(Json(echo(socket, {"over the socket"})), Json::parse(R"(["over the socket"])"));
}

TEST_F(SocketIOPeer, RevisionTwoOverWebSocketAndPolling) {
    for (bool polling : {false, true}) {
        SCOPED_TRACE(polling ? "polling" : "websocket");
        Json options = {{"allowEIO3", true}, {"pingInterval", 150}, {"pingTimeout", 2000}};
        if (polling) options["transports"] = {"polling"};
        startServer(options);
        SocketIOClientConfiguration config{Option::version(SocketIOVersion::two)};
        if (!polling) config.insert(Option::forceWebsockets(true));
        makeManager(config);
        EventLog& log = makeLog();
        auto socket = connectSocket("/", log);
        EXPECT_EQ(handshakeOf(*server->waitForLine("CONNECT / "))["query"]["EIO"], "3");

        EXPECT_EQ(Json(echo(socket, {"two", 2})), Json::parse(R"(["two",2])"));
        onQueue([&] { socket->emit("binary", {}); });
        ASSERT_TRUE(log.waitFor("binary "));
        EXPECT_EQ(log.itemsOf("binary ")[0]["first"], Json::binary({1, 2, 3}));
        // The client pings in this revision, and the server answers.
        EXPECT_TRUE(log.waitFor("pong ", 3));
        EXPECT_EQ(log.count("connect "), 1u);
        TearDown();
        server.reset();
    }
}

TEST_F(SocketIOPeer, FiniteReconnectGivesUp) {
    startServer();
    makeManager({Option::forceWebsockets(true), Option::reconnectAttempts(2), Option::reconnectWait(0),
                 Option::reconnectWaitMax(0)});
    EventLog& log = makeLog();
    connectSocket("/", log);
    server->signal(SIGKILL);
    ASSERT_TRUE(log.waitFor("disconnect "));
    EXPECT_EQ(log.first("disconnect "), R"(disconnect ["Reconnect Failed"])");
    EXPECT_EQ(log.first("reconnectAttempt "), "reconnectAttempt [2]");
    EXPECT_EQ(log.count("reconnectAttempt "), 2u);
    EXPECT_EQ(log.itemsOf("reconnectAttempt [1")[0], 1);
    EXPECT_EQ(log.count("reconnect "), 1u);
    EXPECT_EQ(onQueue([&] { return manager->status(); }), SocketIOStatus::connecting);
}

TEST_F(SocketIOPeer, ServerKilledAndRestartedFiveTimes) {
    startServer();
    makeManager({Option::forceWebsockets(true), Option::compress(), Option::reconnectWait(1),
                 Option::reconnectWaitMax(1)});
    EventLog& log = makeLog();
    auto socket = connectSocket("/", log);
    auto engine = onQueue([&] { return manager->engine(); });
    for (std::size_t round = 1; round <= 5; ++round) {
        SCOPED_TRACE(round);
        server->signal(SIGKILL);
        ASSERT_TRUE(log.waitFor("reconnect ", round));
        restartServer();
        ASSERT_TRUE(log.waitFor("connect ", round + 1));
        EXPECT_EQ(Json(echo(socket, {static_cast<int>(round)})), Json::array({round}));
    }
    EXPECT_EQ(log.count("connect "), 6u);
    EXPECT_EQ(log.count("reconnect "), 5u);
    // With no limit the remaining count goes negative: -1 minus the attempts made.
    EXPECT_EQ(log.first("reconnectAttempt "), "reconnectAttempt [-1]");
    EXPECT_EQ(onQueue([&] { return manager->engine(); }), engine);
    engine.reset();
}

TEST_F(SocketIOPeer, FrozenServerTimesOutPingsAndComesBack) {
    startServer({{"pingInterval", 300}, {"pingTimeout", 200}});
    makeManager({Option::forceWebsockets(true), Option::reconnectWait(1), Option::reconnectWaitMax(1)});
    EventLog& log = makeLog();
    auto socket = connectSocket("/", log);
    ASSERT_TRUE(log.waitFor("ping "));
    server->signal(SIGSTOP);
    ASSERT_TRUE(log.waitFor("reconnect "));
    EXPECT_EQ(log.first("reconnect "), R"(reconnect ["Ping timeout"])");
    server->signal(SIGCONT);
    ASSERT_TRUE(log.waitFor("connect ", 2));
    EXPECT_EQ(Json(echo(socket, {"back"})), Json::parse(R"(["back"])"));
}

// The server's own counts ("stats" on its standard input).
Json serverStats(const PeerProcess& server, const std::string& tag) {
    server.writeLine("stats " + tag);
    auto line = server.waitForLine("STATS " + tag + " ");
    return line ? Json::parse(line->substr(7 + tag.size())) : Json();
}

// 50 times in quick succession the server drops every connection unannounced and listens
// again after a few milliseconds. Each restart must give one reconnect, one Engine.IO session
// on the server, one `connect`, and the ack asked for on that connect.
void SocketIOPeer::restartFiftyTimes(SocketIOClientConfiguration config) {
    startServer({{"quiet", true}});
    config.insert(Option::reconnectWait(0));
    config.insert(Option::reconnectWaitMax(0));
    makeManager(config);
    EventLog& log = makeLog();
    EventLog& answers = makeLog();
    connectDefaultSocket(log, [&](SocketIOClient& socket) {
        const auto round = static_cast<int>(log.count("connect "));
        socket.emitWithAck("echo", {round}).timingOut(10, [&answers](const std::vector<Json>& data) {
            answers.add("ack " + printed(data), data);
        });
    });
    constexpr std::size_t restarts = 50;
    for (std::size_t round = 1; round <= restarts + 1; ++round) {
        ASSERT_TRUE(log.waitFor("connect ", round)) << "no connect after restart " << round - 1;
        ASSERT_TRUE(answers.waitFor("ack ", round)) << "no ack after restart " << round - 1;
        if (round <= restarts) server->writeLine("restart " + std::to_string(round) + " " + std::to_string(round % 6));
    }
    auto stats = serverStats(*server, "end");
    std::printf("figure restarts %zu reconnectAttempt %zu server %s\n", restarts, log.count("reconnectAttempt "),
                stats.dump().c_str());
    EXPECT_EQ(stats["sessions"], restarts + 1);
    EXPECT_EQ(stats["connects"], restarts + 1);
    EXPECT_EQ(log.count("connect "), restarts + 1);
    EXPECT_EQ(log.count("reconnect "), restarts);
    for (std::size_t round = 1; round <= restarts + 1; ++round) {
        EXPECT_EQ(answers.count("ack [" + std::to_string(round) + "]"), 1u) << round;
    }
    EXPECT_EQ(answers.count("ack [\"NO ACK\"]"), 0u);
}

TEST_F(SocketIOPeer, FiftyQuickRestartsOverWebSocket) { restartFiftyTimes({Option::forceWebsockets(true)}); }
TEST_F(SocketIOPeer, FiftyQuickRestartsOverPolling) { restartFiftyTimes({Option::forcePolling(true)}); }
TEST_F(SocketIOPeer, FiftyQuickRestartsWithUpgrades) { restartFiftyTimes({}); }

// A message past the limit closes the engine as a protocol failure, with the same words on
// both transports.
TEST_F(SocketIOPeer, AMessagePastTheLimitClosesTheEngineOnEitherTransport) {
    startServer({{"quiet", true}});
    websocket::Limits limits;
    limits.maxMessageSize = 1024;
    for (bool polling : {false, true}) {
        SCOPED_TRACE(polling ? "polling" : "websocket");
        makeManager({polling ? Option::forcePolling(true) : Option::forceWebsockets(true), Option::limits(limits),
                     Option::reconnects(false)});
        EventLog& log = makeLog();
        connectSocket("/", log);
        server->writeLine("emit / big [\"" + std::string(1000, 'x') + "\"]");
        ASSERT_TRUE(log.waitFor("big "));
        server->writeLine("emit / big [\"" + std::string(2000, 'x') + "\"]");
        ASSERT_TRUE(log.waitFor("disconnect "));
        EXPECT_EQ(log.first("error "), R"(error ["message too big. code=1009, type=protocolError"])");
        EXPECT_EQ(log.count("big "), 1u);
        TearDown();
    }
}

// The server holds the POST that carries the first emits until it has answered the probe, so
// that the POST is under way while the client may switch to the WebSocket. Over 200 sessions,
// every ack comes back, in the order of the emits.
TEST_F(SocketIOPeer, UpgradeWithAPostUnderWayLosesNothing) {
    startServer({{"quiet", true}, {"holdUpgrade", true}});
    constexpr int runs = 200;
    constexpr int emits = 4;
    std::size_t lost = 0;
    std::size_t upgraded = 0;
    for (int run = 0; run < runs; ++run) {
        makeManager({});
        EventLog& log = makeLog();
        EventLog& answers = makeLog();
        connectDefaultSocket(log, [&answers, run](SocketIOClient& socket) {
            for (int i = 0; i < emits; ++i) {
                std::vector<SocketItem> items{i};
                if (i == 1) items.emplace_back(Json::binary({static_cast<std::uint8_t>(run)}));
                socket.emitWithAck("echo", items).timingOut(3, [&answers](const std::vector<Json>& data) {
                    answers.add(data.at(0) == kNoAck ? "lost" : "ack " + data.at(0).dump(), data);
                });
            }
        });
        ASSERT_TRUE(log.waitFor("connect ")) << run;
        ASSERT_TRUE(answers.waitFor("", emits)) << run;
        lost += answers.count("lost");
        // Those that came, in the order of their emits.
        std::vector<int> order;
        for (const auto& line : answers.lines()) {
            if (line.starts_with("ack ")) order.push_back(std::stoi(line.substr(4)));
        }
        EXPECT_TRUE(std::adjacent_find(order.begin(), order.end(), std::greater_equal<>()) == order.end()) << run;
        if (answers.count("ack 1") == 1) {
            EXPECT_EQ(answers.itemsOf("ack 1").at(1), Json::binary({static_cast<std::uint8_t>(run)})) << run;
        }
        upgraded += log.count("websocketUpgrade ");
        TearDown();
    }
    auto stats = serverStats(*server, "end");
    std::printf("figure upgrade-runs %d lost-acks %zu server %s\n", runs, lost, stats.dump().c_str());
    EXPECT_EQ(lost, 0u);
    EXPECT_EQ(upgraded, static_cast<std::size_t>(runs));
    // The road under test was taken in every run.
    EXPECT_GE(stats["heldAcrossUpgrade"], runs);
    EXPECT_EQ(stats["echoes"], runs * emits);
}

}  // namespace
}  // namespace kelvane::socketio
