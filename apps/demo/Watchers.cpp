#include "Watchers.hpp"

#include "Run.hpp"

#include <kelvane/AlertController.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/URL.hpp>

namespace demo {

using namespace kelvane;
using namespace kelvane::platform;

std::optional<Answer> readAnswer(const std::string& script) {
    static const std::string head = "iosCallback(\"";
    if (!script.starts_with(head)) return std::nullopt;
    auto nameEnd = script.find('"', head.size());
    if (nameEnd == std::string::npos) return std::nullopt;
    Answer answer{script.substr(head.size(), nameEnd - head.size()), "answered"};
    auto comma = script.find(',', nameEnd);
    if (comma == std::string::npos || script.back() != ')') return answer;
    auto body = json::parse(std::string_view(script).substr(comma + 1, script.size() - comma - 2));
    if (auto success = body ? json::getBool(*body, "success") : std::nullopt) {
        answer.outcome = *success ? "success:true" : "success:false";
        // Why, in the page's own words: a failure's message, or the face session's error.
        auto why = json::getString(*body, "message").value_or("");
        if (why.empty()) why = json::getString(*body, "error").value_or("");
        if (!*success && !why.empty()) answer.outcome += " (" + why.substr(0, 100) + ")";
    }
    return answer;
}

namespace {

// Sees each event the page posts, then hands it to the library's handler.
class MessageRelay final : public ScriptMessageHandler {
public:
    MessageRelay(std::weak_ptr<ScriptMessageHandler> library, Run& run) : library_(std::move(library)), run_(run) {}
    void userContentController(const ScriptMessage& message) override {
        run_.pagePosted(message.name, [library = library_, message] {
            if (auto handler = library.lock()) handler->userContentController(message);
        });
    }

private:
    std::weak_ptr<ScriptMessageHandler> library_;
    Run& run_;
};

// A web view that passes everything to the desktop's, reading the answers on their way into
// the page and the navigation events on their way to the library.
class WatchedWebView final : public WebView,
                             public NavigationDelegate,
                             public std::enable_shared_from_this<WatchedWebView> {
public:
    explicit WatchedWebView(Run& run) : run_(run) {}
    void wrap(std::shared_ptr<WebView> inner, std::vector<std::shared_ptr<MessageRelay>> relays) {
        inner_ = std::move(inner);
        relays_ = std::move(relays);
    }

    std::shared_ptr<View> view() override { return inner_->view(); }
    Point center() const override { return inner_->center(); }
    void load(const URLRequest& request) override { inner_->load(request); }
    void stopLoading() override { inner_->stopLoading(); }
    void evaluateJavaScript(const std::string& script,
                            std::function<void(std::optional<Json>, std::optional<Error>)> completion) override {
        if (auto answer = readAnswer(script)) run_.pageAnswered(answer->event, answer->outcome);
        inner_->evaluateJavaScript(script, std::move(completion));
    }
    void setNavigationDelegate(std::weak_ptr<NavigationDelegate> delegate) override {
        library_ = std::move(delegate);
        inner_->setNavigationDelegate(std::static_pointer_cast<NavigationDelegate>(shared_from_this()));
    }
    void setUIDelegate(std::weak_ptr<void> delegate) override { inner_->setUIDelegate(std::move(delegate)); }
    std::optional<std::string> serverTrust() const override { return inner_->serverTrust(); }

    // The library hears of this web view, the one it made, not of the one inside.
    void decidePolicy(WebView&, const NavigationAction& action,
                      std::function<void(NavigationActionPolicy)> decisionHandler) override {
        if (auto library = library_.lock()) {
            library->decidePolicy(*this, action, std::move(decisionHandler));
        } else {
            decisionHandler(NavigationActionPolicy::allow);
        }
    }
    void didStartProvisionalNavigation(WebView&) override {
        if (auto library = library_.lock()) library->didStartProvisionalNavigation(*this);
    }
    void didFinishNavigation(WebView&) override {
        run_.pageFinished();
        if (auto library = library_.lock()) library->didFinishNavigation(*this);
    }
    void didFailNavigation(WebView&, const Error& error) override {
        if (auto library = library_.lock()) library->didFailNavigation(*this, error);
    }
    void didFailProvisionalNavigation(WebView&, const Error& error) override {
        run_.note(run_.now(), "page not loaded: " + error.text());
        if (auto library = library_.lock()) library->didFailProvisionalNavigation(*this, error);
    }
    void didReceiveServerRedirectForProvisionalNavigation(WebView&) override {
        if (auto library = library_.lock()) library->didReceiveServerRedirectForProvisionalNavigation(*this);
    }

private:
    Run& run_;
    std::shared_ptr<WebView> inner_;
    std::vector<std::shared_ptr<MessageRelay>> relays_;
    std::weak_ptr<NavigationDelegate> library_;
};

class WatchedWebViews final : public WebViewSystem {
public:
    WatchedWebViews(std::shared_ptr<WebViewSystem> inner, Run& run) : inner_(std::move(inner)), run_(run) {}

