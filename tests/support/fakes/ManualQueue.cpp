#include "ManualQueue.hpp"

namespace kelvane {
namespace {
thread_local const ManualQueue* runningQueue = nullptr;
}

ManualQueue::ManualQueue(std::string label)
    : label_(std::move(label)), driver_(std::this_thread::get_id()) {}

void ManualQueue::async(Task task) { asyncAfter(Duration::zero(), std::move(task)); }

void ManualQueue::asyncAfter(Duration delay, Task task) {
    {
        std::lock_guard lock(mutex_);
        entries_.insert(Entry{now_ + std::max(delay, Duration::zero()), nextSequence_++, std::move(task)});
    }
    posted_.notify_all();
}

bool ManualQueue::isCurrent() const {
    return runningQueue == this || std::this_thread::get_id() == driver_;
}

ManualQueue::Duration ManualQueue::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

bool ManualQueue::runOne(Duration limit) {
    Task task;
    {
        std::lock_guard lock(mutex_);
        if (entries_.empty() || entries_.begin()->due > limit) return false;
        auto first = entries_.begin();
        now_ = std::max(now_, first->due);
        task = std::move(first->task);
        entries_.erase(first);
    }
    const auto* outer = runningQueue;
    runningQueue = this;
    task();
    runningQueue = outer;
    return true;
}

std::size_t ManualQueue::runUntilIdle() {
    std::size_t count = 0;
    while (runOne(now())) ++count;
    return count;
}

std::size_t ManualQueue::advance(Duration by) {
    const auto target = now() + by;
    std::size_t count = 0;
    while (runOne(target)) ++count;
    std::lock_guard lock(mutex_);
    now_ = std::max(now_, target);
    return count;
}

bool ManualQueue::runUntil(const std::function<bool()>& done, std::chrono::milliseconds bound) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    for (;;) {
        runUntilIdle();
        if (done()) return true;
        std::unique_lock lock(mutex_);
        // Short slices, because `done` may turn true through work on other threads that posts
        // nothing here.
        const auto slice = std::min(deadline, std::chrono::steady_clock::now() + std::chrono::milliseconds(5));
        posted_.wait_until(lock, slice, [&] { return !entries_.empty() && entries_.begin()->due <= now_; });
        if (std::chrono::steady_clock::now() >= deadline) {
            lock.unlock();
            runUntilIdle();
            return done();
        }
    }
}

std::size_t ManualQueue::pendingCount() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

bool ManualQueue::hasDelayedTasks() const {
    std::lock_guard lock(mutex_);
    for (const auto& entry : entries_) {
        if (entry.due > now_) return true;
    }
    return false;
}

}  // namespace kelvane
