// The smallest host: the desktop platform, a delegate, and one transaction message read from a
// file (the {"payload": "..."} of a push, such as the sandbox's push.json).
//   minimal-host --version           the library's version, without a display
//   minimal-host MESSAGE.json [KEY]  runs the transaction until it closes; exit 1 on an error
#include <kelvane/KelvaneApp.hpp>
#include <kelvane/KelvaneService.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/Version.hpp>
#include <kelvane/gtk/GtkPlatform.hpp>

#include <gtk/gtk.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace {

std::shared_ptr<kelvane::KelvaneApp> app;
std::optional<std::string> key;
GMainLoop* loop = nullptr;
bool failed = false;

// Calls may come off the main thread (see KelvaneService.hpp): every reaction hops first.
void onMain(std::function<void()> work) { kelvane::Queue::main()->async(std::move(work)); }

class Host final : public kelvane::KelvaneService, public std::enable_shared_from_this<Host> {
public:
    std::optional<std::string> onPushTokenRequest() override { return "minimal-host-push-token"; }
    void onResult(const std::string& reqId, const std::string& authReqId) override {
        std::printf("result %s %s\n", reqId.c_str(), authReqId.c_str());
    }
    void onError(const std::string& error) override {
        std::printf("error %s\n", error.c_str());
        onMain([] { failed = true; g_main_loop_quit(loop); });
    }
    void onClosed(const std::string& reason) override {
        std::printf("closed %s\n", reason.c_str());
        onMain([] { g_main_loop_quit(loop); });
    }
    void onTransactionRequest(const kelvane::Json& payload) override {
        onMain([self = shared_from_this(), payload] { app->onPushReceived(payload, self, key); });
    }
};

int refuse(const char* why) {
    std::fprintf(stderr, "minimal-host: %s\n", why);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string_view(argv[1]) == "--version") {
        std::printf("kelvane %s\n", kelvane::version());
        return 0;
    }
    if (argc < 2 || argc > 3) return refuse("usage: minimal-host --version | MESSAGE.json [KEY]");
    std::ifstream file(argv[1]);
    auto message = kelvane::json::parse(std::string(std::istreambuf_iterator<char>(file), {}));
    if (!message || !message->is_object()) return refuse("the message file holds no JSON object");
    if (argc == 3) key = argv[2];
    if (!gtk_init_check()) return refuse("no display");
    kelvane::platform::install(kelvane::gtk::makePlatform("com.example.minimalhost", "1.0"));
    kelvane::gtk::openWindow(std::make_shared<kelvane::ViewController>(), "Minimal host");
    loop = g_main_loop_new(nullptr, FALSE);
    app = std::make_shared<kelvane::KelvaneApp>();
    onMain([host = std::make_shared<Host>(), message = *message] { app->onPushReceived(message, host, key); });
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    return failed ? 1 : 0;
}
