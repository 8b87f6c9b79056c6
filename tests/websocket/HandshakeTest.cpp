#include "support/Base64.hpp"
#include "websocket/HTTPHandler.hpp"
#include "websocket/HTTPWSHeader.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace kelvane;
using namespace kelvane::websocket;

namespace {

struct Recorder : HTTPHandlerDelegate {
    std::vector<HTTPEvent> events;
    void didReceiveHTTP(const HTTPEvent& event) override { events.push_back(event); }
};

std::int64_t parse(HTTPHandler& handler, std::string_view text) { return handler.parse(asBytes(text)); }

const std::string kResponse =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection:Upgrade\r\n"
    "Sec-WebSocket-Accept:  s3pPLMBiTxaQ9kYGzzhZRbK+xOo= \r\n\r\n";

Request request(const std::string& url) { return Request(URL::make(url)); }

}  // namespace

TEST(HTTPHandler, FindsTheEndOfTheHeader) {
    EXPECT_EQ(findEndOfHTTP(asBytes(kResponse)), static_cast<std::int64_t>(kResponse.size()));
    EXPECT_EQ(findEndOfHTTP(asBytes(kResponse + "\x81\x02hi")), static_cast<std::int64_t>(kResponse.size()));
    EXPECT_EQ(findEndOfHTTP(asBytes("ab\r\n\r\ncd")), 6);
    EXPECT_EQ(findEndOfHTTP(asBytes("\r\r\n\r\n")), -1);
    EXPECT_EQ(findEndOfHTTP(asBytes("x\r\n\r\r\n\r\n")), -1);
    EXPECT_EQ(findEndOfHTTP(asBytes("\r\n\r")), -1);
    EXPECT_EQ(findEndOfHTTP({}), -1);

    // The end split over two reads: neither read holds it alone, yet the header is understood
    // (and frames behind it in that read are lost; the plain parser even fails on their bytes).
    for (int variant = 0; variant < 3; ++variant) {
        std::unique_ptr<HTTPHandler> handler;
        if (variant < 2) handler = std::make_unique<FoundationHTTPHandler>();
        else handler = std::make_unique<StringHTTPHandler>();
        auto recorder = std::make_shared<Recorder>();
        handler->registerDelegate(recorder);
        std::size_t cut = kResponse.size() - 2;
        EXPECT_EQ(parse(*handler, kResponse.substr(0, cut)), -1);
        EXPECT_TRUE(recorder->events.empty());
        std::string frames = variant == 1 ? "" : "\x81\x01!";
        EXPECT_EQ(parse(*handler, kResponse.substr(cut) + frames), -1);
        ASSERT_EQ(recorder->events.size(), 1u);
        EXPECT_EQ(recorder->events[0].success, variant < 2) << variant;
    }
    StringHTTPHandler plain;
    auto recorder = std::make_shared<Recorder>();
    plain.registerDelegate(recorder);
    parse(plain, kResponse.substr(0, 20));
    parse(plain, kResponse.substr(20));
    ASSERT_EQ(recorder->events.size(), 1u);
    EXPECT_TRUE(recorder->events[0].success);
}

