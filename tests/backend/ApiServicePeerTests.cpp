// The backend's three HTTP calls over libcurl against a scripted node server on 127.0.0.1.
#include "backend/ApiService.hpp"

#include "FakePlatform.hpp"
#include "PeerProcess.hpp"

#include <gtest/gtest.h>

#include <algorithm>

using namespace kelvane;

namespace {

class ApiServicePeer : public ::testing::Test {
protected:
    std::string base() const { return "http://127.0.0.1:" + std::to_string(peer.port()); }

    // Script lines such as "answer GET /p 200 body", each waited for until taken.
    void script(std::initializer_list<std::string> lines) {
        for (const auto& line : lines) {
            peer.writeLine(line);
            auto key = line.substr(line.find(' ') + 1);
            key = key.substr(0, key.find(' ', key.find(' ') + 1));
            ASSERT_TRUE(peer.waitForLine("SCRIPTED " + key)) << line;
        }
    }

    // The first recorded request to `path`, once it has come.
    Json request(const std::string& path) {
        auto line = peer.waitForLine([&](const std::string& text) {
            return text.starts_with("REQUEST ") && json::parse(text.substr(8))->at("path") == path;
        });
        return line ? *json::parse(line->substr(8)) : Json();
    }

    // Starts a call and waits for the value its completion hands over, on whatever thread.
    template <class T>
    std::optional<T> await(const std::function<void(std::function<void(T)>)>& start) {
        auto value = std::make_shared<std::optional<T>>();
        start([queue = platform.mainQueue, value](T result) { queue->async([value, result] { *value = result; }); });
        platform.mainQueue->runUntil([&] { return value->has_value(); });
        return *value;
    }

    std::optional<bool> status(ConnectionStatus value, const std::string& prefix, const std::string& key = "r-1") {
        return await<bool>([&](auto done) { api.sendConnectionStatus(value, base() + prefix, key, done); });
    }

    std::optional<Result<Json>> payload(const std::string& id) {
        return await<Result<Json>>([&](auto done) { api.getPayloadFromId(id, base(), "tok-9", "realm", done); });
    }

    fakes::FakePlatform platform;
    fakes::LogCapture log;
    kelvane::testing::PeerProcess peer{"backend-server.js", {R"({"lifetime":60})"}};
    ApiService api;
};

TEST_F(ApiServicePeer, StatusPostsCountAsDeliveredOnlyForA200) {
    ASSERT_NE(peer.port(), 0);
    // The drop comes first, on a fresh connection: libcurl would send again over a reused one.
    script({"drop POST /dropped/status", "answer POST /created/status 201 {}", "answer POST /failed/status 500 x"});
    EXPECT_EQ(status(ConnectionStatus::connectionReset, "/dropped"), false);
    EXPECT_EQ(status(ConnectionStatus::completed, "/created"), false);
    EXPECT_EQ(status(ConnectionStatus::userClosed, "/failed"), false);
    // Nothing is escaped, so these are no URLs and send nothing.
    EXPECT_EQ(status(ConnectionStatus::started, "/with blank"), false);
    EXPECT_EQ(status(ConnectionStatus::started, "/refused", "id<1>"), false);
    EXPECT_EQ(status(ConnectionStatus::started, ""), true);

    auto sent = request("/status");
    EXPECT_EQ(sent["method"], "POST");
    EXPECT_EQ(sent["query"], (Json{{"key", "r-1"}}));
    EXPECT_EQ(sent["headers"]["content-type"], "application/json");
    EXPECT_EQ(sent["body"], R"({"status":"201"})");
    EXPECT_EQ(request("/created/status")["body"], R"({"status":"200"})");
    EXPECT_EQ(request("/failed/status")["body"], R"({"status":"403"})");
    EXPECT_EQ(request("/dropped/status")["body"], R"({"status":"205"})");
    auto lines = log.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto& line) { return line.starts_with("Error: "); }), 1);
    for (auto code : {"200", "201", "500"}) EXPECT_TRUE(log.contains(std::string("Status code: ") + code)) << code;
    EXPECT_EQ(peer.lines().size(), 1u + 3u + 4u);  // PORT, SCRIPTED and REQUEST lines only
}

TEST_F(ApiServicePeer, APayloadObjectComesBackAsPrettyText) {
    ASSERT_NE(peer.port(), 0);
    script({R"(answer GET /tx-1/realm 200 {"b":[1,{"c":"x/y"}],"a":true,"n":2.0})"});
    auto result = payload("tx-1");
    ASSERT_TRUE(result && result->ok()) << (result ? result->error().text() : "no answer");
    EXPECT_EQ((*result)->size(), 1u);
    auto text = json::getString(**result, "payload").value_or("");
    EXPECT_EQ(json::parse(text), json::parse(R"({"b":[1,{"c":"x/y"}],"a":true,"n":2})"));
    EXPECT_EQ(text, R"({
  "a" : true,
  "b" : [
    1,
    {
      "c" : "x\/y"
    }
  ],
  "n" : 2
})");

    auto sent = request("/tx-1/realm");
    EXPECT_EQ(sent["method"], "GET");
    EXPECT_EQ(sent["headers"]["authorization"], "Bearer tok-9");
    EXPECT_EQ(sent["headers"]["content-type"], "application/json");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"url : " + base() + "/tx-1/realm , action token : tok-9",
                                                      "status -> 200", "response -> " + text}));
}

TEST_F(ApiServicePeer, PayloadFailures) {
    ASSERT_NE(peer.port(), 0);
    script({"answer GET /array/realm 200 [1,2]", "answer GET /scalar/realm 200 7",
            "answer GET /error/realm 500 {\"a\":1}", "answer GET /empty/realm 500"});
    const Error notJSON{"NSCocoaErrorDomain", 3840,
                        "The data couldn\u2019t be read because it isn\u2019t in the correct format."};
    for (auto [id, expected] : {std::pair{"array", Error{"", -1, "Failed to parse JSON"}},
                                {"scalar", notJSON},
                                {"error", Error{"", 500, "HTTP error 500"}},
                                {"empty", Error{"", 500, "HTTP error 500"}}}) {
        auto result = payload(id);
        ASSERT_TRUE(result && !result->ok()) << id;
        EXPECT_EQ(result->error(), expected) << id;
    }
}

TEST_F(ApiServicePeer, ASekuraAnswerOfAnyStatusIsAResultOnTheMainQueue) {
    ASSERT_NE(peer.port(), 0);
    script({"answer GET /sekura 404 not here"});
    std::optional<LoadSekuraUrl> result;
    std::optional<Error> error;
    bool answered = false, onMain = false;
    api.loadSekuraSessionUrl(base() + "/sekura?s=1", [&](auto value, auto failure) {
        std::tie(result, error, onMain, answered) = std::tuple(value, failure, platform.mainQueue->isCurrent(), true);
    });
    ASSERT_TRUE(platform.mainQueue->runUntil([&] { return answered; }));
    EXPECT_TRUE(onMain);
    EXPECT_EQ(error, std::nullopt);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->statusCode, 404);
    EXPECT_EQ(result->data, "not here");
    auto sent = request("/sekura");
    EXPECT_FALSE(sent["headers"].contains("authorization") || sent["headers"].contains("content-type"));
}

}  // namespace
