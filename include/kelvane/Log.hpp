#pragma once

#include <kelvane/Export.hpp>

#include <functional>
#include <string>
#include <string_view>

namespace kelvane {

// Every log line of the library goes through one sink: standard output by default.
using LogSink = std::function<void(std::string_view line)>;

// Replaces the sink; an empty function restores standard output. Any thread.
KELVANE_EXPORT void setLogSink(LogSink sink);
// Writes one line (without its line end) to the sink. Any thread; lines never interleave.
KELVANE_EXPORT void logLine(std::string_view line);

}  // namespace kelvane
