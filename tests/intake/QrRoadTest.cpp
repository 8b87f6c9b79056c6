// The QR road: a camera screen over a fake session, and the hand-over to the push road on the
// manual clock.
#include "FakeCamera.hpp"
#include "FlowFixture.hpp"

#include "intake/QRScannerController.hpp"

#include <kelvane/AlertController.hpp>

using namespace kelvane;
using namespace std::chrono_literals;
using Calls = std::vector<std::string>;

namespace {

class QrRoad : public kelvane::testing::FlowFixture {
protected:
    QrRoad() {
        platform.camera = camera;
        platform.install();
        previousScanner = Storyboard::replaceScene("QRScannerController", [this] {
            scanners.push_back(std::make_shared<QRScannerController>());
            scanners.back()->connectOutlet("yourCameraView", cameraView);
            return scanners.back();
        });
    }
    ~QrRoad() override { Storyboard::replaceScene("QRScannerController", previousScanner); }

    // Shows a scanner and waits until its camera runs with the picture in place.
    std::shared_ptr<QRScannerController> launch(std::optional<std::string> key = std::nullopt) {
        int before = camera->session->previews;
        app->launchQrScanner(delegate, std::move(key));
        EXPECT_TRUE(platform.mainQueue->runUntil([&] { return camera->session->previews > before; }));
        return scanners.back();
    }
    void detect(std::vector<std::optional<std::string>> codes) {
        ASSERT_TRUE(camera->session->detect(std::move(codes)));
        platform.mainQueue->runUntilIdle();
    }
    long logged(const std::string& line) {
        auto lines = log.lines();
        return std::count(lines.begin(), lines.end(), line);
    }

    std::shared_ptr<fakes::FakeCamera> camera = std::make_shared<fakes::FakeCamera>();
    std::shared_ptr<fakes::FakeView> cameraView = std::make_shared<fakes::FakeView>();
    std::vector<std::shared_ptr<QRScannerController>> scanners;
    Storyboard::Factory previousScanner;
};

}  // namespace

