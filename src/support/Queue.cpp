#include <kelvane/Queue.hpp>

#include "support/NetworkContext.hpp"

#include <kelvane/Log.hpp>
#include <kelvane/platform/Platform.hpp>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <pthread.h>
#include <thread>

namespace kelvane {
namespace {

// One context and one thread for every serial queue and timer of the process. It is never
// destroyed: queues may still post from static destructors and detached callbacks.
class NetworkRuntime {
public:
    NetworkRuntime() : guard_(asio::make_work_guard(context_)) {
        thread_ = std::thread([this] {
            pthread_setname_np(pthread_self(), "kelvane-net");
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

class StrandQueue final : public Queue {
public:
    explicit StrandQueue(std::string label)
        : label_(std::move(label)), strand_(asio::make_strand(NetworkRuntime::shared().context())) {}

    void async(Task task) override { asio::post(strand_, std::move(task)); }

    void asyncAfter(Duration delay, Task task) override {
        auto timer = std::make_shared<asio::steady_timer>(strand_, delay);
        timer->async_wait([timer, task = std::move(task)](const asio::error_code& error) {
            if (!error) task();
        });
    }

    bool isCurrent() const override { return strand_.running_in_this_thread(); }
    const std::string& label() const override { return label_; }

private:
    std::string label_;
    asio::strand<asio::io_context::executor_type> strand_;
};

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

Queue::~Queue() = default;

void Queue::sync(Task task) {
    if (isCurrent()) {
        // A hop onto the queue we are on would wait for ever; running in place is what the
        // caller meant.
        task();
        return;
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
    return std::make_shared<StrandQueue>(std::move(label));
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
