#pragma once

// Fake ports for tests and fuzzers: each records what the library asked of it and answers
// with what the test set.

#include "ManualQueue.hpp"

#include <kelvane/KelvaneService.hpp>
#include <kelvane/platform/Platform.hpp>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::fakes {

class FakeView : public platform::View {
public:
    platform::Rect frame{0, 0, 390, 844};
    platform::Point centerPoint{195, 422};
    std::vector<std::shared_ptr<platform::View>> subviews;

    platform::Rect bounds() const override { return {0, 0, frame.width, frame.height}; }
    platform::Point center() const override { return centerPoint; }
    void setCenter(platform::Point center) override { centerPoint = center; }
    void addSubview(std::shared_ptr<platform::View> subview) override { subviews.push_back(std::move(subview)); }
};

class FakeActivityIndicator : public platform::ActivityIndicator {
public:
    bool animating = false;
    bool hidesWhenStopped = false;
    platform::Color color{1, 1, 1, 1};
    platform::Point centerPoint;
    platform::ActivityIndicatorStyle style = platform::ActivityIndicatorStyle::medium;

    platform::Rect bounds() const override { return {0, 0, 20, 20}; }
    platform::Point center() const override { return centerPoint; }
    void setCenter(platform::Point center) override { centerPoint = center; }
    void addSubview(std::shared_ptr<platform::View>) override {}
    void startAnimating() override { animating = true; }
    void stopAnimating() override { animating = false; }
    bool isAnimating() const override { return animating; }
    void setHidesWhenStopped(bool hides) override { hidesWhenStopped = hides; }
    void setColor(platform::Color newColor) override { color = newColor; }
};

class FakeWindow : public platform::Window {
public:
    FakeWindow(std::shared_ptr<ViewController> root, bool key) : root(std::move(root)), key(key) {}
    std::shared_ptr<ViewController> root;
    bool key;
    bool isKeyWindow() const override { return key; }
    std::shared_ptr<ViewController> rootViewController() const override { return root; }
};

class FakeScene : public platform::Scene {
public:
    bool windowScene = true;
    platform::ActivationState state = platform::ActivationState::foregroundActive;
    std::vector<std::shared_ptr<platform::Window>> sceneWindows;
    bool isWindowScene() const override { return windowScene; }
    platform::ActivationState activationState() const override { return state; }
    std::vector<std::shared_ptr<platform::Window>> windows() const override { return sceneWindows; }
};

// Keeps the relations a real view system keeps, and posts each appearance's lifecycle to the
// main queue, as a real one runs it after the call that shows a screen.
class FakeViewSystem : public platform::ViewSystem {
public:
    struct Shown {
        std::string how;  // "present" or "push"
        ViewController* on;
        std::shared_ptr<ViewController> controller;
        bool animated;
    };
    struct Dismissal {
        ViewController* controller;
        bool animated;
    };

    std::vector<std::shared_ptr<platform::Scene>> scenes;
    std::vector<std::shared_ptr<platform::Window>> allWindows;
    std::vector<Shown> shown;
    std::vector<Dismissal> dismissals;
    std::vector<std::shared_ptr<FakeActivityIndicator>> indicators;
    // Outlet views made for loaded scenes, by controller.
    std::map<const ViewController*, std::shared_ptr<FakeView>> appWebOutlets;
    bool runLifecycle = true;

    // One scene with one key window whose root is `root`.
    std::shared_ptr<ViewController> installRoot(std::shared_ptr<ViewController> root = nullptr);
    void setPresented(const ViewController& presenter, std::shared_ptr<ViewController> presented);
    void setNavigation(const ViewController& controller, std::shared_ptr<NavigationController> navigation);
    // Takes every shown screen off again, as if each had been dismissed.
    void forgetShown();
    // Runs one more appearance of a shown screen, as when a covering screen goes away.
    void appearAgain(const std::shared_ptr<ViewController>& controller);