TEST_F(QrRoad, AJsonObjectReachesThePushRoadTwoSecondsAfterTheDetection) {
    auto scanner = launch("host-key");
    EXPECT_EQ(platform.viewSystem->shown.at(0).on, root.get());
    EXPECT_EQ(camera->session->outputQueue(), platform.mainQueue);
    detect({plainPayload().dump()});
    EXPECT_EQ(platform.viewSystem->dismissals.at(0).controller, scanner.get());
    platform.mainQueue->advance(1999ms);
    EXPECT_TRUE(controllers.empty());
    platform.mainQueue->advance(1ms);
    platform.mainQueue->runUntilIdle();
    ASSERT_EQ(controllers.size(), 1u);
    EXPECT_EQ(controllers[0]->loadedPages, Calls{"https://page.test/t/1"});
    EXPECT_EQ(controllers[0]->encryptionKey, "host-key");
    scanner->viewWillDisappear(true);
    EXPECT_FALSE(camera->session->isRunning());

    // The text handed over is laid out as the platform's pretty writer lays it out.
    launch();
    detect({R"({"id":"x/y","n":[]})"});
    platform.mainQueue->advance(2s);
    EXPECT_EQ(logged(R"(payload : {"payload":"{\n  \"id\" : \"x\\/y\",\n  \"n\" : [\n\n  ]\n}"})"), 1);
    EXPECT_EQ(delegate->calls(), Calls{"onError:IdMismatch"});
}

TEST_F(QrRoad, OneDetectionPerScreenTakesEveryObjectOfIt) {
    auto first = launch();
    detect({"[1,2]"});
    detect({R"({"id":"late"})"});
    platform.mainQueue->advance(10s);
    EXPECT_TRUE(delegate->calls().empty());
    EXPECT_TRUE(platform.viewSystem->dismissals.empty());
    EXPECT_EQ(logged(R"(Detected QR Code: {"id":"late"})"), 0);
    first->performAction("exit");
    EXPECT_EQ(delegate->calls(), Calls{"onClosed:ByUser"});

    launch();
    detect({std::nullopt, "7", "{bad", "\xff", R"({"id":"a"})", R"({"id":"b"})"});
    EXPECT_EQ(logged("Error converting JSON string to dictionary: The data couldn\u2019t be read because it "
                     "isn\u2019t in the correct format."), 2);
    EXPECT_EQ(logged("Failed to convert JSON string to data."), 1);
    EXPECT_EQ(platform.viewSystem->dismissals.size(), 3u);
    platform.mainQueue->advance(2s);
    EXPECT_EQ(delegate->calls(), (Calls{"onClosed:ByUser", "onError:IdMismatch", "onError:IdMismatch"}));
}

TEST_F(QrRoad, ReportsWithoutDataAndRoadsThatEndInSilence) {
    auto scanner = launch();
    scanner->onQRCodeScanned({std::nullopt, QrStatus::success});
    scanner->onQRCodeScanned({Json::object(), QrStatus::failed});
    scanner->onQRCodeScanned({Json::object(), QrStatus::encryptionKeyError});
    // Text that is not UTF-8 cannot be written as JSON: logged, and nothing reaches the host.
    scanner->onQRCodeScanned({Json{{"id", "\xff"}}, QrStatus::success});
    platform.mainQueue->advance(2s);
    EXPECT_EQ(delegate->calls(),
              (Calls{"onError:InvalidPayload", "onError:InvalidPayload", "onError:MissingEncryptionKey"}));
    EXPECT_TRUE(log.lines().back().starts_with("Error converting to JSON: "));
    EXPECT_EQ(connection->disconnects, 0);

    platform.viewSystem->scenes.clear();
    platform.viewSystem->allWindows.clear();
    app->launchQrScanner(delegate, std::nullopt);
    platform.mainQueue->runUntilIdle();
    EXPECT_EQ(platform.viewSystem->shown.size(), 1u);
}

TEST_F(QrRoad, PermissionAnswersFromAnotherThread) {
    camera->status = platform::AuthorizationStatus::denied;
    camera->grants = false;
    auto scanner = launch();
    ASSERT_TRUE(platform.mainQueue->runUntil([&] { return platform.viewSystem->shown.size() == 2; }));
    auto alert = std::dynamic_pointer_cast<AlertController>(platform.viewSystem->shown[1].controller);
    ASSERT_TRUE(alert);
    EXPECT_EQ(platform.viewSystem->shown[1].on, scanner.get());
    EXPECT_EQ(alert->title, "Camera Access Denied");
    ASSERT_EQ(alert->actions.size(), 2u);
    alert->tap(1);
    EXPECT_TRUE(platform.urlOpener->opened.empty());
    alert->tap(0);
    EXPECT_EQ(platform.urlOpener->opened, Calls{"app-settings:"});
    EXPECT_FALSE(camera->session->outputQueue());

    camera->status = platform::AuthorizationStatus::notDetermined;
    camera->grants = true;
    launch();
    EXPECT_TRUE(platform.mainQueue->runUntil([&] { return camera->session->outputQueue() != nullptr; }));
    EXPECT_EQ(logged("Camera granted"), 1);

    // A camera that cannot start leaves a dark screen.
    camera->session = std::make_shared<fakes::FakeCaptureSession>();
    camera->session->inputError = Error{"AVFoundationErrorDomain", -11852, "Cannot use Back Camera"};
    camera->status = platform::AuthorizationStatus::authorized;
    launch();
    EXPECT_EQ(logged(camera->session->inputError->text()), 1);
    EXPECT_FALSE(camera->session->detect({"{}"}));
}

using QrRoadDeathTest = QrRoad;

TEST_F(QrRoadDeathTest, AScannerSceneOfAnotherClassStopsTheProcess) {
    Storyboard::replaceScene("QRScannerController", [] { return std::make_shared<ViewController>(); });
    EXPECT_DEATH(app->launchQrScanner(delegate, std::nullopt),
                 "Fatal error: Could not cast value of type 'UIViewController' to 'QRScannerController'");
}
