#include <kelvane/Queue.hpp>

#include "support/Fifo.hpp"
#include "support/NetworkContext.hpp"

#include <kelvane/Log.hpp>
#include <kelvane/platform/Platform.hpp>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/thread_pool.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <vector>

namespace kelvane {
namespace {

thread_local bool isNetworkThread = false;

// One context and one thread for every serial queue and timer of the process. It is never
// destroyed: queues may still post from static destructors and detached callbacks.
class NetworkRuntime {
public:
    NetworkRuntime() : guard_(asio::make_work_guard(context_)) {
        thread_ = std::thread([this] {
            pthread_setname_np(pthread_self(), "kelvane-net");
            isNetworkThread = true;
            context_.run();
        });
        thread_.detach();
    }
    asio::io_context& context() { return context_; }

    static NetworkRuntime& shared() {
        static auto* runtime = new NetworkRuntime();
        return *runtime;
    }

private:
    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_;
    std::thread thread_;
};

class SerialQueue;

// The serial queues whose tasks are running on this thread, the innermost last. More than one
// only while a synchronous hop runs in place.
thread_local std::vector<const SerialQueue*> runningQueues;

// A serial queue keeps its own list of tasks rather than being an asio strand, so that a
// synchronous hop made on the network thread can run the queue's waiting tasks in place.
class SerialQueue final : public Queue, public std::enable_shared_from_this<SerialQueue> {
public:
    explicit SerialQueue(std::string label) : label_(std::move(label)) {}

    void async(Task task) override {
        {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
            if (scheduled_) return;
            scheduled_ = true;
        }
        schedule();
    }

    void asyncAfter(Duration delay, Task task) override {
        auto timer = std::make_shared<asio::steady_timer>(NetworkRuntime::shared().context(), delay);
        timer->async_wait([timer, self = shared_from_this(), task = std::move(task)](const asio::error_code& error) mutable {
            if (error) return;
            NetworkTurn turn;
            self->async(std::move(task));
        });
    }

    bool isCurrent() const override { return !runningQueues.empty() && runningQueues.back() == this; }
    const std::string& label() const override { return label_; }

    bool runningOnThisThread() const {
        return std::find(runningQueues.begin(), runningQueues.end(), this) != runningQueues.end();
    }

    // On the network thread, with this queue nowhere up the stack: what was posted before
    // runs first, in order, then `task`; later posts wait their turn as usual.
    void runInPlace(const Task& task) {
        runWaiting();
        run(task);
    }

    void run(const Task& task) const {
        runningQueues.push_back(this);
        struct Pop {
            ~Pop() { runningQueues.pop_back(); }
        } pop;
        task();
    }

    // One turn runs what was waiting when it began, then lets the other queues have theirs.
    void drain() {
        runWaiting();
        {
            std::lock_guard lock(mutex_);
            if (tasks_.empty()) {
                scheduled_ = false;
                return;
            }
        }
        schedule();
    }

    void post() {
        asio::post(NetworkRuntime::shared().context(), [self = shared_from_this()] {
            NetworkTurn turn;
            self->drain();
        });
    }

private:
    void schedule();

    // Runs the tasks that were waiting when it began, in order; later ones wait their turn.
    void runWaiting() {
        std::size_t count = 0;
        {
            std::lock_guard lock(mutex_);
            count = tasks_.size();
        }
        for (; count > 0; --count) {
            Task task;
            {
                std::lock_guard lock(mutex_);
                if (tasks_.empty()) break;
                task = std::move(tasks_.front());
                tasks_.pop_front();
            }
            run(task);
        }
    }

    std::string label_;
    std::mutex mutex_;
    Fifo<Task> tasks_;
    bool scheduled_ = false;
};

// Queues that the turn running on this thread made ready: they take their turns when it ends,
// before the network context polls its sockets again, so that a chain of hops between serial
// queues (an emit on its way to the wire, a read on its way to the handler) costs the context
// one round, not one each. Set while a turn runs.
thread_local std::vector<std::shared_ptr<SerialQueue>>* readyAfterTurn = nullptr;
// Turns taken in a row that way; then the rest go back to the context, so that sockets and
// timers are not kept waiting.
constexpr int kTurnsInARow = 256;

void SerialQueue::schedule() {
    if (readyAfterTurn) {
        readyAfterTurn->push_back(shared_from_this());
        return;
    }
    post();
}

thread_local bool onGlobalQueue = false;

class GlobalQueue final : public Queue {
public:
    GlobalQueue() : pool_(2) {}

