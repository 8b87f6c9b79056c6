#pragma once

#include <kelvane/platform/WebView.hpp>

#include <map>
#include <memory>
#include <string>
#include <vector>

typedef struct _WebKitWebView WebKitWebView;
typedef struct _WebKitUserContentManager WebKitUserContentManager;

namespace kelvane::gtk {

class WidgetView;

// A page in a WebKitWebView. The page posts to window.webkit.messageHandlers.NAME as it does
// on phones; navigation decisions come from "decide-policy" (a new-window action is the one
// without a target frame); provisional failures of the network carry the URL-loading domain
// and its codes. Main thread only.
class GtkWebView final : public platform::WebView, public std::enable_shared_from_this<GtkWebView> {
public:
    GtkWebView(platform::Rect frame, const platform::WebViewConfiguration& configuration);
    ~GtkWebView() override;
    GtkWebView(const GtkWebView&) = delete;
    GtkWebView& operator=(const GtkWebView&) = delete;

    std::shared_ptr<platform::View> view() override;
    platform::Point center() const override;
    void load(const platform::URLRequest& request) override;
    void stopLoading() override;
    void evaluateJavaScript(const std::string& script,
                            std::function<void(std::optional<Json>, std::optional<Error>)> completion) override;
    void setNavigationDelegate(std::weak_ptr<platform::NavigationDelegate> delegate) override;
    void setUIDelegate(std::weak_ptr<void> delegate) override;
    std::optional<std::string> serverTrust() const override;

    WebKitWebView* webKitView() const { return webView_; }

    // The signal handlers' way back in.
    void scriptMessage(const std::string& name, Json body);
    bool decidePolicy(void* decision, int type);
    void loadChanged(int event);
    void loadFailed(int event, const void* error);
    void tlsFailed() { tlsFailed_ = true; }

private:
    void cancelTimer();

    WebKitWebView* webView_ = nullptr;
    WebKitUserContentManager* contentManager_ = nullptr;
    std::shared_ptr<WidgetView> view_;
    std::map<std::string, std::weak_ptr<platform::ScriptMessageHandler>> handlers_;
    std::vector<unsigned long> managerSignals_;
    std::weak_ptr<platform::NavigationDelegate> delegate_;
    std::weak_ptr<void> uiDelegate_;
    unsigned timer_ = 0;
    bool timedOut_ = false;
    bool failed_ = false;
    bool tlsFailed_ = false;
};

// The web views' store: the default network session's website data and cookies. Main thread
// only.
class GtkWebViewSystem final : public platform::WebViewSystem {
public:
    std::shared_ptr<platform::WebView> makeWebView(platform::Rect frame,
                                                   const platform::WebViewConfiguration& configuration) override;
    void fetchDataRecords(std::function<void(std::vector<platform::WebsiteDataRecord>)> completion) override;
    void removeData(const std::vector<std::string>& dataTypes, const platform::WebsiteDataRecord& record,
                    std::function<void()> completion) override;
    void removeCookies(std::chrono::system_clock::time_point since) override;
};

// The error a failed load reports, from a GError of WebKit's loader.
Error loadError(const void* gerror, bool timedOut, bool tlsFailed);

}  // namespace kelvane::gtk