    std::vector<std::shared_ptr<platform::Scene>> connectedScenes() const override { return scenes; }
    std::vector<std::shared_ptr<platform::Window>> windows() const override { return allWindows; }
    std::shared_ptr<ViewController> presentedViewController(const ViewController& controller) const override;
    std::shared_ptr<NavigationController> navigationController(const ViewController& controller) const override;
    std::shared_ptr<platform::View> loadView(ViewController& controller) override;
    void present(ViewController& presenter, std::shared_ptr<ViewController> presented, bool animated,
                 std::function<void()> completion) override;
    void push(NavigationController& navigation, std::shared_ptr<ViewController> controller, bool animated) override;
    void dismiss(ViewController& controller, bool animated, std::function<void()> completion) override;
    std::shared_ptr<platform::ActivityIndicator> makeActivityIndicator(platform::ActivityIndicatorStyle style) override;

private:
    void scheduleAppearance(const std::shared_ptr<ViewController>& controller, bool animated);

    std::map<const ViewController*, std::shared_ptr<ViewController>> presented_;
    std::map<const ViewController*, std::shared_ptr<NavigationController>> navigation_;
    std::vector<std::shared_ptr<ViewController>> keepAlive_;
};

class FakeWebView : public platform::WebView {
public:
    explicit FakeWebView(platform::Rect frame, platform::WebViewConfiguration configuration)
        : frame(frame), configuration(std::move(configuration)) {}

    platform::Rect frame;
    platform::WebViewConfiguration configuration;
    std::shared_ptr<FakeView> rootView = std::make_shared<FakeView>();
    std::vector<platform::URLRequest> loads;
    int stopLoadingCount = 0;
    std::vector<std::string> scripts;
    std::weak_ptr<platform::NavigationDelegate> navigationDelegate;
    std::weak_ptr<void> uiDelegate;
    // What script runs complete with, and the connection's trust.
    std::optional<Json> scriptResult;
    std::optional<Error> scriptError;
    std::optional<std::string> trust;
    // Runs at each load, after it is recorded.
    std::function<void()> onLoad;

    std::shared_ptr<platform::View> view() override { return rootView; }
    platform::Point center() const override { return frame.center(); }
    void load(const platform::URLRequest& request) override {
        loads.push_back(request);
        if (onLoad) onLoad();
    }
    void stopLoading() override { ++stopLoadingCount; }
    void evaluateJavaScript(const std::string& script,
                            std::function<void(std::optional<Json>, std::optional<Error>)> completion) override;
    void setNavigationDelegate(std::weak_ptr<platform::NavigationDelegate> delegate) override {
        navigationDelegate = std::move(delegate);
    }
    void setUIDelegate(std::weak_ptr<void> delegate) override { uiDelegate = std::move(delegate); }
    std::optional<std::string> serverTrust() const override { return trust; }
};

class FakeWebViews : public platform::WebViewSystem {
public:
    std::vector<std::shared_ptr<FakeWebView>> made;
    std::vector<platform::WebsiteDataRecord> records;
    // In order: "removeCookies", "fetchDataRecords", "removeData <name>".
    std::vector<std::string> storeCalls;
    std::shared_ptr<platform::WebView> makeWebView(platform::Rect frame,
                                                   const platform::WebViewConfiguration& configuration) override;
    void fetchDataRecords(std::function<void(std::vector<platform::WebsiteDataRecord>)> completion) override;
    void removeData(const std::vector<std::string>& dataTypes, const platform::WebsiteDataRecord& record,
                    std::function<void()> completion) override;
    void removeCookies(std::chrono::system_clock::time_point since) override;
};

class FakePasteboard : public platform::Pasteboard {
public:
    std::optional<std::string> text;
    std::optional<std::string> string() const override { return text; }
    void setString(const std::string& value) override { text = value; }
};

class FakeKeyValueStore : public platform::KeyValueStore {
public:
    std::optional<std::string> string(const std::string& key) const override;
    void setString(const std::string& value, const std::string& key) override;
    std::optional<Json> dictionary(const std::string& key) const override;
    void setDictionary(const Json& value, const std::string& key) override;
    void removeObject(const std::string& key) override;
    void clear();

private:
    mutable std::mutex mutex_;
    std::map<std::string, Json> values_;
};

class FakeDevice : public platform::Device {
public:
    std::string modelName = "iPhone";
    std::string name = "iOS";
    std::string version = "17.4";
    std::optional<std::string> vendorIdentifier = "0F6C4E52-5D1B-4C34-9C55-7E1E4F0E2A11";
    bool simulator = false;
    bool passkeys = true;

