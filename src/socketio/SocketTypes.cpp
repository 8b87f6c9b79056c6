#include "socketio/SocketTypes.hpp"

namespace kelvane::socketio {

std::string_view description(SocketIOStatus status) {
    switch (status) {
    case SocketIOStatus::notConnected: return "notConnected";
    case SocketIOStatus::disconnected: return "disconnected";
    case SocketIOStatus::connecting: return "connecting";
    case SocketIOStatus::connected: return "connected";
    }
    return "notConnected";
}

std::string_view rawValue(SocketClientEvent event) {
    switch (event) {
    case SocketClientEvent::connect: return "connect";
    case SocketClientEvent::disconnect: return "disconnect";
    case SocketClientEvent::error: return "error";
    case SocketClientEvent::ping: return "ping";
    case SocketClientEvent::pong: return "pong";
    case SocketClientEvent::reconnect: return "reconnect";
    case SocketClientEvent::reconnectAttempt: return "reconnectAttempt";
    case SocketClientEvent::statusChange: return "statusChange";
    case SocketClientEvent::websocketUpgrade: return "websocketUpgrade";
    }
    return "error";
}

}  // namespace kelvane::socketio
