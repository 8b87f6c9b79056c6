#pragma once

#include <string_view>

namespace kelvane::socketio {

enum class SocketIOStatus { notConnected = 0, disconnected = 1, connecting = 2, connected = 3 };

// "notConnected", "disconnected", ...
std::string_view description(SocketIOStatus status);
// Connecting or connected.
inline bool active(SocketIOStatus status) {
    return status == SocketIOStatus::connecting || status == SocketIOStatus::connected;
}

// The Socket.IO protocol revision: `two` speaks Engine.IO 3, `three` Engine.IO 4.
enum class SocketIOVersion { two = 2, three = 3 };

enum class SocketClientEvent {
    connect,
    disconnect,
    error,
    ping,
    pong,
    reconnect,
    reconnectAttempt,
    statusChange,
    websocketUpgrade,
};

// The event's name as handlers see it: "connect", "reconnectAttempt", ...
std::string_view rawValue(SocketClientEvent event);

// What an ack callback receives when its time ran out.
inline constexpr std::string_view kNoAck = "NO ACK";

// Engine.IO packet types.
enum class SocketEnginePacketType { open = 0, close = 1, ping = 2, pong = 3, message = 4, upgrade = 5, noop = 6 };

}  // namespace kelvane::socketio
