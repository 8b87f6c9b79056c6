#include "MainContextQueue.hpp"

#include <glib.h>

#include <chrono>
#include <limits>

namespace kelvane::gtk {
namespace {

std::thread::id& mainThread() {
    static std::thread::id id;
    return id;
}

gboolean runTask(gpointer data) {
    (*static_cast<Queue::Task*>(data))();
    return G_SOURCE_REMOVE;
}

void deleteTask(gpointer data) { delete static_cast<Queue::Task*>(data); }

// One source per task: sources of one priority are dispatched in the order they were
// attached, which keeps the queue serial and in order.
void post(guint milliseconds, Queue::Task task) {
    GSource* source = milliseconds == 0 ? g_idle_source_new() : g_timeout_source_new(milliseconds);
    // Idle priority would let redraws and input starve the library's work.
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, runTask, new Queue::Task(std::move(task)), deleteTask);
    g_source_attach(source, g_main_context_default());
    g_source_unref(source);
}

}  // namespace

MainContextQueue::MainContextQueue() : owner_(std::this_thread::get_id()) { mainThread() = owner_; }

void MainContextQueue::async(Task task) { post(0, std::move(task)); }

void MainContextQueue::asyncAfter(Duration delay, Task task) {
    auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(delay).count();
    if (milliseconds < 0) milliseconds = 0;
    if (milliseconds > std::numeric_limits<guint>::max()) milliseconds = std::numeric_limits<guint>::max();
    post(static_cast<guint>(milliseconds), std::move(task));
}

bool MainContextQueue::isCurrent() const { return std::this_thread::get_id() == owner_; }

void onMainThread(Queue::Task task) {
    if (std::this_thread::get_id() == mainThread()) {
        task();
        return;
    }
    post(0, std::move(task));
}

}  // namespace kelvane::gtk
