#include <kelvane/KelvaneApp.hpp>

#include <kelvane/Log.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/Status.hpp>
#include <kelvane/platform/ViewSystem.hpp>

#include "flow/Storyboard.hpp"
#include "backend/WebSocketService.hpp"
#include "support/PrettyJson.hpp"
#include "intake/QRScannerController.hpp"
#include "services/CustomSchemeService.hpp"
#include "support/Ports.hpp"

#include <chrono>

namespace kelvane {
namespace {

// Lets the scanner's dismissal finish before the flow's screen comes up.
constexpr auto kQrHandOverDelay = std::chrono::milliseconds(2000);

void reportError(const std::shared_ptr<KelvaneService>& with, Status status) {
    if (with) with->onError(std::string(errorName(status)));
}

}  // namespace

KelvaneApp::KelvaneApp() : customSchemeService(std::make_shared<CustomSchemeService>()) {}

KelvaneApp::~KelvaneApp() = default;

// The delegate's key function: its vtable and type information live in the library.
KelvaneService::~KelvaneService() = default;

void KelvaneApp::onPushReceived(const Json& data, std::shared_ptr<KelvaneService> with,
                                std::optional<std::string> encryptionKey) {
    KELVANE_ASSERT_ON_QUEUE(*Queue::main());
    if (updateAvailable()) return reportError(with, Status::appUpdateRequired);
    // Before any look at the message: even a malformed one ends the running socket.
    WebSocketService().dispose();
    logLine("on push received data : " + json::dump(data));

    std::optional<Json> payload;
    std::optional<std::string> id;
    if (auto text = json::getString(data, "payload")) {
        payload = json::parse(*text);
        if (payload && payload->is_object()) id = json::getString(*payload, "id");
    }
    if (!id) {
        logLine("Error parsing JSON");
        return;
    }
    if (*id == "kn_auth") {
        newHandle(*payload, std::move(with), std::move(encryptionKey));
        return;
    }
    reportError(with, Status::IdMismatch);
}

void KelvaneApp::newHandle(const Json& data, std::shared_ptr<KelvaneService> with,
                           std::optional<std::string> encryptionKey) {
    KELVANE_ASSERT_ON_QUEUE(*Queue::main());
    auto storyboard = Storyboard::named(kMainStoryboard, kSdkBundleIdentifier);
    auto presenter = customView();
    auto controller =
        castScene<WebViewController>(storyboard->instantiateViewController("WebViewController"), "WebViewController");
    controller->payload = data;
    controller->encryptionKey = std::move(encryptionKey);
    controller->kelvaneService = std::move(with);

    if (auto navigation = navigationController()) {
        navigation->pushViewController(controller, true);
    } else if (presenter) {
        presenter->present(controller, true);
    }
}

void KelvaneApp::launchQrScanner(std::shared_ptr<KelvaneService> with, std::optional<std::string> encryptionKey) {
    KELVANE_ASSERT_ON_QUEUE(*Queue::main());
    auto storyboard = Storyboard::named(kMainStoryboard, kSdkBundleIdentifier);
    auto scanner = castScene<QRScannerController>(storyboard->instantiateViewController("QRScannerController"),
                                                  "QRScannerController");
    auto presenter = customView();
    auto self = std::static_pointer_cast<KelvaneApp>(shared_from_this());
    scanner->onQRCodeScanned = [self, with, encryptionKey](const QrScannerResult& result) {
        switch (result.status) {
            case QrStatus::success:
                if (!result.data) return reportError(with, Status::InvalidPayload);
                Queue::main()->asyncAfter(kQrHandOverDelay, [self, with, encryptionKey, data = *result.data] {
                    auto text = prettyPrinted(data);
                    if (!text) {
                        logLine("Error converting to JSON: " + text.error().text());
                        return;
                    }
                    Json message{{"payload", *text}};
                    logLine("payload : " + json::dump(message));
                    self->onPushReceived(message, with, encryptionKey);
                });
                return;
            case QrStatus::failed: return reportError(with, Status::InvalidPayload);
            case QrStatus::cancelled:
                if (with) with->onClosed(std::string(errorName(CloseReason::ByUser)));
                return;
            case QrStatus::encryptionKeyError: return reportError(with, Status::MissingEncryptionKey);
        }
    };
    if (presenter) presenter->present(scanner, true);
}

std::shared_ptr<ViewController> KelvaneApp::customView() {
    auto views = ports::viewSystem();
    auto scenes = views->connectedScenes();
    if (!scenes.empty() && scenes.front()->isWindowScene()) {
        auto windows = scenes.front()->windows();
        if (windows.empty()) return nullptr;
        if (auto current = windows.front()->rootViewController()) {
            while (auto presented = current->presentedViewController()) current = presented;
            return current;
        }
    }
    // The key window's root as it stands, without following what it presents.
    for (const auto& window : views->windows()) {
        if (window->isKeyWindow()) return window->rootViewController();
    }
    return nullptr;
}

}  // namespace kelvane
