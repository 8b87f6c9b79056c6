#pragma once

#include <memory>

namespace asio {
class io_context;
}

namespace kelvane {

// The process-wide context whose one background thread runs every serial queue, timer and
// socket of the library. Never destroyed.
asio::io_context& networkContext();

bool onNetworkThread();

// A handler of the network context that hands work to serial queues declares itself a turn:
// the queues it makes ready take their turns when it ends, before the context polls its
// sockets again, instead of each costing the context a round. Nested turns are one turn.
class NetworkTurn {
public:
    // Told when the turn it joined has ended, after the queues that turn made ready.
    class Listener {
    public:
        virtual ~Listener() = default;
        virtual void turnEnded() = 0;
    };

    NetworkTurn();
    ~NetworkTurn();
    NetworkTurn(const NetworkTurn&) = delete;
    NetworkTurn& operator=(const NetworkTurn&) = delete;

    // False when no turn runs on this thread: the caller acts at once instead.
    static bool joinEnd(std::shared_ptr<Listener> listener);

private:
    bool outermost_;
};

}  // namespace kelvane
