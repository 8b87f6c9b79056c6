// The client against real servers on 127.0.0.1: the npm `ws` server (plain, deflate with its
// options varied, TLS with certificates made by the openssl command line), and a raw TCP peer
// that sends what a correct server never sends.
#include "EventRecorder.hpp"
#include "PeerProcess.hpp"
#include "TestTools.hpp"

#include "websocket/Compression.hpp"
#include "websocket/Security.hpp"
#include "websocket/WebSocket.hpp"

#include <kelvane/Json.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iostream>

namespace kelvane::websocket {
namespace {

using testing::EventRecorder;
using testing::PeerProcess;
using Kind = WebSocketEvent::Kind;

Bytes bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

// A client socket whose events a recorder keeps; cut when the test ends.
struct Client {
    Client(const std::string& url, bool deflate,
           std::shared_ptr<CertificatePinning> pinner = std::make_shared<FoundationSecurity>()) {
        Request request(URL::make(url), 10);
        socket = std::make_shared<WebSocket>(request, pinner, deflate ? std::make_shared<WSCompression>() : nullptr);
        socket->delegate = recorder;
        socket->callbackQueue = Queue::makeSerial("test.callbacks");
        socket->connect();
    }
    ~Client() { socket->forceDisconnect(); }

    bool connected() { return recorder->waitForKind(Kind::connected); }
    void send(const std::string& text) { socket->write(text); }
    // Waits for the n-th text message and returns it.
    std::string text(std::size_t n = 1) {
        if (!recorder->waitForKind(Kind::text, n)) return "<no text " + std::to_string(n) + ">";
        return recorder->ofKind(Kind::text).at(n - 1).text;
    }
    WSEngine::Flags flags() { return std::dynamic_pointer_cast<WSEngine>(socket->engine())->flags(); }

