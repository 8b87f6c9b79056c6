#include "flow/WebViewController.hpp"

#include <kelvane/Log.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/AlertController.hpp>
#include <kelvane/platform/ViewSystem.hpp>

#include "backend/ApiService.hpp"
#include "backend/WebSocketService.hpp"
#include "flow/FileDownloadService.hpp"
#include "services/DeviceDetails.hpp"
#include "services/EncryptService.hpp"
#include "support/Fatal.hpp"
#include "support/Ports.hpp"

#include <cstdio>

namespace kelvane {

namespace {
constexpr double kPageTimeout = 60.0;

platform::URLRequest pageRequest(URL url) {
    return {std::move(url), platform::URLRequest::CachePolicy::useProtocolCachePolicy, kPageTimeout};
}
}  // namespace

WebViewController::WebViewController()
    : loadingIndicator(ports::viewSystem()->makeActivityIndicator(platform::ActivityIndicatorStyle::medium)),
      locationManager(ports::location()->makeManager()) {}

void WebViewController::connectOutlet(std::string_view name, const std::shared_ptr<platform::View>& view) {
    if (name == "appWeb") appWeb = view;
}

std::shared_ptr<WebViewController> WebViewController::shared() {
    return std::static_pointer_cast<WebViewController>(shared_from_this());
}

void WebViewController::performAction(std::string_view name) {
    if (name == "exit") exit();
}

void WebViewController::viewDidLoad() {
    std::weak_ptr<WebViewController> weakSelf = shared();
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
    webView->setNavigationDelegate(shared());
    newWebViewNew();
}

platform::WebViewConfiguration WebViewController::configureWebView() {
    platform::WebViewConfiguration configuration;
    configuration.allowsInlineMediaPlayback = true;
    configuration.allowsAirPlayForMediaPlayback = true;
    configuration.allowsPictureInPictureMediaPlayback = true;
    std::weak_ptr<WebViewController> handler = shared();
    for (Events event : allValues()) configuration.userContentController.add(handler, std::string(eventName(event)));
    configuration.mediaTypesRequiringUserActionForPlayback = platform::WebViewConfiguration::none;
    return configuration;
}

std::shared_ptr<platform::WebView> WebViewController::createWebView(
    const platform::WebViewConfiguration& configuration) {
    auto made = ports::webViews()->makeWebView(view()->bounds(), configuration);
    made->setNavigationDelegate(shared());
    return made;
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
    webView->load(pageRequest(*parsed));
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
    auto request = pageRequest(forceUnwrap(URL::make(url)));
    auto self = shared();
    std::make_shared<WebSocketService>()
        ->tryConnect(forceUnwrap(socketData), kelvaneService)
        .then([self, request](bool connected) {
            self->loadingIndicator->stopAnimating();
            if (!connected) {
                self->closeWithError(Status::WebSocketConnectionFailed, true);
                return;
            }
            // The page waits for the report to end, whatever its outcome.
            self->reportStatus(ConnectionStatus::started, [self, request](bool) {
                Queue::main()->async([self, request] {
                    forceUnwrap(self->webView, kImplicitUnwrapNil).load(request);
                    self->cleanAllCookies();
                });
            });
        });
}

void WebViewController::cleanAllCookies() {
    auto store = ports::webViews();
    store->removeCookies(std::chrono::system_clock::time_point::min());
    logLine("All cookies deleted");
    store->fetchDataRecords([store](std::vector<platform::WebsiteDataRecord> records) {
        for (const auto& record : records) {
            store->removeData(record.dataTypes, record, [] {});
            logLine("Cookie ::: " + record.displayName + " deleted");
        }
    });
}

void WebViewController::exit() {
    auto self = shared();
    AlertDialogController::showAlert(*this, [self] {
        self->reportStatus(ConnectionStatus::userClosed, [](bool) {});
        self->customDismiss(CloseReason::ByUser, self->kelvaneService);
        self->stopListening();
    });
}

void WebViewController::reportStatus(ConnectionStatus status, std::function<void(bool)> completion) const {
    std::optional<std::string> url, requestId;
    if (socketData) {
        url = socketData->url;
        requestId = socketData->requestId;
    }
    ApiService().sendConnectionStatus(status, url, requestId, std::move(completion));
}

void AlertDialogController::showAlert(ViewController& controller, std::function<void()> completionHandler) {
    auto alert = std::make_shared<AlertController>("Cancel Transaction", "Do you wish to cancel current transaction",
                                                   AlertController::Style::alert);
    alert->addAction({"OK", AlertController::ActionStyle::defaultStyle, [completionHandler] {
                          if (completionHandler) completionHandler();
                      }});
    alert->addAction({"CANCEL", AlertController::ActionStyle::defaultStyle, {}});
    controller.present(alert, true);
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
    auto event = eventNamed(message.name);
    if (!event) return;
    switch (*event) {
        case Events::success:
            customDismiss(CloseReason::TranscationCompleted, kelvaneService);
            return;
        case Events::failure:
            pageFailed();
            return;
        case Events::getFcmToken:
            forceUnwrap(kelvaneService, kImplicitUnwrapNil);
            break;
        case Events::isCustomSchemeRegisteredOnApp:
            logLine("***************** Event customme scheme register started on app *******************");
            break;
        default:
            break;
    }
    runService(*event, message);
}

void WebViewController::runService(Events event, const platform::ScriptMessage& message) {
    if (!runDeviceService(event, message)) runCeremony(event, message);
}

void WebViewController::pageFailed() {
    WebSocketService().dispose();
    reportStatus(ConnectionStatus::userClosed, [](bool) {});
    customDismiss(CloseReason::TranscationCompleted, kelvaneService);
}

void WebViewController::sendData(const std::string& data) {
    auto self = shared();
    Queue::main()->async([self, data] {
        logLine("send data -> " + data);
        forceUnwrap(self->webView, kImplicitUnwrapNil)
            .evaluateJavaScript(data, [](std::optional<Json> result, std::optional<Error> error) {
                logLine("result executing JavaScript: " + (result ? json::dump(*result) : std::string("nil")));
                logLine(error ? "Error executing JavaScript: " + error->text()
                              : std::string("JavaScript executed successfully"));
            });
    });
}

void WebViewController::decidePolicy(platform::WebView&, const platform::NavigationAction& action,
                                     std::function<void(platform::NavigationActionPolicy)> decisionHandler) {
    auto self = shared();
    Queue::main()->async([self, action, decisionHandler = std::move(decisionHandler)] {
        self->decide(action, decisionHandler);
    });
}

void WebViewController::decide(const platform::NavigationAction& action,
                               const std::function<void(platform::NavigationActionPolicy)>& decisionHandler) {
    using Policy = platform::NavigationActionPolicy;
    auto opener = ports::urlOpener();
    if (action.url) {
        if (auto model = customSchemeService.preprocessUri(action.url)) {
            logLine("custom url is called " + action.url->absoluteString());
            if (opener->canOpenURL(model->appToAppUri)) {
                opener->open(model->appToAppUri, [decisionHandler](bool opened) {
                    decisionHandler(opened ? Policy::cancel : Policy::allow);
                });
                return;
            }
        }
    }
    if (action.hasTargetFrame) {
        decisionHandler(Policy::allow);
    } else if (action.url) {
        // A new window leaves for the system, whatever its scheme.
        opener->open(*action.url, {});
        decisionHandler(Policy::cancel);
    } else {
        decisionHandler(Policy::allow);
    }
}

void WebViewController::didStartProvisionalNavigation(platform::WebView& view) {
    logLine("-----------New web View open-----------------");
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<void*>(&view));
    logLine(std::string("<WebView: ") + address + ">");
    loadingIndicator->startAnimating();
}

