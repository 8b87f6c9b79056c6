// The engine over a transport the test drives, for what a real server cannot show: the exact
// request, the gating of writes, a failing close write, and deflate on control frames.
#include "EventRecorder.hpp"
#include "FakeTransport.hpp"

#include "websocket/Compression.hpp"
#include "websocket/Engine.hpp"
#include "websocket/Security.hpp"
#include "websocket/WebSocket.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>

namespace kelvane::websocket {
namespace {

using testing::EventRecorder;
using testing::FakeTransport;
using Kind = WebSocketEvent::Kind;

Bytes bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

Bytes serverFrame(std::uint8_t first, std::string_view payload) {
    Bytes frame{first, static_cast<std::uint8_t>(payload.size())};
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

const std::string kURL = "ws://example.test/socket.io/?EIO=4";

struct Harness {
    explicit Harness(bool deflate = false, std::string url = kURL, Limits limits = {}, std::string chatcode = "42") {
        transport = std::make_shared<FakeTransport>();
        engine = std::make_shared<WSEngine>(transport, nullptr, nullptr,
                                            deflate ? std::make_shared<WSCompression>() : nullptr);
        Request request(URL::make(url), 7);
        request.setValue(chatcode, "chatcode");
        socket = std::make_shared<WebSocket>(request, engine);
        socket->delegate = recorder;
        socket->callbackQueue = Queue::makeSerial("test.callbacks");
        socket->setLimits(limits);
        socket->connect();
    }

    std::string upgradeRequest() {
        std::lock_guard lock(transport->mutex_);
        return transport->writes.empty() ? "" : std::string(asText(transport->writes[0].data));
    }

    std::string key() {
        std::smatch match;
        std::string request = upgradeRequest();
        if (!std::regex_search(request, match, std::regex("Sec-WebSocket-Key: ([^\r]+)\r\n"))) return "";
        return match[1];
    }

    // Opens the connection: transport up, the server's answer (and whatever rides with it).
    void open(const std::string& extraFields = "", Bytes trailing = {}) {
        transport->deliver(ConnectionState{ConnectionState::Kind::connected});
        std::string response = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                               "Sec-WebSocket-Accept: " + acceptValue(key()) + "\r\n" + extraFields + "\r\n";
        Bytes data = bytes(response);
        data.insert(data.end(), trailing.begin(), trailing.end());
        transport->deliverBytes(std::move(data));
    }

    std::size_t writeCount() {
        std::lock_guard lock(transport->mutex_);
        return transport->writes.size();
    }

    std::shared_ptr<FakeTransport> transport;
    std::shared_ptr<WSEngine> engine;
    std::shared_ptr<EventRecorder> recorder = std::make_shared<EventRecorder>();
    std::shared_ptr<WebSocket> socket;
};

TEST(WSEngineHandshake, StartsOnceAndWritesTheUpgradeRequest) {
    Harness h(true, "ws://example.test/socket.io/?EIO=4&transport=websocket");
    h.engine->start(Request(URL::make("ws://other.test/")));
    ASSERT_EQ(h.transport->connects.size(), 1u);
    EXPECT_EQ(h.transport->connects[0].url, "ws://example.test/socket.io/?EIO=4&transport=websocket");
    EXPECT_EQ(h.transport->connects[0].timeout, 7);
    EXPECT_TRUE(h.engine->flags().isConnecting);

    h.transport->deliver(ConnectionState{ConnectionState::Kind::connected});
    std::string request = h.upgradeRequest();
    EXPECT_EQ(request.rfind("GET /socket.io/?EIO=4&transport=websocket HTTP/1.1\r\n", 0), 0u) << request;
    // The caller's field rides along; the offer follows from the compression handler.
    for (const char* field : {"chatcode: 42\r\n", "Host: example.test:80\r\n",
                              "Sec-WebSocket-Extensions: permessage-deflate; client_max_window_bits; "
                              "server_max_window_bits=15\r\n"}) {
        EXPECT_NE(request.find(field), std::string::npos) << field << " missing in\n" << request;
    }
    EXPECT_EQ(h.key().size(), 24u);
    EXPECT_EQ(request.substr(request.size() - 4), "\r\n\r\n");

    auto engine = std::make_shared<WSEngine>(std::make_shared<FakeTransport>());
    engine->start(Request{});
    EXPECT_FALSE(engine->flags().isConnecting);
}

TEST(WSEngineHandshake, RefusedAnswersReportAnErrorAndLeaveTheEngineConnecting) {
    {
        Harness h;
        h.transport->deliver(ConnectionState{ConnectionState::Kind::connected});
        h.transport->deliverBytes(bytes("HTTP/1.1 101 Switching Protocols\r\nSec-WebSocket-Accept: bad\r\n\r\n"));
        ASSERT_TRUE(h.recorder->waitForKind(Kind::error));
        auto error = std::get<WSError>(*h.recorder->events()[0].error);
        EXPECT_EQ(error, (WSError{ErrorType::securityError, "accept header doesn't match", 1}));
        EXPECT_TRUE(h.engine->flags().isConnecting);
        EXPECT_EQ(h.transport->disconnects, 0);
    }
    {
        Harness h;
        ConnectionState failed{ConnectionState::Kind::failed};
        failed.error = Error{"test", 61, "refused"};
        h.transport->deliver(failed);
        ASSERT_TRUE(h.recorder->waitForKind(Kind::error));
        EXPECT_EQ(std::get<Error>(*h.recorder->events()[0].error).code, 61);
        // The close frame of the failure went nowhere; a new start is refused.
        h.engine->start(Request(URL::make("ws://example.test/")));
        EXPECT_EQ(h.transport->connects.size(), 1u);
        EXPECT_EQ(h.writeCount(), 0u);
    }
}

TEST(WSEngineHandshake, AFieldWithALineBreakIsRefusedBeforeAnythingIsSent) {
    for (const char* value : {"42\r\nX-Injected: 1", "42\n", "\r"}) {
        Harness h(false, kURL, {}, value);
        ASSERT_TRUE(h.recorder->waitForKind(Kind::error));
        auto error = std::get<Error>(*h.recorder->events()[0].error);
        EXPECT_NE(error.message.find("\"chatcode\""), std::string::npos) << error.message;
        EXPECT_TRUE(h.transport->connects.empty());
        EXPECT_EQ(h.writeCount(), 0u);
        EXPECT_FALSE(h.engine->flags().isConnecting);
    }
}

TEST(WSEngineLimits, WhatCrossesALimitEndsTheConnectionWith1009) {
    Limits limits;
    limits.maxFrameSize = 10;
    limits.maxUpgradeResponseSize = 300;
    const auto tooBig = [](const char* what) { return WSError{ErrorType::protocolError, what, 1009}; };
    {
        Harness h(false, kURL, limits);
        EXPECT_EQ(h.socket->limits(), limits);
        Bytes incoming = serverFrame(0x82, "0123456789");
        Bytes over = serverFrame(0x82, "0123456789A");
        incoming.insert(incoming.end(), over.begin(), over.end());
        h.open("", incoming);
        ASSERT_TRUE(h.transport->waitFor([&] { return h.transport->disconnects == 1; }));
        ASSERT_TRUE(h.recorder->waitForKind(Kind::error));
        EXPECT_EQ(h.recorder->kinds(), (std::vector<std::string>{"connected", "binary", "error"}));
        EXPECT_EQ(std::get<WSError>(*h.recorder->ofKind(Kind::error)[0].error), tooBig("frame too big"));
        auto frames = h.transport->framesWritten();
        ASSERT_EQ(frames.size(), 1u);
        EXPECT_EQ(frames[0].opcode, FrameOpCode::connectionClose);
        EXPECT_EQ(frames[0].closeCode(), 1009);
    }
    {
        // Before the upgrade no close frame can go: the transport is cut.
        Harness h(false, kURL, limits);
        h.transport->deliver(ConnectionState{ConnectionState::Kind::connected});
        h.transport->deliverBytes(bytes("HTTP/1.1 101 Switching Protocols\r\nX-Padding: " + std::string(300, 'p')));
        ASSERT_TRUE(h.recorder->waitForKind(Kind::error));
        EXPECT_EQ(std::get<WSError>(*h.recorder->events()[0].error), tooBig("upgrade response too big"));
        EXPECT_EQ(h.transport->disconnects, 1);
        EXPECT_EQ(h.writeCount(), 1u);
        EXPECT_FALSE(h.engine->flags().isConnecting);
    }
}

TEST(WSEngineWrites, AWriteBeforeTheUpgradeIsDroppedWithItsCompletion) {
    Harness h;
    std::atomic<bool> earlyDone{false}, lateDone{false};
    h.socket->write(std::string("early"), [&] { earlyDone = true; });
    // The early write must meet the engine before the upgrade, however slow its queue runs.
    h.engine->writeQueue()->sync([] {});
    h.open();
    h.socket->write(std::string("late"), [&] { lateDone = true; });
    ASSERT_TRUE(h.transport->waitFor([&] { return lateDone.load(); }));
    EXPECT_FALSE(earlyDone);
    auto frames = h.transport->framesWritten();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(asText(frames[0].payload), "late");
    EXPECT_TRUE(frames[0].masked);
    EXPECT_EQ(frames[0].opcode, FrameOpCode::textFrame);
}

TEST(WSEngineClose, DisconnectCutsTheTransportEvenWhenTheCloseFrameFails) {
    Harness h;
    h.open();
    h.transport->completeWritesAtOnce = false;
    h.socket->disconnect(4000);
    ASSERT_TRUE(h.transport->waitFor([&] { return h.transport->writes.size() == 2; }));
    EXPECT_EQ(h.transport->disconnects, 0);
    h.transport->completeWrite(1, Error{"test", 32, "broken pipe"});
    EXPECT_EQ(h.transport->disconnects, 1);
    EXPECT_EQ(h.transport->framesWritten()[0].closeCode(), 4000);
    EXPECT_FALSE(h.engine->flags().canSend);
}

TEST(WSEngineDeflate, DataFramesAreCompressedControlFramesNever) {
    Harness h(true);
    h.open("Sec-WebSocket-Extensions: permessage-deflate; client_no_context_takeover\r\n");
    h.transport->deliverBytes(serverFrame(0x89, "abc"));
    ASSERT_TRUE(h.transport->waitFor([&] { return h.transport->writes.size() == 2; }));
    h.socket->write(std::string("hello hello hello"));
    h.socket->writePing(bytes("are you there"));
    h.socket->writePong(bytes("unasked"));
    h.socket->disconnect(4001);
    ASSERT_TRUE(h.transport->waitFor([&] { return h.transport->disconnects == 1; }));
    auto frames = h.transport->framesWritten();
    ASSERT_EQ(frames.size(), 5u);
    EXPECT_TRUE(frames[1].rsv1 && frames[1].opcode == FrameOpCode::textFrame);
    auto inflated = Decompressor(15).decompress(frames[1].payload, true);
    ASSERT_TRUE(std::holds_alternative<Bytes>(inflated));
    EXPECT_EQ(asText(std::get<Bytes>(inflated)), "hello hello hello");
    const std::pair<FrameOpCode, Bytes> controls[] = {{FrameOpCode::pong, bytes("abc")},
                                                      {FrameOpCode::ping, bytes("are you there")},
                                                      {FrameOpCode::pong, bytes("unasked")},
                                                      {FrameOpCode::connectionClose, Bytes{0x0F, 0xA1}}};
    for (std::size_t i = 0; i < 4; ++i) {
        const auto& frame = frames[i == 0 ? 0 : i + 1];
        EXPECT_FALSE(frame.rsv1) << i;
        EXPECT_EQ(frame.opcode, controls[i].first) << i;
        EXPECT_EQ(frame.payload, controls[i].second) << i;
    }
}

}  // namespace
}  // namespace kelvane::websocket
