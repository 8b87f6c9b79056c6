#include "GtkWebView.hpp"

#include "GtkViews.hpp"
#include "MainContextQueue.hpp"

#include <kelvane/Log.hpp>

#include <webkit/webkit.h>

#include <atomic>
#include <cmath>

namespace kelvane::gtk {

namespace {

using platform::kURLErrorDomain;

Error urlError(int code, const char* message) { return Error{kURLErrorDomain, code, message}; }

// The names the library gives website data types.
constexpr std::pair<WebKitWebsiteDataTypes, const char*> kDataTypes[] = {
    {WEBKIT_WEBSITE_DATA_MEMORY_CACHE, "WKWebsiteDataTypeMemoryCache"},
    {WEBKIT_WEBSITE_DATA_DISK_CACHE, "WKWebsiteDataTypeDiskCache"},
    {WEBKIT_WEBSITE_DATA_OFFLINE_APPLICATION_CACHE, "WKWebsiteDataTypeOfflineWebApplicationCache"},
    {WEBKIT_WEBSITE_DATA_SESSION_STORAGE, "WKWebsiteDataTypeSessionStorage"},
    {WEBKIT_WEBSITE_DATA_LOCAL_STORAGE, "WKWebsiteDataTypeLocalStorage"},
    {WEBKIT_WEBSITE_DATA_INDEXEDDB_DATABASES, "WKWebsiteDataTypeIndexedDBDatabases"},
    {WEBKIT_WEBSITE_DATA_COOKIES, "WKWebsiteDataTypeCookies"},
    {WEBKIT_WEBSITE_DATA_DEVICE_ID_HASH_SALT, "_WKWebsiteDataTypeDeviceIdHashSalt"},
    {WEBKIT_WEBSITE_DATA_HSTS_CACHE, "_WKWebsiteDataTypeHSTSCache"},
    {WEBKIT_WEBSITE_DATA_ITP, "_WKWebsiteDataTypeResourceLoadStatistics"},
    {WEBKIT_WEBSITE_DATA_SERVICE_WORKER_REGISTRATIONS, "WKWebsiteDataTypeServiceWorkerRegistrations"},
    {WEBKIT_WEBSITE_DATA_DOM_CACHE, "WKWebsiteDataTypeFetchCache"},
};

std::vector<std::string> typeNames(unsigned types) {
    std::vector<std::string> names;
    for (auto [type, name] : kDataTypes) {
        if (types & type) names.emplace_back(name);
    }
    return names;
}

unsigned typeMask(const std::vector<std::string>& names) {
    unsigned mask = 0;
    for (const auto& wanted : names) {
        for (auto [type, name] : kDataTypes) {
            if (wanted == name) mask |= type;
        }
    }
    return mask;
}

WebKitWebsiteDataManager* dataManager() {
    return webkit_network_session_get_website_data_manager(webkit_network_session_get_default());
}

// Called exactly once: the first answer decides, on the main thread, whatever thread gave it.
class PendingDecision {
public:
    explicit PendingDecision(WebKitPolicyDecision* decision) : decision_(WEBKIT_POLICY_DECISION(g_object_ref(decision))) {}
    ~PendingDecision() { releaseOnMain(decision_); }

