// "readDeviceDetails": the device's clock under set time zones, and the hand-built text of each
// outcome byte for byte through the bridge.
#include "FakeDeviceServices.hpp"

#include "services/DeviceDetails.hpp"

#include <kelvane/AlertController.hpp>

#include <cstdlib>
#include <ctime>
#include <regex>

using namespace kelvane;
using Authorization = platform::LocationAuthorizationStatus;

namespace {

std::string timeIn(const char* zone, std::chrono::system_clock::time_point instant) {
    const char* saved = std::getenv("TZ");
    std::optional<std::string> previous = saved ? std::optional<std::string>(saved) : std::nullopt;
    setenv("TZ", zone, 1);
    tzset();
    std::string text = readDeviceTime(instant);
    previous ? setenv("TZ", previous->c_str(), 1) : unsetenv("TZ");
    tzset();
    return text;
}

TEST(DeviceTime, OneInstantInThreeValuesAndCoordinatesInShortestText) {
    // 2024-01-02T03:04:05.625Z, exact in binary so that its milliseconds are too.
    auto instant = std::chrono::system_clock::time_point(std::chrono::milliseconds(1704164645625));
    EXPECT_EQ(timeIn("IST-5:30", instant), "{\n    \"time\": \"2024-01-02T03:04:05.625Z\",\n"
                                           "    \"epoch\": \"1704164645625\",\n    \"offset\": \"330\"\n}");
    EXPECT_NE(timeIn("NST+3:30", instant).find("\n    \"offset\": \"-210\"\n}"), std::string::npos);

    EXPECT_EQ(coordinateText(12), "12.0");
    EXPECT_EQ(coordinateText(-77.0364), "-77.0364");
    EXPECT_EQ(coordinateText(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(coordinateText(0.000015), "1.5e-05");
}

class DeviceDetails : public fakes::DeviceServiceFixture {
protected:
    fakes::FakeLocationManager& manager() const { return *location->managers.front(); }
    platform::LocationDelegate& delegateOfManager() const { return *manager().delegate.lock(); }

    // The last script, its time object checked for shape and replaced by "TIME".
    std::string lastScript() const {
        static const std::regex time(R"re(\{\n    "time": "\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z",)re"
                                     R"re(\n    "epoch": "\d+",\n    "offset": "-?\d+"\n\})re");
        std::smatch found;
        EXPECT_TRUE(std::regex_search(webView->scripts.back(), found, time)) << webView->scripts.back();
        return found.empty() ? "" : found.prefix().str() + "TIME" + found.suffix().str();
    }
    std::string expected(const std::string& success, const std::string& message, const std::string& location) const {
        return "iosCallback(\"readDeviceDetails\" , {\n\"success\" : " + success + ",\n\"message\" : \"" + message +
               "\",\n\"location\" : " + location + ",\n\"time\" : TIME,\n\"device\" : {\"isPhysicalDevice\":true,"
               "\"osVersion\":\"iOS 17.4\",\"model\":\"iPhone\",\"id\":\"" +
               *platform.keyValueStore->string("device_id") + "\",\"platform\":\"ios\"}\n})";
    }
};

TEST_F(DeviceDetails, TheThreeOutcomesOfTheLocationManager) {
    post("readDeviceDetails");
    ASSERT_EQ(manager().delegate.lock(), controller);
    EXPECT_EQ(manager().starts, 1);
    EXPECT_TRUE(webView->scripts.empty());

    delegateOfManager().didUpdateLocations({{1, 2}, {12, 77.5946}});
    platform.mainQueue->runUntilIdle();
    EXPECT_EQ(manager().stops, 1);
    EXPECT_EQ(lastScript(), expected("true", "", R"({"lat" : "12.0", "long" : "77.5946"})"));

    delegateOfManager().didUpdateLocations({});
    platform.mainQueue->runUntilIdle();
    EXPECT_EQ(lastScript(), expected("false", "Unable to get location", "\"\""));

    // Nothing is escaped, though such a description breaks the page's script.
    delegateOfManager().didFailWithError(Error{"kCLErrorDomain", 0, "The \"location\" is unknown"});
    platform.mainQueue->runUntilIdle();
    EXPECT_EQ(lastScript(), expected("false", "The \"location\" is unknown", "\"\""));
    EXPECT_EQ(manager().stops, 3);
}

TEST_F(DeviceDetails, PermissionIsAskedForOrItsDenialShown) {
    manager().status = static_cast<int>(Authorization::notDetermined);
    post("readDeviceDetails");
    EXPECT_EQ(manager().authorizationRequests, 1);
    delegateOfManager().didChangeAuthorization(Authorization::notDetermined);
    EXPECT_TRUE(log.contains("determined"));
    delegateOfManager().didChangeAuthorization(Authorization::authorizedAlways);
    EXPECT_EQ(manager().starts, 1);

    manager().status = static_cast<int>(Authorization::denied);
    post("readDeviceDetails");
    delegateOfManager().didChangeAuthorization(Authorization::restricted);
    ASSERT_EQ(platform.viewSystem->shown.size(), 2u);
    auto settings = std::dynamic_pointer_cast<AlertController>(platform.viewSystem->shown[0].controller);
    auto cancel = std::dynamic_pointer_cast<AlertController>(platform.viewSystem->shown[1].controller);
    ASSERT_TRUE(settings && cancel);
    EXPECT_EQ(platform.viewSystem->shown[0].on, controller.get());
    EXPECT_EQ(settings->title + "|" + settings->message + "|" + settings->actions[0].title + "|" +
                  settings->actions[1].title,
              "Location Access Denied|This app requires access to the location to function properly. Please enable "
              "location access in Settings and try again the transition.|Go to Settings|Cancel");

    // Settings start the updates at once and leave the page waiting.
    settings->tap(0);
    platform.mainQueue->runUntilIdle();
    EXPECT_EQ(platform.urlOpener->opened, std::vector<std::string>{"app-settings:"});
    EXPECT_EQ(manager().starts, 2);
    EXPECT_TRUE(webView->scripts.empty());

    cancel->tap(1);
    platform.mainQueue->runUntilIdle();
    ASSERT_EQ(webView->scripts.size(), 1u);
    EXPECT_EQ(lastScript(), expected("false", "location access denied", "\"\""));
}

using DeviceDetailsDeathTest = DeviceDetails;

TEST_F(DeviceDetailsDeathTest, AnUnknownStatusStops) {
    manager().status = 5;
    EXPECT_DEATH(post("readDeviceDetails"), "Fatal error: Unhandled authorization status.");
}

}  // namespace
