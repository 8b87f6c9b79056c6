#pragma once

#include "socketio/SocketIOClient.hpp"
#include "socketio/SocketPacket.hpp"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kelvane::socketio::testing {

// What a client's handlers saw, as "<event> <printed data>" lines, in order. Any thread.
class EventLog {
public:
    void add(const std::string& line, std::vector<Json> items = {}) {
        std::lock_guard lock(mutex_);
        lines_.push_back(line);
        items_.push_back(std::move(items));
        changed_.notify_all();
    }

    // Records every event the client raises (through onAny) and its client events.
    void attach(SocketIOClient& client) {
        client.onAny([this](const SocketAnyEvent& event) {
            auto items = event.items.value_or(std::vector<Json>{});
            add(event.event + " " + printed(items), items);
        });
    }

    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

    std::size_t count(const std::string& prefix) const {
        std::lock_guard lock(mutex_);
        std::size_t n = 0;
        for (const auto& line : lines_) n += line.starts_with(prefix) ? 1 : 0;
        return n;
    }

    // Waits until `n` lines start with `prefix`.
    bool waitFor(const std::string& prefix, std::size_t n = 1,
                 std::chrono::milliseconds bound = std::chrono::seconds(15)) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, bound, [&] {
            std::size_t seen = 0;
            for (const auto& line : lines_) seen += line.starts_with(prefix) ? 1 : 0;
            return seen >= n;
        });
    }

    // The items of the first line that starts with `prefix`.
    std::vector<Json> itemsOf(const std::string& prefix) const {
        std::lock_guard lock(mutex_);
        for (std::size_t i = 0; i < lines_.size(); ++i) {
            if (lines_[i].starts_with(prefix)) return items_[i];
        }
        return {};
    }

    // The first line that starts with `prefix`, or "".
    std::string first(const std::string& prefix) const {
        std::lock_guard lock(mutex_);
        for (const auto& line : lines_) {
            if (line.starts_with(prefix)) return line;
        }
        return "";
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> lines_;
    std::vector<std::vector<Json>> items_;
};

// Waits, polling every few milliseconds, until `done` holds or `bound` has passed.
inline bool eventually(const std::function<bool()>& done, std::chrono::milliseconds bound = std::chrono::seconds(10)) {
    const auto until = std::chrono::steady_clock::now() + bound;
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace kelvane::socketio::testing