    std::shared_ptr<EventRecorder> recorder = std::make_shared<EventRecorder>();
    std::shared_ptr<WebSocket> socket;
};

std::string wsURL(const PeerProcess& peer, const std::string& scheme = "ws", const std::string& host = "127.0.0.1") {
    return scheme + "://" + host + ":" + std::to_string(peer.port()) + "/socket?EIO=4";
}

PeerProcess wsServer(const Json& options) { return PeerProcess("ws-server.js", {options.dump()}); }

std::string lineAfter(const PeerProcess& peer, const std::string& exact) {
    auto line = peer.waitForLine([&](const std::string& l) { return l == exact; });
    return line.value_or("<missing " + exact + ">");
}

TEST(WebSocketPeer, EchoesTextAndBinaryInOrder) {
    auto peer = wsServer(Json::object());
    ASSERT_NE(peer.port(), 0);
    Client client(wsURL(peer), false);
    ASSERT_TRUE(client.connected());
    auto headers = client.recorder->events()[0].headers;
    EXPECT_EQ(headers["Upgrade"], "websocket");
    EXPECT_EQ(headers.count("Sec-WebSocket-Extensions"), 0u);

    Bytes large(1 << 20);
    for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::uint8_t>(i * 7);
    std::atomic<int> completions{0};
    client.socket->write(std::string("héllo"), [&] { ++completions; });
    client.socket->write(Bytes{0, 1, 2}, [&] { ++completions; });
    client.socket->write(large, [&] { ++completions; });
    client.send("cmd:info");
    ASSERT_TRUE(client.recorder->waitForKind(Kind::binary, 2));
    EXPECT_EQ(client.text(1), "héllo");
    auto binaries = client.recorder->ofKind(Kind::binary);
    EXPECT_EQ(binaries[0].data, (Bytes{0, 1, 2}));
    EXPECT_EQ(binaries[1].data, large);
    EXPECT_EQ(completions, 3);

    auto info = json::parse(client.text(2));
    ASSERT_TRUE(info);
    EXPECT_EQ((*info)["host"], "127.0.0.1:" + std::to_string(peer.port()));
    EXPECT_EQ((*info)["origin"], "ws://127.0.0.1:" + std::to_string(peer.port()));
    EXPECT_TRUE((*info)["offer"].is_null());
}

TEST(WebSocketPeer, DeflateRoundTripsWithEachServerSetting) {
    struct Setting {
        Json options;
        std::string agreedTerm;
    };
    const Setting settings[] = {
        {{{"threshold", 0}}, "permessage-deflate"},
        {{{"threshold", 0}, {"serverMaxWindowBits", 10}}, "server_max_window_bits=10"},
        {{{"threshold", 0}, {"clientNoContextTakeover", true}}, "client_no_context_takeover"},
        {{{"threshold", 0}, {"serverNoContextTakeover", true}}, "server_no_context_takeover"},
        {Json::object(), "permessage-deflate"},  // small messages go uncompressed
    };
    std::string big;
    for (int i = 0; big.size() < 100000; ++i) big += R"(["status",{"requestId":")" + std::to_string(i * 31) + R"("}])";
    const std::vector<std::string> messages{R"(42["status",{"status":"200"}])", R"(42["status",{"status":"200"}])",
                                            "", big, R"(42["status",{"status":"201"}])"};
    for (const auto& setting : settings) {
        SCOPED_TRACE(setting.options.dump());
        auto peer = wsServer({{"deflate", setting.options}});
        Client client(wsURL(peer), true);
        ASSERT_TRUE(client.connected());
        auto agreed = client.recorder->events()[0].headers["Sec-WebSocket-Extensions"];
        EXPECT_NE(agreed.find(setting.agreedTerm), std::string::npos) << agreed;
        for (const auto& message : messages) client.send(message);
        client.socket->write(bytes(big));
        client.send("cmd:fragments 3 " + big.substr(0, 3000));
        for (std::size_t i = 0; i < messages.size(); ++i) EXPECT_EQ(client.text(i + 1), messages[i]) << i;
        ASSERT_TRUE(client.recorder->waitForKind(Kind::binary));
        EXPECT_EQ(client.recorder->ofKind(Kind::binary)[0].data, bytes(big));
        if (setting.options.contains("serverNoContextTakeover")) {
            // The inflater is reset after every frame, not every message: the later fragments
            // of a message lose their window, the raw bytes stand in, and they are no text.
            ASSERT_TRUE(client.recorder->waitForKind(Kind::error));
            EXPECT_EQ(std::get<WSError>(*client.recorder->ofKind(Kind::error)[0].error),
                      (WSError{ErrorType::protocolError, "not valid UTF-8 data", 1002}));
            continue;
        }
        EXPECT_EQ(client.text(messages.size() + 1), big.substr(0, 3000));
        for (const auto& e : client.recorder->ofKind(Kind::error)) ADD_FAILURE() << describe(*e.error);
    }
}

TEST(WebSocketPeer, AnswersServerPingsUnlessTurnedOff) {
    auto peer = wsServer(Json::object());
    Client client(wsURL(peer), false);
    ASSERT_TRUE(client.connected());
    client.send("cmd:ping hello");
    EXPECT_EQ(lineAfter(peer, "PONG 68656c6c6f"), "PONG 68656c6c6f");
    client.send("cmd:ping");
    EXPECT_EQ(lineAfter(peer, "PONG "), "PONG ");
    ASSERT_TRUE(client.recorder->waitForKind(Kind::ping, 2));
    EXPECT_EQ(client.recorder->ofKind(Kind::ping)[1].payload, Bytes{});

    client.socket->setRespondToPingWithPong(false);
    client.send("cmd:ping 71");
    ASSERT_TRUE(client.recorder->waitForKind(Kind::ping, 3));
    client.socket->setRespondToPingWithPong(true);
    client.send("cmd:ping 72");
    EXPECT_EQ(lineAfter(peer, "PONG 3732"), "PONG 3732");
    for (const auto& line : peer.lines()) EXPECT_NE(line, "PONG 3731");
}

TEST(WebSocketPeer, ServerClosesAreReportedAndEchoed) {
    struct Case {
        std::string command;
        std::uint16_t code;
        std::string reason;
    };
    for (const auto& c : {Case{"cmd:close 1000 done", 1000, "done"}, Case{"cmd:close 1001 bye", 1001, "bye"},
                          Case{"cmd:close 3000 app", 3000, "app"}, Case{"cmd:close", 1000, ""}}) {
        SCOPED_TRACE(c.command);
        auto peer = wsServer(Json::object());
        Client client(wsURL(peer), false);
        ASSERT_TRUE(client.connected());
        client.send(c.command);
        ASSERT_TRUE(client.recorder->waitForKind(Kind::cancelled));
        auto events = client.recorder->events();
        ASSERT_GE(events.size(), 3u);
        EXPECT_EQ(events[1].kind, Kind::disconnected);
        EXPECT_EQ(events[1].code, c.code);
        EXPECT_EQ(events[1].text, c.reason);
        EXPECT_EQ(events.back().kind, Kind::cancelled);
        // The server sees its own code come back (an empty close frame reads as 1005 there).
        std::string expected = "CLOSE " + std::to_string(c.command == "cmd:close" ? 1000 : c.code) + " ";
        EXPECT_TRUE(peer.waitForLine(expected)) << expected;
        auto flags = client.flags();
        EXPECT_FALSE(flags.canSend || flags.didUpgrade || flags.isConnecting);
    }
}

// A field of /proc/self/status in KiB, or -1.
long statusKiB(const std::string& field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
    }
    return -1;
}

// Makes the kernel start the peak (VmHWM) afresh from what is resident now, so that the peak
// read later is this test's own, whatever ran before it in the process.
bool restartPeak() {
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.flush();
    return clear.good() && statusKiB("VmHWM") <= statusKiB("VmRSS") + 1024;
}

TEST(WebSocketPeer, ADecompressionBombIsClosedWith1009BeforeItsMemoryIsTaken) {
    auto peer = wsServer({{"deflate", {{"threshold", 0}}}});
    Client client(wsURL(peer), true);
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(restartPeak());
    const long start = statusKiB("VmRSS");

    // About 1 MB on the wire, 1 GiB once inflated.
    client.send("cmd:bomb 1024");
    auto bomb = peer.waitForLine("BOMB ");
    ASSERT_TRUE(bomb);
    EXPECT_GT(std::stol(bomb->substr(5)), 1000000);
    // Whatever the client makes of it (the message, or the refusal), the peak is read after.
    ASSERT_TRUE(client.recorder->waitFor(
        [](const auto& events) {
            for (const auto& e : events) {
                if (e.kind == Kind::binary || e.kind == Kind::error) return true;
            }
            return false;
        },
        std::chrono::seconds(60)));
    const long peak = statusKiB("VmHWM");
    std::cout << "peak resident memory above the start: " << (peak - start) / 1024 << " MiB\n";
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer keeps four bytes of shadow for every byte the program touches.
    constexpr long kShadow = 5;
#else
    constexpr long kShadow = 1;
#endif
    EXPECT_LT(peak - start, kShadow * 64 * 1024);
    EXPECT_EQ(peer.waitForLine("CLOSE ").value_or("<no close>"), "CLOSE 1009 ");

    ASSERT_TRUE(client.recorder->waitForKind(Kind::cancelled));
    EXPECT_EQ(client.recorder->kinds(), (std::vector<std::string>{"connected", "error", "cancelled"}));
    auto error = client.recorder->ofKind(Kind::error).at(0).error;
    ASSERT_TRUE(error && std::holds_alternative<WSError>(*error));
    EXPECT_EQ(std::get<WSError>(*error), (WSError{ErrorType::protocolError, "message too big", 1009}));
}

TEST(WebSocketPeer, AConnectionResetAfterTheUpgradeGivesAnErrorThenTheCutWithinASecond) {
    auto peer = wsServer(Json::object());
    Client client(wsURL(peer), false);
    ASSERT_TRUE(client.connected());
    const auto sent = std::chrono::steady_clock::now();
    client.send("cmd:reset");
    ASSERT_TRUE(peer.waitForLine("RESET"));
    const bool cut = client.recorder->waitForKind(Kind::cancelled, 1, std::chrono::seconds(5));
    const auto elapsed = std::chrono::steady_clock::now() - sent;
    std::cout << "error and cut after " << std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count()
              << " ms (" << (cut ? "cut" : "no cut") << ")\n";
    ASSERT_TRUE(cut) << ::testing::PrintToString(client.recorder->kinds());
    EXPECT_LT(elapsed, std::chrono::seconds(1));
    EXPECT_EQ(client.recorder->kinds(), (std::vector<std::string>{"connected", "error", "cancelled"}));
    auto error = client.recorder->ofKind(Kind::error).at(0).error;
    ASSERT_TRUE(error && std::holds_alternative<Error>(*error));
    auto flags = client.flags();
    EXPECT_FALSE(flags.canSend || flags.didUpgrade || flags.isConnecting);
}

TEST(WebSocketPeer, WithDeflateControlFramesGoUncompressedAndTheServerTakesThem) {
    auto peer = wsServer({{"deflate", {{"threshold", 0}}}});
    Client client(wsURL(peer), true);
    ASSERT_TRUE(client.connected());
    ASSERT_NE(client.recorder->events()[0].headers["Sec-WebSocket-Extensions"].find("permessage-deflate"),
              std::string::npos);
    client.send("cmd:ping answer me");
    EXPECT_EQ(lineAfter(peer, "PONG " + std::string("616e73776572206d65")), "PONG 616e73776572206d65");
    client.socket->writePong(bytes("unasked"));
    EXPECT_EQ(lineAfter(peer, "PONG 756e61736b6564"), "PONG 756e61736b6564");
    client.send("still compressed");
    EXPECT_EQ(client.text(), "still compressed");
    client.socket->disconnect(4001);
    EXPECT_TRUE(peer.waitForLine("CLOSE ")) << "no close";
    for (const auto& line : peer.lines()) {
        EXPECT_EQ(line.rfind("ERROR", 0), std::string::npos) << line;
        if (line.rfind("CLOSE", 0) == 0) {
            EXPECT_EQ(line, "CLOSE 4001 ");
        }
    }
}

// Certificates made once for the TLS cases: a CA and a server certificate it signed for
// "localhost", and a self-signed one for "localhost".
class WebSocketTLSPeer : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new testing::TempDir();
        auto& d = *dir_;
        const std::string ec = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
        testing::run("openssl req -x509 " + ec + " -keyout " + d / "ca.key" + " -out " + d / "ca.pem" +
                     " -days 2 -subj /CN=KelvaneTestCA -addext basicConstraints=critical,CA:TRUE"
                     " -addext keyUsage=critical,keyCertSign,cRLSign 2>/dev/null");
        testing::run("openssl req " + ec + " -keyout " + d / "server.key" + " -out " + d / "server.csr" +
                     " -subj /CN=localhost 2>/dev/null");
        testing::writeFile(d / "ext.cnf", "subjectAltName=DNS:localhost\nbasicConstraints=CA:FALSE\n"
                                          "extendedKeyUsage=serverAuth\n");
        testing::run("openssl x509 -req -in " + d / "server.csr" + " -CA " + d / "ca.pem" + " -CAkey " +
                     d / "ca.key" + " -CAcreateserial -out " + d / "server.pem" + " -days 2 -extfile " +
                     d / "ext.cnf" + " 2>/dev/null");
        testing::run("openssl req -x509 " + ec + " -keyout " + d / "self.key" + " -out " + d / "self.pem" +
                     " -days 2 -subj /CN=localhost -addext subjectAltName=DNS:localhost 2>/dev/null");
    }
    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
    }

    static PeerProcess server(const std::string& name) {
        return wsServer({{"tls", {{"key", *dir_ / (name + ".key")}, {"cert", *dir_ / (name + ".pem")}}}});
    }

    // Trusts the test CA alone.
    struct CAPinner final : CertificatePinning {
        std::string anchor;
        void evaluateTrust(const ServerTrust& trust, const std::string& domain,
                           std::function<void(PinningState)> completion) override {
            auto refusal = trust.evaluate(domain, {anchor});
            completion(refusal ? PinningState{false, Error{"test.pinning", 2, *refusal}} : PinningState{true, {}});
        }
    };
    static std::shared_ptr<CAPinner> caPinner() {
        auto pinner = std::make_shared<CAPinner>();
        pinner->anchor = *dir_ / "ca.pem";
        return pinner;
    }

    static void expectRefused(Client& client) {
        ASSERT_TRUE(client.recorder->waitForKind(Kind::error));
        EXPECT_EQ(client.recorder->kinds(), std::vector<std::string>{"error"});
        auto error = client.recorder->events()[0].error;
        ASSERT_TRUE(error && std::holds_alternative<Error>(*error));
        EXPECT_TRUE(client.flags().isConnecting);
    }

    static testing::TempDir* dir_;
};
testing::TempDir* WebSocketTLSPeer::dir_ = nullptr;

