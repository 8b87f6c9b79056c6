#pragma once

// A browser test's desktop: the desktop platform installed, a page server on 127.0.0.1, and a
// navigation delegate that writes down what the web view told it.

#include "BrowserHarness.hpp"
#include "PeerProcess.hpp"

#include <kelvane/gtk/GtkPlatform.hpp>
#include <kelvane/platform/Platform.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

namespace kelvane::browser {

inline constexpr const char* kBundle = "com.kelvane.browsertest";

class RecordingNavigation : public platform::NavigationDelegate {
public:
    using Policy = platform::NavigationActionPolicy;

    std::vector<std::string> events;
    std::vector<platform::NavigationAction> actions;
    std::vector<Error> errors;
    // The answer to each decision; by default every navigation is allowed.
    std::function<void(const platform::NavigationAction&, std::function<void(Policy)>)> decide =
        [](const platform::NavigationAction&, std::function<void(Policy)> handler) { handler(Policy::allow); };

    void decidePolicy(platform::WebView&, const platform::NavigationAction& action,
                      std::function<void(Policy)> decisionHandler) override {
        actions.push_back(action);
        events.push_back(std::string(action.hasTargetFrame ? "decide " : "decide new window ") +
                         (action.url ? action.url->path() : "-"));
        decide(action, std::move(decisionHandler));
    }
    void didStartProvisionalNavigation(platform::WebView&) override { events.push_back("start"); }
    void didFinishNavigation(platform::WebView&) override { events.push_back("finish"); }
    void didFailNavigation(platform::WebView&, const Error& error) override {
        events.push_back("fail");
        errors.push_back(error);
    }
    void didFailProvisionalNavigation(platform::WebView&, const Error& error) override {
        events.push_back("fail provisional");
        errors.push_back(error);
    }
    void didReceiveServerRedirectForProvisionalNavigation(platform::WebView&) override {
        events.push_back("redirect");
    }

    bool saw(const std::string& event) const { return std::find(events.begin(), events.end(), event) != events.end(); }
};

class DesktopTest : public ::testing::Test {
protected:
    DesktopTest() : previous_(platform::current()) { platform::install(gtk::makePlatform(kBundle, "1.0")); }
    ~DesktopTest() override {
        drain();
        platform::install(*previous_);
    }

    std::string page(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(pages.port()) + path; }
    platform::URLRequest request(const std::string& path, double timeout = 60.0) const {
        return {*URL::make(page(path)), platform::URLRequest::CachePolicy::useProtocolCachePolicy, timeout};
    }

    // Whether the page server printed a line starting with `prefix`; a REQUEST line reads
    // "REQUEST <method> <path> <cookie header as JSON>".
    bool printed(const std::string& prefix) const {
        auto lines = pages.lines();
        return std::any_of(lines.begin(), lines.end(), [&](const auto& line) { return line.starts_with(prefix); });
    }
    std::optional<std::string> line(const std::string& prefix) const {
        for (const auto& text : pages.lines()) {
            if (text.starts_with(prefix)) return text;
        }
        return std::nullopt;
    }

    std::shared_ptr<const platform::Platform> ports() const { return platform::current(); }

    kelvane::testing::PeerProcess pages{"page-server.js", {R"({"lifetime":90})"}};

private:
    std::shared_ptr<const platform::Platform> previous_;
};

}  // namespace kelvane::browser
