#pragma once

namespace asio {
class io_context;
}

namespace kelvane {

// The process-wide context whose one background thread runs every serial queue, timer and
// socket of the library. Never destroyed.
asio::io_context& networkContext();

}  // namespace kelvane
