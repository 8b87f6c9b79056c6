#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

namespace kelvane::socketio {

// The transport's diagnostic surface. Lines read "LOG <type>: <message>" or
// "ERROR <type>: <message>". Any thread.
class SocketLogger {
public:
    virtual ~SocketLogger() = default;

    bool log() const { return log_.load(std::memory_order_relaxed); }
    void setLog(bool on) { log_.store(on, std::memory_order_relaxed); }

    // Writes one finished line; called only while log() is true. The default goes to the
    // library's log sink.
    virtual void write(std::string_view level, std::string_view type, std::string_view message);

private:
    std::atomic<bool> log_{false};
};

// The one process-wide logger ("DefaultSocketLogger.Logger"), logging off at first.
std::shared_ptr<SocketLogger> defaultLogger();
void setDefaultLogger(std::shared_ptr<SocketLogger> logger);
// The same logger for the hot path, read without a lock: a logger once installed is kept for
// the life of the process.
SocketLogger& activeLogger();

// Builds the message (a callable returning text) only when logging is on.
template <class Message>
void socketLog(std::string_view type, Message&& message) {
    auto& logger = activeLogger();
    if (logger.log()) logger.write("LOG", type, std::string(message()));
}
template <class Message>
void socketError(std::string_view type, Message&& message) {
    auto& logger = activeLogger();
    if (logger.log()) logger.write("ERROR", type, std::string(message()));
}

}  // namespace kelvane::socketio
