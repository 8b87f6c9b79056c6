#include "DesktopServices.hpp"

#include "MainContextQueue.hpp"

#include <gio/gio.h>
#include <gtk/gtk.h>

#include <chrono>
#include <fstream>
#include <sstream>

namespace kelvane::gtk {

namespace {

struct TextRead {
    bool done = false;
    std::optional<std::string> text;
};

}  // namespace

std::optional<std::string> ClipboardPasteboard::string() const {
    GdkDisplay* display = gdk_display_get_default();
    if (!display) return std::nullopt;
    GdkClipboard* clipboard = gdk_display_get_clipboard(display);
    if (gdk_clipboard_is_local(clipboard)) {
        GdkContentProvider* content = gdk_clipboard_get_content(clipboard);
        if (!content) return std::nullopt;
        GValue value = G_VALUE_INIT;
        g_value_init(&value, G_TYPE_STRING);
        std::optional<std::string> text;
        if (gdk_content_provider_get_value(content, &value, nullptr) && g_value_get_string(&value)) {
            text = g_value_get_string(&value);
        }
        g_value_unset(&value);
        return text;
    }
    auto read = std::make_shared<TextRead>();
    gdk_clipboard_read_text_async(
        clipboard, nullptr,
        +[](GObject* source, GAsyncResult* result, gpointer data) {
            std::unique_ptr<std::shared_ptr<TextRead>> read(static_cast<std::shared_ptr<TextRead>*>(data));
            if (char* text = gdk_clipboard_read_text_finish(GDK_CLIPBOARD(source), result, nullptr)) {
                (*read)->text = text;
                g_free(text);
            }
            (*read)->done = true;
        },
        new std::shared_ptr<TextRead>(read));
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    // Wakes the loop now and then, so that the bound holds when nothing else happens.
    guint ticker = g_timeout_add(50, +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    while (!read->done && std::chrono::steady_clock::now() < deadline) g_main_context_iteration(nullptr, TRUE);
    g_source_remove(ticker);
    return read->text;
}

void ClipboardPasteboard::setString(const std::string& text) {
    GdkDisplay* display = gdk_display_get_default();
    if (!display) return;
    gdk_clipboard_set_text(gdk_display_get_clipboard(display), text.c_str());
}

bool GioURLOpener::canOpenURL(const URL& url) const {
    auto scheme = url.scheme();
    if (!scheme || scheme->empty()) return false;
    GAppInfo* app = g_app_info_get_default_for_uri_scheme(scheme->c_str());
    if (!app) return false;
    g_object_unref(app);
    return true;
}

void GioURLOpener::open(const URL& url, std::function<void(bool)> completion) {
    using Completion = std::function<void(bool)>;
    g_app_info_launch_default_for_uri_async(
        url.absoluteString().c_str(), nullptr, nullptr,
        +[](GObject*, GAsyncResult* result, gpointer data) {
            std::unique_ptr<Completion> done(static_cast<Completion*>(data));
            bool opened = g_app_info_launch_default_for_uri_finish(result, nullptr);
            if (*done) (*done)(opened);
        },
        new Completion(std::move(completion)));
}

std::optional<std::filesystem::path> XdgDocuments::documentsDirectory() const {
    std::filesystem::path directory;
    if (const char* documents = g_get_user_special_dir(G_USER_DIRECTORY_DOCUMENTS)) {
        directory = documents;
    } else {
        directory = std::filesystem::path(g_get_home_dir()) / "Documents";
    }
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (!std::filesystem::is_directory(directory, error)) return std::nullopt;
    return directory;
}

namespace {

std::string fileText(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The interface of the IPv4 default route with the lowest metric, or else of the IPv6 one.
std::string defaultRouteInterface() {
    std::string best;
    long bestMetric = -1;
    std::istringstream routes(fileText("/proc/net/route"));
    std::string line;
    std::getline(routes, line);  // header
    while (std::getline(routes, line)) {
        std::istringstream fields(line);
        std::string name, destination, gateway, flags, refs, use, metric, mask;
        if (!(fields >> name >> destination >> gateway >> flags >> refs >> use >> metric >> mask)) continue;
        bool up = std::stoul(flags, nullptr, 16) & 1;
        if (!up || destination != "00000000" || mask != "00000000") continue;
        long value = std::stol(metric);
        if (bestMetric < 0 || value < bestMetric) {
            best = name;
            bestMetric = value;
        }
    }
    if (!best.empty()) return best;
    std::istringstream routes6(fileText("/proc/net/ipv6_route"));
    while (std::getline(routes6, line)) {
        std::istringstream fields(line);
        std::string destination, length, source, sourceLength, next, metric, refs, use, flags, name;
        if (!(fields >> destination >> length >> source >> sourceLength >> next >> metric >> refs >> use >> flags >>
              name)) {
            continue;
        }
        if (length == "00" && destination == std::string(32, '0') && name != "lo") return name;
    }
    return {};
}

class LinuxPathMonitor final : public platform::NetworkPathMonitor,
                               public std::enable_shared_from_this<LinuxPathMonitor> {
public:
    ~LinuxPathMonitor() override { disconnect(); }

    void setPathUpdateHandler(std::function<void(const platform::NetworkPath&)> handler) override {
        std::lock_guard lock(mutex_);
        handler_ = std::move(handler);
    }

    void start(std::shared_ptr<Queue> queue) override {
        if (!queue) return;
        {
            std::lock_guard lock(mutex_);
            if (started_ || cancelled_) return;
            started_ = true;
            queue_ = std::move(queue);
        }
        std::weak_ptr<LinuxPathMonitor> weak = shared_from_this();
        onMainThread([weak] {
            auto self = weak.lock();
            if (!self || self->cancelled_) return;
            // The monitor signals on the main context, where it was first asked for.
            self->signal_ = g_signal_connect_data(
                g_network_monitor_get_default(), "network-changed",
                G_CALLBACK(+[](GNetworkMonitor*, gboolean, gpointer data) {
                    if (auto monitor = static_cast<std::weak_ptr<LinuxPathMonitor>*>(data)->lock()) monitor->deliver();
                }),
                new std::weak_ptr<LinuxPathMonitor>(weak),
                [](gpointer data, GClosure*) { delete static_cast<std::weak_ptr<LinuxPathMonitor>*>(data); },
                GConnectFlags(0));
            self->deliver();
        });
    }

    void cancel() override {
        cancelled_ = true;
        std::weak_ptr<LinuxPathMonitor> weak = weak_from_this();
        onMainThread([weak] {
            if (auto self = weak.lock()) self->disconnect();
        });
    }

private:
    void deliver() {
        std::shared_ptr<Queue> queue;
        {
            std::lock_guard lock(mutex_);
            queue = queue_;
        }
        if (cancelled_ || !queue) return;
        auto path = currentNetworkPath();
        std::weak_ptr<LinuxPathMonitor> weak = shared_from_this();
        queue->async([weak, path] {
            auto self = weak.lock();
            if (!self || self->cancelled_) return;
            std::function<void(const platform::NetworkPath&)> handler;
            {
                std::lock_guard lock(self->mutex_);
                handler = self->handler_;
            }
            if (handler) handler(path);
        });
    }

    // Main thread.
    void disconnect() {
        if (signal_) g_signal_handler_disconnect(g_network_monitor_get_default(), signal_);
        signal_ = 0;
    }

    std::mutex mutex_;
    std::function<void(const platform::NetworkPath&)> handler_;
    std::shared_ptr<Queue> queue_;
    bool started_ = false;
    std::atomic<bool> cancelled_{false};
    gulong signal_ = 0;
};

}  // namespace

platform::NetworkPath currentNetworkPath() {
    platform::NetworkPath path;
    bool available = g_network_monitor_get_network_available(g_network_monitor_get_default());
    path.status = available ? platform::NetworkPath::Status::satisfied : platform::NetworkPath::Status::unsatisfied;
    if (!available) return path;
    auto name = defaultRouteInterface();
    if (name.empty()) return path;
    std::filesystem::path device = std::filesystem::path("/sys/class/net") / name;
    std::error_code error;
    path.usesWifi = std::filesystem::exists(device / "wireless", error) || std::filesystem::exists(device / "phy80211", error);
    path.usesCellular = fileText(device / "uevent").find("DEVTYPE=wwan") != std::string::npos;
    path.usesWiredEthernet = !path.usesWifi && !path.usesCellular && fileText(device / "type").starts_with("1\n");
    return path;
}

std::shared_ptr<platform::NetworkPathMonitor> LinuxNetworkPaths::makeMonitor() {
    return std::make_shared<LinuxPathMonitor>();
}

}  // namespace kelvane::gtk