    void decide(platform::NavigationActionPolicy policy) {
        if (decided_.exchange(true)) return;
        auto* decision = WEBKIT_POLICY_DECISION(g_object_ref(decision_));
        onMainThread([decision, policy] {
            if (policy == platform::NavigationActionPolicy::allow) {
                webkit_policy_decision_use(decision);
            } else {
                webkit_policy_decision_ignore(decision);
            }
            g_object_unref(decision);
        });
    }

private:
    WebKitPolicyDecision* decision_;
    std::atomic<bool> decided_{false};
};

struct HandlerBinding {
    GtkWebView* webView;
    std::string name;
};

void onScriptMessage(WebKitUserContentManager*, JSCValue* value, gpointer data) {
    auto* binding = static_cast<HandlerBinding*>(data);
    Json body;
    if (value && !jsc_value_is_undefined(value)) {
        if (char* json = jsc_value_to_json(value, 0)) {
            body = Json::parse(json, nullptr, false);
            if (body.is_discarded()) body = nullptr;
            g_free(json);
        }
    }
    binding->webView->scriptMessage(binding->name, std::move(body));
}

gboolean onDecidePolicy(WebKitWebView*, WebKitPolicyDecision* decision, WebKitPolicyDecisionType type, gpointer self) {
    return static_cast<GtkWebView*>(self)->decidePolicy(decision, type) ? TRUE : FALSE;
}

void onLoadChanged(WebKitWebView*, WebKitLoadEvent event, gpointer self) {
    static_cast<GtkWebView*>(self)->loadChanged(event);
}

gboolean onLoadFailed(WebKitWebView*, WebKitLoadEvent event, gchar*, GError* error, gpointer self) {
    static_cast<GtkWebView*>(self)->loadFailed(event, error);
    // No error page of the toolkit's own: a failed load leaves the view as it was.
    return TRUE;
}

gboolean onTlsFailed(WebKitWebView*, gchar*, GTlsCertificate*, GTlsCertificateFlags, gpointer self) {
    static_cast<GtkWebView*>(self)->tlsFailed();
    // "load-failed" follows and reports it.
    return FALSE;
}

}  // namespace

Error loadError(const void* gerror, bool timedOut, bool tlsFailed) {
    const auto* error = static_cast<const GError*>(gerror);
    if (tlsFailed) return urlError(-1202, "The certificate for this server is invalid.");
    if (!error) return urlError(-1, "unknown error");
    if (error->domain == WEBKIT_NETWORK_ERROR) {
        switch (error->code) {
            case WEBKIT_NETWORK_ERROR_CANCELLED:
                return timedOut ? urlError(platform::urlErrorTimedOut, "The request timed out.")
                                : urlError(platform::urlErrorCancelled, "cancelled");
            case WEBKIT_NETWORK_ERROR_UNKNOWN_PROTOCOL:
                return urlError(-1002, "unsupported URL");
            case WEBKIT_NETWORK_ERROR_FILE_DOES_NOT_EXIST:
                return urlError(-1100, "The requested URL was not found on this server.");
            default:
                return urlError(-1005, "The network connection was lost.");
        }
    }
    if (error->domain == G_IO_ERROR) {
        switch (error->code) {
            case G_IO_ERROR_CONNECTION_REFUSED:
            case G_IO_ERROR_HOST_UNREACHABLE:
                return urlError(platform::urlErrorCannotConnectToHost, "Could not connect to the server.");
            case G_IO_ERROR_TIMED_OUT:
                return urlError(platform::urlErrorTimedOut, "The request timed out.");
            case G_IO_ERROR_CANCELLED:
                return timedOut ? urlError(platform::urlErrorTimedOut, "The request timed out.")
                                : urlError(platform::urlErrorCancelled, "cancelled");
            case G_IO_ERROR_NETWORK_UNREACHABLE:
                return urlError(platform::urlErrorNotConnectedToInternet,
                                "The Internet connection appears to be offline.");
            case G_IO_ERROR_HOST_NOT_FOUND:
                return urlError(platform::urlErrorCannotFindHost,
                                "A server with the specified hostname could not be found.");
            default:
                return urlError(-1005, "The network connection was lost.");
        }
    }
    if (error->domain == G_RESOLVER_ERROR) {
        return urlError(platform::urlErrorCannotFindHost, "A server with the specified hostname could not be found.");
    }
    if (error->domain == G_TLS_ERROR) return urlError(-1200, "An SSL error has occurred and a secure connection to the server cannot be made.");
    // Policy errors share their numbers with the phones' WebKit domain.
    if (error->domain == WEBKIT_POLICY_ERROR) return Error{"WebKitErrorDomain", error->code, error->message};
    return Error{g_quark_to_string(error->domain), error->code, error->message ? error->message : ""};
}

GtkWebView::GtkWebView(platform::Rect frame, const platform::WebViewConfiguration& configuration) {
    contentManager_ = webkit_user_content_manager_new();
    WebKitSettings* settings = webkit_settings_new();
    webkit_settings_set_media_playback_allows_inline(settings, configuration.allowsInlineMediaPlayback);
    webkit_settings_set_media_playback_requires_user_gesture(
        settings, configuration.mediaTypesRequiringUserActionForPlayback != platform::WebViewConfiguration::none);
    webView_ = WEBKIT_WEB_VIEW(g_object_ref_sink(g_object_new(WEBKIT_TYPE_WEB_VIEW, "user-content-manager",
                                                              contentManager_, "settings", settings,
                                                              "network-session", webkit_network_session_get_default(),
                                                              nullptr)));
    g_object_unref(settings);
    gtk_widget_set_hexpand(GTK_WIDGET(webView_), TRUE);
    gtk_widget_set_vexpand(GTK_WIDGET(webView_), TRUE);

    for (const auto& [name, handler] : configuration.userContentController.handlers) {
        // A name registered twice keeps its first handler, as the toolkit refuses the second.
        if (handlers_.count(name) ||
            !webkit_user_content_manager_register_script_message_handler(contentManager_, name.c_str(), nullptr)) {
            continue;
        }
        handlers_[name] = handler;
        std::string signal = "script-message-received::" + name;
        managerSignals_.push_back(g_signal_connect_data(
            contentManager_, signal.c_str(), G_CALLBACK(onScriptMessage), new HandlerBinding{this, name},
            [](gpointer data, GClosure*) { delete static_cast<HandlerBinding*>(data); }, GConnectFlags(0)));
    }
    g_signal_connect(webView_, "decide-policy", G_CALLBACK(onDecidePolicy), this);
    g_signal_connect(webView_, "load-changed", G_CALLBACK(onLoadChanged), this);
    g_signal_connect(webView_, "load-failed", G_CALLBACK(onLoadFailed), this);
    g_signal_connect(webView_, "load-failed-with-tls-errors", G_CALLBACK(onTlsFailed), this);
    view_ = std::make_shared<WidgetView>(GTK_WIDGET(webView_), frame);
}

GtkWebView::~GtkWebView() {
    cancelTimer();
    for (auto id : managerSignals_) g_signal_handler_disconnect(contentManager_, id);
    g_signal_handlers_disconnect_by_data(webView_, this);
    releaseOnMain(contentManager_);
    releaseOnMain(webView_);
}

std::shared_ptr<platform::View> GtkWebView::view() { return view_; }

platform::Point GtkWebView::center() const { return view_->center(); }

void GtkWebView::load(const platform::URLRequest& request) {
    cancelTimer();
    timedOut_ = false;
    WebKitURIRequest* uriRequest = webkit_uri_request_new(request.url.absoluteString().c_str());
    if (request.cachePolicy == platform::URLRequest::CachePolicy::reloadIgnoringLocalCacheData) {
        if (SoupMessageHeaders* headers = webkit_uri_request_get_http_headers(uriRequest)) {
            soup_message_headers_replace(headers, "Cache-Control", "no-cache");
        }
    }
    webkit_web_view_load_request(webView_, uriRequest);
    g_object_unref(uriRequest);
    // The toolkit has no time-out of its own: a load not committed in time is stopped and
    // reported as timed out.
    if (request.timeoutInterval > 0) {
        auto milliseconds = static_cast<guint>(std::min(std::ceil(request.timeoutInterval * 1000), 4.0e9));
        timer_ = g_timeout_add(milliseconds, +[](gpointer data) -> gboolean {
            auto* self = static_cast<GtkWebView*>(data);
            self->timer_ = 0;
            self->timedOut_ = true;
            webkit_web_view_stop_loading(self->webView_);
            return G_SOURCE_REMOVE;
        }, this);
    }
}

void GtkWebView::cancelTimer() {
    if (timer_) g_source_remove(timer_);
    timer_ = 0;
}

void GtkWebView::stopLoading() {
    cancelTimer();
    webkit_web_view_stop_loading(webView_);
}

void GtkWebView::evaluateJavaScript(const std::string& script,
                                    std::function<void(std::optional<Json>, std::optional<Error>)> completion) {
    using Completion = std::function<void(std::optional<Json>, std::optional<Error>)>;
    webkit_web_view_evaluate_javascript(
        webView_, script.data(), static_cast<gssize>(script.size()), nullptr, nullptr, nullptr,
        +[](GObject* source, GAsyncResult* result, gpointer data) {
            std::unique_ptr<Completion> done(static_cast<Completion*>(data));
            GError* error = nullptr;
            JSCValue* value = webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(source), result, &error);
            std::optional<Json> answer;
            std::optional<Error> failure;
            if (error) {
                if (error->domain == WEBKIT_JAVASCRIPT_ERROR && error->code == WEBKIT_JAVASCRIPT_ERROR_SCRIPT_FAILED) {
                    failure = Error{"WKErrorDomain", 4, std::string("A JavaScript exception occurred: ") + error->message};
                } else if (error->domain == WEBKIT_JAVASCRIPT_ERROR &&
                           error->code == WEBKIT_JAVASCRIPT_ERROR_INVALID_RESULT) {
                    failure = Error{"WKErrorDomain", 5, "JavaScript execution returned a result of an unsupported type"};
                } else {
                    failure = Error{g_quark_to_string(error->domain), error->code, error->message};
                }
                g_error_free(error);
            } else if (value && !jsc_value_is_undefined(value)) {
                char* json = jsc_value_to_json(value, 0);
                Json parsed = json ? Json::parse(json, nullptr, false) : Json(Json::value_t::discarded);
                g_free(json);
                if (parsed.is_discarded()) {
                    failure = Error{"WKErrorDomain", 5, "JavaScript execution returned a result of an unsupported type"};
                } else {
                    answer = std::move(parsed);
                }
            }
            if (value) g_object_unref(value);
            if (*done) (*done)(std::move(answer), std::move(failure));
        },
        new Completion(std::move(completion)));
}

