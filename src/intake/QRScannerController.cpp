#include "intake/QRScannerController.hpp"

#include <kelvane/AlertController.hpp>
#include <kelvane/Log.hpp>
#include <kelvane/Queue.hpp>

#include "flow/Storyboard.hpp"
#include "support/Ports.hpp"
#include "support/Utf8.hpp"

namespace kelvane {
namespace {

// How the platform's JSON reader words a text it cannot read, top-level scalars included.
const std::string kNotJSON =
    "The data couldn\u2019t be read because it isn\u2019t in the correct format.";

}  // namespace

std::string_view errorName(QrStatus status) {
    switch (status) {
        case QrStatus::success: return "success";
        case QrStatus::failed: return "failed";
        case QrStatus::cancelled: return "cancelled";
        case QrStatus::encryptionKeyError: return "encryptionKeyError";
    }
    return "failed";
}

std::shared_ptr<QRScannerController> QRScannerController::shared() {
    return std::static_pointer_cast<QRScannerController>(shared_from_this());
}

void QRScannerController::connectOutlet(std::string_view name, const std::shared_ptr<platform::View>& view) {
    if (name == "yourCameraView") yourCameraView = view;
}

void QRScannerController::performAction(std::string_view name) {
    if (name == "exit") exit();
}

void QRScannerController::viewDidLoad() {
    isModalInPresentation = true;
    auto camera = ports::camera();
    captureSession = camera->makeSession();
    if (camera->authorizationStatus() == platform::AuthorizationStatus::authorized) {
        logLine("Camera always authorized");
        setupCamera();
        return;
    }
    std::weak_ptr<QRScannerController> weakSelf = shared();
    camera->requestAccess([weakSelf](bool granted) {
        if (granted) {
            logLine("Camera granted");
            if (auto self = weakSelf.lock()) self->setupCamera();
            return;
        }
        logLine("Camera denied");
        Queue::main()->async([weakSelf] {
            if (auto self = weakSelf.lock()) self->showPermissionDeniedAlert();
        });
    });
}

void QRScannerController::setupCamera() {
    if (!ports::camera()->hasDefaultVideoDevice()) {
        logLine("Unable to access the camera.");
        return;
    }
    auto session = captureSession;
    if (!session) return;
    if (auto error = session->addDefaultVideoInput()) {
        logLine(error->text());
        return;
    }
    if (!session->canAddMetadataOutput()) {
        logLine("Unable to add metadata output to session.");
        return;
    }
    std::weak_ptr<QRScannerController> weakSelf = shared();
    session->addMetadataOutput(Queue::main(), [weakSelf](std::vector<std::optional<std::string>> codes) {
        if (auto self = weakSelf.lock()) self->metadataOutput(codes);
    });
}

void QRScannerController::showPermissionDeniedAlert() {
    auto alert = std::make_shared<AlertController>(
        "Camera Access Denied",
        "This app requires access to the camera to function properly. Please enable camera access in Settings.",
        AlertController::Style::alert);
    alert->addAction({"Go to Settings", AlertController::ActionStyle::defaultStyle, [] {
                          auto opener = ports::urlOpener();
                          if (auto settings = URL::make(opener->openSettingsURLString())) opener->open(*settings, {});
                      }});
    alert->addAction({"Cancel", AlertController::ActionStyle::cancel, {}});
    present(alert, true);
}

void QRScannerController::viewWillAppear(bool) {
    std::weak_ptr<QRScannerController> weakSelf = shared();
    // Starting blocks until the camera runs.
    Queue::global()->async([session = captureSession, weakSelf] {
        if (session && !session->isRunning()) session->startRunning();
        Queue::main()->async([weakSelf] {
            if (auto self = weakSelf.lock()) self->setupPreviewLayer();
        });
    });
}

void QRScannerController::setupPreviewLayer() {
    auto cameraView = yourCameraView.lock();
    if (!captureSession || !cameraView) return;
    captureSession->attachPreview(cameraView, view()->bounds());
}

void QRScannerController::viewWillDisappear(bool) {
    if (captureSession && captureSession->isRunning()) captureSession->stopRunning();
}

void QRScannerController::metadataOutput(const std::vector<std::optional<std::string>>& codes) {
    if (!isOpen) return;
    isOpen = false;
    for (const auto& code : codes) {
        if (!code) continue;
        logLine("Detected QR Code: " + *code);
        if (!isValidUTF8(*code)) {
            logLine("Failed to convert JSON string to data.");
            continue;
        }
        // The platform's reader takes only an array or an object at the top.
        auto parsed = json::parse(*code);
        if (!parsed || !parsed->is_structured()) {
            logLine("Error converting JSON string to dictionary: " + kNotJSON);
            continue;
        }
        if (!parsed->is_object()) continue;
        if (onQRCodeScanned) onQRCodeScanned(QrScannerResult{*parsed, QrStatus::success});
        dismiss(true);
    }
}

void QRScannerController::exit() {
    if (onQRCodeScanned) onQRCodeScanned(QrScannerResult{std::nullopt, QrStatus::cancelled});
    dismiss(true);
}

}  // namespace kelvane
