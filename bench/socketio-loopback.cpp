// Socket.IO through the npm socket.io server on 127.0.0.1: the acked echo's round trip and rate,
// the client's CPU per round trip, the time to a connected namespace against a bare WebSocket
// doing the same exchange by hand, and the heap one idle connected manager holds.
#include "Figures.hpp"
#include "PeerProcess.hpp"

#include "socketio/SocketManager.hpp"
#include "websocket/Compression.hpp"
#include "websocket/WebSocket.hpp"

#include <linux/perf_event.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// Allocations per thread: the network thread's count per round trip shows where the time goes.
// A plain thread-local keeps the counting itself out of the figures; the process-wide count
// (relaxed, two threads at most touch it) gives the per-event figures.
namespace {
thread_local std::uint64_t allocationCount = 0;
std::atomic<std::uint64_t> processAllocations{0};

void* allocate(std::size_t size) {
    ++allocationCount;
    processAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* memory = std::malloc(size ? size : 1)) return memory;
    throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

using namespace kelvane;
using namespace kelvane::socketio;
using Clock = std::chrono::steady_clock;
using Option = SocketIOClientOption;

namespace {

constexpr auto kBound = std::chrono::seconds(60);
constexpr auto kConnectBound = std::chrono::seconds(10);
constexpr double kAckSeconds = 10;

double micros(Clock::duration duration) { return std::chrono::duration<double, std::micro>(duration).count(); }

// A count of the calling thread's system calls, every kind (epoll_wait and futex included),
// from the kernel's syscall tracepoint; -1 where the kernel does not let this process count.
int openSyscallCounter() {
    long id = -1;
    for (const char* path : {"/sys/kernel/tracing/events/raw_syscalls/sys_enter/id",
                             "/sys/kernel/debug/tracing/events/raw_syscalls/sys_enter/id"}) {
        if (FILE* file = std::fopen(path, "r")) {
            if (std::fscanf(file, "%ld", &id) != 1) id = -1;
            std::fclose(file);
        }
        if (id >= 0) break;
    }
    if (id < 0) return -1;
    perf_event_attr attr{};
    attr.type = PERF_TYPE_TRACEPOINT;
    attr.size = sizeof attr;
    attr.config = static_cast<std::uint64_t>(id);
    return static_cast<int>(syscall(SYS_perf_event_open, &attr, 0, -1, -1, 0));
}

std::uint64_t syscallsOf(int counter) {
    std::uint64_t value = 0;
    if (counter < 0 || read(counter, &value, sizeof value) != sizeof value) return 0;
    return value;
}

// The two threads that do the work: the network thread (every serial queue) and the main one.
std::uint64_t threadSyscalls() {
    thread_local const int counter = openSyscallCounter();
    return syscallsOf(counter);
}

// Opened on the network thread, awaited (with a bound) on the main one.
class Latch {
public:
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    bool wait(Clock::duration bound) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, bound, [&] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

// What the process and the network thread (every serial queue runs on it) spent between two
// points. The network thread's share is read on that thread.
struct Usage {
    double processCpu = 0;
    double threadUser = 0;
    double threadSystem = 0;
    long threadSwitches = 0;  // voluntary: the times it waited for work
    long threadFaults = 0;
    std::uint64_t threadAllocations = 0;
    std::uint64_t allocations = 0;  // whole process
    std::uint64_t syscalls = 0;     // the network and main threads

    static Usage now(Queue& queue) {
        Usage usage;
        queue.sync([&] {
            rusage thread{};
            getrusage(RUSAGE_THREAD, &thread);
            usage.threadUser = static_cast<double>(thread.ru_utime.tv_sec) + thread.ru_utime.tv_usec / 1e6;
            usage.threadSystem = static_cast<double>(thread.ru_stime.tv_sec) + thread.ru_stime.tv_usec / 1e6;
            usage.threadSwitches = thread.ru_nvcsw;
            usage.threadFaults = thread.ru_minflt;
            usage.threadAllocations = allocationCount;
            usage.syscalls = threadSyscalls();
        });
        usage.processCpu = bench::cpuSeconds(RUSAGE_SELF);
        usage.allocations = processAllocations.load(std::memory_order_relaxed);
        usage.syscalls += threadSyscalls();
        return usage;
    }
};

struct Spent {
    double cpuMicros = 0;  // whole process, per message
    double threadUserMicros = 0;
    double threadSystemMicros = 0;
    double threadSwitches = 0;
    double threadFaults = 0;
    double threadAllocations = 0;
    double allocations = 0;
    double syscalls = 0;
};

Spent perMessage(const Usage& before, const Usage& after, int count) {
    return {(after.processCpu - before.processCpu) * 1e6 / count, (after.threadUser - before.threadUser) * 1e6 / count,
            (after.threadSystem - before.threadSystem) * 1e6 / count,
            static_cast<double>(after.threadSwitches - before.threadSwitches) / count,
            static_cast<double>(after.threadFaults - before.threadFaults) / count,
            static_cast<double>(after.threadAllocations - before.threadAllocations) / count,
            static_cast<double>(after.allocations - before.allocations) / count,
            static_cast<double>(after.syscalls - before.syscalls) / count};
}

// Echoes driven from the network thread: each answer sends the next, so that nothing but the
// client and the peer runs between two round trips.
class EchoLoop {
public:
    using Send = std::function<void(const std::shared_ptr<EchoLoop>&)>;

