#pragma once

#include "socketio/SocketIOClient.hpp"
#include "socketio/SocketPacket.hpp"

#include <chrono>
#include <algorithm>
#include <condition_variable>
#include <functional>
#include <memory>
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

// `count` acked "echo" events, each carrying its number and `payload`, at most `window`
// unanswered, emitted from `queue` (the socket's handle queue) as the answers come. Returns
// how many answers came back, in order, each with its own number and the payload; it stops
// at the first that does not, or at `bound`.
inline int pipelinedEchoes(Queue& queue, const std::shared_ptr<SocketIOClient>& socket, int count, int window,
                           const std::string& payload, std::chrono::milliseconds bound = std::chrono::seconds(20)) {
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        int sent = 0, answered = 0;
        bool broken = false;
        std::function<void()> sendNext;
    };
    auto state = std::make_shared<State>();
    std::weak_ptr<State> weak = state;
    state->sendNext = [weak, socket, count, payload] {
        auto state = weak.lock();
        if (!state) return;
        const int number = state->sent++;
        socket->emitWithAck("echo", {number, payload}).timingOut(10, [weak, number, count, payload](const std::vector<Json>& data) {
            auto state = weak.lock();
            if (!state) return;
            std::lock_guard lock(state->mutex);
            const bool right = state->answered == number && data.size() == 2 && data[0] == number && data[1] == payload;
            if (!right) state->broken = true;
            if (right) ++state->answered;
            state->changed.notify_all();
            if (right && state->sent < count && state->sendNext) state->sendNext();
        });
    };
    queue.async([state, count, window] {
        std::lock_guard lock(state->mutex);
        while (state->sent < std::min(count, window)) state->sendNext();
    });
    std::unique_lock lock(state->mutex);
    state->changed.wait_for(lock, bound, [&] { return state->broken || state->answered == count; });
    const int answered = state->answered;
    state->sendNext = nullptr;
    return answered;
}

}  // namespace kelvane::socketio::testing
