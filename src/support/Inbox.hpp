#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

namespace kelvane {

// The locks of every inbox, shared by address: an inbox is held for a push or a swap, so a
// connection need not carry a mutex of its own for it.
inline std::mutex& inboxLock(const void* inbox) {
    static std::array<std::mutex, 16> locks;
    return locks[(reinterpret_cast<std::uintptr_t>(inbox) >> 6) % locks.size()];
}

// Items handed from one thread or queue to another, in order: the sender schedules one
// delivery for a run of items instead of one task each. The vector of a one-item run is kept
// for the next, so that a steady stream costs no allocation per item; a longer run's is given
// back, so that an idle inbox holds at most one item's room.
template <class Item>
class Inbox {
public:
    // True when the inbox was empty: the caller schedules a delivery.
    bool put(Item item) {
        std::lock_guard lock(inboxLock(this));
        items_.push_back(std::move(item));
        return items_.size() == 1;
    }

    // Runs `each` on everything waiting, in order. What arrives meanwhile waits for the delivery
    // that its own put scheduled.
    template <class Each>
    void deliver(Each&& each) {
        std::vector<Item> items;
        {
            std::lock_guard lock(inboxLock(this));
            items.swap(items_);
        }
        for (auto& item : items) each(item);
        items.clear();
        if (items.capacity() > 1) return;
        std::lock_guard lock(inboxLock(this));
        if (items_.capacity() == 0) items_.swap(items);
    }

private:
    std::vector<Item> items_;
};

}  // namespace kelvane