TEST_F(WebSocketTLSPeer, ACertificateOfATrustedCAIsAcceptedForItsHostOnly) {
    auto peer = server("server");
    {
        Client client(wsURL(peer, "wss", "localhost"), true, caPinner());
        ASSERT_TRUE(client.connected());
        EXPECT_TRUE(client.socket->engine() != nullptr);
        client.send("over tls");
        EXPECT_EQ(client.text(), "over tls");
    }
    {
        SCOPED_TRACE("the certificate does not name 127.0.0.1");
        Client client(wsURL(peer, "wss", "127.0.0.1"), false, caPinner());
        expectRefused(client);
    }
    {
        SCOPED_TRACE("no pinner: the system's store does not know the test CA");
        Client client(wsURL(peer, "wss", "localhost"), false, std::shared_ptr<CertificatePinning>());
        expectRefused(client);
    }
}

TEST_F(WebSocketTLSPeer, ASelfSignedCertificateNeedsAllowSelfSigned) {
    auto peer = server("self");
    {
        Client client(wsURL(peer, "wss", "localhost"), false, std::make_shared<FoundationSecurity>(false));
        expectRefused(client);
    }
    Client client(wsURL(peer, "wss", "localhost"), false, std::make_shared<FoundationSecurity>(true));
    ASSERT_TRUE(client.connected());
    client.send("trusted anyway");
    EXPECT_EQ(client.text(), "trusted anyway");
}