    std::string model() const override { return modelName; }
    std::string systemName() const override { return name; }
    std::string systemVersion() const override { return version; }
    std::optional<std::string> identifierForVendor() const override { return vendorIdentifier; }
    bool isSimulator() const override { return simulator; }
    bool supportsPasskeys() const override { return passkeys; }
};

class FakeBundle : public platform::Bundle {
public:
    std::optional<std::string> identifier = "com.test.app";
    std::optional<std::string> version = "1.2.0";
    std::optional<std::string> bundleIdentifier() const override { return identifier; }
    std::optional<std::string> shortVersion() const override { return version; }
};

// Records what was handed over; answers canOpenURL from `openable` and open() from `opens`,
// completing at once on the caller's thread unless `holdOpens` keeps the completions for later.
class FakeURLOpener : public platform::URLOpener {
public:
    std::vector<std::string> openable;
    bool opens = true;
    bool holdOpens = false;
    mutable std::vector<std::string> asked;
    std::vector<std::string> opened;
    std::vector<std::function<void(bool)>> heldCompletions;

    bool canOpenURL(const URL& url) const override;
    void open(const URL& url, std::function<void(bool)> completion) override;
    std::string openSettingsURLString() const override { return "app-settings:"; }

private:
    mutable std::mutex mutex_;
};

class FakeDocuments : public platform::DocumentsDirectory {
public:
    std::optional<std::filesystem::path> directory;
    std::optional<std::filesystem::path> documentsDirectory() const override { return directory; }
};

// The host's delegate, writing down each call as "method:argument", in order.
class RecordingDelegate : public KelvaneService {
public:
    std::optional<std::string> pushToken = "push-token";

    std::optional<std::string> onPushTokenRequest() override;
    void onResult(const std::string& reqId, const std::string& authReqId) override;
    void onError(const std::string& error) override;
    void onClosed(const std::string& reason) override;
    void onTransactionRequest(const Json& payload) override;

    std::vector<std::string> calls() const;

private:
    void note(std::string call);
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
};

// Every fake installed at once, with a manual main queue; the previous platform comes back
// when it goes away.
struct FakePlatform {
    FakePlatform();
    ~FakePlatform();
    FakePlatform(const FakePlatform&) = delete;
    FakePlatform& operator=(const FakePlatform&) = delete;

    std::shared_ptr<ManualQueue> mainQueue = std::make_shared<ManualQueue>("main");
    std::shared_ptr<FakeViewSystem> viewSystem = std::make_shared<FakeViewSystem>();
    std::shared_ptr<FakeWebViews> webViews = std::make_shared<FakeWebViews>();
    std::shared_ptr<FakePasteboard> pasteboard = std::make_shared<FakePasteboard>();
    std::shared_ptr<FakeKeyValueStore> keyValueStore = std::make_shared<FakeKeyValueStore>();
    std::shared_ptr<FakeDevice> device = std::make_shared<FakeDevice>();
    std::shared_ptr<FakeBundle> bundle = std::make_shared<FakeBundle>();
    std::shared_ptr<FakeURLOpener> urlOpener = std::make_shared<FakeURLOpener>();
    std::shared_ptr<FakeDocuments> documents = std::make_shared<FakeDocuments>();
    // Empty: the library's own HTTP on libcurl.
    std::shared_ptr<platform::HTTP> http;
    // Empty: the library's stand-in for a platform without them. A test sets its own fake.
    std::shared_ptr<platform::LocalAuthentication> localAuthentication;
    std::shared_ptr<platform::PasskeyAuthorization> passkeys;
    std::shared_ptr<platform::Camera> camera;
    std::shared_ptr<platform::Location> location;
    std::shared_ptr<platform::NetworkPaths> networkPaths;
    std::shared_ptr<platform::FaceVerification> faceVerification;

    // Installs the members again, after a test replaced one.
    void install();

private:
    std::shared_ptr<const platform::Platform> previous_;
};

// Collects log lines while it lives.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<std::string> lines() const;
    bool contains(const std::string& line) const;

private:
    struct Lines;
    std::shared_ptr<Lines> lines_;
};

}  // namespace kelvane::fakes
