#pragma once

#include <kelvane/Export.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace kelvane {

// A place where work runs. Serial queues run one task at a time, in the order they were
// posted; delayed tasks run no earlier than their delay. All members may be called from any
// thread.
class KELVANE_EXPORT Queue {
public:
    using Task = std::function<void()>;
    using Duration = std::chrono::steady_clock::duration;

    virtual ~Queue();

    // Runs `task` later on this queue, never inside this call.
    virtual void async(Task task) = 0;
    // Runs `task` on this queue once `delay` has passed.
    virtual void asyncAfter(Duration delay, Task task) = 0;
    // The clock `delay` is measured on; by default the steady clock's time.
    virtual Duration now() const;
    // True when the calling code runs on this queue (for the main queue: on the main thread).
    virtual bool isCurrent() const = 0;
    virtual const std::string& label() const = 0;

    // Runs `task` on this queue and returns once it has run. The hop is safe from anywhere a
    // serial queue runs:
    // - from this same queue, or from a task of this queue that waits further up the stack
    //   (a hop back), `task` runs in place;
    // - from the network thread (any serial queue's task), where waiting would block the one
    //   thread that runs every serial queue, `task` also runs in place, on this queue: first
    //   the tasks posted to this queue before the call, in order, then `task`. So the queue's
    //   order and its one-task-at-a-time rule hold as if the task had been posted and waited for;
    // - from any other thread it is posted, and the caller waits.
    // The one hop that can still wait for ever is onto a queue of another thread (the main
    // queue) while that thread itself waits on this one.
    void sync(Task task);

    // The platform's main queue; before a platform is installed, a serial queue of the
    // library's own stands in for it.
    static std::shared_ptr<Queue> main();
    // A new serial queue on the process-wide network context, whose one background thread
    // runs all of them, and their timers.
    static std::shared_ptr<Queue> makeSerial(std::string label);
    // A concurrent queue for blocking work (camera start, for instance): a small thread pool.
    static std::shared_ptr<Queue> global();
};

// Debug builds check that queue-bound code runs where its header says; release builds skip it.
KELVANE_EXPORT void assertOnQueue(const Queue& queue, const char* where);

}  // namespace kelvane

#ifdef NDEBUG
#define KELVANE_ASSERT_ON_QUEUE(queue) ((void)0)
#else
#define KELVANE_ASSERT_ON_QUEUE(queue) ::kelvane::assertOnQueue((queue), __func__)
#endif
