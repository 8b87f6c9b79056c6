#include <kelvane/gtk/GtkPlatform.hpp>

#include "DesktopFaceVerification.hpp"
#include "DesktopPasskeys.hpp"
#include "DesktopServices.hpp"
#include "GeoClueLocation.hpp"
#include "GtkViewSystem.hpp"
#include "GtkWebView.hpp"
#include "JsonFileStore.hpp"
#include "LinuxDevice.hpp"
#include "MainContextQueue.hpp"
#include "PamAuthentication.hpp"
#include "QrCamera.hpp"

#include <glib.h>

#include <cstdlib>

namespace kelvane::gtk {

namespace {
// The view system of the last platform made, for a host that wraps it before installing.
std::weak_ptr<DesktopViewSystem> lastViewSystem;

std::shared_ptr<DesktopViewSystem> desktopViewSystem() {
    if (auto system = std::dynamic_pointer_cast<DesktopViewSystem>(platform::current()->viewSystem)) return system;
    return lastViewSystem.lock();
}
}  // namespace

std::filesystem::path keyValueStoreFile(const std::string& bundleIdentifier) {
    std::filesystem::path base;
    // Read at each call rather than through GLib, which keeps the first value it saw.
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config == '/') {
        base = config;
    } else if (const char* home = std::getenv("HOME"); home && *home) {
        base = std::filesystem::path(home) / ".config";
    } else {
        base = std::filesystem::path(g_get_home_dir()) / ".config";
    }
    return base / bundleIdentifier / "defaults.json";
}

platform::Platform makePlatform(const std::string& bundleIdentifier, const std::string& shortVersion,
                                const DesktopOptions& options) {
    platform::Platform ports;
    ports.mainQueue = std::make_shared<MainContextQueue>();
    auto viewSystem = std::make_shared<DesktopViewSystem>();
    lastViewSystem = viewSystem;
    ports.viewSystem = viewSystem;
    ports.webViews = std::make_shared<GtkWebViewSystem>();
    ports.pasteboard = std::make_shared<ClipboardPasteboard>();
    ports.keyValueStore = std::make_shared<JsonFileStore>(keyValueStoreFile(bundleIdentifier));
    ports.device = std::make_shared<LinuxDevice>(bundleIdentifier);
    ports.bundle = std::make_shared<FixedBundle>(bundleIdentifier, shortVersion);
    ports.localAuthentication = std::make_shared<PamAuthentication>(options.pamService);
    // GeoClue knows an app by its desktop file's name, which is its bundle identifier.
    ports.location = std::make_shared<GeoClueLocation>(bundleIdentifier);
    ports.networkPaths = std::make_shared<LinuxNetworkPaths>();
    ports.urlOpener = std::make_shared<GioURLOpener>();
    ports.documents = std::make_shared<XdgDocuments>();
    ports.camera = std::make_shared<QrCamera>(options.qrImages, options.videoDevice);
    ports.faceVerification = std::make_shared<DesktopFaceVerification>(options.scriptedFaceVerification);
    ports.passkeys = std::make_shared<DesktopPasskeys>(options.passkeyRelyingParties);
    return ports;
}

void openWindow(const std::shared_ptr<ViewController>& root, const std::string& title) {
    openWindow(root, title, nullptr);
}

void openWindow(const std::shared_ptr<ViewController>& root, const std::string& title, GtkWidget* content) {
    if (auto system = desktopViewSystem()) system->openWindow(root, title, content);
}

}  // namespace kelvane::gtk
