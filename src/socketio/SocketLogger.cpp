#include "socketio/SocketLogger.hpp"

#include <kelvane/Log.hpp>

#include <mutex>
#include <vector>

namespace kelvane::socketio {
namespace {

// Every logger ever installed stays alive, so that a reader holding the raw pointer of the
// previous one never sees it freed.
struct Registry {
    Registry() : installed(std::make_shared<SocketLogger>()), current(installed.get()) { ever.push_back(installed); }

    std::mutex mutex;
    std::shared_ptr<SocketLogger> installed;
    std::vector<std::shared_ptr<SocketLogger>> ever;
    std::atomic<SocketLogger*> current;
};

Registry& registry() {
    static auto* shared = new Registry();
    return *shared;
}

}  // namespace

void SocketLogger::write(std::string_view level, std::string_view type, std::string_view message) {
    std::string line;
    line.reserve(level.size() + type.size() + message.size() + 3);
    line.append(level).append(" ").append(type).append(": ").append(message);
    logLine(line);
}

std::shared_ptr<SocketLogger> defaultLogger() {
    auto& shared = registry();
    std::lock_guard lock(shared.mutex);
    return shared.installed;
}

SocketLogger& activeLogger() { return *registry().current.load(std::memory_order_acquire); }

void setDefaultLogger(std::shared_ptr<SocketLogger> logger) {
    if (!logger) return;
    auto& shared = registry();
    std::lock_guard lock(shared.mutex);
    shared.ever.push_back(logger);
    shared.installed = logger;
    shared.current.store(logger.get(), std::memory_order_release);
}

}  // namespace kelvane::socketio
