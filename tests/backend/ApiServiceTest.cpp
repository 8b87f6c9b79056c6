// What the backend peer cannot produce: answers without an HTTP response or without a body,
// and texts that are no URL.
#include "backend/ApiService.hpp"

#include "FakeHTTP.hpp"
#include "FakePlatform.hpp"

#include <gtest/gtest.h>

using namespace kelvane;

namespace {

class ApiServiceUnit : public ::testing::Test {
protected:
    ApiServiceUnit() {
        platform.http = http;
        platform.install();
    }

    std::optional<Result<Json>> payload(const std::string& baseUrl = "http://backend.test") {
        std::optional<Result<Json>> outcome;
        api.getPayloadFromId("tx", baseUrl, "tok", "realm", [&](Result<Json> result) { outcome = std::move(result); });
        return outcome;
    }

    // The Sekura answer, which must come on the main queue.
    std::pair<std::optional<LoadSekuraUrl>, std::optional<Error>> sekura(const std::string& url = "http://b.test/s") {
        std::optional<std::pair<std::optional<LoadSekuraUrl>, std::optional<Error>>> outcome;
        api.loadSekuraSessionUrl(url, [&](auto result, auto error) {
            EXPECT_TRUE(platform.mainQueue->isCurrent());
            outcome.emplace(result, error);
        });
        EXPECT_TRUE(platform.mainQueue->runUntil([&] { return outcome.has_value(); }));
        return outcome.value_or(std::pair{std::nullopt, std::nullopt});
    }

    fakes::FakePlatform platform;
    fakes::LogCapture log;
    std::shared_ptr<fakes::FakeHTTP> http = std::make_shared<fakes::FakeHTTP>();
    ApiService api;
};

TEST_F(ApiServiceUnit, AnAnswerWithoutHTTPResponse) {
    http->data = "{}";
    bool called = false;
    api.sendConnectionStatus(ConnectionStatus::started, "http://b.test", "r1", [&](bool) { called = true; });
    EXPECT_FALSE(called);
    EXPECT_EQ(payload()->error(), (Error{"", -1, "Invalid response"}));
    auto [result, error] = sekura();
    EXPECT_FALSE(result);
    EXPECT_EQ(error, (Error{"Invalid response", -1, ""}));
    EXPECT_EQ(http->requests().size(), 3u);
    EXPECT_EQ(log.lines().size(), 1u);  // the payload's URL line only
}

TEST_F(ApiServiceUnit, AnAnswerWithoutBodyIsCheckedBeforeItsStatus) {
    for (int status : {200, 500}) {
        http->response = platform::HTTPResponse{status, {}};
        EXPECT_EQ(payload()->error(), (Error{"", -1, "No data received"}));
        EXPECT_TRUE(log.contains("status -> " + std::to_string(status)));
        EXPECT_EQ(sekura().second, (Error{"No data", -1, ""}));
    }
    http->data = std::string("\xC3\x28", 2);
    auto [result, error] = sekura();
    ASSERT_TRUE(result && !error);
    EXPECT_EQ(result->statusCode, 500);
    EXPECT_EQ(result->data, std::nullopt);  // not UTF-8
}

TEST_F(ApiServiceUnit, TextsThatAreNoURLMakeNoRequest) {
    std::vector<bool> sent;
    api.sendConnectionStatus(ConnectionStatus::started, std::nullopt, "r1", [&](bool ok) { sent.push_back(ok); });
    api.sendConnectionStatus(ConnectionStatus::started, "http://b.test", std::nullopt, 3,
                             [&](bool ok) { sent.push_back(ok); });
    EXPECT_EQ(sent, (std::vector<bool>{false, false}));

    EXPECT_EQ(payload("http://back end.test")->error(), (Error{"", -1, "Invalid URL"}));
    EXPECT_TRUE(log.contains("url : http://back end.test/tx/realm , action token : tok"));

    auto error = sekura("not a url").second.value_or(Error{});
    EXPECT_EQ(error, (Error{"Invalid URL", -1, ""}));
    EXPECT_EQ(error.localizedDescription(), "The operation couldn\u2019t be completed. (Invalid URL error -1.)");
    EXPECT_TRUE(http->requests().empty());
}

}  // namespace
