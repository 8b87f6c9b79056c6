#include "BrowserHarness.hpp"

#include "XvfbDisplay.hpp"

#include <gtk/gtk.h>

#include <filesystem>
#include <memory>

namespace kelvane::browser {

bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds bound) {
    auto deadline = std::chrono::steady_clock::now() + bound;
    // Wakes the loop now and then, so that conditions fed by other threads are seen.
    guint ticker = g_timeout_add(20, +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    bool held = done();
    while (!held && std::chrono::steady_clock::now() < deadline) {
        g_main_context_iteration(nullptr, TRUE);
        held = done();
    }
    g_source_remove(ticker);
    return held;
}

void drain() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

namespace {
std::unique_ptr<testing::XvfbDisplay> display;
std::string folder;
}  // namespace

void tearDownDesktop() {
    if (!folder.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
}

bool setUpDesktop() {
    display = std::make_unique<testing::XvfbDisplay>();
    if (display->name().empty()) return false;
    folder = testing::useDesktopEnvironment(display->name());
    return !folder.empty() && gtk_init_check();
}

}  // namespace kelvane::browser
