#include "services/IproovService.hpp"

#include "FakeCeremonies.hpp"
#include "FakePlatform.hpp"
#include "flow/WebViewController.hpp"

#include <gtest/gtest.h>

using namespace kelvane;
using namespace kelvane::platform;
using namespace std::chrono_literals;
using Kind = FaceVerificationStatus::Kind;

namespace {

FaceVerificationStatus status(Kind kind) {
    FaceVerificationStatus value;
    value.kind = kind;
    return value;
}

class Iproov : public ::testing::Test {
protected:
    Iproov() {
        platform.viewSystem->installRoot();
        platform.faceVerification = face;
        platform.install();
    }

    static Json body() { return Json{{"streamingUrl", "wss://face.test/ws"}, {"token", "tok-1"}}; }

    // Launches a session; its answers land in `answers`.
    void start() {
        service->iproov(body(), [this](const IproovRequestModel& record) { answers.push_back(record); });
        platform.mainQueue->runUntilIdle();
    }
    void send(const FaceVerificationStatus& value) {
        face->send(value);
        platform.mainQueue->runUntilIdle();
    }
    IproovRequestModel expected(bool success, const std::string& message, const std::string& error) {
        return IproovRequestModel(success, message, JsHandler().getDeviceInfo(), error);
    }

    fakes::FakePlatform platform;
    fakes::LogCapture log;
    std::shared_ptr<fakes::FakeFaceVerification> face = std::make_shared<fakes::FakeFaceVerification>();
    std::shared_ptr<IproovService> service = std::make_shared<IproovService>();
    std::vector<IproovRequestModel> answers;
};

}  // namespace

TEST_F(Iproov, EachEndStateGivesItsRecordAndTheRestGiveNone) {
    start();
    ASSERT_EQ(face->launches.size(), 1u);
    EXPECT_EQ(face->launches[0].streamingURL, "wss://face.test/ws");
    EXPECT_EQ(face->launches[0].token, "tok-1");
    EXPECT_EQ(face->launches[0].presentationDelegate.lock(), service);

    auto processing = status(Kind::processing);
    processing.progress = 0.5;
    processing.message = "Scanning";
    send(status(Kind::connecting));
    send(status(Kind::connected));
    send(processing);
    EXPECT_TRUE(answers.empty());
    EXPECT_TRUE(log.contains("connecting") && log.contains("connect") && log.contains("0.5 Scanning"));

    auto success = status(Kind::success);
    success.description = "SuccessResult(frame: nil)";
    send(success);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0], expected(true, "Iproov Successful", ""));
    EXPECT_TRUE(log.contains("result -> SuccessResult(frame: nil)"));

    auto failure = status(Kind::failure);
    failure.description = "FailureResult(reason: lighting)";
    failure.reason = "Too dark";
    auto canceled = status(Kind::canceled);
    canceled.description = "user";
    auto error = status(Kind::error);
    error.failureReason = "Camera permission denied";
    for (const auto& end : {failure, canceled, error}) {
        start();
        send(end);
    }
    ASSERT_EQ(answers.size(), 4u);
    EXPECT_EQ(answers[1], expected(false, "", "Too dark"));
    EXPECT_EQ(answers[2], expected(false, "", "Unable to complete request. Please try again!"));
    EXPECT_EQ(answers[3], expected(false, "", "Camera permission denied"));
    EXPECT_TRUE(log.contains("FailureResult(reason: lighting)") && log.contains("result -> user"));
    EXPECT_EQ(json::parse(*answers[1].jsonString())->size(), 4u);

    // Without the library every session ends in the stand-in's error.
    platform.faceVerification.reset();
    platform.install();
    start();
    ASSERT_EQ(answers.size(), 5u);
    EXPECT_EQ(answers[4], expected(false, "", "unsupported"));
}

TEST_F(Iproov, OneAnswerAtOnceAndTheCancelTenSecondsAfterEachEndState) {
    start();
    auto session = face->launches[0].session;
    send(status(Kind::success));
    send(status(Kind::failure));
    EXPECT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].success, true);

    platform.mainQueue->advance(9999ms);
    EXPECT_EQ(session->cancels, 0);
    platform.mainQueue->advance(1ms);
    EXPECT_EQ(session->cancels, 2);
    EXPECT_FALSE(platform.mainQueue->hasDelayedTasks());
    EXPECT_EQ(answers.size(), 1u);
}

