#include <kelvane/Log.hpp>

#include <cstdio>
#include <mutex>

namespace kelvane {
namespace {

struct SinkState {
    std::mutex mutex;
    LogSink sink;
};

SinkState& state() {
    static auto* shared = new SinkState();
    return *shared;
}

}  // namespace

void setLogSink(LogSink sink) {
    auto& shared = state();
    std::lock_guard lock(shared.mutex);
    shared.sink = std::move(sink);
}

void logLine(std::string_view line) {
    auto& shared = state();
    std::lock_guard lock(shared.mutex);
    if (shared.sink) {
        shared.sink(line);
        return;
    }
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

}  // namespace kelvane
