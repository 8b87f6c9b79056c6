// Trust on both roads of the Engine.IO client, long polling (libcurl) and the WebSocket (Asio
// and OpenSSL), against a node Socket.IO server over TLS whose certificate a CA made for the
// test signed.
#include "socketio/SocketManager.hpp"
#include "support/HTTPSession.hpp"
#include "websocket/Security.hpp"
#include "websocket/EventRecorder.hpp"

#include "PeerProcess.hpp"
#include "SocketTestSupport.hpp"
#include "TestTools.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <future>

namespace kelvane::socketio {
namespace {

using kelvane::testing::PeerProcess;
using testing::EventLog;
using Option = SocketIOClientOption;

struct Road {
    std::string name;
    std::vector<Option> options;
    // What the server sees of a session that went through: its first transport and, after an
    // upgrade, the second.
    std::vector<std::string> serverLines;
};

const std::vector<Road>& roads() {
    static const std::vector<Road> all{
        {"polling", {Option::forcePolling(true)}, {"CONNECT / polling"}},
        {"websocket", {Option::forceWebsockets(true)}, {"CONNECT / websocket"}},
        {"default", {}, {"CONNECT / polling", "UPGRADE websocket"}},
    };
    return all;
}

// Trusts the test CA alone, as a host that ships its CA would.
struct CAPinner final : websocket::CertificatePinning {
    std::string anchor;
    void evaluateTrust(const websocket::ServerTrust& trust, const std::string& domain,
                       std::function<void(websocket::PinningState)> completion) override {
        auto refusal = trust.evaluate(domain, {anchor});
        completion(refusal ? websocket::PinningState{false, Error{"test.pinning", 2, "certificate refused: " + *refusal}}
                           : websocket::PinningState{true, {}});
    }
};

class TrustPeer : public ::testing::Test {
protected:
    // A CA, and a certificate it signed for "localhost" alone.
    static void SetUpTestSuite() {
        dir_ = new kelvane::testing::TempDir();
        auto& d = *dir_;
        const std::string ec = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
        kelvane::testing::run("openssl req -x509 " + ec + " -keyout " + d / "ca.key" + " -out " + d / "ca.pem" +
                              " -days 2 -subj /CN=KelvaneTrustTestCA -addext basicConstraints=critical,CA:TRUE"
                              " -addext keyUsage=critical,keyCertSign,cRLSign 2>/dev/null");
        kelvane::testing::run("openssl req " + ec + " -keyout " + d / "server.key" + " -out " + d / "server.csr" +
                              " -subj /CN=localhost 2>/dev/null");
        kelvane::testing::writeFile(d / "ext.cnf", "subjectAltName=DNS:localhost\nbasicConstraints=CA:FALSE\n"
                                                   "extendedKeyUsage=serverAuth\n");
        kelvane::testing::run("openssl x509 -req -in " + d / "server.csr" + " -CA " + d / "ca.pem" + " -CAkey " +
                              d / "ca.key" + " -CAcreateserial -out " + d / "server.pem" + " -days 2 -extfile " +
                              d / "ext.cnf" + " 2>/dev/null");
    }
    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
    }

    void SetUp() override {
        Json options{{"key", *dir_ / "server.key"}, {"cert", *dir_ / "server.pem"}};
        server = std::make_unique<PeerProcess>("tls-socketio-server.js", std::vector<std::string>{options.dump()});
        ASSERT_GT(server->port(), 0);
    }

    void TearDown() override { unsetenv("SSL_CERT_FILE"); }

    static std::shared_ptr<CAPinner> caPinner() {
        auto pinner = std::make_shared<CAPinner>();
        pinner->anchor = *dir_ / "ca.pem";
        return pinner;
    }

    // One manager on `road` to https://<host>:<port>/ connects "/". Without `refusal` it gets
    // through (and upgrades, on the default road) and an ack comes back; with it, the client
    // leaves the server before any request, and the engine reports `refusal` where it reports
    // the failure at all.
    // The manager's "/" socket, its events in `log`, asked to connect on the handle queue.
    std::shared_ptr<SocketIOClient> connecting(SocketManager& manager, EventLog& log) {
        std::shared_ptr<SocketIOClient> socket;
        queue->sync([&] {
            socket = manager.socket("/");
            log.attach(*socket);
            socket->connect();
        });
        return socket;
    }

