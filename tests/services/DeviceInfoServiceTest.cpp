#include "flow/JsHandler.hpp"
#include "services/DeviceInfoService.hpp"

#include "FakePlatform.hpp"

#include <gtest/gtest.h>

using namespace kelvane;

namespace {
class DeviceIdentity : public ::testing::Test {
protected:
    fakes::FakePlatform platform;
    DeviceInfoService service;
};
}  // namespace

TEST_F(DeviceIdentity, TheRecordDescribesTheDeviceWithAStableId) {
    auto first = service.getDeviceInfo();
    auto second = JsHandler().getDeviceInfo();
    EXPECT_EQ(first.model, "iPhone");
    EXPECT_EQ(first.osVersion, "iOS 17.4");
    EXPECT_TRUE(first.isPhysicalDevice);
    EXPECT_EQ(first.platform, "ios");
    EXPECT_EQ(first.id.size(), 36u);
    EXPECT_EQ(second.id, first.id);
    EXPECT_EQ(platform.keyValueStore->string("device_id"), first.id);

    auto parsed = *json::parse(*first.jsonString());
    EXPECT_EQ(parsed.size(), 5u);
    for (const char* key : {"model", "isPhysicalDevice", "osVersion", "id", "platform"}) EXPECT_TRUE(parsed.contains(key));
    EXPECT_EQ(DeviceModel::fromJson(parsed).value(), first);
}

TEST_F(DeviceIdentity, AnEmptiedStoreGivesANewIdAndAnEmptyStoredIdIsKept) {
    auto old = service.getOrCreateDeviceId();
    platform.keyValueStore->clear();
    auto fresh = service.getOrCreateDeviceId();
    EXPECT_NE(fresh, old);
    platform.keyValueStore->setString("", "device_id");
    EXPECT_EQ(service.getOrCreateDeviceId(), "");
}

TEST_F(DeviceIdentity, ASimulatorBuildIsNoPhysicalDevice) {
    platform.device->simulator = true;
    platform.device->name = "Linux";
    platform.device->version = "6.1";
    auto record = service.getDeviceInfo();
    EXPECT_FALSE(record.isPhysicalDevice);
    EXPECT_EQ(record.osVersion, "Linux 6.1");
    EXPECT_EQ(record.platform, "ios");
}

TEST(JsHandlerArgs, ReportMissingKeysInTheirGivenOrder) {
    JsHandler handler;
    Json args = {{"a", 1}, {"n", nullptr}};
    EXPECT_TRUE(handler.validateRequiredFields(args, {"a", "n"}).empty());
    EXPECT_EQ(handler.validateRequiredFields(args, {"z", "a", "y"}), (std::vector<std::string>{"z", "y"}));
    EXPECT_FALSE(handler.processArgs({}));
    EXPECT_FALSE(handler.processArgs({Json(3)}));
    EXPECT_EQ(handler.processArgs({args, Json(3)}), args);
}