// --- What a correct server never sends.

PeerProcess rawServer(const std::string& scenario) { return PeerProcess("raw-server.js", {scenario}); }

TEST(WebSocketRawPeer, FramesBehindTheUpgradeAnswerAreDelivered) {
    auto peer = rawServer("frames-with-upgrade");
    Client client(wsURL(peer), false);
    ASSERT_TRUE(client.recorder->waitForKind(Kind::binary));
    EXPECT_EQ(client.recorder->kinds(), (std::vector<std::string>{"connected", "text", "binary"}));
    EXPECT_EQ(client.text(), "hello");
}

TEST(WebSocketRawPeer, AHeaderEndSplitAcrossReadsLosesTheFramesOfThatRead) {
    auto peer = rawServer("split-header");
    Client client(wsURL(peer), false);
    EXPECT_EQ(client.text(), "after");
    EXPECT_EQ(client.recorder->kinds(), (std::vector<std::string>{"connected", "text"}));
}

TEST(WebSocketRawPeer, UpgradeAnswersThatAreRefused) {
    {
        auto peer = rawServer("status-403");
        Client client(wsURL(peer), false);
        ASSERT_TRUE(client.recorder->waitForKind(Kind::error));
        auto error = std::get<HTTPUpgradeError>(*client.recorder->events()[0].error);
        EXPECT_EQ(error.kind, HTTPUpgradeError::Kind::notAnUpgrade);
        EXPECT_EQ(error.code, 403);
        EXPECT_EQ(error.headers["X-Reason"], "no");
        EXPECT_TRUE(client.flags().isConnecting);
    }
    {
        auto peer = rawServer("wrong-accept");
        Client client(wsURL(peer), false);
        ASSERT_TRUE(client.recorder->waitForKind(Kind::error));
        EXPECT_EQ(std::get<WSError>(*client.recorder->events()[0].error),
                  (WSError{ErrorType::securityError, "accept header doesn't match", 1}));
        EXPECT_EQ(client.recorder->kinds(), std::vector<std::string>{"error"});
    }
}