void GtkWebView::setNavigationDelegate(std::weak_ptr<platform::NavigationDelegate> delegate) {
    delegate_ = std::move(delegate);
}

void GtkWebView::setUIDelegate(std::weak_ptr<void> delegate) { uiDelegate_ = std::move(delegate); }

std::optional<std::string> GtkWebView::serverTrust() const {
    GTlsCertificate* certificate = nullptr;
    GTlsCertificateFlags errors = GTlsCertificateFlags(0);
    if (!webkit_web_view_get_tls_info(webView_, &certificate, &errors) || !certificate) return std::nullopt;
    gchar* subject = g_tls_certificate_get_subject_name(certificate);
    gchar* issuer = g_tls_certificate_get_issuer_name(certificate);
    std::string text = std::string("<GTlsCertificate subject=\"") + (subject ? subject : "") + "\" issuer=\"" +
                       (issuer ? issuer : "") + "\" errors=" + std::to_string(static_cast<unsigned>(errors)) + ">";
    g_free(subject);
    g_free(issuer);
    return text;
}

void GtkWebView::scriptMessage(const std::string& name, Json body) {
    auto found = handlers_.find(name);
    if (found == handlers_.end()) return;
    if (auto handler = found->second.lock()) handler->userContentController({name, std::move(body)});
}

