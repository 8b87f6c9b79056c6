#pragma once

// The desktop platform: the library's ports on GTK 4, WebKitGTK 6.0, GIO and the files of a
// Linux system. The host initialises GTK (gtk_init, or a GtkApplication) on its main thread,
// builds the platform there, installs it, and runs the default GLib main context, which is
// the library's main queue.

#include <kelvane/Export.hpp>
#include <kelvane/ViewController.hpp>
#include <kelvane/platform/Platform.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

typedef struct _GtkWidget GtkWidget;

namespace kelvane::gtk {

// How the desktop ports behave where a host may choose.
struct DesktopOptions {
    // Device-owner authentication: the PAM service that checks the logged-in user's password
    // (its file under /etc/pam.d). Without that file the owner cannot be authenticated, and the
    // answer is that no passcode is set.
    std::string pamService = "login";
    // Camera: PNG images read in turn instead of a video device, for hosts without a camera.
    // Each scanner session shows them from the first, a moment apart, through the same
    // detection and preview as a camera's pictures; the last one stays in the picture and is
    // not read again.
    std::vector<std::filesystem::path> qrImages;
    // Camera: the V4L2 device node to read; empty takes the lowest-numbered /dev/videoN.
    std::filesystem::path videoDevice;
    // Face verification: play a session that connects, processes and succeeds, instead of
    // failing for want of a face-verification library.
    bool scriptedFaceVerification = false;
    // Passkeys: the relying party ids (bare host names, say "example.com") whose passkeys and
    // security-key credentials this host's pages may make and use, as an app's associated
    // domains. A ceremony for any other ends with an error; empty allows none. The client data
    // names https://<relying party id> as the origin.
    std::vector<std::string> passkeyRelyingParties;
};

// Every desktop port, for the host's bundle identifier (also the name of its folders under
// the XDG directories and the seed of its vendor identifier) and short version. HTTP is left
// empty, so the library's own client serves. Main thread, after GTK is initialised.
KELVANE_EXPORT platform::Platform makePlatform(const std::string& bundleIdentifier, const std::string& shortVersion,
                                               const DesktopOptions& options = {});

// Opens a window whose root screen is `root`, runs the root's lifecycle, and makes it the key
// window of the desktop view system: the installed one, or, when the host installed a
// decorator over it, the one makePlatform made last. Nothing happens when there is none. Main
// thread.
KELVANE_EXPORT void openWindow(const std::shared_ptr<ViewController>& root, const std::string& title);
// The same with the host's own `content` as the root screen's view, under everything the
// library presents over it. `root`'s view must not be loaded yet; the window takes a reference
// to `content` (a floating one is sunk).
KELVANE_EXPORT void openWindow(const std::shared_ptr<ViewController>& root, const std::string& title, GtkWidget* content);

// The file that holds the key-value store of `bundleIdentifier`:
// $XDG_CONFIG_HOME/<bundle identifier>/defaults.json, or ~/.config when XDG_CONFIG_HOME is
// unset. Any thread.
KELVANE_EXPORT std::filesystem::path keyValueStoreFile(const std::string& bundleIdentifier);

}  // namespace kelvane::gtk
