#pragma once

#include <mutex>
#include <utility>
#include <vector>

namespace kelvane {

// Items handed from one thread or queue to another, in order: the sender schedules one
// delivery for a run of items instead of one task each. The vectors are kept and reused, so a
// steady stream costs no allocation per item.
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
            items_.swap(spare_);
        }
        for (auto& item : items) each(item);
        items.clear();
        std::lock_guard lock(mutex_);
        if (spare_.capacity() < items.capacity()) spare_.swap(items);
    }

private:
    std::mutex mutex_;
    std::vector<Item> items_;
    std::vector<Item> spare_;  // empty; the next inbox
};

}  // namespace kelvane