    EchoLoop(int total, int window, Send send) : total_(total), window_(window), send_(std::move(send)) {
        if (window_ == 1) roundTrips.reserve(static_cast<std::size_t>(total_));
    }

    // On the network thread.
    void start(const std::shared_ptr<EchoLoop>& self) {
        started = Clock::now();
        while (sent_ < total_ && sent_ < window_) sendNext(self);
    }

    // On the network thread, once per answer.
    void answered(const std::shared_ptr<EchoLoop>& self, Clock::time_point sentAt, bool right) {
        if (done_) return;
        if (!right) {
            failed = true;
            finish();
            return;
        }
        if (window_ == 1) roundTrips.push_back(micros(Clock::now() - sentAt));
        if (++answered_ == total_) {
            finish();
            return;
        }
        if (sent_ < total_) sendNext(self);
    }

    bool wait() { return latch_.wait(kBound) && !failed; }

    Clock::time_point started, finished;
    std::vector<double> roundTrips;  // microseconds, one in flight only
    bool failed = false;

private:
    void sendNext(const std::shared_ptr<EchoLoop>& self) {
        ++sent_;
        send_(self);
    }
    void finish() {
        done_ = true;
        finished = Clock::now();
        latch_.open();
    }

    int total_, window_, sent_ = 0, answered_ = 0;
    bool done_ = false;
    Send send_;
    Latch latch_;
};

// One manager and its default namespace.
class SocketIOSession {
public:
    SocketIOSession(std::shared_ptr<Queue> queue, int port, bool compress) : queue_(std::move(queue)) {
        SocketIOClientConfiguration config{Option::handleQueue(queue_), Option::forceWebsockets(true),
                                           Option::log(false)};
        if (compress) config.insert(Option::compress());
        auto url = URL::make("http://127.0.0.1:" + std::to_string(port) + "/");
        manager_ = std::make_shared<SocketManager>(*url, config);
    }

