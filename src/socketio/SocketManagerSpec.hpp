#pragma once

#include "socketio/SocketEngineSpec.hpp"
#include "socketio/SocketTypes.hpp"

#include <kelvane/Json.hpp>
#include <kelvane/Queue.hpp>

#include <memory>
#include <optional>

namespace kelvane::socketio {

class SocketIOClient;

// What a namespace client asks of its manager. Handle queue only, like the client itself.
class SocketManagerSpec {
public:
    virtual ~SocketManagerSpec() = default;
    virtual void connectSocket(SocketIOClient& socket, const std::optional<Json>& payload) = 0;
    virtual void disconnectSocket(SocketIOClient& socket) = 0;
    virtual void reconnect() = 0;
    virtual std::shared_ptr<SocketEngineSpec> engine() const = 0;
    virtual std::shared_ptr<Queue> handleQueue() const = 0;
    virtual SocketIOStatus status() const = 0;
    virtual SocketIOVersion version() const = 0;
};

}  // namespace kelvane::socketio