    void expect(const Road& road, std::vector<Option> extra, std::optional<std::string> refusal,
                const std::string& host = "localhost") {
        SCOPED_TRACE(road.name + (refusal ? " refused" : " through"));
        SocketIOClientConfiguration config;
        for (const auto& option : road.options) config.insert(option);
        for (const auto& option : extra) config.insert(option);
        // The server's lines of this attempt end in its number.
        const std::string attempt = std::to_string(++attempts);
        for (const auto& option : {Option::secure(true), Option::reconnects(false), Option::handleQueue(queue),
                                   Option::connectParams({{"attempt", attempt}})}) {
            config.insert(option);
        }
        auto manager = std::make_shared<SocketManager>(
            *URL::make("https://" + host + ":" + std::to_string(server->port()) + "/"), config);
        const auto refusalsBefore = serverLines("REFUSED");
        const auto linesOf = [&](const std::string& prefix) {
            auto lines = server->lines();
            return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
                return line.starts_with(prefix) && line.ends_with(" " + attempt);
            });
        };
        EventLog& log = logs.emplace_back();
        auto socket = connecting(*manager, log);

        if (refusal) {
            // Before the upgrade the WebSocket road's engine passes no error on.
            const bool reported = road.name != "websocket";
            EXPECT_TRUE(socketio::testing::eventually(
                [&] { return serverLines("REFUSED") > refusalsBefore && (!reported || log.count("error ") > 0); }));
            EXPECT_EQ(linesOf("REQUEST"), 0);
            EXPECT_EQ(log.count("connect "), 0u);
            auto error = log.itemsOf("error ");
            EXPECT_EQ(error.empty() ? Json() : error[0], reported ? Json(*refusal) : Json());
        } else {
            EXPECT_TRUE(log.waitFor("connect "));
            if (road.serverLines.size() > 1) {
                EXPECT_TRUE(log.waitFor("websocketUpgrade "));
            }
            EventLog& answers = logs.emplace_back();
            queue->sync([&] {
                socket->emitWithAck("echo", {road.name}).timingOut(10, [&](const std::vector<Json>& data) {
                    answers.add("ack", data);
                });
            });
            EXPECT_TRUE(answers.waitFor("ack"));
            EXPECT_EQ(answers.itemsOf("ack"), std::vector<Json>{road.name});
            for (const auto& line : road.serverLines) {
                EXPECT_TRUE(socketio::testing::eventually([&] { return linesOf(line) == 1; })) << line;
            }
            EXPECT_EQ(log.count("error "), 0u);
        }

        std::weak_ptr<SocketEngineSpec> engine;
        queue->sync([&] {
            engine = manager->engine();
            manager->disconnect();
            socket.reset();
            manager.reset();
        });
        EXPECT_TRUE(socketio::testing::eventually([&] { return engine.expired(); }));
    }

    std::size_t serverLines(const std::string& prefix) const {
        std::size_t n = 0;
        for (const auto& line : server->lines()) n += line.starts_with(prefix) ? 1 : 0;
        return n;
    }

    std::string httpsURL() const {
        return "https://localhost:" + std::to_string(server->port()) + "/socket.io/?EIO=4&transport=polling";
    }

    static kelvane::testing::TempDir* dir_;
    std::unique_ptr<PeerProcess> server;
    std::deque<EventLog> logs;
    int attempts = 0;
    std::shared_ptr<Queue> queue = Queue::makeSerial("handle");
};
kelvane::testing::TempDir* TrustPeer::dir_ = nullptr;

// What the library's own HTTP client (the backend's calls) answers for one GET: the status or
// the error's text.
std::string fetch(const std::string& url) {
    auto done = std::make_shared<std::promise<std::string>>();
    defaultHTTP()->dataTask({*URL::make(url), "GET", {}, std::nullopt, 10}, [done](auto, auto response, auto error) {
        done->set_value(error ? error->text() : std::to_string(response ? response->statusCode : 0));
    });
    auto answer = done->get_future();
    return answer.wait_for(std::chrono::seconds(15)) == std::future_status::ready ? answer.get() : "no answer";
}

