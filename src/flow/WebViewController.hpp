#pragma once

#include <kelvane/Json.hpp>
#include <kelvane/KelvaneService.hpp>
#include <kelvane/Status.hpp>
#include <kelvane/ViewController.hpp>
#include <kelvane/platform/View.hpp>
#include <kelvane/platform/WebView.hpp>

#include "flow/JsHandler.hpp"
#include "services/CustomSchemeService.hpp"

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

// The screen of one transaction: it owns the web view, runs the intake when it appears and
// leads the transaction to its page. Made from the storyboard scene "WebViewController" for
// each accepted message. Main queue only, like every screen.
class WebViewController : public ViewController, public platform::ScriptMessageHandler {
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
    const CustomSchemeService customSchemeService{};

    void viewDidLoad() override;
    void viewWillAppear(bool animated) override;
    void viewDidAppear(bool animated) override;
    void connectOutlet(std::string_view name, const std::shared_ptr<platform::View>& view) override;

    // The custom-scheme road back into the page: loads `url` in the web view.
    virtual void loadURL(const std::string& url);
    // Ends the custom-scheme subscription; the status socket is not touched.
    virtual void stopListening();
    // The intake: plain or encrypted payload, the failure rows, the transaction's extraction.
    virtual void newWebViewNew();
    virtual void handleEncryptedData(const Json& payload, const std::shared_ptr<KelvaneService>& with,
                                     const std::optional<std::string>& encryptionKey);
    // Where a good transaction arrives with its page address, `socketData` set.
    virtual void newLoadWebView(const std::string& url);

    // Tells the host the flow closed, stops the web view and dismisses the screen.
    void customDismiss(CloseReason resultModel, const std::shared_ptr<KelvaneService>& kelvaneService);

    // The page posted to one of the event handlers.
    void userContentController(const platform::ScriptMessage& message) override;

    std::string className() const override { return "WebViewController"; }

private:
    platform::WebViewConfiguration configureWebView();
    std::shared_ptr<platform::WebView> createWebView(const platform::WebViewConfiguration& configuration);
    void setupWebView();
    void extractTransaction(const Json& transaction);
    void closeWithError(Status status, bool thenStopListening);

    std::unique_ptr<Cancellable> cancellable_;
};

// The transaction's status socket. Only dispose() and the class-level connection live here
// for now; objects are made for each use, since the connection belongs to the class.
class WebSocketService : public WebViewController {
public:
    // What dispose() closes.
    class Connection {
    public:
        virtual ~Connection() = default;
        virtual void disconnect() = 0;
    };
    // One per process. Main queue only.
    static std::shared_ptr<Connection> socketManager;

    std::string requestId;

    // Closes the class-level connection, if there is one, and forgets it.
    void dispose();

    std::string className() const override { return "WebSocketService"; }
};

}  // namespace kelvane
