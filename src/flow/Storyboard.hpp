#pragma once

#include "support/Fatal.hpp"

#include <kelvane/ViewController.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kelvane {

inline constexpr std::string_view kSdkBundleIdentifier = "io.kelvane.sdk";
inline constexpr std::string_view kMainStoryboard = "MainStoryboard";

// The library's screens by scene identifier, as a storyboard of its bundle gives them.
class Storyboard {
public:
    using Factory = std::function<std::shared_ptr<ViewController>()>;

    // The storyboard `name` of the bundle `bundleIdentifier`; the library has one,
    // "MainStoryboard" in "io.kelvane.sdk".
    static std::optional<Storyboard> named(std::string_view name, std::string_view bundleIdentifier);

    // A new screen of the scene, or nothing for an unknown identifier.
    std::shared_ptr<ViewController> instantiateViewController(std::string_view identifier) const;

    // Replaces the factory of a scene; returns the previous one. Main queue only.
    static Factory replaceScene(const std::string& identifier, Factory factory);
};

// The forced cast of an instantiated scene to its class: a scene of another class is a
// fatal stop.
template <class T>
std::shared_ptr<T> castScene(const std::shared_ptr<ViewController>& controller, std::string_view expected) {
    if (auto cast = std::dynamic_pointer_cast<T>(controller)) return cast;
    std::string actual = controller ? controller->className() : "nil";
    castFailure(actual, expected);
}

}  // namespace kelvane
