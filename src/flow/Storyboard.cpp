#include "flow/Storyboard.hpp"

#include "flow/WebViewController.hpp"
#include "intake/QRScannerController.hpp"

#include <map>

namespace kelvane {
namespace {

std::map<std::string, Storyboard::Factory, std::less<>>& scenes() {
    static auto* table = new std::map<std::string, Storyboard::Factory, std::less<>>{
        {"WebViewController", [] { return std::make_shared<WebViewController>(); }},
        {"QRScannerController", [] { return std::make_shared<QRScannerController>(); }},
    };
    return *table;
}

}  // namespace

std::optional<Storyboard> Storyboard::named(std::string_view name, std::string_view bundleIdentifier) {
    if (name != kMainStoryboard || bundleIdentifier != kSdkBundleIdentifier) return std::nullopt;
    return Storyboard();
}

std::shared_ptr<ViewController> Storyboard::instantiateViewController(std::string_view identifier) const {
    auto found = scenes().find(identifier);
    if (found == scenes().end()) return nullptr;
    auto controller = found->second();
    if (controller) controller->storyboardIdentifier = std::string(identifier);
    return controller;
}

Storyboard::Factory Storyboard::replaceScene(const std::string& identifier, Factory factory) {
    return std::exchange(scenes()[identifier], std::move(factory));
}

}  // namespace kelvane
