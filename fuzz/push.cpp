// The push road from a raw message: the input is the message dictionary when it is a JSON
// object, and otherwise the text under "payload". The first byte also picks the host's key.
#include <kelvane/KelvaneApp.hpp>
#include <kelvane/Log.hpp>

#include "FakePlatform.hpp"
#include "flow/Storyboard.hpp"
#include "flow/WebViewController.hpp"
#include "support/Fatal.hpp"

#include <cstdint>
#include <string>

namespace {
// The intake ends at the page address; the socket and the page would reach the network.
class Arrival : public kelvane::WebViewController {
public:
    void newLoadWebView(const std::string& url) override { kelvane::forceUnwrap(kelvane::URL::make(url)); }
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = (kelvane::setLogSink([](std::string_view) {}), true);
    (void)quiet;
    std::string text(reinterpret_cast<const char*>(data), size);

    static const bool arrival = (kelvane::Storyboard::replaceScene(
                                     "WebViewController", [] { return std::make_shared<Arrival>(); }),
                                 true);
    (void)arrival;
    kelvane::fakes::FakePlatform platform;
    platform.viewSystem->installRoot();
    auto delegate = std::make_shared<kelvane::fakes::RecordingDelegate>();
    auto app = std::make_shared<kelvane::KelvaneApp>();

    kelvane::Json message;
    if (auto parsed = kelvane::json::parse(text); parsed && parsed->is_object()) {
        message = *parsed;
    } else {
        message = kelvane::Json{{"payload", text}};
    }
    std::optional<std::string> key;
    if (size > 0 && data[0] % 3 == 1) key = "K34VFiiu0qar9xWICc9PPA";  // unpadded base64 of 16 bytes
    if (size > 0 && data[0] % 3 == 2) key = "";

    try {
        app->onPushReceived(message, delegate, key);
        platform.mainQueue->runUntilIdle();
    } catch (const kelvane::FatalStop&) {
        // A planned stop: a socket without "requestId", for one.
    }
    return 0;
}
