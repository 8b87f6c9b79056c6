#include <kelvane/platform/Platform.hpp>

#include <atomic>

namespace kelvane::platform {
namespace {
std::atomic<std::shared_ptr<const Platform>>& slot() {
    static auto* installed = new std::atomic<std::shared_ptr<const Platform>>(std::make_shared<Platform>());
    return *installed;
}
}  // namespace

void install(Platform platform) { slot().store(std::make_shared<const Platform>(std::move(platform))); }

std::shared_ptr<const Platform> current() { return slot().load(); }

// The ports' key functions: their vtables and type information live in the library.
Device::~Device() = default;
Bundle::~Bundle() = default;
FaceVerificationPresentationDelegate::~FaceVerificationPresentationDelegate() = default;
FaceVerificationSession::~FaceVerificationSession() = default;
FaceVerification::~FaceVerification() = default;
LAContext::~LAContext() = default;
LocalAuthentication::~LocalAuthentication() = default;
URLOpener::~URLOpener() = default;
HTTP::~HTTP() = default;
PasskeyAuthorizationDelegate::~PasskeyAuthorizationDelegate() = default;
PasskeyAuthorization::~PasskeyAuthorization() = default;
CaptureSession::~CaptureSession() = default;
Camera::~Camera() = default;
LocationDelegate::~LocationDelegate() = default;
LocationManager::~LocationManager() = default;
Location::~Location() = default;
NetworkPathMonitor::~NetworkPathMonitor() = default;
NetworkPaths::~NetworkPaths() = default;
Pasteboard::~Pasteboard() = default;
KeyValueStore::~KeyValueStore() = default;
DocumentsDirectory::~DocumentsDirectory() = default;
View::~View() = default;
Window::~Window() = default;
Scene::~Scene() = default;
ViewSystem::~ViewSystem() = default;
ScriptMessageHandler::~ScriptMessageHandler() = default;
NavigationDelegate::~NavigationDelegate() = default;
WebView::~WebView() = default;
WebViewSystem::~WebViewSystem() = default;
ActivityIndicator::~ActivityIndicator() = default;
FaceVerificationContainer::~FaceVerificationContainer() = default;

}  // namespace kelvane::platform
