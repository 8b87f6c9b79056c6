#pragma once

#include <kelvane/Export.hpp>
#include <kelvane/Json.hpp>
#include <kelvane/KelvaneService.hpp>
#include <kelvane/ViewController.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace kelvane {

class CustomSchemeService;

// The one class a host calls. It shows nothing of its own and keeps no delegate: every
// operation takes the host's delegate. Make it with std::make_shared and keep it. Main queue
// only: call it on the main thread, after installing the platform.
class KELVANE_EXPORT KelvaneApp : public ViewController {
public:
    KelvaneApp();
    ~KelvaneApp() override;

    // Kept for the host; nothing in the library reads or writes it.
    virtual bool isShowing() const { return isShowing_; }
    virtual void setIsShowing(bool value) { isShowing_ = value; }
    // Once true, the push road is closed for the life of this object.
    virtual bool updateAvailable() const { return updateAvailable_; }
    virtual void setUpdateAvailable(bool value) { updateAvailable_ = value; }

    // Start-up: looks at the clipboard for a transaction link (see getCopyData) and then, with
    // `forceUpdate`, looks the app up in the store. When the store's version differs from the
    // bundle's in any way, updateAvailable is set for good and a dialog that only offers "Update
    // Now" comes up. The lookup is a synchronous read over plain HTTP at storeLookupHost(): it
    // blocks this thread. A lookup that fails leaves the gate as it was.
    virtual void sdkInit(std::shared_ptr<KelvaneService> with, bool forceUpdate);
    // The update dialog over the screen on top; "Update Now" opens the app's store page and runs
    // sdkInit(with, true) again. `appId` is not used: the store page is fixed by the build.
    virtual void showUpdateAlert(std::shared_ptr<KelvaneService> with, std::int64_t appId);

    // A transaction message: a dictionary whose "payload" holds the payload's JSON text. Opens
    // the transaction's flow, or tells `with` why not.
    virtual void onPushReceived(const Json& data, std::shared_ptr<KelvaneService> with,
                                std::optional<std::string> encryptionKey);
    // Makes and shows the flow for a parsed payload object.
    virtual void newHandle(const Json& data, std::shared_ptr<KelvaneService> with,
                           std::optional<std::string> encryptionKey);
    // Shows the camera screen over the screen on top. Each code of its one detection that is a
    // JSON object is handed, 2 seconds later on the main queue, to onPushReceived as the
    // message's "payload" text with `encryptionKey`; leaving the screen gives onClosed("ByUser").
    virtual void launchQrScanner(std::shared_ptr<KelvaneService> with, std::optional<std::string> encryptionKey);
    // Takes an "https://" link that contains "deeplink" from the clipboard, once: it goes to
    // onDeeplinkRequest and the clipboard is emptied.
    virtual void getCopyData(std::shared_ptr<KelvaneService> with);
    // A link to a transaction: its query's "base_url", "action_token", "id" and "realm_id" name
    // the transaction, which is fetched from the backend. The payload reaches
    // `with->onTransactionRequest`, a failure `with->onError` with the error's text; both on the
    // HTTP thread. A link in the host's own scheme is also the return of an app-to-app hand-off,
    // and goes to the open flow.
    virtual void onDeeplinkRequest(std::shared_ptr<KelvaneService> with, const std::string& url);
    // The screen on top, to present on: the first scene's first window's root and what it
    // presents, or else the key window's root.
    virtual std::shared_ptr<ViewController> customView();

    const std::shared_ptr<CustomSchemeService> customSchemeService;

    std::string className() const override { return "KelvaneApp"; }

private:
    virtual void customDeeplink(const std::string& url);

    bool isShowing_ = false;
    bool updateAvailable_ = false;
};

// Where the forced update gate looks the app up: a host, with ":port" where needed, asked over
// plain HTTP at "/lookup?bundleId=<bundle identifier>". It starts as the build's
// KELVANE_STORE_LOOKUP_HOST, the public store ("itunes.apple.com") unless the build names
// another; setStoreLookupHost replaces it for the whole process, for a store mirror or a test
// server whose port is known only at run time. Any thread; the next lookup uses it.
KELVANE_EXPORT std::string storeLookupHost();
KELVANE_EXPORT void setStoreLookupHost(std::string host);

}  // namespace kelvane
