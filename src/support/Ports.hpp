#pragma once

// The ports the library reaches through, with a stand-in for each one the host left empty,
// so that a missing port reads as a platform with nothing there.

#include <kelvane/platform/Platform.hpp>

namespace kelvane::ports {

std::shared_ptr<platform::ViewSystem> viewSystem();
std::shared_ptr<platform::WebViewSystem> webViews();
std::shared_ptr<platform::Pasteboard> pasteboard();
std::shared_ptr<platform::KeyValueStore> keyValueStore();
std::shared_ptr<platform::Device> device();
std::shared_ptr<platform::Bundle> bundle();
std::shared_ptr<platform::URLOpener> urlOpener();
// The platform's HTTP, or the library's own on libcurl.
std::shared_ptr<platform::HTTP> http();
std::shared_ptr<platform::DocumentsDirectory> documents();
std::shared_ptr<platform::LocalAuthentication> localAuthentication();
std::shared_ptr<platform::PasskeyAuthorization> passkeys();
std::shared_ptr<platform::Camera> camera();
std::shared_ptr<platform::Location> location();
std::shared_ptr<platform::NetworkPaths> networkPaths();
std::shared_ptr<platform::FaceVerification> faceVerification();

}  // namespace kelvane::ports
