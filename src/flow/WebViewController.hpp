#pragma once

#include <kelvane/Json.hpp>
#include <kelvane/KelvaneService.hpp>
#include <kelvane/Status.hpp>
#include <kelvane/ViewController.hpp>
#include <kelvane/platform/Sensors.hpp>
#include <kelvane/platform/View.hpp>
#include <kelvane/platform/WebView.hpp>

#include "backend/ApiService.hpp"
#include "flow/Bridge.hpp"
#include "flow/Events.hpp"
#include "flow/JsHandler.hpp"
#include "services/AshieldService.hpp"
#include "services/BiometricService.hpp"
#include "services/CustomSchemeService.hpp"
#include "services/GetFcmService.hpp"
#include "services/SilentBindingService.hpp"
#include "services/SystemServiceHandler.hpp"

#include <memory>
#include <optional>
#include <string>

namespace kelvane {

// Where the status socket of a transaction connects.
struct SocketData {
    std::string url;
    std::string requestId;
    bool operator==(const SocketData&) const = default;
};

// The screen of one transaction: it owns the web view, runs the intake when it appears, connects
// the status socket, reports the start and only then loads the page. It is also the page's
// bridge (the handler of its script messages), the web view's navigation policy and the
// delegate of its location manager. Made from the storyboard scene "WebViewController" for
// each accepted message. Main queue only, like every screen, unless a member says otherwise.
class WebViewController : public ViewController,
                          public platform::ScriptMessageHandler,
                          public platform::NavigationDelegate,
                          public platform::LocationDelegate {
public:
    WebViewController();

    std::shared_ptr<platform::WebView> webView;
    std::optional<Json> payload;
    std::optional<std::string> encryptionKey;
    // Set by the intake once the transaction object names its socket.
    std::optional<SocketData> socketData;
    const JsHandler jsHandler{};
    // Held strongly for the life of the flow.
    std::shared_ptr<KelvaneService> kelvaneService;
    // Kept for hosts; nothing reads it.
    bool isLoading = true;
    // The scene's view that takes the web view.
    std::weak_ptr<platform::View> appWeb;
    const std::shared_ptr<platform::ActivityIndicator> loadingIndicator;
    const BiometricService biometricService{};
    const AshieldService ashieldService{};
    const SilentBindingService silentBindingService{};
    const GetFcmService getFcmService{};
    const std::shared_ptr<platform::LocationManager> locationManager;
    const SystemServiceHandler systemServiceHandler{};
    const CustomSchemeService customSchemeService{};

    void viewDidLoad() override;
    void viewWillAppear(bool animated) override;
    void viewDidAppear(bool animated) override;
    void connectOutlet(std::string_view name, const std::shared_ptr<platform::View>& view) override;
    // The scene's exit button is wired to "exit".
    void performAction(std::string_view name) override;

    // The custom-scheme road back into the page: loads `url` in the web view.
    virtual void loadURL(const std::string& url);
    // Ends the custom-scheme subscription; the status socket is not touched.
    virtual void stopListening();
    // The intake: plain or encrypted payload, the failure rows, the transaction's extraction.
    virtual void newWebViewNew();
    virtual void handleEncryptedData(const Json& payload, const std::shared_ptr<KelvaneService>& with,
                                     const std::optional<std::string>& encryptionKey);
    // Connects the status socket, reports the start, then loads `url` and wipes cookies. An
    // address that is no URL is a fatal stop.
    virtual void newLoadWebView(const std::string& url);
    // Removes the shared cookies and every website data record of the web views' store.
    virtual void cleanAllCookies();
    // The exit button: asks the user, and on "OK" reports the close and dismisses ("ByUser").
    virtual void exit();
    // Runs a script in the page, always later on the main queue. Any thread. Once the flow's web
    // view is gone, the run is a fatal stop.
    virtual void sendData(const std::string& data);

    // Tells the host the flow closed, stops the web view and dismisses the screen.
    void customDismiss(CloseReason resultModel, const std::shared_ptr<KelvaneService>& kelvaneService);

    // The page posted to one of the event handlers.
    void userContentController(const platform::ScriptMessage& message) override;

    // Navigation policy. Every decision is made later on the main queue, or from the opener's
    // completion when the navigation hands off to another app.
    void decidePolicy(platform::WebView& webView, const platform::NavigationAction& action,
                      std::function<void(platform::NavigationActionPolicy)> decisionHandler) override;
    void didStartProvisionalNavigation(platform::WebView& webView) override;
    void didFinishNavigation(platform::WebView& webView) override;
    void didFailNavigation(platform::WebView& webView, const Error& error) override;
    // A failed load of URL loading ends the transaction with "ConnectionError".
    void didFailProvisionalNavigation(platform::WebView& webView, const Error& error) override;
    void didReceiveServerRedirectForProvisionalNavigation(platform::WebView& webView) override;

    // Whether the URL names a document to download (a PDF file). Nothing calls it yet.
    virtual bool isDownloadURL(const URL& url) const;

    // The location manager's reports: one reading per "readDeviceDetails", answered with the
    // device details text. A status outside the known ones is a fatal stop.
    void didChangeAuthorization(platform::LocationAuthorizationStatus status) override;
    void didUpdateLocations(const std::vector<platform::Coordinate>& locations) override;
    void didFailWithError(const Error& error) override;
    // Tells the user location is off: "Go to Settings" opens the settings and starts updates
    // without an answer; "Cancel" answers "location access denied".
    void showPermissionDeniedAlert();

    std::string className() const override { return "WebViewController"; }

protected:
    // Runs the service of a bridge event (every event but "success" and "failure"); the service
    // answers through answer(). `event` is the posted one.
    virtual void runService(Events event, const platform::ScriptMessage& message);

    // Sends a service's record to the page under the posted name. Any thread.
    template <class Record>
    void answer(const std::string& postedName, const Record& record) {
        sendData(bridge::iosCallback(postedName, bridge::encodeAnswer(record)));
    }

    // The two service groups, each in its own file; whether the group took the event.
    // Services of the device: biometrics, binding, Ashield, push token, location, system.
    bool runDeviceService(Events event, const platform::ScriptMessage& message);
    // Ceremonies the page drives: passkeys and face verification.
    bool runCeremony(Events event, const platform::ScriptMessage& message);
    // "readDeviceDetails": asks for a reading, or for permission first.
    void readDeviceDetails();

    // ---- State of the ceremonies (FIDO, face verification) ----
    // Made at the flow's first ceremony and kept for the rest of it.
    std::shared_ptr<class FidoService> fidoService;
    std::shared_ptr<class IproovService> iproovService;
    // ---- end of the ceremonies' state ----

private:
    platform::WebViewConfiguration configureWebView();
    std::shared_ptr<platform::WebView> createWebView(const platform::WebViewConfiguration& configuration);
    void setupWebView();
    void extractTransaction(const Json& transaction);
    void closeWithError(Status status, bool thenStopListening);
    void decide(const platform::NavigationAction& action,
                const std::function<void(platform::NavigationActionPolicy)>& decisionHandler);
    void pageFailed();
    // Acts on a location authorization; `onUndetermined` runs for "not determined".
    void followAuthorization(int status, const std::function<void()>& onUndetermined);
    void sendDeviceDetails(bool success, const std::string& message,
                           const std::optional<platform::Coordinate>& location);
    // Reports to the transaction's socket address, or to none without socket data.
    void reportStatus(ConnectionStatus status, std::function<void(bool)> completion) const;
    std::shared_ptr<WebViewController> shared();

    std::unique_ptr<Cancellable> cancellable_;
};

// The exit dialog of a flow.
class AlertDialogController {
public:
    // Asks "Cancel Transaction" over `controller`; "OK" runs `completionHandler`, "CANCEL"
    // nothing.
    static void showAlert(ViewController& controller, std::function<void()> completionHandler);
};

}  // namespace kelvane
