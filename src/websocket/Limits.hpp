#pragma once

#include <cstddef>

namespace kelvane::websocket {

// What a server may make a connection hold. The protocols set no bound, so without these a
// peer decides how much memory the host gives up: a few compressed bytes can inflate to
// gigabytes, and a frame header can announce 2^63 bytes. Crossing a limit closes the
// connection with 1009 ("message too big") before the memory is taken.
struct Limits {
    // A whole message after joining its fragments and inflating it.
    std::size_t maxMessageSize = std::size_t{16} << 20;
    // One frame's payload as the frame announces it.
    std::size_t maxFrameSize = std::size_t{16} << 20;
    // The server's answer to the upgrade request, headers included.
    std::size_t maxUpgradeResponseSize = std::size_t{64} << 10;

    bool operator==(const Limits&) const = default;
};

}  // namespace kelvane::websocket
