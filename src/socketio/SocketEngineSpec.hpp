#pragma once

#include "socketio/SocketTypes.hpp"
#include "websocket/WSError.hpp"

#include <kelvane/Bytes.hpp>
#include <kelvane/Queue.hpp>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kelvane::socketio {

class SocketIOClientConfiguration;

// What an engine reports to the one who owns it (the manager). Called on the engine queue;
// implementations hop away at once and never block it.
class SocketEngineClient {
public:
    virtual ~SocketEngineClient() = default;
    virtual void engineDidError(std::string reason) = 0;
    virtual void engineDidClose(std::string reason) = 0;
    virtual void engineDidOpen(std::string reason) = 0;
    virtual void engineDidReceivePing() = 0;
    virtual void engineDidSendPing() = 0;
    virtual void engineDidReceivePong() = 0;
    virtual void engineDidSendPong() = 0;
    virtual void parseEngineMessage(std::string message) = 0;
    virtual void parseEngineBinaryData(Bytes data) = 0;
    virtual void engineDidWebsocketUpgrade(websocket::Headers headers) = 0;
};

// One Engine.IO session.
class SocketEngineSpec {
public:
    using Completion = std::function<void()>;

    virtual ~SocketEngineSpec() = default;

    // The engine's own serial queue, where all its state lives.
    virtual const std::shared_ptr<Queue>& engineQueue() const = 0;
    // Engine queue only. An engine whose client is cut off reports to nobody.
    virtual void setClient(std::weak_ptr<SocketEngineClient> client) = 0;
    // Engine queue only; false when this engine takes no configurations.
    virtual bool setConfigs(const SocketIOClientConfiguration& config) = 0;

    // Any thread: true from a call to connect() until the session it opened, or tried to open,
    // has ended, whether or not the end was reported. So also while a session runs whose open
    // the client may not have heard of yet.
    virtual bool underWay() const = 0;

    // Any thread: these queue their work on the engine queue and return.
    virtual void connect() = 0;
    virtual void disconnect(std::string reason) = 0;
    // A message packet; the completion runs once the text is handed on (or lost).
    virtual void send(std::string text, std::vector<Bytes> data, Completion completion = {}) = 0;
    virtual void write(std::string text, SocketEnginePacketType type, std::vector<Bytes> data,
                       Completion completion = {}) = 0;

    // Engine queue only.
    virtual void didError(std::string reason) = 0;
    virtual void doFastUpgrade() = 0;
    virtual void flushWaitingForPostToWebSocket() = 0;
    virtual void parseEngineData(Bytes data) = 0;
    virtual void parseEngineMessage(std::string message) = 0;
};

}  // namespace kelvane::socketio