    void async(Task task) override { asio::post(pool_, wrap(std::move(task))); }

    void asyncAfter(Duration delay, Task task) override {
        auto timer = std::make_shared<asio::steady_timer>(pool_.get_executor(), delay);
        timer->async_wait([timer, task = wrap(std::move(task))](const asio::error_code& error) {
            if (!error) task();
        });
    }

    bool isCurrent() const override { return onGlobalQueue; }
    const std::string& label() const override { return label_; }

private:
    static Task wrap(Task task) {
        return [task = std::move(task)] {
            onGlobalQueue = true;
            task();
            onGlobalQueue = false;
        };
    }

    std::string label_ = "global";
    asio::thread_pool pool_;
};

}  // namespace

asio::io_context& networkContext() { return NetworkRuntime::shared().context(); }

bool onNetworkThread() { return isNetworkThread; }

NetworkTurn::NetworkTurn() : outermost_(readyAfterTurn == nullptr) {
    // Kept from turn to turn, so that a turn costs no allocation.
    thread_local std::vector<std::shared_ptr<SerialQueue>> ready;
    if (outermost_) readyAfterTurn = &ready;
}

// Who waits for the end of the turn running on this thread.
thread_local std::vector<std::shared_ptr<NetworkTurn::Listener>> turnListeners;

NetworkTurn::~NetworkTurn() {
    if (!outermost_) return;
    auto& ready = *readyAfterTurn;
    std::size_t next = 0;
    for (int taken = 0; next < ready.size() && taken < kTurnsInARow; ++taken) {
        // By value: a drain may add to the list and move it.
        auto queue = std::move(ready[next++]);
        queue->drain();
    }
    readyAfterTurn = nullptr;
    for (; next < ready.size(); ++next) ready[next]->post();
    ready.clear();
    // Outside the turn: what a listener sets off is not part of it.
    for (std::size_t i = 0; i < turnListeners.size(); ++i) {
        auto listener = std::move(turnListeners[i]);
        listener->turnEnded();
    }
    turnListeners.clear();
}

bool NetworkTurn::joinEnd(std::shared_ptr<Listener> listener) {
    if (!readyAfterTurn) return false;
    turnListeners.push_back(std::move(listener));
    return true;
}

Queue::~Queue() = default;

Queue::Duration Queue::now() const { return std::chrono::steady_clock::now().time_since_epoch(); }

void Queue::sync(Task task) {
    if (isCurrent()) {
        // A hop onto the queue we are on would wait for ever; running in place is what the
        // caller meant.
        task();
        return;
    }
    if (auto* serial = dynamic_cast<SerialQueue*>(this)) {
        // A hop back onto a queue whose task waits further up this stack: in place, as from
        // that queue itself.
        if (serial->runningOnThisThread()) return serial->run(task);
        // Waiting here would block the one thread that could run the task.
        if (isNetworkThread) return serial->runInPlace(task);
    }
    std::promise<void> done;
    auto finished = done.get_future();
    async([&] {
        task();
        done.set_value();
    });
    finished.wait();
}

std::shared_ptr<Queue> Queue::main() {
    if (auto installed = platform::current(); installed && installed->mainQueue) {
        return installed->mainQueue;
    }
    static auto* standIn = new std::shared_ptr<Queue>(makeSerial("main"));
    return *standIn;
}

std::shared_ptr<Queue> Queue::makeSerial(std::string label) {
    return std::make_shared<SerialQueue>(std::move(label));
}

std::shared_ptr<Queue> Queue::global() {
    static auto* queue = new std::shared_ptr<Queue>(std::make_shared<GlobalQueue>());
    return *queue;
}

void assertOnQueue(const Queue& queue, const char* where) {
    if (!queue.isCurrent()) {
        std::fprintf(stderr, "%s must run on the queue '%s'\n", where, queue.label().c_str());
        std::abort();
    }
}

}  // namespace kelvane