TEST(WebSocketRawPeer, AnAnswerWithoutTheAcceptFieldUnderItsExactNameIsTaken) {
    for (const char* scenario : {"no-accept", "lowercase-accept"}) {
        SCOPED_TRACE(scenario);
        auto peer = rawServer(scenario);
        Client client(wsURL(peer), false);
        EXPECT_EQ(client.text(), "open");
    }
}

TEST(WebSocketRawPeer, ProtocolViolationsAreAnsweredWithA1002Close) {
    const std::pair<const char*, const char*> cases[] = {
        {"masked-frame", "masked and rsv data is not currently supported"},
        {"rsv-frame", "masked and rsv data is not currently supported"},
        {"oversized-control", "payload length is longer than allowed for a control frame"},
        {"fragmented-control", "control frames can't be fragmented"},
        {"unknown-opcode", "unknown opcode: 3"},
        {"invalid-utf8", "not valid UTF-8 data"},
    };
    for (const auto& [scenario, words] : cases) {
        SCOPED_TRACE(scenario);
        auto peer = rawServer(scenario);
        Client client(wsURL(peer), false);
        ASSERT_TRUE(client.recorder->waitForKind(Kind::cancelled));
        auto events = client.recorder->events();
        ASSERT_GE(events.size(), 3u);
        EXPECT_EQ(events[0].kind, Kind::connected);
        EXPECT_EQ(events[1].kind, Kind::error);
        EXPECT_EQ(std::get<WSError>(*events[1].error), (WSError{ErrorType::protocolError, words, 1002}));
        EXPECT_EQ(client.recorder->ofKind(Kind::text).size(), 0u);
        EXPECT_TRUE(peer.waitForLine("FRAME 1 0 8 03ea"));
    }
}