void WebViewController::didFinishNavigation(platform::WebView&) { loadingIndicator->stopAnimating(); }

void WebViewController::didFailNavigation(platform::WebView&, const Error&) { loadingIndicator->stopAnimating(); }

void WebViewController::didFailProvisionalNavigation(platform::WebView&, const Error& error) {
    logLine("NsError : " + error.text());
    // Other domains leave the flow as it stands, indicator running.
    if (error.domain != platform::kURLErrorDomain) return;
    forceUnwrap(kelvaneService, kImplicitUnwrapNil).onError(std::string(errorName(Status::ConnectionError)));
    customDismiss(CloseReason::TranscationCompleted, kelvaneService);
    stopListening();
}

void WebViewController::didReceiveServerRedirectForProvisionalNavigation(platform::WebView& view) {
    if (auto trust = view.serverTrust()) logLine("Server Trust : " + *trust);
}

bool WebViewController::isDownloadURL(const URL& url) const { return kelvane::isDownloadURL(url); }

void WebViewController::readDeviceDetails() {
    locationManager->setDelegate(shared());
    followAuthorization(locationManager->authorizationStatus(),
                        [this] { locationManager->requestWhenInUseAuthorization(); });
}

void WebViewController::didChangeAuthorization(platform::LocationAuthorizationStatus status) {
    followAuthorization(static_cast<int>(status), [] { logLine("determined"); });
}

