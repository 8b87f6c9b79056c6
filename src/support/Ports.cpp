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

// No biometry and no passcode to evaluate.
class NoAuthenticationContext final : public LAContext {
public:
    static constexpr int kBiometryNotAvailable = -6;
    void setLocalizedFallbackTitle(const std::string&) override {}
    CanEvaluate canEvaluatePolicy(LAPolicy) override { return {false, kBiometryNotAvailable}; }
    void evaluatePolicy(LAPolicy, const std::string&, std::function<void(bool, std::optional<int>)> reply) override {
        if (reply) reply(false, kBiometryNotAvailable);
    }
    std::string description() const override { return "<LAContext>"; }
};

class NoLocalAuthentication final : public LocalAuthentication {
public:
    std::shared_ptr<LAContext> makeContext() override { return std::make_shared<NoAuthenticationContext>(); }
};

// No authenticator: every ceremony fails, later, as one the platform cannot run.
class NoPasskeys final : public PasskeyAuthorization {
public:
    void performRequests(std::vector<AuthorizationRequest>,
                         std::weak_ptr<PasskeyAuthorizationDelegate> delegate) override {
        Queue::main()->async([delegate] {
            if (auto live = delegate.lock()) {
                live->didCompleteWithError(
                    Error{"com.apple.AuthenticationServices.AuthorizationError", 1004, "No authenticator"});
            }
        });
    }
};

class NoCaptureSession final : public CaptureSession {
public:
    std::optional<Error> addDefaultVideoInput() override {
        return Error{"AVFoundationErrorDomain", -11814, "Cannot Record"};
    }
    bool canAddMetadataOutput() const override { return false; }
    void addMetadataOutput(std::shared_ptr<Queue>, std::function<void(std::vector<std::optional<std::string>>)>) override {}
    bool isRunning() const override { return false; }
    void startRunning() override {}
    void stopRunning() override {}
    void attachPreview(std::shared_ptr<View>, Rect) override {}
};

class NoCamera final : public Camera {
public:
    AuthorizationStatus authorizationStatus() const override { return AuthorizationStatus::restricted; }
    void requestAccess(std::function<void(bool)> completion) override {
        if (completion) completion(false);
    }
    bool hasDefaultVideoDevice() const override { return false; }
    std::shared_ptr<CaptureSession> makeSession() override { return std::make_shared<NoCaptureSession>(); }
};

// Location services that the device does not offer: restricted, and no updates ever.
class NoLocationManager final : public LocationManager {
public:
    void setDelegate(std::weak_ptr<LocationDelegate>) override {}
    int authorizationStatus() const override { return static_cast<int>(LocationAuthorizationStatus::restricted); }
    void requestWhenInUseAuthorization() override {}
    void startUpdatingLocation() override {}
    void stopUpdatingLocation() override {}
};

class NoLocation final : public Location {
public:
    std::shared_ptr<LocationManager> makeManager() override { return std::make_shared<NoLocationManager>(); }
};

// A device without network interfaces: one unsatisfied path at start.
class NoNetworkMonitor final : public NetworkPathMonitor {
public:
    void setPathUpdateHandler(std::function<void(const NetworkPath&)> handler) override {
        handler_ = std::move(handler);
    }
    void start(std::shared_ptr<Queue> queue) override {
        if (!queue || !handler_) return;
        queue->async([handler = handler_] { handler(NetworkPath{}); });
    }
    void cancel() override { handler_ = nullptr; }

private:
    std::function<void(const NetworkPath&)> handler_;
};

class NoNetworkPaths final : public NetworkPaths {
public:
    std::shared_ptr<NetworkPathMonitor> makeMonitor() override { return std::make_shared<NoNetworkMonitor>(); }
};

class NoFaceSession final : public FaceVerificationSession {
public:
    bool cancel() override { return false; }
};

// No face verification library linked in: each session ends at once in an error.
class NoFaceVerification final : public FaceVerification {
public:
    std::shared_ptr<FaceVerificationSession> launch(const URL&, const std::string&,
                                                    std::weak_ptr<FaceVerificationPresentationDelegate>,
                                                    std::function<void(const FaceVerificationStatus&)> onStatus) override {
        if (onStatus) {
            Queue::main()->async([onStatus] {
                FaceVerificationStatus status;
                status.kind = FaceVerificationStatus::Kind::error;
                status.failureReason = "unsupported";
                onStatus(status);
            });
        }
        return std::make_shared<NoFaceSession>();
    }
    Rect screenBounds() const override { return {}; }
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
std::shared_ptr<LocalAuthentication> localAuthentication() {
    return portOr<LocalAuthentication, NoLocalAuthentication>(&Platform::localAuthentication);
}
std::shared_ptr<PasskeyAuthorization> passkeys() {
    return portOr<PasskeyAuthorization, NoPasskeys>(&Platform::passkeys);
}
std::shared_ptr<Camera> camera() { return portOr<Camera, NoCamera>(&Platform::camera); }
std::shared_ptr<Location> location() { return portOr<Location, NoLocation>(&Platform::location); }
std::shared_ptr<NetworkPaths> networkPaths() { return portOr<NetworkPaths, NoNetworkPaths>(&Platform::networkPaths); }
std::shared_ptr<FaceVerification> faceVerification() {
    return portOr<FaceVerification, NoFaceVerification>(&Platform::faceVerification);
}
std::shared_ptr<HTTP> http() {
    if (auto port = current()->http) return port;
    return defaultHTTP();
}

}  // namespace kelvane::ports