TEST(WebSocketRawPeer, CloseFramesWithOddPayloads) {
    struct Case {
        const char* scenario;
        std::uint16_t code;
        const char* reason;
        const char* echoed;
    };
    for (const auto& c : {Case{"close-one-byte", 1002, "", "FRAME 1 0 8 03ea"},
                          Case{"close-1005", 1002, "odd", "FRAME 1 0 8 03ea"},
                          Case{"close-3000", 3000, "app", "FRAME 1 0 8 0bb8"}}) {
        SCOPED_TRACE(c.scenario);
        auto peer = rawServer(c.scenario);
        Client client(wsURL(peer), false);
        ASSERT_TRUE(client.recorder->waitForKind(Kind::disconnected));
        auto event = client.recorder->ofKind(Kind::disconnected)[0];
        EXPECT_EQ(event.code, c.code);
        EXPECT_EQ(event.text, c.reason);
        EXPECT_TRUE(peer.waitForLine(c.echoed));
        EXPECT_TRUE(client.recorder->waitForKind(Kind::cancelled));
    }
}

TEST(WebSocketRawPeer, APeerThatClosesMidFrameDeliversNothingOfIt) {
    auto peer = rawServer("mid-frame-close");
    Client client(wsURL(peer), false);
    ASSERT_TRUE(client.recorder->waitForKind(Kind::peerClosed));
    EXPECT_EQ(client.recorder->kinds(), (std::vector<std::string>{"connected", "peerClosed"}));
    client.socket->forceDisconnect();
    EXPECT_TRUE(client.recorder->waitForKind(Kind::cancelled));
}

TEST(WebSocketRawPeer, ConnectFailuresReachTheEngineAsErrors) {
    int closedPort;
    {
        auto peer = rawServer("silent");
        closedPort = peer.port();
    }
    Client refused("ws://127.0.0.1:" + std::to_string(closedPort) + "/", false);
    ASSERT_TRUE(refused.recorder->waitForKind(Kind::error));
    EXPECT_TRUE(std::holds_alternative<Error>(*refused.recorder->events()[0].error));

    Client hostless("ws:/no-host", false);
    ASSERT_TRUE(hostless.recorder->waitForKind(Kind::error));
    EXPECT_EQ(std::get<TCPTransportError>(*hostless.recorder->events()[0].error), TCPTransportError::invalidRequest);
}

}  // namespace
}  // namespace kelvane::websocket
