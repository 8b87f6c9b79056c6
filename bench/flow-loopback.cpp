// The start of a transaction against a node backend on 127.0.0.1 (status socket and HTTP on one
// port): from onPushReceived to the web view's page request, against the two network exchanges
// that start has to wait for (the socket's connect and the status POST) made alone with the same
// options, on the same peer, in the same run. The two are interleaved so that drift hits both.
#include "FakePlatform.hpp"
#include "Figures.hpp"
#include "PeerProcess.hpp"

#include <kelvane/KelvaneApp.hpp>
#include <kelvane/Log.hpp>

#include "backend/ApiService.hpp"
#include "backend/WebSocketService.hpp"
#include "flow/Storyboard.hpp"
#include "socketio/SocketIOClient.hpp"
#include "socketio/SocketManager.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

using namespace kelvane;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kWarmUp = 10;
constexpr int kRounds = 200;
constexpr auto kBound = std::chrono::seconds(20);

double millis(Clock::duration duration) { return std::chrono::duration<double, std::milli>(duration).count(); }

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1))];
}

class Bench {
public:
    Bench() { platform.viewSystem->installRoot(); }

    bool ready() const { return backend.port() != 0; }

    // onPushReceived to the page request; the flow's socket is ended afterwards.
    Clock::duration flowStart(int round) {
        Json transaction{{"action", origin + "/page"},
                         {"socket", {{"url", origin}, {"requestId", "flow-" + std::to_string(round)}}}};
        Json payload{{"id", "kn_auth"}, {"isEncrypted", 0}, {"data", transaction}};
        Json message{{"payload", payload.dump()}};
        platform.webViews->made.clear();

        auto started = Clock::now();
        app->onPushReceived(message, delegate, std::nullopt);
        bool loaded = platform.mainQueue->runUntil(
            [&] { return !platform.webViews->made.empty() && !platform.webViews->made.back()->loads.empty(); },
            kBound);
        auto took = Clock::now() - started;
        if (!loaded) fail("the page was not requested");
        WebSocketService().dispose();
        platform.viewSystem->forgetShown();
        platform.mainQueue->runUntilIdle();
        return took;
    }

    // The same socket options, its connect, then the status POST, back on the main queue.
    Clock::duration connectAndReport(int round) {
        std::string requestId = "alone-" + std::to_string(round);
        bool done = false;

        auto started = Clock::now();
        using socketio::SocketIOClientOption;
        auto manager = std::make_shared<socketio::SocketManager>(
            *URL::make(origin), socketio::SocketIOClientConfiguration{
                                    SocketIOClientOption::log(true),
                                    SocketIOClientOption::compress(),
                                    SocketIOClientOption::forceWebsockets(true),
                                    SocketIOClientOption::extraHeaders({{"chatcode", requestId}}),
                                });
        auto socket = manager->defaultSocket();
        socket->on(socketio::SocketClientEvent::connect, [&](const auto&, auto&) {
            ApiService().sendConnectionStatus(ConnectionStatus::started, origin, requestId, [&](bool) {
                Queue::main()->async([&] { done = true; });
            });
        });
        socket->connect();
        bool reported = platform.mainQueue->runUntil([&] { return done; }, kBound);
        auto took = Clock::now() - started;
        if (!reported) fail("the socket did not connect and report");
        socket->disconnect();
        platform.mainQueue->runUntilIdle();
        return took;
    }

private:
    static void fail(const char* what) {
        std::fprintf(stderr, "flow-loopback: %s\n", what);
        std::exit(1);
    }

    fakes::FakePlatform platform;
    testing::PeerProcess backend{"backend-server.js", {R"({"lifetime":300,"quiet":true,"socketio":true})"}};
    std::shared_ptr<fakes::RecordingDelegate> delegate = std::make_shared<fakes::RecordingDelegate>();
    std::shared_ptr<KelvaneApp> app = std::make_shared<KelvaneApp>();
    const std::string origin = "http://127.0.0.1:" + std::to_string(backend.port());
};

}  // namespace

int main() {
    // Hosts choose where lines go; here they would only measure the terminal.
    setLogSink([](std::string_view) {});
    Bench bench;
    if (!bench.ready()) {
        std::fprintf(stderr, "flow-loopback: the backend peer did not start\n");
        return 1;
    }
    for (int round = 0; round < kWarmUp; ++round) {
        bench.flowStart(round);
        bench.connectAndReport(round);
    }
    std::vector<double> flow, alone;
    for (int round = 0; round < kRounds; ++round) {
        // Alternating which goes first keeps a slow half of a round from favouring one side.
        if (round % 2 == 0) {
            flow.push_back(millis(bench.flowStart(kWarmUp + round)));
            alone.push_back(millis(bench.connectAndReport(kWarmUp + round)));
        } else {
            alone.push_back(millis(bench.connectAndReport(kWarmUp + round)));
            flow.push_back(millis(bench.flowStart(kWarmUp + round)));
        }
    }
    double flowMedian = percentile(flow, 0.5), aloneMedian = percentile(alone, 0.5);
    std::printf("%d rounds: flow start p50 %.3f ms p90 %.3f ms; socket connect + status POST p50 %.3f ms p90 %.3f ms\n",
                kRounds, flowMedian, percentile(flow, 0.9), aloneMedian, percentile(alone, 0.9));
    bench::figure("flow.start_p50", flowMedian, "ms");
    bench::figure("flow.start_p90", percentile(flow, 0.9), "ms");
    bench::figure("flow.connect_and_status_p50", aloneMedian, "ms");
    bench::figure("flow.start_ratio", flowMedian / aloneMedian, "x");
    return 0;
}
