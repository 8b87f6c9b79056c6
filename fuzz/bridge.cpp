// The page's side of the bridge: an event name (the first line) and a body (the rest, as JSON when
// it parses, else as a string) posted to a flow whose ports are fakes. A last byte of 1 leaves the
// host's delegate out, 2 the web view, to reach the planned stops.
#include <kelvane/Log.hpp>

#include "FakeHTTP.hpp"
#include "FakePlatform.hpp"
#include "flow/WebViewController.hpp"
#include "support/Fatal.hpp"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = (kelvane::setLogSink([](std::string_view) {}), true);
    (void)quiet;
    using namespace kelvane;
    std::string text(reinterpret_cast<const char*>(data), size);
    auto newline = text.find('\n');
    std::string name = text.substr(0, newline);
    std::string bodyText = newline == std::string::npos ? "" : text.substr(newline + 1);
    auto body = json::parse(bodyText).value_or(Json(bodyText));
    const std::uint8_t flags = size > 0 ? data[size - 1] : 0;

    fakes::FakePlatform platform;
    platform.viewSystem->installRoot();
    auto http = std::make_shared<fakes::FakeHTTP>();
    http->response = platform::HTTPResponse{200, {}};
    platform.http = http;
    platform.install();

    auto controller = std::make_shared<WebViewController>();
    controller->socketData = SocketData{"http://127.0.0.1:9", "req-1"};
    if (flags != 1) controller->kelvaneService = std::make_shared<fakes::RecordingDelegate>();
    if (flags != 2) controller->webView = platform.webViews->makeWebView({}, {});

    try {
        controller->userContentController({name, body});
        platform.mainQueue->runUntilIdle();
    } catch (const FatalStop&) {
        // A planned stop: the page posted what the event needs no check for, or the flow had
        // no delegate or web view where it needs one.
    }
    return 0;
}
