#include "flow/WebViewController.hpp"

#include <kelvane/Fatal.hpp>
#include <kelvane/Log.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/platform/ViewSystem.hpp>

#include "flow/Events.hpp"
#include "services/EncryptService.hpp"
#include "support/Ports.hpp"

namespace kelvane {

std::shared_ptr<WebSocketService::Connection> WebSocketService::socketManager;

WebViewController::WebViewController()
    : loadingIndicator(ports::viewSystem()->makeActivityIndicator(platform::ActivityIndicatorStyle::medium)) {}

void WebViewController::connectOutlet(std::string_view name, const std::shared_ptr<platform::View>& view) {
    if (name == "appWeb") appWeb = view;
}

void WebViewController::viewDidLoad() {
    std::weak_ptr<WebViewController> weakSelf =
        std::static_pointer_cast<WebViewController>(shared_from_this());
    cancellable_ = CustomSchemeSingleton::shared().streamPublisher().first([weakSelf](const std::string& url) {
        if (auto self = weakSelf.lock()) self->loadURL(url);
    });
}

void WebViewController::viewWillAppear(bool) {
    auto configuration = configureWebView();
    webView = createWebView(configuration);
    setupWebView();
    auto container = appWeb.lock();
    forceUnwrap(container, kImplicitUnwrapNil).addSubview(webView->view());
}

void WebViewController::viewDidAppear(bool) {
    isModalInPresentation = true;
    webView->setUIDelegate(weak_from_this());
    newWebViewNew();
}

platform::WebViewConfiguration WebViewController::configureWebView() {
    platform::WebViewConfiguration configuration;
    configuration.allowsInlineMediaPlayback = true;
    configuration.allowsAirPlayForMediaPlayback = true;
    configuration.allowsPictureInPictureMediaPlayback = true;
    std::weak_ptr<WebViewController> handler = std::static_pointer_cast<WebViewController>(shared_from_this());
    for (Events event : allValues()) configuration.userContentController.add(handler, std::string(eventName(event)));
    configuration.mediaTypesRequiringUserActionForPlayback = platform::WebViewConfiguration::none;
    return configuration;
}

std::shared_ptr<platform::WebView> WebViewController::createWebView(
    const platform::WebViewConfiguration& configuration) {
    return ports::webViews()->makeWebView(view()->bounds(), configuration);
}

void WebViewController::setupWebView() {
    loadingIndicator->setCenter(webView->center());
    loadingIndicator->setHidesWhenStopped(true);
    loadingIndicator->setColor(platform::Color::black());
    webView->view()->addSubview(loadingIndicator);
}

void WebViewController::loadURL(const std::string& url) {
    auto parsed = URL::make(url);
    if (!parsed) {
        logLine("Invalid URL: " + url);
        return;
    }
    if (!webView) {
        logLine("Error: webView is nil");
        return;
    }
    webView->load(platform::URLRequest{*parsed});
}

void WebViewController::stopListening() {
    if (cancellable_) cancellable_->cancel();
}

void WebViewController::closeWithError(Status status, bool thenStopListening) {
    auto& delegate = forceUnwrap(kelvaneService, kImplicitUnwrapNil);
    customDismiss(CloseReason::TranscationCompleted, kelvaneService);
    delegate.onError(std::string(errorName(status)));
    if (thenStopListening) stopListening();
}

void WebViewController::newWebViewNew() {
    KELVANE_ASSERT_ON_QUEUE(*Queue::main());
    loadingIndicator->startAnimating();
    if (!payload) {
        closeWithError(Status::InvalidPayload, true);
        return;
    }
    auto isEncrypted = json::getInt(*payload, "isEncrypted");
    if (!isEncrypted) {
        closeWithError(Status::MissingEncryptionKey, false);
        return;
    }
    if (*isEncrypted != 0) {
        handleEncryptedData(*payload, kelvaneService, encryptionKey);
        return;
    }
    const Json* transaction = json::getObject(*payload, "data");
    if (!transaction) {
        closeWithError(Status::MissingEncryptionKey, false);
        return;
    }
    extractTransaction(*transaction);
}

void WebViewController::handleEncryptedData(const Json& encrypted, const std::shared_ptr<KelvaneService>&,
                                            const std::optional<std::string>& key) {
    // Failures go to the field, not to the argument; on this road both are the same object.
    if (!key) {
        closeWithError(Status::MissingEncryptionKey, true);
        return;
    }
    std::optional<Json> transaction;
    if (auto data = json::getString(encrypted, "data")) {
        if (auto plain = EncryptService().decryptPushWithAes(*key, *data)) {
            transaction = json::parse(*plain);
        }
    }
    if (!transaction || !transaction->is_object()) {
        closeWithError(Status::MissingEncryptionKey, false);
        return;
    }
    extractTransaction(*transaction);
}

void WebViewController::extractTransaction(const Json& transaction) {
    // Ends without a word leave the flow on screen with its indicator running.
    auto action = json::getString(transaction, "action");
    if (!action) return;
    const Json* socket = json::getObject(transaction, "socket");
    if (!socket) return;
    auto url = json::getString(*socket, "url");
    auto requestId = json::getString(*socket, "requestId");
    if (!url) return;
    socketData = SocketData{*url, forceUnwrap(requestId)};
    newLoadWebView(*action);
}

void WebViewController::newLoadWebView(const std::string& url) {
    // A page address that is no URL stops here.
    forceUnwrap(URL::make(url));
    // Building the request, connecting the status socket, reporting the start and loading
    // the page follow here once the session socket exists.
}

void WebViewController::customDismiss(CloseReason resultModel, const std::shared_ptr<KelvaneService>& delegate) {
    KELVANE_ASSERT_ON_QUEUE(*Queue::main());
    forceUnwrap(delegate, kImplicitUnwrapNil).onClosed(std::string(errorName(resultModel)));
    forceUnwrap(webView, kImplicitUnwrapNil).stopLoading();
    auto scenes = ports::viewSystem()->connectedScenes();
    if (!scenes.empty() && scenes.front()->isWindowScene()) {
        auto windows = scenes.front()->windows();
        if (!windows.empty()) {
            if (auto root = windows.front()->rootViewController()) {
                root->dismiss(true);
                return;
            }
        }
    }
    dismiss(true);
}

void WebViewController::userContentController(const platform::ScriptMessage& message) {
    logLine("Message name from : " + message.name);
    logLine("Message body from : " + json::dump(message.body));
    if (message.name == eventName(Events::success)) {
        customDismiss(CloseReason::TranscationCompleted, kelvaneService);
    }
}

void WebSocketService::dispose() {
    if (auto connection = std::exchange(socketManager, nullptr)) connection->disconnect();
}

}  // namespace kelvane
