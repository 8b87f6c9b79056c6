#pragma once

// What the browser tests share: the GLib main context to wait on, and the display they run on.

#include "TestTools.hpp"

#include <chrono>
#include <functional>
#include <string>

namespace kelvane::browser {

// Iterates the default GLib main context until `done` holds or `bound` has passed; whether
// `done` held.
bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds bound = std::chrono::seconds(30));

// Runs what is due on the main context now, without waiting.
void drain();

using testing::closedPort;

// Prepares the process for WebKitGTK under its own Xvfb, with fresh XDG folders, and
// initialises GTK. False when no display could be had.
bool setUpDesktop();
// Removes the run's folders; the display stops with the process.
void tearDownDesktop();

}  // namespace kelvane::browser