    std::shared_ptr<WebView> makeWebView(Rect frame, const WebViewConfiguration& configuration) override {
        auto watched = std::make_shared<WatchedWebView>(run_);
        WebViewConfiguration relayed = configuration;
        relayed.userContentController.handlers.clear();
        std::vector<std::shared_ptr<MessageRelay>> relays;
        for (const auto& [name, handler] : configuration.userContentController.handlers) {
            relays.push_back(std::make_shared<MessageRelay>(handler, run_));
            relayed.userContentController.add(relays.back(), name);
        }
        watched->wrap(inner_->makeWebView(frame, relayed), std::move(relays));
        return watched;
    }
    void fetchDataRecords(std::function<void(std::vector<WebsiteDataRecord>)> completion) override {
        inner_->fetchDataRecords(std::move(completion));
    }
    void removeData(const std::vector<std::string>& dataTypes, const WebsiteDataRecord& record,
                    std::function<void()> completion) override {
        inner_->removeData(dataTypes, record, std::move(completion));
    }
    void removeCookies(std::chrono::system_clock::time_point since) override { inner_->removeCookies(since); }

private:
    std::shared_ptr<WebViewSystem> inner_;
    Run& run_;
};

// Sees what the library puts on the screen: its dialogs and the flow's own screen.
class WatchedScreens final : public ViewSystem {
public:
    WatchedScreens(std::shared_ptr<ViewSystem> inner, Run& run) : inner_(std::move(inner)), run_(run) {}

    std::vector<std::shared_ptr<Scene>> connectedScenes() const override { return inner_->connectedScenes(); }
    std::vector<std::shared_ptr<Window>> windows() const override { return inner_->windows(); }
    std::shared_ptr<ViewController> presentedViewController(const ViewController& controller) const override {
        return inner_->presentedViewController(controller);
    }
    std::shared_ptr<NavigationController> navigationController(const ViewController& controller) const override {
        return inner_->navigationController(controller);
    }
    std::shared_ptr<View> loadView(ViewController& controller) override { return inner_->loadView(controller); }
    void present(ViewController& presenter, std::shared_ptr<ViewController> presented, bool animated,
                 std::function<void()> completion) override {
        if (presented && presented->storyboardIdentifier == "WebViewController") run_.flowShown(presented);
        auto alert = std::dynamic_pointer_cast<AlertController>(presented);
        inner_->present(presenter, std::move(presented), animated, std::move(completion));
        if (alert) answer(alert);
    }
    void push(NavigationController& navigation, std::shared_ptr<ViewController> controller, bool animated) override {
        if (controller && controller->storyboardIdentifier == "WebViewController") run_.flowShown(controller);
        inner_->push(navigation, std::move(controller), animated);
    }
    void dismiss(ViewController& controller, bool animated, std::function<void()> completion) override {
        inner_->dismiss(controller, animated, std::move(completion));
    }
    std::shared_ptr<ActivityIndicator> makeActivityIndicator(ActivityIndicatorStyle style) override {
        return inner_->makeActivityIndicator(style);
    }

private:
    // What an unattended user picks; nothing leaves the dialog to the person at the screen.
    // "Update Available" has one action, which runs the store lookup again: it stays open.
    std::string choiceFor(const AlertController& alert) const {
        if (alert.title == "Cancel Transaction" && run_.options().cancel) return "OK";
        if (alert.title == "Location Access Denied" && run_.options().autoRun) return "Cancel";
        return {};
    }

    void answer(const std::shared_ptr<AlertController>& alert) {
        auto choice = choiceFor(*alert);
        run_.dialog(alert->title, choice);
        for (std::size_t index = 0; !choice.empty() && index < alert->actions.size(); ++index) {
            if (alert->actions[index].title != choice) continue;
            std::weak_ptr<AlertController> shown = alert;
            Queue::main()->async([shown, index] {
                if (auto dialog = shown.lock()) dialog->tap(index);
            });
            return;
        }
    }

    std::shared_ptr<ViewSystem> inner_;
    Run& run_;
};

// The partner app of an app-to-app hand-off, which a desktop lacks.
class PartnerApp final : public URLOpener {
public:
    PartnerApp(std::shared_ptr<URLOpener> inner, Run& run, std::function<void(const std::string&)> appReturn)
        : inner_(std::move(inner)), run_(run), appReturn_(std::move(appReturn)) {}

