#pragma once

#include <kelvane/Error.hpp>
#include <kelvane/Export.hpp>
#include <kelvane/Json.hpp>
#include <kelvane/URL.hpp>
#include <kelvane/platform/View.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kelvane::platform {

struct URLRequest {
    enum class CachePolicy { useProtocolCachePolicy = 0, reloadIgnoringLocalCacheData = 1 };
    URL url;
    CachePolicy cachePolicy = CachePolicy::useProtocolCachePolicy;
    double timeoutInterval = 60.0;  // seconds
};

// A value the page posted: the handler's name and the posted body (a JSON value).
struct ScriptMessage {
    std::string name;
    Json body;
};

// Receives the page's posts to window.webkit.messageHandlers.NAME. Main queue.
class KELVANE_EXPORT ScriptMessageHandler {
public:
    virtual ~ScriptMessageHandler();
    virtual void userContentController(const ScriptMessage& message) = 0;
};

// The script message handlers of a web view, one per name.
struct UserContentController {
    std::vector<std::pair<std::string, std::weak_ptr<ScriptMessageHandler>>> handlers;
    void add(std::weak_ptr<ScriptMessageHandler> handler, std::string name) {
        handlers.emplace_back(std::move(name), std::move(handler));
    }
};

struct WebViewConfiguration {
    enum MediaTypes : unsigned { none = 0, audio = 1, video = 2, all = 3 };
    bool allowsInlineMediaPlayback = false;
    bool allowsAirPlayForMediaPlayback = true;
    bool allowsPictureInPictureMediaPlayback = true;
    unsigned mediaTypesRequiringUserActionForPlayback = all;
    UserContentController userContentController;
};

enum class NavigationActionPolicy { cancel = 0, allow = 1 };

struct NavigationAction {
    std::optional<URL> url;
    // False for a navigation that wants a new window.
    bool hasTargetFrame = true;
};

class WebView;

// The web view's navigation events. Main queue. `decisionHandler` must be called exactly once,
// on the main queue or from an opener's completion.
class KELVANE_EXPORT NavigationDelegate {
public:
    virtual ~NavigationDelegate();
    virtual void decidePolicy(WebView& webView, const NavigationAction& action,
                              std::function<void(NavigationActionPolicy)> decisionHandler) = 0;
    virtual void didStartProvisionalNavigation(WebView& webView) = 0;
    virtual void didFinishNavigation(WebView& webView) = 0;
    virtual void didFailNavigation(WebView& webView, const Error& error) = 0;
    virtual void didFailProvisionalNavigation(WebView& webView, const Error& error) = 0;
    virtual void didReceiveServerRedirectForProvisionalNavigation(WebView& webView) = 0;
};

// The domain of URL-loading errors, and the codes the desktop web view maps to it.
inline constexpr const char* kURLErrorDomain = "NSURLErrorDomain";
enum URLErrorCode : int {
    urlErrorCancelled = -999,
    urlErrorTimedOut = -1001,
    urlErrorCannotFindHost = -1003,
    urlErrorCannotConnectToHost = -1004,
    urlErrorNotConnectedToInternet = -1009,
};

// A page in a web view. Main queue only; completions come on the main queue.
class KELVANE_EXPORT WebView {
public:
    virtual ~WebView();
    virtual std::shared_ptr<View> view() = 0;
    virtual Point center() const = 0;
    virtual void load(const URLRequest& request) = 0;
    virtual void stopLoading() = 0;
    // `result` is the script's value, if it has one.
    virtual void evaluateJavaScript(const std::string& script,
                                    std::function<void(std::optional<Json> result, std::optional<Error> error)>
                                        completion) = 0;
    virtual void setNavigationDelegate(std::weak_ptr<NavigationDelegate> delegate) = 0;
    // The object asked about new windows and panels; the library implements none of its
    // operations, so the platform's defaults apply.
    virtual void setUIDelegate(std::weak_ptr<void> delegate) = 0;
    // A description of the current connection's trust, when there is one.
    virtual std::optional<std::string> serverTrust() const = 0;
};

struct WebsiteDataRecord {
    std::string displayName;
    std::vector<std::string> dataTypes;
};

// Making web views and the store of their website data. Main queue only.
class KELVANE_EXPORT WebViewSystem {
public:
    virtual ~WebViewSystem();
    virtual std::shared_ptr<WebView> makeWebView(Rect frame, const WebViewConfiguration& configuration) = 0;

    // The default store's records of every website data type.
    virtual void fetchDataRecords(std::function<void(std::vector<WebsiteDataRecord>)> completion) = 0;
    virtual void removeData(const std::vector<std::string>& dataTypes, const WebsiteDataRecord& record,
                            std::function<void()> completion) = 0;
    // Removes the shared cookie storage's cookies set since `since`.
    virtual void removeCookies(std::chrono::system_clock::time_point since) = 0;
};

}  // namespace kelvane::platform
