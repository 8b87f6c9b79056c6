#pragma once

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace kelvane {

// Items handed from one thread or queue to another, in order: the sender schedules one
// delivery for a run of items instead of one task each. A small vector is kept for the next
// run, so that a steady stream of short runs costs no allocation per item; keep items small.
template <class Item>
class Inbox {
public:
    // True when the inbox was empty: the caller schedules a delivery.
    bool put(Item item) {
        std::lock_guard lock(mutex_);
        items_.push_back(std::move(item));
        return items_.size() == 1;
    }

    // Runs `each` on everything waiting, in order. What arrives meanwhile waits for the delivery
    // that its own put scheduled.
    template <class Each>
    void deliver(Each&& each) {
        std::vector<Item> items;
        {
            std::lock_guard lock(mutex_);
            items.swap(items_);
        }
        for (auto& item : items) each(item);
        items.clear();
        if (items.capacity() > kKeptCapacity) return;
        std::lock_guard lock(mutex_);
        if (items_.capacity() == 0) items_.swap(items);
    }

private:
    // What an idle inbox keeps: a burst's vector is given back.
    static constexpr std::size_t kKeptCapacity = std::max<std::size_t>(1, 128 / sizeof(Item));

    std::mutex mutex_;
    std::vector<Item> items_;
};

}  // namespace kelvane
