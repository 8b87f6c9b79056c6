// The Kelvane demo host: the whole of what a GTK 4 desktop app does to embed the library.
//
// A host installs the desktop platform before its first call into the library, keeps one
// KelvaneApp, implements kelvane::KelvaneService (the library's only way back to it), calls
// sdkInit once at start-up, and hands each transaction to the KelvaneApp on the main thread.
// Everything else in this folder (options, minting at the sandbox, the watchers over
// the flow, the summary) belongs to the demo, not to the integration.

#include "Watchers.hpp"
#include "Options.hpp"
#include "Run.hpp"
#include "Screen.hpp"
#include "Transaction.hpp"

#include <kelvane/KelvaneApp.hpp>
#include <kelvane/KelvaneService.hpp>
#include <kelvane/Log.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/gtk/GtkPlatform.hpp>

#include <gtk/gtk.h>

#include <cstdio>

namespace {

// The host's URL scheme is its bundle identifier: the other app of an app-to-app hand-off
// returns through it. So it must be a valid scheme.
constexpr const char* kBundleIdentifier = "io.kelvane.demo";

// Runs `task` on the main queue: at once when already there, else as soon as it is free.
void onMain(std::function<void()> task) {
    auto main = kelvane::Queue::main();
    if (main->isCurrent()) {
        task();
    } else {
        main->async(std::move(task));
    }
}

// The host's delegate. The library calls each method on the thread that raised it and never
// hops by itself: a host that touches its screen or calls the library back hops to the main
// queue first.
class DemoService final : public kelvane::KelvaneService, public std::enable_shared_from_this<DemoService> {
public:
    DemoService(std::shared_ptr<kelvane::KelvaneApp> app, demo::Run& run) : app_(std::move(app)), run_(run) {}

    // The key that a transaction resolved from a link is decrypted with. Main thread.
    void setKey(std::optional<std::string> key) { key_ = std::move(key); }

    // Main thread, and the page waits for the answer: return the app's push token at once.
    std::optional<std::string> onPushTokenRequest() override {
        const std::string token = "demo-push-token";
        run_.pushTokenRequested(run_.now(), token);
        return token;
    }

    // The backend's result: the status socket's handlers run on the main queue.
    void onResult(const std::string& reqId, const std::string& authReqId) override {
        auto at = run_.now();
        onMain([this, at, reqId, authReqId] { run_.result(at, reqId, authReqId); });
    }

    // Main thread from a flow; the HTTP thread when a link could not be resolved.
    void onError(const std::string& error) override {
        auto at = run_.now();
        onMain([this, at, error] { run_.error(at, error); });
    }

    // Main thread.
    void onClosed(const std::string& reason) override {
        auto at = run_.now();
        onMain([this, at, reason] { run_.closed(at, reason); });
    }

    // HTTP thread: a link was resolved into a transaction message. onPushReceived is for the
    // main thread only, so the message goes there first.
    void onTransactionRequest(const kelvane::Json& payload) override {
        auto at = run_.now();
        onMain([self = shared_from_this(), at, payload] {
            self->run_.transactionRequested(at, payload);
            self->app_->onPushReceived(payload, self, self->key_);
        });
    }

private:
    std::shared_ptr<kelvane::KelvaneApp> app_;
    demo::Run& run_;
    std::optional<std::string> key_;
};

}  // namespace

int main(int argc, char** argv) {
    demo::Options options = demo::parseOptions(argc, argv, KELVANE_DEMO_VERSION);
    if (!gtk_init_check()) {
        demo::printFailure("no display to open a window on (set DISPLAY or WAYLAND_DISPLAY)");
        return demo::kNotCompleted;
    }

    // The library's log lines go to standard output unless the host gives them a sink. This one
    // stays until the process ends: the library logs while it shuts down, too.
    if (options.log) {
        std::FILE* log = std::fopen(options.log->c_str(), "w");
        if (!log) {
            demo::printFailure("the file " + *options.log + " could not be opened for the log");
            return demo::kBadArguments;
        }
        kelvane::setLogSink([log](std::string_view line) {
            std::fwrite(line.data(), 1, line.size(), log);
            std::fputc('\n', log);
            std::fflush(log);
        });
    }

    std::shared_ptr<kelvane::KelvaneApp> app;
    std::shared_ptr<DemoService> service;
    std::function<void()> start;
    demo::Screen screen(options.pushFile ? "Push message from " + *options.pushFile
                        : options.deeplink ? "Transaction link " + *options.deeplink
                        : options.sandbox  ? "A transaction minted at " + *options.sandbox
                                           : "The QR code in " + *options.qrFile,
                        [&] { start(); });
    demo::Run run(options, screen);

    // 1. The platform: the desktop's ports, installed before the first call into the library.
    //    The demo wraps a few of them to watch the flow (Watchers.cpp); a host has no need to.
    //    This desktop has no face-verification library, so the demo plays a scripted session;
    //    a QR code comes from the --qr image instead of a camera; passkeys are allowed for the
    //    sandbox's relying party, as an app names its associated domains.
    kelvane::gtk::DesktopOptions desktop;
    desktop.scriptedFaceVerification = true;
    if (options.qrFile) desktop.qrImages = {*options.qrFile};
    desktop.passkeyRelyingParties = {"sandbox.kelvane.test"};
    kelvane::platform::Platform ports = kelvane::gtk::makePlatform(kBundleIdentifier, options.appVersion, desktop);
    demo::watch(ports, run, [&](const std::string& url) {
        // The other app of a hand-off opened the host again through its scheme: the host
        // passes the URL on, and the library takes it back to the open flow.
        app->onDeeplinkRequest(service, url);
    });
    kelvane::platform::install(ports);

    // 2. The facade and the delegate, kept for the life of the app.
    app = std::make_shared<kelvane::KelvaneApp>();
    service = std::make_shared<DemoService>(app, run);

    // 3. The app's window. Its own screen is the root that the library presents the flow over.
    auto root = std::make_shared<kelvane::ViewController>();
    kelvane::gtk::openWindow(root, "Kelvane demo", screen.widget());

    // 4. Start-up, once: the clipboard's transaction link and, when asked, the store's version.
    //    The store lookup blocks this thread while it runs.
    if (options.forceUpdate) kelvane::setStoreLookupHost(*options.storeHost);
    app->sdkInit(service, options.forceUpdate);

    // 5. A transaction, on the main thread: a push message goes to onPushReceived with its key;
    //    a link goes to onDeeplinkRequest, and its message comes back through
    //    onTransactionRequest; a QR code is read by the scanner that launchQrScanner shows.
    bool started = false;
    start = [&] {
        if (started) return;
        started = true;
        demo::loadTransaction(options, [&](const demo::LoadResult& loaded) {
            if (!loaded.transaction) return run.finish(loaded.exitCode, loaded.reason);
            const demo::Transaction& transaction = *loaded.transaction;
            run.starting(transaction);
            run.fed();
            service->setKey(transaction.key);
            if (transaction.deeplink) {
                app->onDeeplinkRequest(service, *transaction.deeplink);
            } else if (transaction.qrImage) {
                app->launchQrScanner(service, transaction.key);
            } else {
                app->onPushReceived(*transaction.message, service, transaction.key);
            }
        });
    };
    if (options.autoRun) start();

    return run.exec();
}
