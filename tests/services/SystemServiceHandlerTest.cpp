// The system's small services, Ashield and the push token, through the bridge.
#include "FakeDeviceServices.hpp"

using namespace kelvane;
using platform::NetworkPath;

namespace {

using Answer = std::pair<std::string, Json>;
using SystemServices = fakes::DeviceServiceFixture;

TEST_F(SystemServices, ClipboardEventListSchemeQueryAshieldAndPushToken) {
    platform.pasteboard->text = "old";
    post("copyToClipboard", Json{{"text", ""}});
    EXPECT_EQ(platform.pasteboard->text, "");
    EXPECT_EQ(webView->scripts.back(), R"(iosCallback("copyToClipboard" ,{"message":"success","success":true}))");

    post("isEventSupported", Json("ignored"));
    Json events = lastRecord()["supportedEvents"];
    ASSERT_EQ(events.size(), 21u);
    EXPECT_EQ(events[0].get<std::string>() + events[1].get<std::string>() + events[2].get<std::string>() +
                  events[20].get<std::string>(),
              "isEventSupportedsuccessfailureisCustomSchemeRegisteredOnApp");
    EXPECT_EQ(lastRecord(), (Json{{"success", true}, {"message", ""}, {"supportedEvents", events}}));

    platform.urlOpener->openable = {"uaepass://open"};
    post("isCustomSchemeRegisteredOnApp", Json{{"scheme", "uaepass"}, {"host", "open"}});
    EXPECT_EQ(last(), Answer("isCustomSchemeRegisteredOnApp", {{"isRegistered", true}, {"success", true},
                                                               {"message", "Process completed successfully"}}));
    EXPECT_TRUE(log.contains("scheme custom , uaepass"));
    EXPECT_TRUE(log.contains("host custom , open"));
    EXPECT_TRUE(log.contains("Final result for is custom scheme, "
                             R"({"isRegistered":true,"message":"Process completed successfully","success":true})"));
    post("isCustomSchemeRegisteredOnApp", Json{{"scheme", "uaepassstg"}, {"host", "open"}});
    EXPECT_EQ(lastRecord()["isRegistered"], false);
    post("isCustomSchemeRegisteredOnApp", Json{{"scheme", ""}, {"host", "open"}});
    EXPECT_EQ(lastRecord(), (Json{{"isRegistered", false}, {"success", false}, {"message", "Invalid URL components"}}));

    const Json ids{{"authTransactionId", "a-1"}, {"regTransactionId", "r-1"}};
    const Json refusal = withDevice({{"success", false}, {"message", "Platform not supported!"},
                                     {"authTransactionId", "a-1"}, {"regTransactionId", "r-1"},
                                     {"errorCodes", {"platformNotSupported"}}});
    post("registerAshield", ids);
    EXPECT_EQ(last(), Answer("registerAshield", refusal));
    post("authenticateAshield", ids);
    EXPECT_EQ(last(), Answer("authenticateAshield", refusal));

    delegate->pushToken = "";
    post("getFcmToken");
    EXPECT_EQ(lastRecord(), withDevice({{"pushToken", ""}, {"pushType", "firebase"}}));
    EXPECT_TRUE(log.contains("fcmTOken : "));
}

TEST_F(SystemServices, EachNetworkCheckAnswersItsFirstPathOnce) {
    auto check = [&](NetworkPath first, const Json& expected, std::optional<NetworkPath> second = {}) {
        post("getCurrentNetwork");
        auto monitor = networkPaths->monitors.back();
        ASSERT_TRUE(monitor->queue);
        EXPECT_EQ(monitor->queue->label(), "NetworkMonitor");
        std::size_t before = webView->scripts.size();
        monitor->deliver(first);
        if (second) monitor->deliver(*second);
        // Both paths are handled once the monitor's queue has run past them.
        std::atomic<bool> drained{false};
        monitor->queue->async([&] { drained = true; });
        ASSERT_TRUE(platform.mainQueue->runUntil([&] { return drained && webView->scripts.size() > before; }));
        platform.mainQueue->runUntilIdle();
        EXPECT_TRUE(monitor->cancelled);
        ASSERT_EQ(webView->scripts.size(), before + 1);
        EXPECT_EQ(webView->scripts.back(), "iosCallback(\"getCurrentNetwork\" ," + withDevice(expected).dump() + ")");
    };
    check({NetworkPath::Status::satisfied, true, true, false},
          {{"connectivity", "mobile"}, {"message", ""}, {"success", true}});
    check({NetworkPath::Status::satisfied, false, false, true},
          {{"connectivity", "other"}, {"message", ""}, {"success", false}});
    check({NetworkPath::Status::unsatisfied, true, false, false},
          {{"connectivity", "Disconnected"}, {"message", "Disconnected"}, {"success", false}});
    check({NetworkPath::Status::satisfied, true, false, false},
          {{"connectivity", "wifi"}, {"message", ""}, {"success", true}},
          NetworkPath{NetworkPath::Status::satisfied, false, true, false});
}

using SystemServicesDeathTest = SystemServices;

TEST_F(SystemServicesDeathTest, BodiesWithoutTheirKeysAndAMissingTokenStop) {
    EXPECT_DEATH(post("authenticateAshield", Json{{"authTransactionId", "a-1"}}),
                 "Fatal error: Unexpectedly found nil while unwrapping");
    EXPECT_DEATH(post("copyToClipboard", Json("text")), "Fatal error: Unexpectedly found nil while unwrapping");
    EXPECT_DEATH(post("isCustomSchemeRegisteredOnApp", Json{{"scheme", 1}, {"host", "h"}}),
                 "Fatal error: Could not cast value of type 'Int' to 'String'");
    delegate->pushToken.reset();
    EXPECT_DEATH(post("getFcmToken"), "Fatal error: Unexpectedly found nil while unwrapping an Optional value");
}

}  // namespace
