#include <kelvane/KelvaneApp.hpp>
#include <kelvane/Status.hpp>

#include "FakePlatform.hpp"

#include <gtest/gtest.h>

using namespace kelvane;
using fakes::FakeScene;
using fakes::FakeWindow;

namespace {

class CustomView : public ::testing::Test {
protected:
    std::shared_ptr<FakeScene> windowScene(std::vector<std::shared_ptr<platform::Window>> windows) {
        auto scene = std::make_shared<FakeScene>();
        scene->sceneWindows = std::move(windows);
        return scene;
    }

    fakes::FakePlatform platform;
    fakes::FakeViewSystem& views = *platform.viewSystem;
    std::shared_ptr<KelvaneApp> app = std::make_shared<KelvaneApp>();
};

}  // namespace

TEST_F(CustomView, WalksTheFirstWindowsPresentedChainToItsEnd) {
    auto root = std::make_shared<ViewController>();
    auto first = std::make_shared<ViewController>();
    auto second = std::make_shared<ViewController>();
    views.setPresented(*root, first);
    views.setPresented(*first, second);
    views.scenes = {windowScene({std::make_shared<FakeWindow>(root, false)}),
                    windowScene({std::make_shared<FakeWindow>(std::make_shared<ViewController>(), true)})};
    EXPECT_EQ(app->customView(), second);
}

TEST_F(CustomView, WithoutAWindowSceneTakesTheKeyWindowsRootAsItStands) {
    auto keyRoot = std::make_shared<ViewController>();
    views.setPresented(*keyRoot, std::make_shared<ViewController>());
    views.allWindows = {std::make_shared<FakeWindow>(std::make_shared<ViewController>(), false),
                        std::make_shared<FakeWindow>(keyRoot, true)};
    EXPECT_EQ(app->customView(), keyRoot);

    auto otherScene = std::make_shared<FakeScene>();
    otherScene->windowScene = false;
    views.scenes = {otherScene};
    EXPECT_EQ(app->customView(), keyRoot);
}

TEST_F(CustomView, AWindowSceneWithoutWindowsGivesNothingEvenWithAKeyWindow) {
    views.scenes = {windowScene({})};
    views.allWindows = {std::make_shared<FakeWindow>(std::make_shared<ViewController>(), true)};
    EXPECT_EQ(app->customView(), nullptr);
}

TEST_F(CustomView, AFirstWindowWithoutRootFallsBackToTheKeyWindow) {
    auto keyRoot = std::make_shared<ViewController>();
    views.scenes = {windowScene({std::make_shared<FakeWindow>(nullptr, true)})};
    views.allWindows = {std::make_shared<FakeWindow>(keyRoot, true)};
    EXPECT_EQ(app->customView(), keyRoot);
    views.allWindows = {std::make_shared<FakeWindow>(keyRoot, false)};
    EXPECT_EQ(app->customView(), nullptr);
}

TEST(StatusTexts, AreTheCaseNamesSpelledAsHostsReceiveThem) {
    const char* expected[] = {
        "success", "MissingEncryptionKey", "IdMismatch", "EncryptionKeyMismatch", "InvalidPayload",
        "WebSocketConnectionFailed", "ConnectionError", "appUpdateRequired", "osSmsPermission", "osPhonePermission",
        "osCameraPermission", "osMicPermission", "osOtherPermission", "platformNotSupported", "jsMissingFields",
        "bioNoCredIds", "bioNotAvailable", "bioAuthFailed", "bioPublicKeyNotFound", "fidoRegFailed",
        "fidoVerifyFailed"};
    for (int i = 0; i < kStatusCount; ++i) EXPECT_EQ(errorName(static_cast<Status>(i)), expected[i]);
    EXPECT_EQ(errorName(CloseReason::ByUser), "ByUser");
    EXPECT_EQ(errorName(CloseReason::ByNewTransaction), "ByNewTransaction");
    EXPECT_EQ(errorName(CloseReason::TranscationCompleted), "TranscationCompleted");
}
