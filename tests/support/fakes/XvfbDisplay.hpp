#pragma once

// A display for tests that run GTK and WebKitGTK: the browser tests in their own process, the
// end-to-end tests in the demo host they start.

#include <string>

namespace kelvane::testing {

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

// Sets this process's environment, which its children inherit, for GTK and WebKitGTK on
// `display`: the X11 backend, software drawing, no accessibility bus, no WebKit sandbox, and
// fresh XDG folders (config, data, cache, runtime) in a new temporary folder, whose path it
// returns; empty when the folder could not be made.
std::string useDesktopEnvironment(const std::string& display);

}  // namespace kelvane::testing
