#include "FlowFixture.hpp"

#include "flow/Bridge.hpp"

#include <thread>

using namespace kelvane;
using kelvane::testing::FlowFixture;
using kelvane::testing::ObservedWebViewController;

namespace {

class Bridge : public FlowFixture {
protected:
    Bridge() {
        // The push ended the previous socket; this one is the flow's.
        connection->disconnects = 0;
        connection->install();
    }

    void post(const std::string& name, const Json& body = Json{{"k", "v"}}) {
        controller->userContentController({name, body});
        platform.mainQueue->runUntilIdle();
    }

    std::shared_ptr<ObservedWebViewController> controller = show();
    std::shared_ptr<fakes::FakeWebView> webView = webViewOf(controller);
};

}  // namespace

TEST(BridgeEnvelope, ThreeFormsByteForByte) {
    const std::string record = R"({"success":true,"message":"success"})";
    EXPECT_EQ(bridge::iosCallback("copyToClipboard", record),
              R"(iosCallback("copyToClipboard" ,{"success":true,"message":"success"}))");
    EXPECT_EQ(bridge::currentNetworkCallback(R"({"success":true,"message":"wifi"})"),
              R"(iosCallback("getCurrentNetwork" ,{"success":true,"message":"wifi"}))");
    EXPECT_EQ(bridge::deviceDetailsCallback(R"({"success":false})"),
              R"(iosCallback("readDeviceDetails" , {"success":false}))");
}

TEST_F(Bridge, EveryServiceEventIsAnsweredUnderItsPostedName) {
    std::vector<Events> expected;
    for (Events event : allValues()) {
        if (event == Events::success || event == Events::failure) continue;
        std::string name(eventName(event));
        post(name, Json{{"for", name}});
        expected.push_back(event);
        ASSERT_FALSE(webView->scripts.empty()) << name;
        EXPECT_EQ(webView->scripts.back(), "iosCallback(\"" + name + "\" ,{\"echo\":{\"for\":\"" + name +
                                               "\"},\"success\":true})");
    }
    EXPECT_EQ(controller->services, expected);
    EXPECT_EQ(webView->scripts.size(), 19u);
    EXPECT_TRUE(log.contains("***************** Event customme scheme register started on app *******************"));
    EXPECT_TRUE(delegate->calls().empty());
}

TEST_F(Bridge, NamesOutsideTheTableRunNothing) {
    for (const char* name : {"Success", "isEventSupported ", "", "iosCallback", "registerfido"}) post(name);
    EXPECT_TRUE(controller->services.empty());
    EXPECT_TRUE(webView->scripts.empty());
    EXPECT_TRUE(log.contains("Message name from : registerfido"));
    EXPECT_TRUE(log.contains(R"(Message body from : {"k":"v"})"));
}

TEST_F(Bridge, AnswersAlwaysReachThePageLaterOnTheMainQueue) {
    ObservedWebViewController::EchoRecord record;
    record.body = "from the main queue";
    controller->answer("checkBiometric", record);
    EXPECT_TRUE(webView->scripts.empty());
    std::thread([&] {
        record.body = "from elsewhere";
        controller->answer("checkBiometric", record);
    }).join();
    EXPECT_TRUE(webView->scripts.empty());
    platform.mainQueue->runUntilIdle();
    ASSERT_EQ(webView->scripts.size(), 2u);
    EXPECT_EQ(webView->scripts[1], R"(iosCallback("checkBiometric" ,{"echo":"from elsewhere","success":true}))");
    EXPECT_TRUE(log.contains("send data -> " + webView->scripts[0]));
    EXPECT_TRUE(log.contains("result executing JavaScript: nil"));
    EXPECT_TRUE(log.contains("JavaScript executed successfully"));
}

TEST_F(Bridge, AFailedScriptRunIsOnlyLogged) {
    webView->scriptError = Error{"WKErrorDomain", 4, "A JavaScript exception occurred"};
    webView->scriptResult = Json(3);
    controller->sendData("iosCallback(");
    platform.mainQueue->runUntilIdle();
    EXPECT_TRUE(log.contains("result executing JavaScript: 3"));
    EXPECT_TRUE(log.contains(R"(Error executing JavaScript: Error Domain=WKErrorDomain Code=4 "A JavaScript exception occurred")"));
    EXPECT_TRUE(delegate->calls().empty());
    EXPECT_EQ(platform.mainQueue->pendingCount(), 0u);
}

TEST_F(Bridge, ThePagesSuccessClosesWithoutAReport) {
    post("success");
    EXPECT_EQ(delegate->calls(), std::vector<std::string>{"onClosed:TranscationCompleted"});
    EXPECT_EQ(webView->stopLoadingCount, 1);
    EXPECT_TRUE(http->requests().empty());
    EXPECT_EQ(connection->disconnects, 0);
    EXPECT_TRUE(webView->scripts.empty());
}

TEST_F(Bridge, ThePagesFailureEndsTheSocketReportsTheCloseAndCloses) {
    post("failure", Json("ignored"));
    EXPECT_EQ(connection->disconnects, 1);
    auto requests = http->requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].url.absoluteString(), "wss://socket.test/status?key=req-1");
    EXPECT_EQ(requests[0].body, R"({"status":"403"})");
    EXPECT_EQ(delegate->calls(), std::vector<std::string>{"onClosed:TranscationCompleted"});
    EXPECT_TRUE(webView->scripts.empty());
}

TEST_F(Bridge, FailureOfAStalledFlowStillReportsWithNothingToReportTo) {
    controller->socketData.reset();
    post("failure");
    // Without an address the report ends before any request.
    EXPECT_TRUE(http->requests().empty());
    EXPECT_EQ(delegate->calls(), std::vector<std::string>{"onClosed:TranscationCompleted"});
}

using BridgeDeathTest = Bridge;

TEST_F(BridgeDeathTest, TheFatalStopsOfTheBridge) {
    controller->kelvaneService.reset();
    EXPECT_DEATH(post("getFcmToken"), "Fatal error: Unexpectedly found nil while implicitly unwrapping");
    EXPECT_DEATH(post("success"), "Fatal error: Unexpectedly found nil while implicitly unwrapping");
    EXPECT_DEATH(post("failure"), "Fatal error: Unexpectedly found nil while implicitly unwrapping");

    ObservedWebViewController::EchoRecord notUTF8;
    notUTF8.body = std::string("\xff\xfe");
    EXPECT_DEATH(controller->answer("checkBiometric", notUTF8),
                 "Fatal error: 'try!' expression unexpectedly raised an error: ");

    controller->webView.reset();
    EXPECT_DEATH(post("checkBiometric"), "Fatal error: Unexpectedly found nil while implicitly unwrapping");
}
