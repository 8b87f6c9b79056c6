#include "FakePlatform.hpp"

#include <kelvane/Log.hpp>

#include <algorithm>

namespace kelvane::fakes {

std::shared_ptr<ViewController> FakeViewSystem::installRoot(std::shared_ptr<ViewController> root) {
    if (!root) root = std::make_shared<ViewController>();
    auto window = std::make_shared<FakeWindow>(root, true);
    auto scene = std::make_shared<FakeScene>();
    scene->sceneWindows = {window};
    scenes = {scene};
    allWindows = {window};
    return root;
}

void FakeViewSystem::setPresented(const ViewController& presenter, std::shared_ptr<ViewController> presented) {
    presented_[&presenter] = std::move(presented);
}

void FakeViewSystem::setNavigation(const ViewController& controller, std::shared_ptr<NavigationController> navigation) {
    navigation_[&controller] = std::move(navigation);
}

std::shared_ptr<ViewController> FakeViewSystem::presentedViewController(const ViewController& controller) const {
    auto found = presented_.find(&controller);
    return found == presented_.end() ? nullptr : found->second;
}

std::shared_ptr<NavigationController> FakeViewSystem::navigationController(const ViewController& controller) const {
    auto found = navigation_.find(&controller);
    return found == navigation_.end() ? nullptr : found->second;
}

std::shared_ptr<platform::View> FakeViewSystem::loadView(ViewController& controller) {
    auto root = std::make_shared<FakeView>();
    if (controller.storyboardIdentifier == "WebViewController") {
        auto appWeb = std::make_shared<FakeView>();
        root->addSubview(appWeb);
        appWebOutlets[&controller] = appWeb;
        controller.connectOutlet("appWeb", appWeb);
    }
    return root;
}

void FakeViewSystem::scheduleAppearance(const std::shared_ptr<ViewController>& controller, bool animated) {
    if (!runLifecycle) return;
    std::weak_ptr<ViewController> weak = controller;
    Queue::main()->async([weak, animated] {
        auto shownController = weak.lock();
        if (!shownController) return;
        shownController->loadViewIfNeeded();
        shownController->viewWillAppear(animated);
        shownController->viewDidAppear(animated);
    });
}

void FakeViewSystem::forgetShown() {
    shown.clear();
    presented_.clear();
    keepAlive_.clear();
    indicators.clear();
    appWebOutlets.clear();
}

void FakeViewSystem::appearAgain(const std::shared_ptr<ViewController>& controller) {
    scheduleAppearance(controller, false);
}

void FakeViewSystem::present(ViewController& presenter, std::shared_ptr<ViewController> presented, bool animated,
                             std::function<void()> completion) {
    shown.push_back({"present", &presenter, presented, animated});
    presented_[&presenter] = presented;
    keepAlive_.push_back(presented);
    scheduleAppearance(presented, animated);
    if (completion) Queue::main()->async(std::move(completion));
}

void FakeViewSystem::push(NavigationController& navigation, std::shared_ptr<ViewController> controller,
                          bool animated) {
    shown.push_back({"push", &navigation, controller, animated});
    navigation_[controller.get()] = std::static_pointer_cast<NavigationController>(navigation.shared_from_this());
    keepAlive_.push_back(controller);
    scheduleAppearance(controller, animated);
}

void FakeViewSystem::dismiss(ViewController& controller, bool animated, std::function<void()> completion) {
    dismissals.push_back({&controller, animated});
    presented_.erase(&controller);
    if (completion) Queue::main()->async(std::move(completion));
}

std::shared_ptr<platform::ActivityIndicator> FakeViewSystem::makeActivityIndicator(
    platform::ActivityIndicatorStyle style) {
    auto indicator = std::make_shared<FakeActivityIndicator>();
    indicator->style = style;
    indicators.push_back(indicator);
    return indicator;
}

void FakeWebView::evaluateJavaScript(const std::string& script,
                                     std::function<void(std::optional<Json>, std::optional<Error>)> completion) {
    scripts.push_back(script);
    if (completion) completion(scriptResult, scriptError);
}

std::shared_ptr<platform::WebView> FakeWebViews::makeWebView(platform::Rect frame,
                                                             const platform::WebViewConfiguration& configuration) {
    auto webView = std::make_shared<FakeWebView>(frame, configuration);
    made.push_back(webView);
    return webView;
}

void FakeWebViews::fetchDataRecords(std::function<void(std::vector<platform::WebsiteDataRecord>)> completion) {
    storeCalls.push_back("fetchDataRecords");
    completion(records);
}

void FakeWebViews::removeData(const std::vector<std::string>& dataTypes, const platform::WebsiteDataRecord& record,
                              std::function<void()> completion) {
    std::string call = "removeData " + record.displayName;
    for (const auto& type : dataTypes) call += " " + type;
    storeCalls.push_back(call);
    if (completion) completion();
}

void FakeWebViews::removeCookies(std::chrono::system_clock::time_point since) {
    storeCalls.push_back(since == std::chrono::system_clock::time_point::min() ? "removeCookies since ever"
                                                                               : "removeCookies");
}

std::optional<std::string> FakeKeyValueStore::string(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto found = values_.find(key);
    if (found == values_.end() || !found->second.is_string()) return std::nullopt;
    return found->second.get<std::string>();
}

void FakeKeyValueStore::setString(const std::string& value, const std::string& key) {
    std::lock_guard lock(mutex_);
    values_[key] = value;
}

std::optional<Json> FakeKeyValueStore::dictionary(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto found = values_.find(key);
    if (found == values_.end() || !found->second.is_object()) return std::nullopt;
    return found->second;
}

void FakeKeyValueStore::setDictionary(const Json& value, const std::string& key) {
    std::lock_guard lock(mutex_);
    values_[key] = value;
}

void FakeKeyValueStore::removeObject(const std::string& key) {
    std::lock_guard lock(mutex_);
    values_.erase(key);
}

void FakeKeyValueStore::clear() {
    std::lock_guard lock(mutex_);
    values_.clear();
}

std::optional<std::string> RecordingDelegate::onPushTokenRequest() {
    note("onPushTokenRequest");
    return pushToken;
}

void RecordingDelegate::onResult(const std::string& reqId, const std::string& authReqId) {
    note("onResult:" + reqId + "," + authReqId);
}

void RecordingDelegate::onError(const std::string& error) { note("onError:" + error); }

void RecordingDelegate::onClosed(const std::string& reason) { note("onClosed:" + reason); }

void RecordingDelegate::onTransactionRequest(const Json& payload) { note("onTransactionRequest:" + payload.dump()); }

std::vector<std::string> RecordingDelegate::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

void RecordingDelegate::note(std::string call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
}

bool FakeURLOpener::canOpenURL(const URL& url) const {
    std::lock_guard lock(mutex_);
    asked.push_back(url.absoluteString());
    return std::find(openable.begin(), openable.end(), url.absoluteString()) != openable.end();
}

void FakeURLOpener::open(const URL& url, std::function<void(bool)> completion) {
    {
        std::lock_guard lock(mutex_);
        opened.push_back(url.absoluteString());
        if (holdOpens) {
            heldCompletions.push_back(std::move(completion));
            return;
        }
    }
    if (completion) completion(opens);
}

FakePlatform::FakePlatform() : previous_(platform::current()) { install(); }

void FakePlatform::install() {
    platform::Platform ports;
    ports.mainQueue = mainQueue;
    ports.viewSystem = viewSystem;
    ports.webViews = webViews;
    ports.pasteboard = pasteboard;
    ports.keyValueStore = keyValueStore;
    ports.device = device;
    ports.bundle = bundle;
    ports.urlOpener = urlOpener;
    ports.documents = documents;
    ports.http = http;
    ports.localAuthentication = localAuthentication;
    ports.passkeys = passkeys;
    ports.camera = camera;
    ports.location = location;
    ports.networkPaths = networkPaths;
    ports.faceVerification = faceVerification;
    platform::install(std::move(ports));
}

FakePlatform::~FakePlatform() { platform::install(*previous_); }

struct LogCapture::Lines {
    std::mutex mutex;
    std::vector<std::string> lines;
};

LogCapture::LogCapture() : lines_(std::make_shared<Lines>()) {
    setLogSink([lines = lines_](std::string_view line) {
        std::lock_guard lock(lines->mutex);
        lines->lines.emplace_back(line);
    });
}

LogCapture::~LogCapture() { setLogSink({}); }

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard lock(lines_->mutex);
    return lines_->lines;
}

bool LogCapture::contains(const std::string& line) const {
    auto all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
}

}  // namespace kelvane::fakes
