#pragma once

#include <kelvane/Export.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/platform/Device.hpp>
#include <kelvane/platform/FaceVerification.hpp>
#include <kelvane/platform/LocalAuthentication.hpp>
#include <kelvane/platform/Network.hpp>
#include <kelvane/platform/PasskeyAuthorization.hpp>
#include <kelvane/platform/Sensors.hpp>
#include <kelvane/platform/Storage.hpp>
#include <kelvane/platform/ViewSystem.hpp>
#include <kelvane/platform/WebView.hpp>

#include <memory>

namespace kelvane::platform {

// The platform the library runs on: one implementation of each port. The host installs it
// before its first call into the library. A port left empty means that the platform lacks
// it; the library then acts as the platform would with nothing there (no scenes, an empty
// store, no pasteboard text).
struct Platform {
    std::shared_ptr<Queue> mainQueue;
    std::shared_ptr<ViewSystem> viewSystem;
    std::shared_ptr<WebViewSystem> webViews;
    std::shared_ptr<Pasteboard> pasteboard;
    std::shared_ptr<KeyValueStore> keyValueStore;
    std::shared_ptr<Device> device;
    std::shared_ptr<Bundle> bundle;
    std::shared_ptr<LocalAuthentication> localAuthentication;
    std::shared_ptr<PasskeyAuthorization> passkeys;
    std::shared_ptr<Camera> camera;
    std::shared_ptr<Location> location;
    std::shared_ptr<NetworkPaths> networkPaths;
    std::shared_ptr<URLOpener> urlOpener;
    std::shared_ptr<HTTP> http;
    std::shared_ptr<DocumentsDirectory> documents;
    std::shared_ptr<FaceVerification> faceVerification;
};

// Installs the platform, replacing the previous one. Any thread; work already running keeps
// the ports it took.
KELVANE_EXPORT void install(Platform platform);
// The installed platform, or an empty one.
KELVANE_EXPORT std::shared_ptr<const Platform> current();

}  // namespace kelvane::platform
