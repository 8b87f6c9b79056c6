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

}  // namespace kelvane::ports
