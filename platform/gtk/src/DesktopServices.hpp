#pragma once

#include <kelvane/platform/Network.hpp>
#include <kelvane/platform/Sensors.hpp>
#include <kelvane/platform/Storage.hpp>

#include <atomic>
#include <mutex>

namespace kelvane::gtk {

// The display's clipboard. Main thread only. Reading text that another program owns waits
// for it (at most a second) while the main context keeps running, as a toolkit's blocking
// clipboard read does.
class ClipboardPasteboard final : public platform::Pasteboard {
public:
    std::optional<std::string> string() const override;
    void setString(const std::string& text) override;
};

// Hands URLs to the default application of their scheme through GIO. Main thread only; the
// completion of open() comes on the main thread.
class GioURLOpener final : public platform::URLOpener {
public:
    bool canOpenURL(const URL& url) const override;
    void open(const URL& url, std::function<void(bool opened)> completion) override;
    std::string openSettingsURLString() const override { return "app-settings:"; }
};

// The XDG documents directory (~/Documents without one), made on first use.
class XdgDocuments final : public platform::DocumentsDirectory {
public:
    std::optional<std::filesystem::path> documentsDirectory() const override;
};

// The path through the default route: satisfied while GNetworkMonitor sees the network, wifi
// when the route's interface is wireless, cellular when it is a WWAN device, wired for other
// Ethernet links. start() may be called on any thread; paths are delivered on its queue, the
// current one first and then one per change, until cancel().
class LinuxNetworkPaths final : public platform::NetworkPaths {
public:
    std::shared_ptr<platform::NetworkPathMonitor> makeMonitor() override;
};

// The current path, read from the system now. Any thread.
platform::NetworkPath currentNetworkPath();

}  // namespace kelvane::gtk
