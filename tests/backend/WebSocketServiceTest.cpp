#include "FlowFixture.hpp"

using namespace kelvane;
using kelvane::testing::FlowFixture;

namespace {

class SessionSocket : public FlowFixture {
protected:
    void handle(const std::string& dataJson) {
        auto parsed = Json::parse(dataJson);
        service->handleResult(std::vector<Json>(parsed.begin(), parsed.end()), "http://127.0.0.1:1", delegate);
    }

    std::shared_ptr<WebSocketService> service = [] {
        auto made = std::make_shared<WebSocketService>();
        made->requestId = "req-1";
        return made;
    }();
};

}  // namespace

TEST_F(SessionSocket, BlankAddressOrIdLeavesThePromisePendingWithoutAManager) {
    WebSocketService::socketManager.reset();
    for (SocketData data : {SocketData{" \n\t", "req-1"}, SocketData{"http://127.0.0.1:1", "\u00a0 \r\n\u3000"},
                            SocketData{"", ""}}) {
        auto promise = service->tryConnect(data, delegate);
        platform.mainQueue->runUntilIdle();
        EXPECT_TRUE(promise.isPending());
        EXPECT_FALSE(WebSocketService::socketManager);
    }
    EXPECT_EQ(service->requestId, "");
    EXPECT_FALSE(log.contains("Request id and url is not empty"));
}

TEST_F(SessionSocket, AnAuthReqIdReportsCompletionAndHandsTheResultOver) {
    handle(R"([{"auth_req_id":"auth-9","status":"201"}])");
    EXPECT_EQ(delegate->calls(), std::vector<std::string>{"onResult:req-1,auth-9"});
    EXPECT_EQ(connection->disconnects, 1);
    auto requests = http->requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].url.absoluteString(), "http://127.0.0.1:1/status?key=req-1");
    EXPECT_EQ(requests[0].body, R"({"status":"200"})");
    EXPECT_TRUE(log.contains("auth_req_id: auth-9"));
}

TEST_F(SessionSocket, MalformedResultsAreOnlyLogged) {
    struct Case {
        const char* data;
        std::vector<std::string> lines;
    };
    const Case cases[] = {
        {R"(["x"])", {"JSON is not in the expected format"}},
        {R"([{"auth_req_id":"a"},7])", {"JSON is not in the expected format"}},
        {R"([])", {"status is missing or not a string", "authReqId is missing or not a string"}},
        {R"([{"status":205}])", {"status is missing or not a string", "authReqId is missing or not a string"}},
        {R"([{"status":"200","auth_req_id":5}])", {"authReqId is missing or not a string"}},
    };
    for (const auto& c : cases) {
        fakes::LogCapture lines;
        handle(c.data);
        auto got = lines.lines();
        ASSERT_FALSE(got.empty());
        EXPECT_EQ(got.front(), "Data json : " + Json::parse(c.data).dump()) << c.data;
        EXPECT_EQ(std::vector<std::string>(got.begin() + 1, got.end()), c.lines) << c.data;
    }
    EXPECT_TRUE(delegate->calls().empty());
    EXPECT_TRUE(http->requests().empty());
    EXPECT_EQ(connection->disconnects, 0);
}

namespace {
// Writes its close where a death test can read it.
class StderrDelegate : public fakes::RecordingDelegate {
public:
    void onClosed(const std::string& reason) override { std::fprintf(stderr, "closed %s\n", reason.c_str()); }
    void onResult(const std::string&, const std::string&) override { std::fprintf(stderr, "result\n"); }
};
}  // namespace

using SessionSocketDeathTest = SessionSocket;

TEST_F(SessionSocketDeathTest, AResetStatusClosesAndThenStops) {
    auto stderrDelegate = std::make_shared<StderrDelegate>();
    for (const char* data : {R"([{"status":"205"}])", R"([{"auth_req_id":"x","status":"205"}])"}) {
        auto parsed = Json::parse(data);
        EXPECT_DEATH(service->handleResult(std::vector<Json>(parsed.begin(), parsed.end()), "http://127.0.0.1:1",
                                           stderrDelegate),
                     "closed TranscationCompleted\n"
                     "Fatal error: Unexpectedly found nil while implicitly unwrapping an Optional value");
    }
}

TEST_F(SessionSocketDeathTest, AnAddressThatIsNoURLStops) {
    service->tryConnect({"http://bad host", "req-1"}, delegate);
    EXPECT_DEATH(platform.mainQueue->runUntilIdle(),
                 "Fatal error: Unexpectedly found nil while unwrapping an Optional value");
}
