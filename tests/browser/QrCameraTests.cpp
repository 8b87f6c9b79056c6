// The QR road on the desktop's camera: codes drawn by qrencode, read back by zbar through the
// image source, taken by the library's scanner screen in a GTK window.
#include "BrowserHarness.hpp"
#include "FakePlatform.hpp"

#include <kelvane/KelvaneApp.hpp>
#include <kelvane/gtk/GtkPlatform.hpp>

#include "flow/Storyboard.hpp"
#include "intake/QRScannerController.hpp"

#include <gtest/gtest.h>

#include <gtk/gtk.h>

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

using namespace kelvane;
using namespace kelvane::browser;
using Calls = std::vector<std::string>;

namespace {

// The library's screen, with each detection written down before it takes it.
class WatchedScanner : public QRScannerController {
public:
    std::vector<std::vector<std::optional<std::string>>> detections;
    void metadataOutput(const std::vector<std::optional<std::string>>& codes) override {
        detections.push_back(codes);
        QRScannerController::metadataOutput(codes);
    }
};

gtk::DesktopOptions images(std::vector<std::filesystem::path> files) {
    gtk::DesktopOptions options;
    options.qrImages = std::move(files);
    return options;
}

gtk::DesktopOptions device(std::filesystem::path node) {
    gtk::DesktopOptions options;
    options.videoDevice = std::move(node);
    return options;
}

GtkWidget* find(GtkWidget* widget, const std::function<bool(GtkWidget*)>& wanted) {
    if (wanted(widget)) return widget;
    for (GtkWidget* child = gtk_widget_get_first_child(widget); child; child = gtk_widget_get_next_sibling(child)) {
        if (GtkWidget* found = find(child, wanted)) return found;
    }
    return nullptr;
}

class QrCamera : public ::testing::Test {
protected:
    QrCamera() : previous_(platform::current()) {
        folder_ = std::filesystem::path(::testing::TempDir()) / ("qr-" + std::to_string(::getpid()));
        std::filesystem::create_directories(folder_);
        previousScene_ = Storyboard::replaceScene("QRScannerController", [this] {
            scanners.push_back(std::make_shared<WatchedScanner>());
            return scanners.back();
        });
    }
    ~QrCamera() override {
        drain();
        Storyboard::replaceScene("QRScannerController", previousScene_);
        platform::install(*previous_);
        drain();
        std::filesystem::remove_all(folder_);
    }

    // A PNG of a QR code holding `text`, drawn by qrencode.
    std::filesystem::path code(const std::string& text) {
        auto file = folder_ / ("code" + std::to_string(++codes_) + ".png");
        gchar* argv[] = {const_cast<gchar*>("qrencode"), const_cast<gchar*>("-s"), const_cast<gchar*>("6"),
                         const_cast<gchar*>("-o"), const_cast<gchar*>(file.c_str()), const_cast<gchar*>(text.c_str()),
                         nullptr};
        gint status = 0;
        GError* error = nullptr;
        bool ran = g_spawn_sync(nullptr, argv, nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, nullptr, nullptr,
                                &status, &error);
        EXPECT_TRUE(ran && g_spawn_check_wait_status(status, nullptr)) << (error ? error->message : "qrencode failed");
        g_clear_error(&error);
        return file;
    }

    // A window on a new desktop with these options, and the scanner over it.
    void start(gtk::DesktopOptions options) {
        platform::install(gtk::makePlatform("com.kelvane.qrtest", "1.0", options));
        root = std::make_shared<ViewController>();
        gtk::openWindow(root, "QR");
        ASSERT_TRUE(runUntil([&] { return root->isViewLoaded(); }));
        app->launchQrScanner(delegate, std::nullopt);
        ASSERT_TRUE(runUntil([&] { return !scanners.empty() && root->presentedViewController() == scanners.back(); }));
    }

    // The picture on display in the scanner's camera view, if any.
    GdkPaintable* shownPicture() const {
        // The preview is a picture in a view added to the scene's camera view.
        auto shows = [](GtkWidget* widget) {
            if (!GTK_IS_PICTURE(widget) || !gtk_widget_get_mapped(widget)) return false;
            if (!gtk_picture_get_paintable(GTK_PICTURE(widget))) return false;
            GtkWidget* view = gtk_widget_get_parent(widget);
            GtkWidget* cameraView = view ? gtk_widget_get_parent(view) : nullptr;
            return cameraView && std::string(gtk_widget_get_name(cameraView)) == "yourCameraView";
        };
        GListModel* toplevels = gtk_window_get_toplevels();
        GdkPaintable* shown = nullptr;
        for (guint i = 0; i < g_list_model_get_n_items(toplevels) && !shown; ++i) {
            auto* window = GTK_WIDGET(g_list_model_get_item(toplevels, i));
            if (GtkWidget* picture = find(window, shows)) shown = gtk_picture_get_paintable(GTK_PICTURE(picture));
            g_object_unref(window);
        }
        return shown;
    }

