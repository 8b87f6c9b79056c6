#pragma once

#include "websocket/WebSocket.hpp"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace kelvane::testing {

// Keeps every event a WebSocket delivers and lets a test wait for the ones it expects.
class EventRecorder final : public websocket::WebSocketDelegate {
public:
    using Event = websocket::WebSocketEvent;
    using Kind = Event::Kind;

    void didReceive(const Event& event, websocket::WebSocket&) override {
        std::lock_guard lock(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    }

    std::vector<Event> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }

    std::vector<std::string> kinds() const {
        std::vector<std::string> names;
        for (const auto& event : events()) names.emplace_back(websocket::eventKindName(event.kind));
        return names;
    }

    bool waitFor(const std::function<bool(const std::vector<Event>&)>& done,
                 std::chrono::milliseconds bound = std::chrono::seconds(10)) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, bound, [&] { return done(events_); });
    }

    // Waits until `count` events of a kind have come.
    bool waitForKind(Kind kind, std::size_t count = 1, std::chrono::milliseconds bound = std::chrono::seconds(10)) const {
        return waitFor(
            [&](const std::vector<Event>& events) {
                std::size_t seen = 0;
                for (const auto& event : events) seen += event.kind == kind;
                return seen >= count;
            },
            bound);
    }

    std::vector<Event> ofKind(Kind kind) const {
        std::vector<Event> found;
        for (const auto& event : events()) {
            if (event.kind == kind) found.push_back(event);
        }
        return found;
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Event> events_;
};

}  // namespace kelvane::testing