TEST(HTTPHandler, ReadsUpgradeResponses) {
    auto foundation = FoundationHTTPHandler();
    auto recorder = std::make_shared<Recorder>();
    foundation.registerDelegate(recorder);
    std::string withFrames = kResponse + "\x81\x02hi";
    EXPECT_EQ(parse(foundation, withFrames), static_cast<std::int64_t>(kResponse.size()));
    ASSERT_EQ(recorder->events.size(), 1u);
    ASSERT_TRUE(recorder->events[0].success);
    const Headers& kept = recorder->events[0].headers;
    EXPECT_EQ(kept.at("Sec-WebSocket-Accept"), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
    EXPECT_EQ(kept.at("Connection"), "Upgrade");
    EXPECT_EQ(kept.size(), 3u);

    StringHTTPHandler plain;
    auto plainRecorder = std::make_shared<Recorder>();
    plain.registerDelegate(plainRecorder);
    EXPECT_EQ(parse(plain, withFrames), static_cast<std::int64_t>(kResponse.size()));
    ASSERT_EQ(plainRecorder->events.size(), 1u);
    const Headers& lowered = plainRecorder->events[0].headers;
    EXPECT_EQ(lowered.count("Sec-WebSocket-Accept"), 0u);
    EXPECT_EQ(lowered.at("sec-websocket-accept"), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");

    // Refusals, duplicates, lines without a colon.
    recorder->events.clear();
    parse(foundation, "HTTP/1.1 403 Forbidden\r\nX-A: 1\r\nno colon\r\nX-A:2\r\n\r\n");
    ASSERT_EQ(recorder->events.size(), 1u);
    EXPECT_FALSE(recorder->events[0].success);
    EXPECT_EQ(recorder->events[0].error,
              (HTTPUpgradeError{HTTPUpgradeError::Kind::notAnUpgrade, 403, Headers{{"X-A", "1, 2"}}}));
    plainRecorder->events.clear();
    parse(plain, "HTTP/1.1 403 Forbidden\r\nX-A: 1\r\nno colon\r\nX-B: 2\r\n\r\n");
    ASSERT_EQ(plainRecorder->events.size(), 1u);
    EXPECT_EQ(plainRecorder->events[0].error,
              (HTTPUpgradeError{HTTPUpgradeError::Kind::notAnUpgrade, 403, Headers{{"x-a", "1"}}}));

    // Garbage waits, an unreadable status fails.
    recorder->events.clear();
    parse(foundation, "SSH-2.0-OpenSSH\r\n\r\n");
    EXPECT_TRUE(recorder->events.empty());
    FoundationHTTPHandler fresh;
    fresh.registerDelegate(recorder);
    parse(fresh, "HTTP/1.1 1O1 Nope\r\n\r\n");
    ASSERT_EQ(recorder->events.size(), 1u);
    EXPECT_EQ(recorder->events[0].error.kind, HTTPUpgradeError::Kind::invalidData);
    parse(fresh, "HTTP/1.1 101\r\n\r\n");
    ASSERT_EQ(recorder->events.size(), 2u);
    EXPECT_TRUE(recorder->events[1].success);

    plainRecorder->events.clear();
    parse(plain, "HTTP/1.1 \xC0\xAF\r\n\r\n");
    parse(plain, "HTTP/1.1\r\n\r\n");
    ASSERT_EQ(plainRecorder->events.size(), 2u);
    EXPECT_EQ(plainRecorder->events[0].error.kind, HTTPUpgradeError::Kind::invalidData);
    EXPECT_EQ(plainRecorder->events[1].error.kind, HTTPUpgradeError::Kind::invalidData);
}

TEST(HTTPHandler, RefusesAResponseOverItsLimitOnceAndIgnoresTheRest) {
    for (int variant = 0; variant < 2; ++variant) {
        SCOPED_TRACE(variant);
        auto make = [&](std::size_t limit) {
            std::unique_ptr<HTTPHandler> handler;
            if (variant == 0) handler = std::make_unique<FoundationHTTPHandler>();
            else handler = std::make_unique<StringHTTPHandler>();
            Limits limits;
            limits.maxUpgradeResponseSize = limit;
            handler->setLimits(limits);
            return handler;
        };
        auto recorder = std::make_shared<Recorder>();
        // Frames behind the header do not count.
        auto exact = make(kResponse.size());
        exact->registerDelegate(recorder);
        EXPECT_EQ(parse(*exact, kResponse + "\x81\x02hi"), static_cast<std::int64_t>(kResponse.size()));
        ASSERT_EQ(recorder->events.size(), 1u);
        EXPECT_TRUE(recorder->events[0].success);

        auto over = make(kResponse.size() - 1);
        over->registerDelegate(recorder);
        EXPECT_EQ(parse(*over, kResponse.substr(0, 40)), -1);
        EXPECT_EQ(recorder->events.size(), 1u);
        EXPECT_EQ(parse(*over, kResponse.substr(40)), -1);
        ASSERT_EQ(recorder->events.size(), 2u);
        EXPECT_FALSE(recorder->events[1].success);
        EXPECT_EQ(recorder->events[1].tooBig, (WSError{ErrorType::protocolError, "upgrade response too big", 1009}));
        EXPECT_EQ(parse(*over, kResponse), -1);
        EXPECT_EQ(recorder->events.size(), 2u);
    }
}

TEST(HTTPHandler, WritesTheRequest) {
    Request upgrade = request("wss://chat.test:8443/socket.io/?EIO=4&transport=websocket&t=a%20b");
    upgrade.setValue("chat.test:8443", "Host");
    upgrade.setValue("websocket", "Upgrade");
    std::string expected =
        "GET /socket.io/?EIO=4&transport=websocket&t=a%20b HTTP/1.1\r\nHost: chat.test:8443\r\n"
        "Upgrade: websocket\r\n\r\n";
    for (auto converted : {FoundationHTTPHandler().convert(upgrade), StringHTTPHandler().convert(upgrade)}) {
        EXPECT_EQ(std::string(asText(converted)), expected);
    }
    EXPECT_EQ(std::string(asText(FoundationHTTPHandler().convert(request("ws://h.test")))), "GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(std::string(asText(StringHTTPHandler().convert(request("ws://h.test/a%2Fb")))),
              "GET /a%2Fb HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(FoundationHTTPHandler().convert(Request()).empty());

    // A line break in a field would write lines of the caller's choosing: nothing is written.
    for (const auto& [name, value] : {std::pair{"chatcode", "42\r\nX-Injected: 1"}, std::pair{"X-A\n", "1"}}) {
        Request split = request("ws://h.test/");
        split.setValue("1", "Before");
        split.setValue(value, name);
        EXPECT_EQ(split.fieldWithLineBreak(), name);
        EXPECT_TRUE(FoundationHTTPHandler().convert(split).empty());
        EXPECT_TRUE(StringHTTPHandler().convert(split).empty());
    }
    EXPECT_FALSE(upgrade.fieldWithLineBreak());
}

TEST(HTTPWSHeader, BuildsTheUpgrade) {
    auto upgrade = HTTPWSHeader::createUpgrade(request("ws://chat.test/socket"), true, "KEY==");
    std::vector<std::pair<std::string, std::string>> expected{
        {"Origin", "ws://chat.test"},
        {"Upgrade", "websocket"},
        {"Connection", "Upgrade"},
        {"Sec-WebSocket-Version", "13"},
        {"Sec-WebSocket-Key", "KEY=="},
        {"Sec-WebSocket-Extensions", "permessage-deflate; client_max_window_bits; server_max_window_bits=15"},
        {"Host", "chat.test:80"}};
    EXPECT_EQ(upgrade.headers, expected);

    auto secure = HTTPWSHeader::createUpgrade(request("wss://chat.test/"), false, "k");
    EXPECT_EQ(secure.value("host"), "chat.test:443");
    EXPECT_EQ(secure.value("origin"), "wss://chat.test");
    EXPECT_FALSE(secure.value("Sec-WebSocket-Extensions"));

    auto ported = HTTPWSHeader::createUpgrade(request("WSS://chat.test:8080/x?y=1"), false, "k");
    EXPECT_EQ(ported.value("Host"), "chat.test:8080");
    EXPECT_EQ(ported.value("Origin"), "WSS://chat.test:8080");

    Request custom = request("wss://chat.test/");
    custom.setValue("Bearer t", "Authorization");
    custom.setValue("other.test", "host");
    custom.setValue("https://app.test", "ORIGIN");
    custom.setValue("old", "Upgrade");
    auto kept = HTTPWSHeader::createUpgrade(custom, false, "k");
    EXPECT_EQ(kept.headers[0], (std::pair<std::string, std::string>{"Authorization", "Bearer t"}));
    EXPECT_EQ(kept.headers[1], (std::pair<std::string, std::string>{"host", "other.test"}));
    EXPECT_EQ(kept.headers[2], (std::pair<std::string, std::string>{"ORIGIN", "https://app.test"}));
    EXPECT_EQ(kept.headers[3], (std::pair<std::string, std::string>{"Upgrade", "websocket"}));
    EXPECT_EQ(kept.headers.size(), 7u);

    Request hostless = request("/relative");
    hostless.setValue("v", "X");
    EXPECT_EQ(HTTPWSHeader::createUpgrade(hostless, true, "k").headers, hostless.headers);
    EXPECT_TRUE(HTTPWSHeader::createUpgrade(Request(), true, "k").headers.empty());
}

TEST(HTTPWSHeader, TakesURLsApartAndMakesKeys) {
    auto parts = [](const std::string& url) { return getParts(*URL::make(url)); };
    EXPECT_EQ(parts("ws://a.test/x"), (URLParts{80, "a.test", false}));
    EXPECT_EQ(parts("wss://a.test"), (URLParts{443, "a.test", true}));
    EXPECT_EQ(parts("http://a.test"), (URLParts{80, "a.test", false}));
    EXPECT_EQ(parts("HTTPS://a.test"), (URLParts{443, "a.test", true}));
    EXPECT_EQ(parts("wss://a.test:9000"), (URLParts{9000, "a.test", true}));
    EXPECT_EQ(parts("ws://[::1]:70000/"), (URLParts{70000, "[::1]", false}));
    EXPECT_FALSE(parts("/only/a/path"));
    EXPECT_FALSE(parts("mailto:x@a.test"));

    auto key = HTTPWSHeader::generateWebSocketKey();
    EXPECT_EQ(key.size(), 24u);
    auto decoded = base64::decode(key);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->size(), 16u);
    EXPECT_NE(key, HTTPWSHeader::generateWebSocketKey());
}

TEST(Request, FieldNamesIgnoreCaseAndKeepTheirFirstSpelling) {
    Request request;
    request.setValue("1", "X-Token");
    request.setValue("2", "x-token");
    request.setValue("3", "Other");
    EXPECT_EQ(request.headers, (std::vector<std::pair<std::string, std::string>>{{"X-Token", "2"}, {"Other", "3"}}));
    EXPECT_EQ(request.value("X-TOKEN"), "2");
    EXPECT_FALSE(request.value("missing"));
}
