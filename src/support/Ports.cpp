#include "Ports.hpp"

#include "support/HTTPSession.hpp"

#include <mutex>
#include <unordered_map>

namespace kelvane::ports {
namespace {

using namespace platform;

class EmptyView final : public View {
public:
    Rect bounds() const override { return {}; }
    Point center() const override { return center_; }
    void setCenter(Point center) override { center_ = center; }
    void addSubview(std::shared_ptr<View>) override {}

private:
    Point center_;
};

class EmptyIndicator final : public ActivityIndicator {
public:
    Rect bounds() const override { return {}; }
    Point center() const override { return {}; }
    void setCenter(Point) override {}
    void addSubview(std::shared_ptr<View>) override {}
    void startAnimating() override { animating_ = true; }
    void stopAnimating() override { animating_ = false; }
    bool isAnimating() const override { return animating_; }
    void setHidesWhenStopped(bool) override {}
    void setColor(Color) override {}

private:
    bool animating_ = false;
};

// No scenes and no windows: nothing can be shown.
class EmptyViewSystem final : public ViewSystem {
public:
    std::vector<std::shared_ptr<Scene>> connectedScenes() const override { return {}; }
    std::vector<std::shared_ptr<Window>> windows() const override { return {}; }
    std::shared_ptr<ViewController> presentedViewController(const ViewController&) const override { return {}; }
    std::shared_ptr<NavigationController> navigationController(const ViewController&) const override {
        return {};
    }
    std::shared_ptr<View> loadView(ViewController&) override { return std::make_shared<EmptyView>(); }
    void present(ViewController&, std::shared_ptr<ViewController>, bool, std::function<void()>) override {}
    void push(NavigationController&, std::shared_ptr<ViewController>, bool) override {}
    void dismiss(ViewController&, bool, std::function<void()>) override {}
    std::shared_ptr<ActivityIndicator> makeActivityIndicator(ActivityIndicatorStyle) override {
        return std::make_shared<EmptyIndicator>();
    }
};

class EmptyWebView final : public WebView {
public:
    std::shared_ptr<View> view() override { return view_; }
    Point center() const override { return {}; }
    void load(const URLRequest&) override {}
    void stopLoading() override {}
    void evaluateJavaScript(const std::string&,
                            std::function<void(std::optional<Json>, std::optional<Error>)> completion) override {
        if (completion) completion(std::nullopt, Error{"WKErrorDomain", 1, "No web view on this platform"});
    }
    void setNavigationDelegate(std::weak_ptr<NavigationDelegate>) override {}
    void setUIDelegate(std::weak_ptr<void>) override {}
    std::optional<std::string> serverTrust() const override { return std::nullopt; }

private:
    std::shared_ptr<View> view_ = std::make_shared<EmptyView>();
};

class EmptyWebViews final : public WebViewSystem {
public:
    std::shared_ptr<WebView> makeWebView(Rect, const WebViewConfiguration&) override {
        return std::make_shared<EmptyWebView>();
    }
    void fetchDataRecords(std::function<void(std::vector<WebsiteDataRecord>)> completion) override {
        if (completion) completion({});
    }
    void removeData(const std::vector<std::string>&, const WebsiteDataRecord&, std::function<void()> completion) override {
        if (completion) completion();
    }
    void removeCookies(std::chrono::system_clock::time_point) override {}
};

class EmptyPasteboard final : public Pasteboard {
public:
    std::optional<std::string> string() const override { return std::nullopt; }
    void setString(const std::string&) override {}
};

// Lives as long as the process, as a store without a disk would.
class MemoryStore final : public KeyValueStore {
public:
    std::optional<std::string> string(const std::string& key) const override {
        std::lock_guard lock(mutex_);
        auto found = values_.find(key);
        if (found == values_.end() || !found->second.is_string()) return std::nullopt;
        return found->second.get<std::string>();
    }
    void setString(const std::string& value, const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_[key] = value;
    }
    std::optional<Json> dictionary(const std::string& key) const override {
        std::lock_guard lock(mutex_);
        auto found = values_.find(key);
        if (found == values_.end() || !found->second.is_object()) return std::nullopt;
        return found->second;
    }
    void setDictionary(const Json& value, const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_[key] = value;
    }
    void removeObject(const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_.erase(key);
    }

private:
    mutable std::mutex mutex_;
    std::unordered_map<std::string, Json> values_;
};

class UnknownDevice final : public Device {
public:
    std::string model() const override { return "Linux"; }
    std::string systemName() const override { return "Linux"; }
    std::string systemVersion() const override { return ""; }
    std::optional<std::string> identifierForVendor() const override { return std::nullopt; }
    bool isSimulator() const override { return false; }
    bool supportsPasskeys() const override { return false; }
};

class NoBundle final : public Bundle {
public:
    std::optional<std::string> bundleIdentifier() const override { return std::nullopt; }
    std::optional<std::string> shortVersion() const override { return std::nullopt; }
};

// No app takes any URL.
class NoOpener final : public URLOpener {
public:
    bool canOpenURL(const URL&) const override { return false; }
    void open(const URL&, std::function<void(bool)> completion) override {
        if (completion) completion(false);
    }
    std::string openSettingsURLString() const override { return "app-settings:"; }
};

class NoDocuments final : public DocumentsDirectory {
public:
    std::optional<std::filesystem::path> documentsDirectory() const override { return std::nullopt; }
};

template <class Port, class StandIn>
std::shared_ptr<Port> portOr(std::shared_ptr<Port> Platform::*member) {
    static auto* standIn = new std::shared_ptr<Port>(std::make_shared<StandIn>());
    if (auto port = (*current()).*member) return port;
    return *standIn;
}

}  // namespace

std::shared_ptr<ViewSystem> viewSystem() { return portOr<ViewSystem, EmptyViewSystem>(&Platform::viewSystem); }
std::shared_ptr<WebViewSystem> webViews() { return portOr<WebViewSystem, EmptyWebViews>(&Platform::webViews); }
std::shared_ptr<Pasteboard> pasteboard() { return portOr<Pasteboard, EmptyPasteboard>(&Platform::pasteboard); }
std::shared_ptr<KeyValueStore> keyValueStore() {
    return portOr<KeyValueStore, MemoryStore>(&Platform::keyValueStore);
}
std::shared_ptr<Device> device() { return portOr<Device, UnknownDevice>(&Platform::device); }
std::shared_ptr<Bundle> bundle() { return portOr<Bundle, NoBundle>(&Platform::bundle); }
std::shared_ptr<URLOpener> urlOpener() { return portOr<URLOpener, NoOpener>(&Platform::urlOpener); }
std::shared_ptr<DocumentsDirectory> documents() {
    return portOr<DocumentsDirectory, NoDocuments>(&Platform::documents);
}
std::shared_ptr<HTTP> http() {
    if (auto port = current()->http) return port;
    return defaultHTTP();
}

}  // namespace kelvane::ports