    ~SocketIOSession() {
        std::weak_ptr<SocketEngineSpec> engine;
        queue_->sync([&] {
            engine = manager_->engine();
            manager_->disconnect();
            socket_.reset();
            manager_.reset();
        });
        // The next measurement starts once this connection is gone, not while it closes.
        auto deadline = Clock::now() + std::chrono::seconds(5);
        while (!engine.expired() && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    // Microseconds from connect() to the namespace's connect event, or nothing in time.
    std::optional<double> connect() {
        auto latch = std::make_shared<Latch>();
        auto connectedAt = std::make_shared<Clock::time_point>();
        Clock::time_point startedAt;
        queue_->sync([&] {
            socket_ = manager_->defaultSocket();
            socket_->once(SocketClientEvent::connect,
                          [latch, connectedAt](const std::vector<Json>&, SocketAckEmitter&) {
                              *connectedAt = Clock::now();
                              latch->open();
                          });
            startedAt = Clock::now();
            socket_->connect();
        });
        if (!latch->wait(kConnectBound)) return std::nullopt;
        return micros(*connectedAt - startedAt);
    }

    // Acked echoes of `payload`: `total`, at most `window` unanswered.
    std::shared_ptr<EchoLoop> echo(const std::string& payload, int total, int window) {
        // The session outlives its loops; a plain pointer keeps a cycle out of the ack callbacks.
        auto send = [socket = socket_.get(), &payload](const std::shared_ptr<EchoLoop>& self) {
            const auto sentAt = Clock::now();
            auto answer = [self, sentAt, &payload](const std::vector<Json>& data) {
                const bool right =
                    data.size() == 1 && data[0].is_string() && data[0].get_ref<const std::string&>() == payload;
                self->answered(self, sentAt, right);
            };
            socket->emitWithAck("echo", {payload}).timingOut(kAckSeconds, std::move(answer));
        };
        auto loop = std::make_shared<EchoLoop>(total, window, std::move(send));
        queue_->async([loop] { loop->start(loop); });
        return loop;
    }

    // `count` emits that the server does not answer, 64 to a task, then one acked emit behind
    // them: the emit path alone. False if the ack does not come.
    bool emitUnanswered(const std::string& payload, int count) {
        auto latch = std::make_shared<Latch>();
        auto chunk = std::make_shared<std::function<void(int)>>();
        *chunk = [this, &payload, count, latch, chunk](int sent) {
            const int end = std::min(count, sent + 64);
            for (; sent < end; ++sent) socket_->emit("drop", {payload});
            if (sent < count) {
                queue_->async([chunk, sent] { (*chunk)(sent); });
                return;
            }
            socket_->emitWithAck("drop", {}).timingOut(kAckSeconds, [latch](const std::vector<Json>&) { latch->open(); });
            *chunk = nullptr;
        };
        queue_->async([chunk] { (*chunk)(0); });
        return latch->wait(kBound);
    }

    // The server sends `count` events carrying `payload`, then answers: the receive path alone.
    bool receiveFlood(const std::string& payload, int count) {
        auto latch = std::make_shared<Latch>();
        auto received = std::make_shared<int>(0);
        bool complete = false;
        queue_->sync([&] {
            socket_->on("flooded", [received](const std::vector<Json>&, SocketAckEmitter&) { ++*received; });
            socket_->emitWithAck("flood", {std::string("flooded"), count, payload})
                .timingOut(kAckSeconds, [&complete, received, count, latch](const std::vector<Json>&) {
                    complete = *received == count;
                    latch->open();
                });
        });
        const bool answered = latch->wait(kBound);
        queue_->sync([&] { socket_->off("flooded"); });
        return answered && complete;
    }

    // Acked echoes emitted from the calling thread, each awaited there before the next: the
    // round trip of an application that waits. Microseconds of each, or nothing on a failure.
    std::optional<std::vector<double>> waitedEchoes(const std::string& payload, int count) {
        std::vector<double> times;
        times.reserve(static_cast<std::size_t>(count));
        std::mutex mutex;
        std::condition_variable changed;
        for (int i = 0; i < count; ++i) {
            bool answered = false, right = false;
            const auto sentAt = Clock::now();
            queue_->async([&] {
                socket_->emitWithAck("echo", {payload}).timingOut(kAckSeconds, [&](const std::vector<Json>& data) {
                    std::lock_guard lock(mutex);
                    right = data.size() == 1 && data[0].is_string() && data[0].get_ref<const std::string&>() == payload;
                    answered = true;
                    changed.notify_one();
                });
            });
            std::unique_lock lock(mutex);
            if (!changed.wait_for(lock, kConnectBound, [&] { return answered; }) || !right) return std::nullopt;
            times.push_back(micros(Clock::now() - sentAt));
        }
        return times;
    }

private:
    std::shared_ptr<Queue> queue_;
    std::shared_ptr<SocketManager> manager_;
    std::shared_ptr<SocketIOClient> socket_;
};

// A bare WebSocket to the server's Engine.IO endpoint, speaking the few text packets it needs
// by hand: the reference for what the client adds on top of its transport.
class BareSession : public std::enable_shared_from_this<BareSession> {
public:
    // Deflate is offered when `compression` is given.
    static std::shared_ptr<BareSession> make(std::shared_ptr<Queue> queue, int port,
                                             std::shared_ptr<websocket::CompressionHandler> compression = nullptr) {
        auto session = std::shared_ptr<BareSession>(new BareSession(std::move(queue), port, std::move(compression)));
        session->socket_->onEvent = [weak = session->weak_from_this()](const websocket::WebSocketEvent& event) {
            if (auto self = weak.lock()) self->handle(event);
        };
        return session;
    }

    // Microseconds from connect() to the namespace's answer, or nothing in time.
    std::optional<double> connect() {
        Clock::time_point startedAt;
        queue_->sync([&] {
            startedAt = Clock::now();
            socket_->connect();
        });
        if (!joined_.wait(kConnectBound)) return std::nullopt;
        return micros(joinedAt_ - startedAt);
    }

    void close() {
        socket_->disconnect();
        closed_.wait(std::chrono::seconds(5));
    }

    // The same packets as the client's acked echo, one in flight.
    std::shared_ptr<EchoLoop> echo(const std::string& payload, int total) {
        tail_ = "[\"" + payload + "\"]";
        auto loop = std::make_shared<EchoLoop>(total, 1, [this, &payload](const std::shared_ptr<EchoLoop>&) {
            lastSent_ = Clock::now();
            socket_->write("42" + std::to_string(++ackNumber_) + "[\"echo\",\"" + payload + "\"]");
        });
        queue_->async([self = shared_from_this(), loop] {
            self->loop_ = loop;
            loop->start(loop);
        });
        return loop;
    }

private:
    BareSession(std::shared_ptr<Queue> queue, int port, std::shared_ptr<websocket::CompressionHandler> compression)
        : queue_(std::move(queue)) {
        websocket::Request request(
            URL::make("ws://127.0.0.1:" + std::to_string(port) + "/socket.io/?EIO=4&transport=websocket"), 10);
        socket_ = std::make_shared<websocket::WebSocket>(
            std::move(request), nullptr, std::move(compression));
        socket_->callbackQueue = queue_;
    }

    void handle(const websocket::WebSocketEvent& event) {
        using Kind = websocket::WebSocketEvent::Kind;
        switch (event.kind) {
        case Kind::text: {
            const std::string& text = event.text;
            if (text.starts_with("43")) {
                if (loop_) loop_->answered(loop_, lastSent_, text.ends_with(tail_));
            } else if (text.starts_with("40")) {
                joinedAt_ = Clock::now();
                joined_.open();
            } else if (text.starts_with("0{")) {
                socket_->write("40");
            } else if (text == "2") {
                socket_->write("3");
            }
            break;
        }
        case Kind::cancelled:
        case Kind::disconnected:
        case Kind::peerClosed:
        case Kind::error: closed_.open(); break;
        default: break;
        }
    }

    std::shared_ptr<Queue> queue_;
    std::shared_ptr<websocket::WebSocket> socket_;
    Latch joined_, closed_;
    Clock::time_point joinedAt_, lastSent_;
    std::shared_ptr<EchoLoop> loop_;
    std::string tail_;
    std::int64_t ackNumber_ = -1;
};

double percentile(std::vector<double> values, double fraction) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    auto index = static_cast<std::size_t>(fraction * static_cast<double>(values.size()));
    return values[std::min(index, values.size() - 1)];
}

void printSpent(const char* what, const Spent& spent) {
    std::printf("%-28s %7.2f us CPU/msg (network thread: %.2f user + %.2f sys, %.2f waits, %.3f page faults, "
                "%.1f allocations; process: %.1f allocations; %.2f system calls)\n",
                what, spent.cpuMicros, spent.threadUserMicros, spent.threadSystemMicros, spent.threadSwitches,
                spent.threadFaults, spent.threadAllocations, spent.allocations, spent.syscalls);
}

std::string payloadOf(std::size_t size) {
    std::string text;
    for (std::size_t i = 0; text.size() < size; ++i) text += static_cast<char>('a' + i * 7 % 26);
    return text;
}

bool fail(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    return false;
}

// One in flight through the client and, as the reference, the same packets through a bare
// WebSocket to the same server.
struct OneInFlight {
    std::vector<double> roundTrips;
    Spent spent;
};

// Blocks of each in turn, so that drift in the machine's load falls on both alike. Either
// session may be absent (for a profiler, which then sees only the other).
bool oneInFlight(const std::shared_ptr<Queue>& queue, SocketIOSession* socketio, BareSession* bare,
                 const std::string& payload, OneInFlight& client, OneInFlight& reference) {
    constexpr int kWarmUp = 1000, kBlocks = 10, kBlock = 2000;
    if (socketio && !socketio->echo(payload, kWarmUp, 1)->wait()) return fail("the warm-up echo failed");
    if (bare && !bare->echo(payload, kWarmUp)->wait()) return fail("the bare warm-up echo failed");
    auto add = [](OneInFlight& into, const EchoLoop& loop, const Usage& before, const Usage& after) {
        into.roundTrips.insert(into.roundTrips.end(), loop.roundTrips.begin(), loop.roundTrips.end());
        Spent block = perMessage(before, after, kBlock * kBlocks);
        into.spent.cpuMicros += block.cpuMicros;
        into.spent.threadUserMicros += block.threadUserMicros;
        into.spent.threadSystemMicros += block.threadSystemMicros;
        into.spent.threadSwitches += block.threadSwitches;
        into.spent.threadFaults += block.threadFaults;
        into.spent.threadAllocations += block.threadAllocations;
        into.spent.allocations += block.allocations;
        into.spent.syscalls += block.syscalls;
    };
    for (int block = 0; block < kBlocks; ++block) {
        if (socketio) {
            Usage before = Usage::now(*queue);
            auto loop = socketio->echo(payload, kBlock, 1);
            if (!loop->wait()) return fail("the one-in-flight echo failed");
            add(client, *loop, before, Usage::now(*queue));
        }
        if (bare) {
            Usage before = Usage::now(*queue);
            auto loop = bare->echo(payload, kBlock);
            if (!loop->wait()) return fail("the bare echo failed");
            add(reference, *loop, before, Usage::now(*queue));
        }
    }
    return true;
}

void printOneInFlight(const char* what, const OneInFlight& run) {
    printSpent(what, run.spent);
    std::printf("%-28s p50 %.1f us, p90 %.1f us, p99 %.1f us\n", "", percentile(run.roundTrips, 0.5),
                percentile(run.roundTrips, 0.9), percentile(run.roundTrips, 0.99));
}

// What an acked emit leaves behind once answered: the heap its time-out still holds, and the
// CPU its expiry costs later.
bool ackAftermath(const std::shared_ptr<Queue>& queue, int port, const std::string& payload) {
    constexpr int kAcks = 50000, kWindow = 64;
    SocketIOSession session(queue, port, false);
    if (!session.connect()) return fail("the Socket.IO client did not connect");
    if (!session.echo(payload, kAcks / 10, kWindow)->wait()) return fail("the warm-up failed");
    // The warm-up's time-outs expire before the count starts.
    std::this_thread::sleep_for(std::chrono::duration<double>(kAckSeconds + 1));
    const std::size_t heapBefore = bench::heapInUse();
    if (!session.echo(payload, kAcks, kWindow)->wait()) return fail("the echo failed");
    const std::size_t heapAfter = bench::heapInUse();
    Usage before = Usage::now(*queue);
    std::this_thread::sleep_for(std::chrono::duration<double>(kAckSeconds + 1));
    Spent expiry = perMessage(before, Usage::now(*queue), kAcks);
    std::printf("answered acks: %.0f bytes of heap each until their time-out\n",
                (static_cast<double>(heapAfter) - static_cast<double>(heapBefore)) / kAcks);
    printSpent("their time-outs expiring", expiry);
    std::printf("heap after the expiries: %.0f bytes per ack\n",
                (static_cast<double>(bench::heapInUse()) - static_cast<double>(heapBefore)) / kAcks);

    // One in flight for longer than the time-out: the counted blocks pay for the expiries of
    // acks sent as many seconds earlier, at the same rate.
    constexpr int kBlock = 2000, kCounted = 10;
    const auto start = Clock::now();
    while (Clock::now() - start < std::chrono::duration<double>(kAckSeconds + 1)) {
        if (!session.echo(payload, kBlock, 1)->wait()) return fail("the echo failed");
    }
    before = Usage::now(*queue);
    for (int block = 0; block < kCounted; ++block) {
        if (!session.echo(payload, kBlock, 1)->wait()) return fail("the echo failed");
    }
    printSpent("one in flight, steady state", perMessage(before, Usage::now(*queue), kBlock * kCounted));
    return true;
}

// "socketio" or "bare": that one-in-flight run alone, for a profiler attached to the process;
// "timers": what answered acks leave behind.
bool profileRun(const std::shared_ptr<Queue>& queue, int port, const std::string& which) {
    const std::string payload = payloadOf(100);
    OneInFlight client, reference;
    if (which == "timers") return ackAftermath(queue, port, payload);
    if (which == "pipelined") {
        SocketIOSession session(queue, port, false);
        if (!session.connect()) return fail("the Socket.IO client did not connect");
        Usage before = Usage::now(*queue);
        if (!session.echo(payload, 50000, 64)->wait()) return fail("the pipelined echo failed");
        printSpent("socketio 64 in flight", perMessage(before, Usage::now(*queue), 50000));
        return true;
    }
    if (which == "socketio") {
        SocketIOSession session(queue, port, false);
        if (!session.connect()) return fail("the Socket.IO client did not connect");
        if (!oneInFlight(queue, &session, nullptr, payload, client, reference)) return false;
        printOneInFlight("socketio one in flight", client);
    } else if (which == "bare") {
        auto bare = BareSession::make(queue, port);
        if (!bare->connect()) return fail("the bare WebSocket did not connect");
        if (!oneInFlight(queue, nullptr, bare.get(), payload, client, reference)) return false;
        bare->close();
        printOneInFlight("bare websocket one in flight", reference);
    } else {
        return fail("profile-socketio, profile-bare, profile-pipelined or profile-timers");
    }
    return true;
}

bool echoFigures(const std::shared_ptr<Queue>& queue, int port) {
    const std::string payload = payloadOf(100);
    constexpr int kPipelined = 50000, kWindow = 64;

    SocketIOSession session(queue, port, false);
    if (!session.connect()) return fail("the Socket.IO client did not connect");
    auto bare = BareSession::make(queue, port);
    if (!bare->connect()) return fail("the bare WebSocket did not connect");
    OneInFlight client, reference;
    if (!oneInFlight(queue, &session, bare.get(), payload, client, reference)) return false;
    bare->close();

    if (!session.echo(payload, kPipelined / 10, kWindow)->wait()) return fail("the pipelined warm-up failed");
    Usage before = Usage::now(*queue);
    auto many = session.echo(payload, kPipelined, kWindow);
    if (!many->wait()) return fail("the pipelined echo failed");
    Spent manySpent = perMessage(before, Usage::now(*queue), kPipelined);
    const double rate = kPipelined / std::chrono::duration<double>(many->finished - many->started).count();

    printOneInFlight("socketio one in flight", client);
    printOneInFlight("bare websocket one in flight", reference);
    printSpent("socketio 64 in flight", manySpent);
    bench::figure("socketio_echo_p50_us", percentile(client.roundTrips, 0.5), "us");
    bench::figure("socketio_echo_p99_us", percentile(client.roundTrips, 0.99), "us");
    bench::figure("socketio_echo_pipelined", rate, "msg/s");
    bench::figure("socketio_cpu_per_roundtrip_us", client.spent.cpuMicros, "us");
    bench::figure("socketio_pipelined_cpu_us", manySpent.cpuMicros, "us");
    bench::figure("socketio_pipelined_syscalls", manySpent.syscalls, "per event");
    bench::figure("socketio_pipelined_allocations", manySpent.allocations, "per event");

    // The two directions apart.
    constexpr int kOneWay = 50000;
    if (!session.emitUnanswered(payload, kOneWay / 10)) return fail("the emit warm-up failed");
    before = Usage::now(*queue);
    if (!session.emitUnanswered(payload, kOneWay)) return fail("the emits failed");
    Spent emitSpent = perMessage(before, Usage::now(*queue), kOneWay);
    if (!session.receiveFlood(payload, kOneWay / 10)) return fail("the receive warm-up failed");
    before = Usage::now(*queue);
    if (!session.receiveFlood(payload, kOneWay)) return fail("the flood did not arrive whole");
    Spent receiveSpent = perMessage(before, Usage::now(*queue), kOneWay);
    printSpent("socketio emit only", emitSpent);
    printSpent("socketio receive only", receiveSpent);
    bench::figure("socketio_emit_cpu_us", emitSpent.cpuMicros, "us");
    bench::figure("socketio_emit_allocations", emitSpent.allocations, "per event");
    bench::figure("socketio_emit_syscalls", emitSpent.syscalls, "per event");
    bench::figure("socketio_receive_cpu_us", receiveSpent.cpuMicros, "us");
    bench::figure("socketio_receive_allocations", receiveSpent.allocations, "per event");
    bench::figure("socketio_receive_syscalls", receiveSpent.syscalls, "per event");

    // An application thread that emits and waits, against the same round trips chained from
    // the ack callback on the network thread (the one-in-flight figure above), in blocks.
    constexpr int kWaited = 2000, kWaitedBlocks = 5;
    if (!session.waitedEchoes(payload, kWaited / 2)) return fail("the waited warm-up failed");
    std::vector<double> waitedTimes;
    double waitedCpu = 0, chainedCpu = 0;
    for (int block = 0; block < kWaitedBlocks; ++block) {
        const double start = bench::cpuSeconds(RUSAGE_SELF);
        auto times = session.waitedEchoes(payload, kWaited);
        if (!times) return fail("a waited echo failed");
        waitedCpu += bench::cpuSeconds(RUSAGE_SELF) - start;
        waitedTimes.insert(waitedTimes.end(), times->begin(), times->end());
        Usage chainedBefore = Usage::now(*queue);
        if (!session.echo(payload, kWaited, 1)->wait()) return fail("a chained echo failed");
        chainedCpu += perMessage(chainedBefore, Usage::now(*queue), kWaited).cpuMicros / kWaitedBlocks;
    }
    const double waitedPer = waitedCpu * 1e6 / (kWaited * kWaitedBlocks);
    std::printf("application thread waiting: %.2f us CPU per round trip, p50 %.1f us (chained: %.2f us CPU)\n",
                waitedPer, percentile(waitedTimes, 0.5), chainedCpu);
    bench::figure("socketio_app_thread_cpu_per_roundtrip_us", waitedPer, "us");
    bench::figure("socketio_app_thread_vs_chained", waitedPer / chainedCpu, "x");
    return true;
}

// Raw zlib doing what deflate costs the client per acked echo: compress the packet text it
// sends and inflate the answer as the server compressed it, with streams kept across messages.
// Microseconds per event.
double rawZlibPerEcho(const std::string& payload, int count) {
    auto deflater = [] {
        auto stream = std::make_unique<z_stream>();
        deflateInit2(stream.get(), Z_DEFAULT_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
        return stream;
    };
    auto squeeze = [](z_stream& stream, const std::string& text, std::vector<unsigned char>& out) {
        unsigned char buffer[8192];
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
        stream.avail_in = static_cast<uInt>(text.size());
        out.clear();
        do {
            stream.next_out = buffer;
            stream.avail_out = sizeof buffer;
            deflate(&stream, Z_SYNC_FLUSH);
            out.insert(out.end(), buffer, buffer + (sizeof buffer - stream.avail_out));
        } while (stream.avail_out == 0);
        out.resize(out.size() - 4);
    };
    // The server's answers, compressed beforehand.
    auto server = deflater();
    std::vector<std::vector<unsigned char>> answers(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) squeeze(*server, "43" + std::to_string(i) + "[\"" + payload + "\"]", answers[i]);
    deflateEnd(server.get());

    auto client = deflater();
    z_stream inflater{};
    inflateInit2(&inflater, -15);
    std::vector<unsigned char> sent;
    std::string text;
    static const unsigned char tail[4] = {0, 0, 0xFF, 0xFF};
    unsigned char buffer[8192];
    std::size_t produced = 0;
    const double start = bench::cpuSeconds(RUSAGE_THREAD);
    for (int i = 0; i < count; ++i) {
        text = "42" + std::to_string(i) + "[\"echo\",\"" + payload + "\"]";
        squeeze(*client, text, sent);
        for (auto [data, size] : {std::pair<const unsigned char*, std::size_t>{answers[i].data(), answers[i].size()},
                                  std::pair<const unsigned char*, std::size_t>{tail, 4}}) {
            inflater.next_in = const_cast<Bytef*>(data);
            inflater.avail_in = static_cast<uInt>(size);
            do {
                inflater.next_out = buffer;
                inflater.avail_out = sizeof buffer;
                inflate(&inflater, Z_NO_FLUSH);
                produced += sizeof buffer - inflater.avail_out;
            } while (inflater.avail_out == 0);
        }
    }
    const double spent = bench::cpuSeconds(RUSAGE_THREAD) - start;
    deflateEnd(client.get());
    inflateEnd(&inflater);
    if (produced == 0) std::printf("raw zlib produced nothing\n");
    return spent * 1e6 / count;
}

// permessage-deflate on a live connection, each call timed where it runs (the network thread).
class TimedCompression final : public websocket::CompressionHandler {
public:
    void load(const websocket::Headers& headers) override { inner_.load(headers); }
    std::optional<Bytes> decompress(ByteView data, bool isFinal, std::size_t limit) override {
        return timed([&] { return inner_.decompress(data, isFinal, limit); });
    }
    std::optional<Bytes> compress(ByteView data) override {
        return timed([&] { return inner_.compress(data); });
    }
    double micros() const { return static_cast<double>(nanoseconds_.load()) / 1000; }

private:
    template <class Call>
    std::optional<Bytes> timed(Call call) {
        const auto start = Clock::now();
        auto out = call();
        nanoseconds_ += std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
        return out;
    }

    websocket::WSCompression inner_;
    std::atomic<std::int64_t> nanoseconds_{0};
};

// Deflate's cost to the client. The compression calls of a live connection, timed where they
// run, are set against raw zlib on the same bytes in the same run. Beside them, the whole CPU
// that deflate adds: acked echoes one in flight with deflate agreed against the same echoes
// without it to the same server (a client that offers no deflate gets plain frames), in
// interleaved blocks; one in flight, so that both sides wake once per echo, though a wake-up
// after the deflating server's longer answer still costs the kernel more.
bool deflateFigures(const std::shared_ptr<Queue>& queue, int deflatingPort) {
    const std::string payload = payloadOf(100);
    constexpr int kPipelined = 20000, kWindow = 64, kBlocks = 10, kBlock = 2000;
    SocketIOSession session(queue, deflatingPort, true);
    if (!session.connect()) return fail("the Socket.IO client did not connect");
    SocketIOSession plain(queue, deflatingPort, false);
    if (!plain.connect()) return fail("the plain Socket.IO client did not connect");
    if (!session.echo(payload, kPipelined / 10, kWindow)->wait()) return fail("the deflate warm-up failed");
    Usage before = Usage::now(*queue);
    if (!session.echo(payload, kPipelined, kWindow)->wait()) return fail("the deflate echo failed");
    Spent pipelined = perMessage(before, Usage::now(*queue), kPipelined);

    if (!session.echo(payload, kBlock, 1)->wait() || !plain.echo(payload, kBlock, 1)->wait()) {
        return fail("the one-in-flight warm-up failed");
    }
    double deflated = 0, undeflated = 0;
    for (int block = 0; block < kBlocks; ++block) {
        for (auto [which, cpu] : {std::pair{&session, &deflated}, std::pair{&plain, &undeflated}}) {
            before = Usage::now(*queue);
            if (!which->echo(payload, kBlock, 1)->wait()) return fail("a one-in-flight echo failed");
            *cpu += perMessage(before, Usage::now(*queue), kBlock).cpuMicros / kBlocks;
        }
    }
    // The same packets through the WebSocket under the client, its compression calls timed.
    auto compression = std::make_shared<TimedCompression>();
    auto bare = BareSession::make(queue, deflatingPort, compression);
    if (!bare->connect() || !bare->echo(payload, kBlock)->wait()) return fail("the bare deflate warm-up failed");
    const double callsBefore = compression->micros();
    if (!bare->echo(payload, kPipelined)->wait()) return fail("the bare deflate echo failed");
    const double calls = (compression->micros() - callsBefore) / kPipelined;
    bare->close();
    rawZlibPerEcho(payload, kPipelined / 10);
    const double zlib = rawZlibPerEcho(payload, kPipelined);
    printSpent("socketio deflate 64 in flight", pipelined);
    std::printf("one in flight: %.2f us CPU with deflate, %.2f us without\n", deflated, undeflated);
    bench::figure("socketio_deflate_pipelined_cpu_us", pipelined.cpuMicros, "us");
    bench::figure("socketio_deflate_extra_cpu_us", deflated - undeflated, "us");
    bench::figure("deflate_calls_per_echo_us", calls, "us");
    bench::figure("zlib_compress_decompress_us", zlib, "us");
    bench::figure("deflate_calls_vs_zlib", calls / zlib, "x");
    return true;
}

bool connectFigures(const std::shared_ptr<Queue>& queue, int port) {
    constexpr int kWarmUp = 3, kConnects = 50;
    std::vector<double> socketio, bare;
    // Alternated, so that drift in the machine's load falls on both alike.
    for (int i = 0; i < kWarmUp + kConnects; ++i) {
        auto plain = BareSession::make(queue, port);
        auto bareTime = plain->connect();
        plain->close();
        if (!bareTime) return fail("a bare WebSocket did not connect");
        std::optional<double> socketioTime;
        {
            SocketIOSession session(queue, port, false);
            socketioTime = session.connect();
        }
        if (!socketioTime) return fail("a Socket.IO manager did not connect");
        if (i < kWarmUp) continue;
        bare.push_back(*bareTime);
        socketio.push_back(*socketioTime);
    }
    const double socketioMs = percentile(socketio, 0.5) / 1000, bareMs = percentile(bare, 0.5) / 1000;
    std::printf("connect p90: socketio %.3f ms, bare websocket %.3f ms\n", percentile(socketio, 0.9) / 1000,
                percentile(bare, 0.9) / 1000);
    bench::figure("socketio_connect_ms", socketioMs, "ms");
    bench::figure("ws_connect_roundtrip_ms", bareMs, "ms");
    bench::figure("socketio_connect_ratio", socketioMs / bareMs, "x");
    return true;
}

// Heap held per idle connection with the default namespace joined, over several of them: a
// manager, or (`bare`) the reference WebSocket.
std::optional<double> idleHeap(const std::shared_ptr<Queue>& queue, int port, bool compress, bool bare) {
    constexpr int kConnections = 16;
    std::vector<std::unique_ptr<SocketIOSession>> managers;
    std::vector<std::shared_ptr<BareSession>> sockets;
    auto open = [&] {
        if (bare) {
            auto compression = compress ? std::make_shared<websocket::WSCompression>() : nullptr;
            return sockets.emplace_back(BareSession::make(queue, port, std::move(compression)))->connect().has_value();
        }
        return managers.emplace_back(std::make_unique<SocketIOSession>(queue, port, compress))->connect().has_value();
    };
    // The first connection also makes what the process keeps for every later one.
    if (!open()) return std::nullopt;
    // Whatever a connect leaves queued (events, their copies) has run by the reading.
    auto settled = [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        queue->sync([] {});
        return bench::heapInUse();
    };
    const std::size_t before = settled();
    for (int i = 0; i < kConnections; ++i) {
        if (!open()) return std::nullopt;
    }
    const std::size_t after = settled();
    for (auto& socket : sockets) socket->close();
    return (static_cast<double>(after) - static_cast<double>(before)) / kConnections;
}

bool heapFigures(const std::shared_ptr<Queue>& queue, int port, int deflatingPort) {
    auto plain = idleHeap(queue, port, false, false);
    auto compress = idleHeap(queue, deflatingPort, true, false);
    auto compressRefused = idleHeap(queue, port, true, false);
    auto barePlain = idleHeap(queue, port, false, true);
    auto bareCompress = idleHeap(queue, deflatingPort, true, true);
    if (!plain || !compress || !compressRefused || !barePlain || !bareCompress) return fail("a connection failed");
    std::printf("idle manager, compress on, server without deflate: %.1f KiB\n", *compressRefused / 1024);
    std::printf("idle bare websocket, namespace joined: %.1f KiB, with deflate: %.1f KiB\n", *barePlain / 1024,
                *bareCompress / 1024);
    bench::figure("socketio_idle_manager_heap_kib", *plain / 1024, "KiB");
    bench::figure("socketio_idle_manager_heap_compress_kib", *compress / 1024, "KiB");
    return true;
}

}  // namespace

// With an argument ("heap", "connect", "echo", "deflate", "profile-socketio", "profile-bare" or
// "profile-timers"), only that part runs.
int main(int argc, char** argv) {
    const std::string only = argc > 1 ? argv[1] : "";
    auto runs = [&](const char* part) { return only.empty() || only == part; };
    // Quiet: a line per event would cost this process a read and a stored line each.
    kelvane::testing::PeerProcess server("socketio-server.js", {R"({"lifetime":300,"quiet":true})"});
    // Compression counts only where the server agrees to it.
    kelvane::testing::PeerProcess deflating("socketio-server.js",
                                            {R"({"lifetime":300,"quiet":true,"perMessageDeflate":{"threshold":0}})"});
    if (!server.port() || !deflating.port()) {
        std::fprintf(stderr, "the socket.io peer did not start (run ./run setup)\n");
        return 1;
    }
    auto queue = Queue::makeSerial("bench");
    if (openSyscallCounter() < 0) std::printf("system calls are not counted here (no syscall tracepoint)\n");

    // Heap first: the echoes leave ack timers behind, whose expiry would free memory mid-count.
    if (runs("heap") && !heapFigures(queue, server.port(), deflating.port())) return 1;
    if (runs("connect") && !connectFigures(queue, server.port())) return 1;
    if (runs("echo") && !echoFigures(queue, server.port())) return 1;
    if (runs("deflate") && !deflateFigures(queue, deflating.port())) return 1;
    if (only.starts_with("profile-") && !profileRun(queue, server.port(), only.substr(8))) return 1;
    return 0;
}
