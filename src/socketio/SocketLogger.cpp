#include "socketio/SocketLogger.hpp"

#include <kelvane/Log.hpp>

#include <mutex>

namespace kelvane::socketio {
namespace {

std::mutex loggerMutex;

std::shared_ptr<SocketLogger>& loggerSlot() {
    static auto* slot = new std::shared_ptr<SocketLogger>(std::make_shared<SocketLogger>());
    return *slot;
}

}  // namespace

void SocketLogger::write(std::string_view level, std::string_view type, std::string_view message) {
    std::string line;
    line.reserve(level.size() + type.size() + message.size() + 3);
    line.append(level).append(" ").append(type).append(": ").append(message);
    logLine(line);
}

std::shared_ptr<SocketLogger> defaultLogger() {
    std::lock_guard lock(loggerMutex);
    return loggerSlot();
}

void setDefaultLogger(std::shared_ptr<SocketLogger> logger) {
    if (!logger) return;
    std::lock_guard lock(loggerMutex);
    loggerSlot() = std::move(logger);
}

}  // namespace kelvane::socketio
