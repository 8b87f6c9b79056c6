#pragma once

#include <kelvane/Queue.hpp>

#include <string>
#include <thread>

namespace kelvane::gtk {

// The main queue on the default GLib main context: tasks run in posting order when the thread
// that runs the context iterates it. Made on that thread, which then counts as the queue.
class MainContextQueue final : public Queue {
public:
    MainContextQueue();

    void async(Task task) override;
    void asyncAfter(Duration delay, Task task) override;
    bool isCurrent() const override;
    const std::string& label() const override { return label_; }

private:
    std::thread::id owner_;
    std::string label_ = "main";
};

// Runs `task` now when called on the main thread, else posts it there. Any thread.
void onMainThread(Queue::Task task);

}  // namespace kelvane::gtk