    bool canOpenURL(const URL& url) const override { return isPartnerLink(url) || inner_->canOpenURL(url); }
    void open(const URL& url, std::function<void(bool)> completion) override {
        if (!isPartnerLink(url)) return inner_->open(url, std::move(completion));
        run_.note(run_.now(), "hand-off to the partner app: " + url.absoluteString(), true);
        if (completion) completion(true);
        // The user agreed in the partner app, which opens the success callback: the host app's
        // scheme, back to the host.
        std::optional<std::string> back;
        if (auto items = URLComponents::make(url).queryItems()) {
            for (const auto& item : *items) {
                if (item.name == "successurl") back = item.value;
            }
        }
        if (!back) {
            run_.note(run_.now(), "the partner app cannot return: the link has no successurl", true);
            return;
        }
        Queue::main()->async([this, back = *back] {
            run_.note(run_.now(), "the partner app returns: " + back, true);
            appReturn_(back);
        });
    }
    std::string openSettingsURLString() const override { return inner_->openSettingsURLString(); }

private:
    static bool isPartnerLink(const URL& url) {
        auto scheme = url.scheme();
        return scheme == "uaepass" || scheme == "uaepassstg";
    }

    std::shared_ptr<URLOpener> inner_;
    Run& run_;
    std::function<void(const std::string&)> appReturn_;
};

// The device owner's answer when nobody sits at the screen: the platform says whether the owner
// can be authenticated, and the approval is scripted, and said so, in place of its dialog.
class ScriptedApproval final : public LAContext {
public:
    ScriptedApproval(std::shared_ptr<LAContext> inner, Run& run) : inner_(std::move(inner)), run_(run) {}
    void setLocalizedFallbackTitle(const std::string& title) override {
        if (inner_) inner_->setLocalizedFallbackTitle(title);
    }
    CanEvaluate canEvaluatePolicy(LAPolicy policy) override {
        return inner_ ? inner_->canEvaluatePolicy(policy) : CanEvaluate{true, std::nullopt};
    }
    void evaluatePolicy(LAPolicy, const std::string& reason,
                        std::function<void(bool, std::optional<int>)> reply) override {
        Queue::main()->async([&run = run_, reason, reply = std::move(reply)] {
            run.note(run.now(), "device owner: scripted approval (--auto), no password asked for \"" + reason + "\"", true);
            reply(true, std::nullopt);
        });
    }
    std::string description() const override { return "scripted approval"; }

private:
    std::shared_ptr<LAContext> inner_;
    Run& run_;
};

class ScriptedOwner final : public LocalAuthentication {
public:
    ScriptedOwner(std::shared_ptr<LocalAuthentication> inner, Run& run) : inner_(std::move(inner)), run_(run) {}
    std::shared_ptr<LAContext> makeContext() override {
        return std::make_shared<ScriptedApproval>(inner_ ? inner_->makeContext() : nullptr, run_);
    }

private:
    std::shared_ptr<LocalAuthentication> inner_;
    Run& run_;
};

const char* statusName(FaceVerificationStatus::Kind kind) {
    switch (kind) {
        case FaceVerificationStatus::Kind::connecting: return "connecting";
        case FaceVerificationStatus::Kind::connected: return "connected";
        case FaceVerificationStatus::Kind::processing: return "processing";
        case FaceVerificationStatus::Kind::success: return "success";
        case FaceVerificationStatus::Kind::canceled: return "canceled";
        case FaceVerificationStatus::Kind::failure: return "failure";
        case FaceVerificationStatus::Kind::error: return "error";
    }
    return "?";
}

// Shows each state of a face verification session as it passes.
class WatchedFace final : public FaceVerification {
public:
    WatchedFace(std::shared_ptr<FaceVerification> inner, Run& run) : inner_(std::move(inner)), run_(run) {}
    std::shared_ptr<FaceVerificationSession> launch(const URL& streamingURL, const std::string& token,
                                                    std::weak_ptr<FaceVerificationPresentationDelegate> presentation,
                                                    std::function<void(const FaceVerificationStatus&)> onStatus) override {
        auto& run = run_;
        return inner_->launch(streamingURL, token, std::move(presentation),
                              [&run, onStatus = std::move(onStatus)](const FaceVerificationStatus& status) {
                                  std::string text = std::string("face session: ") + statusName(status.kind);
                                  if (!status.message.empty()) text += " (" + status.message + ")";
                                  if (status.failureReason) text += ": " + *status.failureReason;
                                  auto at = run.now();
                                  Queue::main()->async([&run, at, text] { run.note(at, text, true); });
                                  onStatus(status);
                              });
    }
    Rect screenBounds() const override { return inner_->screenBounds(); }

private:
    std::shared_ptr<FaceVerification> inner_;
    Run& run_;
};

}  // namespace

void watch(Platform& ports, Run& run, std::function<void(const std::string&)> appReturn) {
    ports.webViews = std::make_shared<WatchedWebViews>(ports.webViews, run);
    ports.viewSystem = std::make_shared<WatchedScreens>(ports.viewSystem, run);
    ports.urlOpener = std::make_shared<PartnerApp>(ports.urlOpener, run, std::move(appReturn));
    if (ports.faceVerification) ports.faceVerification = std::make_shared<WatchedFace>(ports.faceVerification, run);
    if (run.options().autoRun) ports.localAuthentication = std::make_shared<ScriptedOwner>(ports.localAuthentication, run);
}

}  // namespace demo
