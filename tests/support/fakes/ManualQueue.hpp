#pragma once

#include <kelvane/Queue.hpp>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <thread>

namespace kelvane {

// A serial queue that runs only when its driver tells it to, on a clock that moves only when
// told. Tests stand it in for the main queue, so that waits of seconds cost nothing and the
// order of work is exact. Posting works from any thread; running belongs to the driver thread
// (the thread that made the queue), which also counts as "on the queue", as the main thread
// does for the main queue.
class ManualQueue final : public Queue {
public:
    explicit ManualQueue(std::string label = "manual");

    void async(Task task) override;
    void asyncAfter(Duration delay, Task task) override;
    bool isCurrent() const override;
    const std::string& label() const override { return label_; }

    // The queue's clock: starts at zero and moves only by advance().
    Duration now() const override;

    // Runs every task that is due now, including tasks those tasks post. Returns how many ran.
    std::size_t runUntilIdle();
    // Moves the clock forward by `by`, running due tasks in time order as it passes them.
    std::size_t advance(Duration by);
    // Runs due tasks as they arrive from other threads until `done` holds or `bound` of real
    // time has passed. Returns whether `done` held.
    bool runUntil(const std::function<bool()>& done,
                  std::chrono::milliseconds bound = std::chrono::seconds(20));

    // Tasks not yet run, due or not.
    std::size_t pendingCount() const;
    // Whether a task waits for a later time of the clock.
    bool hasDelayedTasks() const;

private:
    struct Entry {
        Duration due;
        std::uint64_t sequence;
        mutable Task task;
        bool operator<(const Entry& other) const {
            return due != other.due ? due < other.due : sequence < other.sequence;
        }
    };

    bool runOne(Duration limit);

    std::string label_;
    std::thread::id driver_;
    mutable std::mutex mutex_;
    std::condition_variable posted_;
    std::set<Entry> entries_;
    Duration now_{};
    std::uint64_t nextSequence_ = 0;
};

}  // namespace kelvane
