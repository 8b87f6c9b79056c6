#pragma once

#include "socketio/SocketLogger.hpp"
#include "socketio/SocketTypes.hpp"
#include "support/HTTPSession.hpp"
#include "websocket/Limits.hpp"
#include "websocket/Security.hpp"

#include <kelvane/Json.hpp>
#include <kelvane/Queue.hpp>

#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace kelvane::socketio {

// One option of a manager, client or engine. Two options are equal when their descriptions
// are, whatever their values.
class SocketIOClientOption {
public:
    enum class Kind {
        compress,
        connectParams,
        cookies,
        extraHeaders,
        forceNew,
        forcePolling,
        forceWebsockets,
        enableSOCKSProxy,
        handleQueue,
        limits,
        log,
        logger,
        path,
        reconnects,
        reconnectAttempts,
        reconnectWait,
        reconnectWaitMax,
        randomizationFactor,
        secure,
        security,
        selfSigned,
        sessionDelegate,
        useCustomEngine,
        version,
    };

    using Value = std::variant<std::monostate, bool, std::int64_t, double, std::string, Json, std::vector<HTTPCookie>,
                               std::map<std::string, std::string>, std::shared_ptr<Queue>, std::shared_ptr<SocketLogger>,
                               std::shared_ptr<websocket::CertificatePinning>, std::weak_ptr<HTTPSessionDelegate>,
                               SocketIOVersion, websocket::Limits>;

    static SocketIOClientOption compress();
    static SocketIOClientOption connectParams(Json object);
    static SocketIOClientOption cookies(std::vector<HTTPCookie> cookies);
    static SocketIOClientOption extraHeaders(std::map<std::string, std::string> headers);
    static SocketIOClientOption forceNew(bool value);
    static SocketIOClientOption forcePolling(bool value);
    static SocketIOClientOption forceWebsockets(bool value);
    static SocketIOClientOption enableSOCKSProxy(bool value);
    static SocketIOClientOption handleQueue(std::shared_ptr<Queue> queue);
    // What a server may make the connection hold (a departure from the protocols, which set no
    // bound): the WebSocket's limits; maxMessageSize also bounds a polling answer (checked once
    // the HTTP client has read it) and the binary packets waiting for their attachments.
    // Crossing one closes the engine as a protocol failure.
    static SocketIOClientOption limits(websocket::Limits limits);
    static SocketIOClientOption log(bool value);
    static SocketIOClientOption logger(std::shared_ptr<SocketLogger> logger);
    static SocketIOClientOption path(std::string path);
    static SocketIOClientOption reconnects(bool value);
    static SocketIOClientOption reconnectAttempts(std::int64_t attempts);
    static SocketIOClientOption reconnectWait(std::int64_t seconds);
    static SocketIOClientOption reconnectWaitMax(std::int64_t seconds);
    static SocketIOClientOption randomizationFactor(double factor);
    static SocketIOClientOption secure(bool value);
    static SocketIOClientOption security(std::shared_ptr<websocket::CertificatePinning> pinner);
    static SocketIOClientOption selfSigned(bool value);
    static SocketIOClientOption sessionDelegate(std::weak_ptr<HTTPSessionDelegate> delegate);
    static SocketIOClientOption useCustomEngine(bool value);
    static SocketIOClientOption version(SocketIOVersion version);

    Kind kind() const { return kind_; }
    // "compress", "connectParams", ..., "customEngine" for useCustomEngine, "version".
    std::string_view description() const;
    const Value& value() const { return value_; }

    // The value when it holds a T (for kinds without a value, nothing).
    template <class T>
    const T* get() const {
        return std::get_if<T>(&value_);
    }

    bool operator==(const SocketIOClientOption& other) const { return description() == other.description(); }

private:
    SocketIOClientOption(Kind kind, Value value) : kind_(kind), value_(std::move(value)) {}

    Kind kind_;
    Value value_;
};

// A list of options, read in order (with duplicates the last one wins).
class SocketIOClientConfiguration {
public:
    SocketIOClientConfiguration() = default;
    SocketIOClientConfiguration(std::initializer_list<SocketIOClientOption> options) : options_(options) {}
    explicit SocketIOClientConfiguration(std::vector<SocketIOClientOption> options) : options_(std::move(options)) {}
    // From an object of options: each known key whose value holds the option's type gives
    // that option (in the object's key order); anything else is skipped.
    static SocketIOClientConfiguration fromObject(const std::map<std::string, SocketIOClientOption::Value>& object);

    // Replaces an equal option in place (or keeps it when `replacing` is false), else appends.
    void insert(SocketIOClientOption option, bool replacing = true);

    const std::vector<SocketIOClientOption>& options() const { return options_; }
    auto begin() const { return options_.begin(); }
    auto end() const { return options_.end(); }
    std::size_t size() const { return options_.size(); }
    bool operator==(const SocketIOClientConfiguration&) const = default;

private:
    std::vector<SocketIOClientOption> options_;
};

}  // namespace kelvane::socketio
