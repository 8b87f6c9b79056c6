// Echo through the npm `ws` server on 127.0.0.1: message rate and throughput with and without
// deflate, the client's CPU time per message, and the heap one open connection holds.
#include "Figures.hpp"
#include "PeerProcess.hpp"

#include "websocket/Compression.hpp"
#include "websocket/WebSocket.hpp"

#include <kelvane/Json.hpp>

#include <malloc.h>
#include <sys/resource.h>
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

using namespace kelvane;
using namespace kelvane::websocket;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kBound = std::chrono::seconds(60);

// A client whose echoes are counted; the sender keeps a bounded number in flight.
class EchoClient {
public:
    EchoClient(int port, bool deflate) {
        Request request(URL::make("ws://127.0.0.1:" + std::to_string(port) + "/"), 10);
        socket_ = std::make_shared<WebSocket>(request, std::make_shared<FoundationSecurity>(),
                                              deflate ? std::make_shared<WSCompression>() : nullptr);
        socket_->callbackQueue = Queue::makeSerial("bench.callbacks");
        socket_->onEvent = [this](const WebSocketEvent& event) {
            std::lock_guard lock(mutex_);
            if (event.kind == WebSocketEvent::Kind::connected) connected_ = true;
            if (event.kind == WebSocketEvent::Kind::text || event.kind == WebSocketEvent::Kind::binary) ++echoes_;
            if (event.kind == WebSocketEvent::Kind::error || event.kind == WebSocketEvent::Kind::disconnected) failed_ = true;
            changed_.notify_all();
        };
        socket_->connect();
    }
    ~EchoClient() { socket_->forceDisconnect(); }

    bool waitConnected() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kBound, [&] { return connected_ || failed_; }) && connected_;
    }

    // Sends `count` messages with at most `window` unanswered; false if the bound ran out.
    bool run(const std::string& message, bool binary, int count, int window) {
        Bytes data(message.begin(), message.end());
        auto deadline = Clock::now() + kBound;
        int sent = 0;
        std::unique_lock lock(mutex_);
        long base = echoes_;
        while (echoes_ - base < count) {
            while (sent < count && sent - (echoes_ - base) < window) {
                lock.unlock();
                if (binary) socket_->write(data); else socket_->write(message);
                ++sent;
                lock.lock();
            }
            auto canGoOn = [&] {
                long received = echoes_ - base;
                return failed_ || received >= count || (sent < count && sent - received < window);
            };
            if (!changed_.wait_until(lock, deadline, canGoOn)) return false;
            if (failed_) return false;
        }
        return true;
    }

private:
    std::shared_ptr<WebSocket> socket_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool connected_ = false;
    bool failed_ = false;
    long echoes_ = 0;
};

struct Echo {
    double perSecond = 0;  // messages
    double cpuMicrosPerMessage = 0;
};

Echo echo(int port, bool deflate, const std::string& message, bool binary, int count, int window) {
    EchoClient client(port, deflate);
    if (!client.waitConnected()) return {};
    client.run(message, binary, count / 10, window);  // warm up
    double cpuBefore = bench::cpuSeconds();
    auto start = Clock::now();
    if (!client.run(message, binary, count, window)) return {};
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return {count / seconds, (bench::cpuSeconds() - cpuBefore) * 1e6 / count};
}

std::string jsonMessage(std::size_t size) {
    std::string text = R"(42["status",{"requestId":"a1b2c3","status":"200","items":[)";
    for (int i = 0; text.size() + 40 < size; ++i) text += std::to_string(i * 7919 % 100000) + ",";
    text += "0]}]";
    text.resize(size, ' ');
    return text;
}

// Heap held per open, idle connection, over several connections.
double heapPerConnection(int port, bool deflate) {
    constexpr int kConnections = 16;
    { EchoClient warm(port, deflate); warm.waitConnected(); }
    std::size_t before = bench::heapInUse();
    std::vector<std::unique_ptr<EchoClient>> clients;
    for (int i = 0; i < kConnections; ++i) {
        clients.push_back(std::make_unique<EchoClient>(port, deflate));
        if (!clients.back()->waitConnected()) return 0;
    }
    std::size_t after = bench::heapInUse();
    return (static_cast<double>(after) - static_cast<double>(before)) / kConnections;
}

double zlibStreamState() {
    std::size_t before = bench::heapInUse();
    z_stream deflater{}, inflater{};
    deflateInit2(&deflater, -1, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    inflateInit2(&inflater, -15);
    // inflate allocates its window on first use.
    Bytef in[] = {0x02, 0x00}, out[16];
    inflater.next_in = in;
    inflater.avail_in = sizeof in;
    inflater.next_out = out;
    inflater.avail_out = sizeof out;
    inflate(&inflater, Z_NO_FLUSH);
    std::size_t after = bench::heapInUse();
    deflateEnd(&deflater);
    inflateEnd(&inflater);
    return static_cast<double>(after - before);
}

}  // namespace

int main() {
    kelvane::testing::PeerProcess plain("ws-server.js", {R"({"lifetime":300})"});
    kelvane::testing::PeerProcess deflating("ws-server.js", {R"({"lifetime":300,"deflate":{"threshold":0}})"});
    if (!plain.port() || !deflating.port()) {
        std::fprintf(stderr, "the ws peer did not start (run ./run setup)\n");
        return 1;
    }
    const std::string small = jsonMessage(100);
    const std::string large = jsonMessage(64 * 1024);
    struct Row {
        const char* name;
        bool deflate;
        const std::string* message;
        int count, window;
    };
    // Window 1 is one message in flight: the round trip, with no batching of reads.
    for (const Row& row : {Row{"100b", false, &small, 100000, 64}, Row{"100b_deflate", true, &small, 100000, 64},
                           Row{"100b_one_in_flight", false, &small, 5000, 1},
                           Row{"100b_deflate_one_in_flight", true, &small, 5000, 1},
                           Row{"64k", false, &large, 4000, 8}, Row{"64k_deflate", true, &large, 2000, 8}}) {
        int port = row.deflate ? deflating.port() : plain.port();
        Echo result = echo(port, row.deflate, *row.message, false, row.count, row.window);
        std::printf("echo %-27s %10.0f msg/s  %8.2f us CPU/msg\n", row.name, result.perSecond, result.cpuMicrosPerMessage);
        std::string name = std::string("ws_echo_") + row.name;
        if (row.window == 1) {
            bench::figure(name + "_round_trip", 1e6 / result.perSecond, "us");
        } else if (row.message == &small) {
            bench::figure(name + "_msgs", result.perSecond, "msg/s");
        } else {
            bench::figure(name + "_throughput", result.perSecond * row.message->size() / 1e6, "MB/s");
        }
        bench::figure(name + "_client_cpu", result.cpuMicrosPerMessage, "us/msg");
    }
    bench::figure("ws_heap_per_connection", heapPerConnection(plain.port(), false) / 1024, "KiB");
    bench::figure("ws_heap_per_connection_deflate", heapPerConnection(deflating.port(), true) / 1024, "KiB");
    bench::figure("zlib_stream_state", zlibStreamState() / 1024, "KiB");
    return 0;
}