TEST_F(Iproov, BothEventsRunTheSameSessionAndAnswerUnderTheirNames) {
    auto controller = std::make_shared<WebViewController>();
    controller->kelvaneService = std::make_shared<fakes::RecordingDelegate>();
    controller->webView = platform.webViews->makeWebView({}, {});
    auto& scripts = platform.webViews->made.back()->scripts;

    for (const char* name : {"registerIproov", "verifyIproov"}) {
        controller->userContentController({name, body()});
        platform.mainQueue->runUntilIdle();
        send(status(Kind::canceled));
    }
    ASSERT_EQ(face->launches.size(), 2u);
    EXPECT_EQ(face->launches[1].token, face->launches[0].token);
    const std::string record = *expected(false, "", "Unable to complete request. Please try again!").jsonString();
    EXPECT_EQ(scripts, (std::vector<std::string>{R"(iosCallback("registerIproov" ,)" + record + ")",
                                                 R"(iosCallback("verifyIproov" ,)" + record + ")"}));
}

TEST_F(Iproov, TheLibrarysScreenGoesOverTheTopScreenAndLeavesWithItsContainer) {
    auto& views = *platform.viewSystem;
    auto root = std::make_shared<ViewController>(), sheet = std::make_shared<ViewController>(),
         top = std::make_shared<ViewController>(), library = std::make_shared<ViewController>();
    auto background = std::make_shared<fakes::FakeScene>(), active = std::make_shared<fakes::FakeScene>();
    background->state = ActivationState::background;
    background->sceneWindows = {std::make_shared<fakes::FakeWindow>(std::make_shared<ViewController>(), true)};
    active->sceneWindows = {std::make_shared<fakes::FakeWindow>(std::make_shared<ViewController>(), false),
                            std::make_shared<fakes::FakeWindow>(root, true)};
    views.scenes = {background, active};
    views.setPresented(*root, sheet);
    views.setPresented(*sheet, top);

    int completions = 0;
    auto count = [&] { ++completions; };
    service->present(library, count);
    ASSERT_EQ(views.shown.size(), 1u);
    EXPECT_EQ(views.shown[0].on, top.get());
    EXPECT_TRUE(views.shown[0].animated);
    auto container = std::dynamic_pointer_cast<FaceVerificationContainer>(views.shown[0].controller);
    ASSERT_TRUE(container);
    EXPECT_EQ(container->modalPresentationStyle, ModalPresentationStyle::overFullScreen);
    EXPECT_EQ(container->backgroundColor.alpha, 0);
    EXPECT_EQ(container->child, library);
    EXPECT_EQ(container->childFrame, (Rect{0, 0, 390, 844}));
    EXPECT_EQ(std::static_pointer_cast<fakes::FakeView>(container->view())->subviews,
              std::vector<std::shared_ptr<View>>{library->view()});

    service->dismiss(library, count);
    service->dismiss(std::make_shared<ViewController>(), count);
    // Without a key window in the active scene nothing is shown, and nobody hears of it.
    active->sceneWindows.pop_back();
    service->present(std::make_shared<ViewController>(), count);
    platform.mainQueue->runUntilIdle();
    ASSERT_EQ(views.dismissals.size(), 1u);
    EXPECT_EQ(views.dismissals[0].controller, container.get());
    EXPECT_EQ(views.shown.size(), 1u);
    EXPECT_EQ(completions, 2);
}

using IproovDeathTest = Iproov;

TEST_F(IproovDeathTest, BodiesTheSessionCannotStartWithAndErrorsWithoutAReason) {
    const std::string nil = "Fatal error: Unexpectedly found nil while unwrapping an Optional value";
    EXPECT_DEATH(service->_iproovInit(Json("wss://face.test/ws")), nil);
    EXPECT_DEATH(service->_iproovInit(Json{{"streamingUrl", "wss://face.test/ws"}}), nil);
    EXPECT_DEATH(service->_iproovInit(Json{{"streamingUrl", 1}, {"token", "t"}}), nil);
    EXPECT_DEATH(
        {
            service->_iproovInit(Json{{"streamingUrl", "not a url"}, {"token", "t"}});
            platform.mainQueue->runUntilIdle();
        },
        nil);
    start();
    EXPECT_DEATH(send(status(Kind::error)), nil);
}
