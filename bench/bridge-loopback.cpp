// The bridge's round trip in a real WebKit web view under an Xvfb of its own: from a page's post
// to an event handler, through the answer evaluated the way the flow sends it (a hop onto the
// main queue, then the iosCallback script), to the page's next post from inside iosCallback. The
// reference is a bare evaluateJavaScript round trip from the native side, in the same web view
// and run; the two are measured in interleaved blocks so that drift hits both.
#include "BrowserHarness.hpp"
#include "Figures.hpp"
#include "PeerProcess.hpp"

#include <kelvane/Queue.hpp>
#include <kelvane/gtk/GtkPlatform.hpp>

#include "flow/Bridge.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

using namespace kelvane;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kBlocks = 10;
constexpr int kPerBlock = 100;
constexpr int kWarmUp = 50;
constexpr auto kBound = std::chrono::seconds(60);

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1))];
}

// Answers every post as the flow does, and notes when each post arrived.
class Answering : public platform::ScriptMessageHandler {
public:
    std::shared_ptr<platform::WebView> webView;
    std::vector<Clock::time_point> arrivals;
    bool finished = false;
    std::string answer;

    void userContentController(const platform::ScriptMessage& message) override {
        if (message.name == "success") {
            finished = true;
            return;
        }
        arrivals.push_back(Clock::now());
        auto script = bridge::iosCallback(message.name, answer);
        Queue::main()->async([this, script] { webView->evaluateJavaScript(script, [](auto, auto) {}); });
    }
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

    auto handler = std::make_shared<Answering>();
    // The answer to "isEventSupported": every event's name.
    handler->answer = R"({"success":true,"message":"","supportedEvents":["isEventSupported","success","failure",)"
                      R"("checkBiometric","registerBiometric","verifyBiometric","registerAshield","authenticateAshield",)"
                      R"("registerFido","signFido","getFcmToken","isJsFidoSupported","registerSilentBinding",)"
                      R"("verifySilentBinding","readDeviceDetails","copyToClipboard","registerIproov","verifyIproov",)"
                      R"("getCurrentNetwork","loadSekuraSessionUrl","isCustomSchemeRegisteredOnApp"]})";
    platform::WebViewConfiguration configuration;
    configuration.userContentController.add(handler, "isEventSupported");
    configuration.userContentController.add(handler, "success");
    auto webView = platform::current()->webViews->makeWebView({0, 0, 390, 844}, configuration);
    handler->webView = webView;
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