bool GtkWebView::decidePolicy(void* decisionObject, int type) {
    if (type == WEBKIT_POLICY_DECISION_TYPE_RESPONSE) return false;
    auto delegate = delegate_.lock();
    if (!delegate) return false;
    auto* decision = WEBKIT_NAVIGATION_POLICY_DECISION(decisionObject);
    WebKitNavigationAction* action = webkit_navigation_policy_decision_get_navigation_action(decision);
    const char* uri = webkit_uri_request_get_uri(webkit_navigation_action_get_request(action));
    platform::NavigationAction navigation;
    if (uri && *uri) navigation.url = URL::make(uri);
    navigation.hasTargetFrame = type != WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION;
    auto pending = std::make_shared<PendingDecision>(WEBKIT_POLICY_DECISION(decision));
    auto self = shared_from_this();
    delegate->decidePolicy(*this, navigation,
                           [pending](platform::NavigationActionPolicy policy) { pending->decide(policy); });
    return true;
}

void GtkWebView::loadChanged(int event) {
    auto self = shared_from_this();
    auto delegate = delegate_.lock();
    switch (event) {
        case WEBKIT_LOAD_STARTED:
            failed_ = false;
            tlsFailed_ = false;
            if (delegate) delegate->didStartProvisionalNavigation(*this);
            break;
        case WEBKIT_LOAD_REDIRECTED:
            if (delegate) delegate->didReceiveServerRedirectForProvisionalNavigation(*this);
            break;
        case WEBKIT_LOAD_COMMITTED:
            cancelTimer();
            break;
        case WEBKIT_LOAD_FINISHED:
            cancelTimer();
            // A failed load is followed by "finished"; the failure has already been told.
            if (!failed_ && delegate) delegate->didFinishNavigation(*this);
            break;
        default:
            break;
    }
}

