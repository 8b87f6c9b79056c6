#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace kelvane {

// A first-in, first-out list over one vector. Unlike std::deque, an empty one holds no memory
// (a deque keeps a block of half a kilobyte from birth), and once emptied after a burst it
// gives the burst's room back, keeping at most `Kept` items' worth for the next.
template <class T, std::size_t Kept = 4>
class Fifo {
public:
    bool empty() const { return head_ == items_.size(); }
    std::size_t size() const { return items_.size() - head_; }

    using iterator = typename std::vector<T>::iterator;
    using const_iterator = typename std::vector<T>::const_iterator;

    T& front() { return items_[head_]; }
    const T& front() const { return items_[head_]; }
    T& operator[](std::size_t i) { return items_[head_ + i]; }
    iterator begin() { return items_.begin() + static_cast<std::ptrdiff_t>(head_); }
    iterator end() { return items_.end(); }
    const_iterator begin() const { return items_.begin() + static_cast<std::ptrdiff_t>(head_); }
    const_iterator end() const { return items_.end(); }

    template <class... Args>
    void emplace_back(Args&&... args) {
        // The taken items ahead of the rest are dropped before the vector grows over them.
        if (items_.size() == items_.capacity() && head_ > 0) compact();
        items_.emplace_back(std::forward<Args>(args)...);
    }
    void push_back(T item) { emplace_back(std::move(item)); }

    void pop_front() {
        items_[head_] = T();
        if (++head_ == items_.size()) clear();
    }

    // Kept in order: at the front this is pop_front; elsewhere the later items move up.
    void erase(iterator at) {
        if (at == begin()) {
            pop_front();
        } else {
            items_.erase(at);
        }
    }
    // Before `at`; at the end this is push_back. Other iterators are invalidated.
    void insert(iterator at, T item) {
        if (at == end()) {
            push_back(std::move(item));
        } else {
            items_.insert(at, std::move(item));
        }
    }

    void clear() {
        head_ = 0;
        if (items_.capacity() > Kept) {
            std::vector<T>().swap(items_);
        } else {
            items_.clear();
        }
    }

    // Everything still in it, in order; the list is left empty.
    std::vector<T> takeAll() {
        std::vector<T> all(std::make_move_iterator(items_.begin() + static_cast<std::ptrdiff_t>(head_)),
                           std::make_move_iterator(items_.end()));
        clear();
        return all;
    }

private:
    void compact() {
        items_.erase(items_.begin(), items_.begin() + static_cast<std::ptrdiff_t>(head_));
        head_ = 0;
    }

    std::vector<T> items_;
    std::size_t head_ = 0;
};

}  // namespace kelvane