    std::shared_ptr<ViewController> root;
    std::shared_ptr<fakes::RecordingDelegate> delegate = std::make_shared<fakes::RecordingDelegate>();
    std::shared_ptr<KelvaneApp> app = std::make_shared<KelvaneApp>();
    std::vector<std::shared_ptr<WatchedScanner>> scanners;
    fakes::LogCapture log;

private:
    std::shared_ptr<const platform::Platform> previous_;
    Storyboard::Factory previousScene_;
    std::filesystem::path folder_;
    int codes_ = 0;
};

}  // namespace

TEST_F(QrCamera, AJsonCodeInTheImageGoesToThePushRoad) {
    start(images({code(R"({"id":"x"})")}));
    ASSERT_TRUE(runUntil([&] { return !delegate->calls().empty(); }));
    EXPECT_EQ(scanners.back()->detections, (std::vector<std::vector<std::optional<std::string>>>{{R"({"id":"x"})"}}));
    EXPECT_TRUE(log.contains(R"(payload : {"payload":"{\n  \"id\" : \"x\"\n}"})"));
    // The push road read it: a payload whose id is not a transaction's.
    EXPECT_EQ(delegate->calls(), Calls{"onError:IdMismatch"});
    EXPECT_EQ(root->presentedViewController(), nullptr);
    EXPECT_FALSE(scanners.back()->captureSession->isRunning());
}

TEST_F(QrCamera, ACodeThatIsNotJsonDisarmsTheScannerWhichStillShowsTheCamera) {
    auto late = code(R"({"id":"late"})");
    int width = 0, height = 0;
    ASSERT_TRUE(gdk_pixbuf_get_file_info(late.c_str(), &width, &height));
    start(images({code("[1,2]"), late}));
    ASSERT_TRUE(runUntil([&] { return scanners.back()->detections.size() == 2; }));
    EXPECT_EQ(scanners.back()->detections[1], std::vector<std::optional<std::string>>{R"({"id":"late"})"});
    EXPECT_TRUE(log.contains("Detected QR Code: [1,2]"));
    EXPECT_FALSE(log.contains(R"(Detected QR Code: {"id":"late"})"));
    // The last image stays in the preview, filling the camera view.
    ASSERT_TRUE(runUntil([&] {
        auto* shown = shownPicture();
        return shown && gdk_paintable_get_intrinsic_width(shown) == width;
    }));
    EXPECT_EQ(gdk_paintable_get_intrinsic_height(shownPicture()), height);
    EXPECT_EQ(root->presentedViewController(), scanners.back());
    EXPECT_TRUE(delegate->calls().empty());

    scanners.back()->performAction("exit");
    EXPECT_EQ(delegate->calls(), Calls{"onClosed:ByUser"});
}

TEST_F(QrCamera, WithoutAUsableCameraTheScreenStaysDarkWithItsExitButton) {
    start(device(std::filesystem::path(::testing::TempDir()) / "no-such-video0"));
    EXPECT_FALSE(platform::current()->camera->hasDefaultVideoDevice());
    EXPECT_TRUE(log.contains("Unable to access the camera."));

    // A node that is there but is no camera fails the input.
    start(device("/dev/null"));
    EXPECT_TRUE(platform::current()->camera->hasDefaultVideoDevice());
    EXPECT_TRUE(log.contains(R"(Error Domain=NSPOSIXErrorDomain Code=19 "/dev/null is not a video capture device")"));
    EXPECT_EQ(shownPicture(), nullptr);
    scanners.back()->performAction("exit");
    EXPECT_EQ(delegate->calls(), Calls{"onClosed:ByUser"});
}

TEST_F(QrCamera, ANodeThisUserMayNotUseIsAccessDenied) {
    auto node = std::filesystem::path(::testing::TempDir()) / ("video-" + std::to_string(::getpid()));
    std::ofstream(node).put('\0');
    std::filesystem::permissions(node, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    auto camera = gtk::makePlatform("com.kelvane.qrtest", "1.0", device(node)).camera;
    // Mode bits bind nobody as root: the question goes to a child that is another user.
    auto answer = [&] {
        bool granted = true;
        camera->requestAccess([&](bool answer) { granted = answer; });
        return camera->authorizationStatus() == platform::AuthorizationStatus::denied && !granted ? 0 : 1;
    };
    int outcome = 1;
    if (::geteuid() != 0) {
        outcome = answer();
    } else {
        pid_t child = ::fork();
        if (child == 0) {
            // A child stuck on a lock the fork left taken fails the test instead of hanging it.
            ::alarm(20);
            _exit(::setgid(65534) == 0 && ::setuid(65534) == 0 ? answer() : 2);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        outcome = WEXITSTATUS(status);
    }
    std::filesystem::remove(node);
    EXPECT_EQ(outcome, 0) << "1: not denied, 2: could not become another user";
}
