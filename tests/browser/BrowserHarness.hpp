#pragma once

// What the browser tests share: the GLib main context to wait on, and the display they run on.

#include <chrono>
#include <functional>
#include <string>

namespace kelvane::browser {

// Iterates the default GLib main context until `done` holds or `bound` has passed; whether
// `done` held.
bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds bound = std::chrono::seconds(30));

// Runs what is due on the main context now, without waiting.
void drain();

// A port on 127.0.0.1 that nothing listens on.
int closedPort();

// An X server of our own for the run: Xvfb on the first free display, stopped when the process
// that started it ends, however it ends.
class XvfbDisplay {
public:
    XvfbDisplay();
    ~XvfbDisplay();
    XvfbDisplay(const XvfbDisplay&) = delete;
    XvfbDisplay& operator=(const XvfbDisplay&) = delete;

    // ":<n>", or empty when the server did not start.
    const std::string& name() const { return name_; }

private:
    int pid_ = -1;
    std::string name_;
};

// Prepares the process for WebKitGTK under its own Xvfb, with fresh XDG folders, and
// initialises GTK. False when no display could be had.
bool setUpDesktop();
// Removes the run's folders; the display stops with the process.
void tearDownDesktop();

}  // namespace kelvane::browser