const std::string unknownIssuer = "certificate refused for localhost: unable to get local issuer certificate";

TEST_F(TrustPeer, AServerOfAnUnknownCAIsRefusedAlikeOnEveryRoad) {
    // selfSigned with no pinner leaves the decision to the system's store; the certificate is
    // not even self-signed.
    for (const auto& extra : {std::vector<Option>{}, std::vector<Option>{Option::selfSigned(true)}}) {
        for (const auto& road : roads()) expect(road, extra, unknownIssuer);
    }

    // The library's own HTTP client, which the backend's calls use, says the same.
    EXPECT_EQ(fetch(httpsURL()), (Error{"NSURLErrorDomain", -1202, unknownIssuer}).text());

    // So does the WebSocket itself, whose error the engine keeps to itself before the upgrade.
    auto recorder = std::make_shared<kelvane::testing::EventRecorder>();
    websocket::Request request(URL::make("wss://localhost:" + std::to_string(server->port()) +
                                         "/socket.io/?EIO=4&transport=websocket"),
                               10);
    auto socket = std::make_shared<websocket::WebSocket>(request, nullptr, nullptr);
    socket->delegate = recorder;
    socket->callbackQueue = Queue::makeSerial("ws.callbacks");
    socket->connect();
    ASSERT_TRUE(recorder->waitForKind(websocket::WebSocketEvent::Kind::error));
    auto error = recorder->ofKind(websocket::WebSocketEvent::Kind::error).front().error;
    ASSERT_TRUE(error && std::holds_alternative<Error>(*error));
    EXPECT_EQ(std::get<Error>(*error).message, unknownIssuer);
    socket->forceDisconnect();
    EXPECT_EQ(serverLines("REQUEST"), 0u);
}

TEST_F(TrustPeer, AServerOfACATheSystemStoreHoldsIsReachedOnEveryRoad) {
    // SSL_CERT_FILE replaces the system's bundle of roots.
    setenv("SSL_CERT_FILE", (*dir_ / "ca.pem").c_str(), 1);
    for (const auto& road : roads()) expect(road, {}, std::nullopt);
    EXPECT_EQ(fetch(httpsURL()), "200");
    // The host name still counts.
    expect(roads()[0], {}, "certificate refused for 127.0.0.1: IP address mismatch", "127.0.0.1");
}

// Writes that wait behind one under way leave through TLS together, and nothing is lost or
// reordered.
TEST_F(TrustPeer, TenThousandPipelinedAcksArriveWholeAndInOrderThroughTLS) {
    SocketIOClientConfiguration config{Option::secure(true), Option::forceWebsockets(true), Option::reconnects(false),
                                       Option::handleQueue(queue), Option::security(caPinner())};
    auto manager = std::make_shared<SocketManager>(*URL::make("https://localhost:" + std::to_string(server->port()) + "/"),
                                                   config);
    EventLog& log = logs.emplace_back();
    auto socket = connecting(*manager, log);
    ASSERT_TRUE(log.waitFor("connect "));
    EXPECT_EQ(testing::pipelinedEchoes(*queue, socket, 10000, 64, std::string(100, 'p')), 10000);
    queue->sync([&] {
        manager->disconnect();
        socket.reset();
        manager.reset();
    });
}

TEST_F(TrustPeer, APinnerDecidesOnEveryRoad) {
    auto anything = std::make_shared<websocket::FoundationSecurity>(true);
    for (const auto& road : roads()) {
        expect(road, {Option::security(caPinner())}, std::nullopt);
        expect(road, {Option::security(caPinner())}, "certificate refused: IP address mismatch", "127.0.0.1");
        // A pinner that allows self-signed certificates takes anything.
        expect(road, {Option::security(anything)}, std::nullopt, "127.0.0.1");
    }
}

}  // namespace
}  // namespace kelvane::socketio
