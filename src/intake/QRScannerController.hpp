#pragma once

#include <kelvane/Json.hpp>
#include <kelvane/ViewController.hpp>
#include <kelvane/platform/Sensors.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane {

// How a scan ended; the raw value is the case's name.
enum class QrStatus { success, failed, cancelled, encryptionKeyError };

std::string_view errorName(QrStatus status);

struct QrScannerResult {
    std::optional<Json> data;
    QrStatus status = QrStatus::failed;
};

// The camera screen of the storyboard scene "QRScannerController": reads QR codes until the
// first detection and reports each code that is a JSON object through onQRCodeScanned. Main
// queue only, unless a member says otherwise.
class QRScannerController : public ViewController {
public:
    std::shared_ptr<platform::CaptureSession> captureSession;
    // Set by whoever shows the screen; runs on the main queue.
    std::function<void(const QrScannerResult&)> onQRCodeScanned;
    // The scene's view that takes the camera's picture.
    std::weak_ptr<platform::View> yourCameraView;
    // Whether a detection may still be taken: one per screen.
    bool isOpen = true;

    // Makes the session and, once the camera may be used, sets it up.
    void viewDidLoad() override;
    // Starts the session on a global queue, then shows its picture.
    void viewWillAppear(bool animated) override;
    void viewWillDisappear(bool animated) override;
    void connectOutlet(std::string_view name, const std::shared_ptr<platform::View>& view) override;
    // The scene's exit button is wired to "exit".
    void performAction(std::string_view name) override;

    // Adds the camera and the QR output to the session. Runs on the thread of the permission
    // answer when the user was asked.
    virtual void setupCamera();
    virtual void setupPreviewLayer();
    // Tells the user that the camera is refused, with a way to the system settings.
    virtual void showPermissionDeniedAlert();
    // A detection: the string value of each object seen, in order.
    virtual void metadataOutput(const std::vector<std::optional<std::string>>& codes);
    // Leaves the screen as the user's choice.
    virtual void exit();

    std::string className() const override { return "QRScannerController"; }

private:
    std::shared_ptr<QRScannerController> shared();
};

}  // namespace kelvane