void GtkWebView::loadFailed(int event, const void* error) {
    auto self = shared_from_this();
    cancelTimer();
    failed_ = true;
    Error failure = loadError(error, timedOut_, tlsFailed_);
    timedOut_ = false;
    tlsFailed_ = false;
    auto delegate = delegate_.lock();
    if (!delegate) return;
    if (event == WEBKIT_LOAD_COMMITTED) {
        delegate->didFailNavigation(*this, failure);
    } else {
        delegate->didFailProvisionalNavigation(*this, failure);
    }
}

std::shared_ptr<platform::WebView> GtkWebViewSystem::makeWebView(platform::Rect frame,
                                                                 const platform::WebViewConfiguration& configuration) {
    return std::make_shared<GtkWebView>(frame, configuration);
}

void GtkWebViewSystem::fetchDataRecords(std::function<void(std::vector<platform::WebsiteDataRecord>)> completion) {
    using Completion = std::function<void(std::vector<platform::WebsiteDataRecord>)>;
    webkit_website_data_manager_fetch(
        dataManager(), WEBKIT_WEBSITE_DATA_ALL, nullptr,
        +[](GObject* source, GAsyncResult* result, gpointer data) {
            std::unique_ptr<Completion> done(static_cast<Completion*>(data));
            GList* list = webkit_website_data_manager_fetch_finish(WEBKIT_WEBSITE_DATA_MANAGER(source), result, nullptr);
            std::vector<platform::WebsiteDataRecord> records;
            for (GList* item = list; item; item = item->next) {
                auto* record = static_cast<WebKitWebsiteData*>(item->data);
                records.push_back({webkit_website_data_get_name(record),
                                   typeNames(webkit_website_data_get_types(record))});
            }
            g_list_free_full(list, reinterpret_cast<GDestroyNotify>(webkit_website_data_unref));
            if (*done) (*done)(std::move(records));
        },
        new Completion(std::move(completion)));
}

void GtkWebViewSystem::removeData(const std::vector<std::string>& dataTypes, const platform::WebsiteDataRecord& record,
                                  std::function<void()> completion) {
    // The toolkit removes by its own record objects, so the record is looked up again by name.
    struct Removal {
        unsigned types;
        std::string name;
        std::function<void()> completion;
    };
    webkit_website_data_manager_fetch(
        dataManager(), WebKitWebsiteDataTypes(typeMask(dataTypes)), nullptr,
        +[](GObject* source, GAsyncResult* result, gpointer data) {
            auto* removal = static_cast<Removal*>(data);
            auto* manager = WEBKIT_WEBSITE_DATA_MANAGER(source);
            GList* list = webkit_website_data_manager_fetch_finish(manager, result, nullptr);
            GList* matching = nullptr;
            for (GList* item = list; item; item = item->next) {
                auto* record = static_cast<WebKitWebsiteData*>(item->data);
                if (removal->name == webkit_website_data_get_name(record)) matching = g_list_prepend(matching, record);
            }
            auto finish = +[](GObject* manager, GAsyncResult* result, gpointer data) {
                std::unique_ptr<Removal> done(static_cast<Removal*>(data));
                if (manager) webkit_website_data_manager_remove_finish(WEBKIT_WEBSITE_DATA_MANAGER(manager), result, nullptr);
                if (done->completion) done->completion();
            };
            if (matching && removal->types) {
                webkit_website_data_manager_remove(manager, WebKitWebsiteDataTypes(removal->types), matching, nullptr,
                                                   finish, removal);
            } else {
                finish(nullptr, nullptr, removal);
            }
            g_list_free(matching);
            g_list_free_full(list, reinterpret_cast<GDestroyNotify>(webkit_website_data_unref));
        },
        new Removal{typeMask(dataTypes), record.displayName, std::move(completion)});
}

void GtkWebViewSystem::removeCookies(std::chrono::system_clock::time_point since) {
    GTimeSpan span = 0;  // everything
    if (since != std::chrono::system_clock::time_point::min()) {
        auto age = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now() - since);
        span = std::max<GTimeSpan>(1, age.count());
    }
    webkit_website_data_manager_clear(
        dataManager(), WEBKIT_WEBSITE_DATA_COOKIES, span, nullptr,
        +[](GObject* source, GAsyncResult* result, gpointer) {
            webkit_website_data_manager_clear_finish(WEBKIT_WEBSITE_DATA_MANAGER(source), result, nullptr);
        },
        nullptr);
}

}  // namespace kelvane::gtk
