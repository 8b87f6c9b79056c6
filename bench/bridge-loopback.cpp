// The bridge's round trip in a real WebKit web view under an Xvfb of its own: from a page's post
// of "isEventSupported", through the flow's own dispatch, service and answer (a hop onto the
// main queue, then the iosCallback script), to the page's next post from inside iosCallback. The
// reference is a bare evaluateJavaScript round trip from the native side, in the same web view
// and run; the two are measured in interleaved blocks so that drift hits both.
#include "BrowserHarness.hpp"
#include "Figures.hpp"
#include "PeerProcess.hpp"

#include <kelvane/KelvaneService.hpp>
#include <kelvane/Log.hpp>
#include <kelvane/gtk/GtkPlatform.hpp>

#include "flow/WebViewController.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

using namespace kelvane;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kBlocks = 10;
constexpr int kPerBlock = 100;
constexpr int kWarmUp = 500;
constexpr auto kBound = std::chrono::seconds(60);

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1))];
}

// Notes each post's arrival, then hands it to the flow's own bridge; "success" ends a block.
class Timing : public platform::ScriptMessageHandler {
public:
    std::shared_ptr<WebViewController> flow;
    std::vector<Clock::time_point> arrivals;
    bool finished = false;

    void userContentController(const platform::ScriptMessage& message) override {
        if (message.name == "success") {
            finished = true;
            return;
        }
        arrivals.push_back(Clock::now());
        flow->userContentController(message);
    }
};

class Quiet : public KelvaneService {
public:
    std::optional<std::string> onPushTokenRequest() override { return std::nullopt; }
    void onResult(const std::string&, const std::string&) override {}
    void onError(const std::string&) override {}
    void onClosed(const std::string&) override {}
    void onTransactionRequest(const Json&) override {}
};

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "bench-bridge-loopback: %s\n", what);
    std::exit(1);
}

}  // namespace

int main() {
    if (!browser::setUpDesktop()) fail("no display");
    platform::install(gtk::makePlatform("com.kelvane.bench", "1.0"));
    kelvane::testing::PeerProcess pages{"page-server.js", {R"({"lifetime":300})"}};
    if (!pages.port()) fail("the page server did not start");

    // The host's log sink would not be standard output in an app; writing three lines per post
    // to a terminal would measure the terminal.
    setLogSink([](std::string_view) {});
    auto handler = std::make_shared<Timing>();
    handler->flow = std::make_shared<WebViewController>();
    handler->flow->kelvaneService = std::make_shared<Quiet>();
    platform::WebViewConfiguration configuration;
    configuration.userContentController.add(handler, "isEventSupported");
    configuration.userContentController.add(handler, "success");
    auto webView = platform::current()->webViews->makeWebView({0, 0, 390, 844}, configuration);
    handler->flow->webView = webView;
    webView->load({*URL::make("http://127.0.0.1:" + std::to_string(pages.port()) + "/bench")});

    bool ready = false;
    auto started = Clock::now();
    while (!ready && Clock::now() - started < kBound) {
        bool done = false;
        webView->evaluateJavaScript("typeof run", [&](auto result, auto) {
            ready = result && *result == "function";
            done = true;
        });
        if (!browser::runUntil([&] { return done; }, kBound)) fail("the page does not answer");
    }
    if (!ready) fail("the page did not load");

    auto bridgeBlock = [&](int rounds, std::vector<double>* out) {
        handler->arrivals.clear();
        handler->finished = false;
        webView->evaluateJavaScript("run(" + std::to_string(rounds) + ")", [](auto, auto) {});
        if (!browser::runUntil([&] { return handler->finished; }, kBound)) fail("the bridge stalled");
        if (!out) return;
        for (std::size_t i = 1; i < handler->arrivals.size(); ++i) {
            out->push_back(std::chrono::duration<double, std::micro>(handler->arrivals[i] - handler->arrivals[i - 1]).count());
        }
    };
    auto evaluateBlock = [&](int rounds, std::vector<double>* out) {
        for (int i = 0; i < rounds; ++i) {
            bool done = false;
            auto start = Clock::now();
            webView->evaluateJavaScript("0", [&](auto, auto) { done = true; });
            if (!browser::runUntil([&] { return done; }, kBound)) fail("a script did not come back");
            if (out) out->push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        }
    };

    bridgeBlock(kWarmUp, nullptr);
    evaluateBlock(kWarmUp, nullptr);
    std::vector<double> bridge, evaluate;
    for (int block = 0; block < kBlocks; ++block) {
        bridgeBlock(kPerBlock, &bridge);
        evaluateBlock(kPerBlock, &evaluate);
    }
    std::printf("bridge round trips %zu, evaluate round trips %zu\n", bridge.size(), evaluate.size());
    double bridge50 = percentile(bridge, 0.5), bridge99 = percentile(bridge, 0.99);
    double evaluate50 = percentile(evaluate, 0.5), evaluate99 = percentile(evaluate, 0.99);
    bench::figure("bridge.roundtrip_p50", bridge50, "us");
    bench::figure("bridge.roundtrip_p99", bridge99, "us");
    bench::figure("bridge.evaluate_p50", evaluate50, "us");
    bench::figure("bridge.evaluate_p99", evaluate99, "us");
    bench::figure("bridge.ratio_p50", bridge50 / evaluate50, "ratio");
    bench::figure("bridge.ratio_p99", bridge99 / evaluate99, "ratio");
    webView.reset();
    browser::drain();
    browser::tearDownDesktop();
    return 0;
}
