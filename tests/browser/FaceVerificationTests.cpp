// Face verification on the desktop, through the library's face verification service to the
// answer the page would get.
#include "BrowserHarness.hpp"
#include "FakePlatform.hpp"

#include <kelvane/gtk/GtkPlatform.hpp>

#include "services/IproovService.hpp"

#include <gtest/gtest.h>

using namespace kelvane;
using namespace kelvane::browser;
using Status = platform::FaceVerificationStatus;

namespace {

class FaceVerification : public ::testing::Test {
protected:
    FaceVerification() : previous_(platform::current()) {}
    ~FaceVerification() override {
        drain();
        platform::install(*previous_);
        drain();
    }

    void start(bool scripted) {
        gtk::DesktopOptions options;
        options.scriptedFaceVerification = scripted;
        platform::install(gtk::makePlatform("com.kelvane.facetest", "1.0", options));
        gtk::openWindow(root, "Face");
        ASSERT_TRUE(runUntil([&] { return root->isViewLoaded(); }));
    }

    // The service's answer to a page's request; `watch` looks on while it waits.
    std::optional<IproovRequestModel> verify(const std::function<void()>& watch = [] {}) {
        std::optional<IproovRequestModel> answer;
        service->iproov(Json{{"streamingUrl", "wss://face.kelvane.test/ws"}, {"token", "face-token"}},
                        [&](const IproovRequestModel& record) { answer = record; });
        EXPECT_TRUE(runUntil([&] {
            watch();
            return answer.has_value();
        }));
        return answer;
    }

    std::shared_ptr<ViewController> root = std::make_shared<ViewController>();
    std::shared_ptr<IproovService> service = std::make_shared<IproovService>();
    fakes::LogCapture log;

private:
    std::shared_ptr<const platform::Platform> previous_;
};

}  // namespace

TEST_F(FaceVerification, WithoutALibraryThePageGetsAFailureThatSaysWhy) {
    start(false);
    auto answer = verify();
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->success);
    EXPECT_EQ(answer->message, "");
    EXPECT_EQ(answer->error,
              "Face verification is not available on this desktop: no face-verification library is installed");
    EXPECT_EQ(root->presentedViewController(), nullptr);

    // A session cancelled before its error hears nothing.
    std::vector<Status::Kind> seen;
    auto session = platform::current()->faceVerification->launch(
        *URL::make("wss://face.kelvane.test/ws"), "t", {}, [&](const Status& status) { seen.push_back(status.kind); });
    EXPECT_TRUE(session->cancel());
    drain();
    EXPECT_TRUE(seen.empty());
}

TEST_F(FaceVerification, AScriptedSessionShowsItsScreenAndSucceeds) {
    start(true);
    bool screenShown = false;
    auto answer = verify([&] {
        screenShown = screenShown || std::dynamic_pointer_cast<platform::FaceVerificationContainer>(
                                         root->presentedViewController()) != nullptr;
    });
    ASSERT_TRUE(answer);
    EXPECT_TRUE(screenShown);
    EXPECT_TRUE(answer->success);
    EXPECT_EQ(answer->message, "Iproov Successful");
    EXPECT_EQ(answer->error, "");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"connecting", "connect", "0.25 Looking for a face",
                                                      "0.5 Hold still", "0.75 Checking", "1.0 Done",
                                                      "result -> SuccessResult(scripted session)"}));
    ASSERT_TRUE(runUntil([&] { return root->presentedViewController() == nullptr; }));
}

TEST_F(FaceVerification, ACancelledSessionSaysNothingMore) {
    start(true);
    auto port = platform::current()->faceVerification;
    std::vector<Status::Kind> seen;
    auto session = port->launch(*URL::make("wss://face.kelvane.test/ws"), "face-token", {},
                                [&](const Status& status) { seen.push_back(status.kind); });
    ASSERT_TRUE(runUntil([&] { return seen.size() == 2; }));
    EXPECT_TRUE(session->cancel());
    EXPECT_FALSE(session->cancel());
    // Longer than the rest of the script would have taken.
    bool waited = false;
    Queue::main()->asyncAfter(std::chrono::seconds(3), [&] { waited = true; });
    ASSERT_TRUE(runUntil([&] { return waited; }));
    EXPECT_EQ(seen, (std::vector<Status::Kind>{Status::Kind::connecting, Status::Kind::connected}));
}