void WebViewController::followAuthorization(int status, const std::function<void()>& onUndetermined) {
    using Status = platform::LocationAuthorizationStatus;
    switch (static_cast<Status>(status)) {
        case Status::notDetermined: onUndetermined(); return;
        case Status::restricted:
        case Status::denied: showPermissionDeniedAlert(); return;
        case Status::authorizedAlways:
        case Status::authorizedWhenInUse: locationManager->startUpdatingLocation(); return;
    }
    fatalStop("Unhandled authorization status.");
}

void WebViewController::didUpdateLocations(const std::vector<platform::Coordinate>& locations) {
    logLine("Location manager is CL Location");
    locationManager->stopUpdatingLocation();
    if (locations.empty()) {
        sendDeviceDetails(false, "Unable to get location", std::nullopt);
    } else {
        sendDeviceDetails(true, "", locations.back());
    }
}

void WebViewController::didFailWithError(const Error& error) {
    logLine("Location manager failed with error: " + error.localizedDescription());
    locationManager->stopUpdatingLocation();
    sendDeviceDetails(false, error.localizedDescription(), std::nullopt);
}

void WebViewController::showPermissionDeniedAlert() {
    auto alert = std::make_shared<AlertController>(
        "Location Access Denied",
        "This app requires access to the location to function properly. Please enable location access in Settings "
        "and try again the transition.",
        AlertController::Style::alert);
    std::weak_ptr<WebViewController> weakSelf = shared();
    alert->addAction({"Go to Settings", AlertController::ActionStyle::defaultStyle, [weakSelf] {
                          auto self = weakSelf.lock();
                          auto opener = ports::urlOpener();
                          auto settings = URL::make(opener->openSettingsURLString());
                          if (!self || !settings) return;
                          opener->open(*settings, {});
                          // Updates start before the user has changed anything; the page waits.
                          self->locationManager->startUpdatingLocation();
                      }});
    alert->addAction({"Cancel", AlertController::ActionStyle::cancel, [weakSelf] {
                          auto self = weakSelf.lock();
                          if (self) self->sendDeviceDetails(false, "location access denied", std::nullopt);
                      }});
    present(alert, true);
}

void WebViewController::sendDeviceDetails(bool success, const std::string& message,
                                          const std::optional<platform::Coordinate>& location) {
    auto device = jsHandler.getDeviceInfo();
    sendData(bridge::deviceDetailsCallback(deviceDetailsText(success, message, location, readDeviceTime(), device)));
}

}  // namespace kelvane
