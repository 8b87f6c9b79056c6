#include "socketio/SocketIOClientOption.hpp"

#include <algorithm>
#include <optional>

namespace kelvane::socketio {

using Kind = SocketIOClientOption::Kind;

SocketIOClientOption SocketIOClientOption::compress() { return {Kind::compress, std::monostate{}}; }
SocketIOClientOption SocketIOClientOption::connectParams(Json object) {
    return {Kind::connectParams, std::move(object)};
}
SocketIOClientOption SocketIOClientOption::cookies(std::vector<HTTPCookie> cookies) {
    return {Kind::cookies, std::move(cookies)};
}
SocketIOClientOption SocketIOClientOption::extraHeaders(std::map<std::string, std::string> headers) {
    return {Kind::extraHeaders, std::move(headers)};
}
SocketIOClientOption SocketIOClientOption::forceNew(bool value) { return {Kind::forceNew, value}; }
SocketIOClientOption SocketIOClientOption::forcePolling(bool value) { return {Kind::forcePolling, value}; }
SocketIOClientOption SocketIOClientOption::forceWebsockets(bool value) { return {Kind::forceWebsockets, value}; }
SocketIOClientOption SocketIOClientOption::enableSOCKSProxy(bool value) { return {Kind::enableSOCKSProxy, value}; }
SocketIOClientOption SocketIOClientOption::handleQueue(std::shared_ptr<Queue> queue) {
    return {Kind::handleQueue, std::move(queue)};
}
SocketIOClientOption SocketIOClientOption::limits(websocket::Limits limits) { return {Kind::limits, limits}; }
SocketIOClientOption SocketIOClientOption::log(bool value) { return {Kind::log, value}; }
SocketIOClientOption SocketIOClientOption::logger(std::shared_ptr<SocketLogger> logger) {
    return {Kind::logger, std::move(logger)};
}
SocketIOClientOption SocketIOClientOption::path(std::string path) { return {Kind::path, std::move(path)}; }
SocketIOClientOption SocketIOClientOption::reconnects(bool value) { return {Kind::reconnects, value}; }
SocketIOClientOption SocketIOClientOption::reconnectAttempts(std::int64_t attempts) {
    return {Kind::reconnectAttempts, attempts};
}
SocketIOClientOption SocketIOClientOption::reconnectWait(std::int64_t seconds) {
    return {Kind::reconnectWait, seconds};
}
SocketIOClientOption SocketIOClientOption::reconnectWaitMax(std::int64_t seconds) {
    return {Kind::reconnectWaitMax, seconds};
}
SocketIOClientOption SocketIOClientOption::randomizationFactor(double factor) {
    return {Kind::randomizationFactor, factor};
}
SocketIOClientOption SocketIOClientOption::secure(bool value) { return {Kind::secure, value}; }
SocketIOClientOption SocketIOClientOption::security(std::shared_ptr<websocket::CertificatePinning> pinner) {
    return {Kind::security, std::move(pinner)};
}
SocketIOClientOption SocketIOClientOption::selfSigned(bool value) { return {Kind::selfSigned, value}; }
SocketIOClientOption SocketIOClientOption::sessionDelegate(std::weak_ptr<HTTPSessionDelegate> delegate) {
    return {Kind::sessionDelegate, std::move(delegate)};
}
SocketIOClientOption SocketIOClientOption::useCustomEngine(bool value) { return {Kind::useCustomEngine, value}; }
SocketIOClientOption SocketIOClientOption::version(SocketIOVersion version) { return {Kind::version, version}; }

std::string_view SocketIOClientOption::description() const {
    switch (kind_) {
        case Kind::compress: return "compress";
        case Kind::connectParams: return "connectParams";
        case Kind::cookies: return "cookies";
        case Kind::extraHeaders: return "extraHeaders";
        case Kind::forceNew: return "forceNew";
        case Kind::forcePolling: return "forcePolling";
        case Kind::forceWebsockets: return "forceWebsockets";
        case Kind::enableSOCKSProxy: return "enableSOCKSProxy";
        case Kind::handleQueue: return "handleQueue";
        case Kind::limits: return "limits";
        case Kind::log: return "log";
        case Kind::logger: return "logger";
        case Kind::path: return "path";
        case Kind::reconnects: return "reconnects";
        case Kind::reconnectAttempts: return "reconnectAttempts";
        case Kind::reconnectWait: return "reconnectWait";
        case Kind::reconnectWaitMax: return "reconnectWaitMax";
        case Kind::randomizationFactor: return "randomizationFactor";
        case Kind::secure: return "secure";
        case Kind::security: return "security";
        case Kind::selfSigned: return "selfSigned";
        case Kind::sessionDelegate: return "sessionDelegate";
        case Kind::useCustomEngine: return "customEngine";
        case Kind::version: return "version";
    }
    return "";
}

namespace {

using Value = SocketIOClientOption::Value;

template <class T>
const T* as(const Value& value) {
    return std::get_if<T>(&value);
}

std::optional<SocketIOClientOption> optionFrom(const std::string& key, const Value& value) {
    using Option = SocketIOClientOption;
    if (key == "compress") return Option::compress();
    if (key == "connectParams") {
        if (auto* object = as<Json>(value); object && object->is_object()) return Option::connectParams(*object);
        return std::nullopt;
    }
    if (key == "cookies") {
        if (auto* cookies = as<std::vector<HTTPCookie>>(value)) return Option::cookies(*cookies);
        return std::nullopt;
    }
    if (key == "extraHeaders") {
        if (auto* headers = as<std::map<std::string, std::string>>(value)) return Option::extraHeaders(*headers);
        return std::nullopt;
    }
    if (key == "handleQueue") {
        if (auto* queue = as<std::shared_ptr<Queue>>(value)) return Option::handleQueue(*queue);
        return std::nullopt;
    }
    if (key == "limits") {
        if (auto* limits = as<websocket::Limits>(value)) return Option::limits(*limits);
        return std::nullopt;
    }
    if (key == "logger") {
        if (auto* logger = as<std::shared_ptr<SocketLogger>>(value)) return Option::logger(*logger);
        return std::nullopt;
    }
    if (key == "path") {
        if (auto* path = as<std::string>(value)) return Option::path(*path);
        return std::nullopt;
    }
    if (key == "randomizationFactor") {
        if (auto* factor = as<double>(value)) return Option::randomizationFactor(*factor);
        return std::nullopt;
    }
    if (key == "security") {
        if (auto* pinner = as<std::shared_ptr<websocket::CertificatePinning>>(value)) return Option::security(*pinner);
        return std::nullopt;
    }
    if (key == "sessionDelegate") {
        if (auto* delegate = as<std::weak_ptr<HTTPSessionDelegate>>(value)) return Option::sessionDelegate(*delegate);
        return std::nullopt;
    }
    if (key == "version") {
        if (auto* version = as<SocketIOVersion>(value)) return Option::version(*version);
        return std::nullopt;
    }

    static const std::pair<std::string_view, Option (*)(std::int64_t)> integers[] = {
        {"reconnectAttempts", &Option::reconnectAttempts},
        {"reconnectWait", &Option::reconnectWait},
        {"reconnectWaitMax", &Option::reconnectWaitMax},
    };
    for (const auto& [name, make] : integers) {
        if (key != name) continue;
        if (auto* number = as<std::int64_t>(value)) return make(*number);
        return std::nullopt;
    }

    static const std::pair<std::string_view, Option (*)(bool)> booleans[] = {
        {"forceNew", &Option::forceNew},       {"forcePolling", &Option::forcePolling},
        {"forceWebsockets", &Option::forceWebsockets}, {"log", &Option::log},
        {"reconnects", &Option::reconnects},   {"secure", &Option::secure},
        {"selfSigned", &Option::selfSigned},   {"enableSOCKSProxy", &Option::enableSOCKSProxy},
    };
    for (const auto& [name, make] : booleans) {
        if (key != name) continue;
        if (auto* flag = as<bool>(value)) return make(*flag);
        return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace

SocketIOClientConfiguration SocketIOClientConfiguration::fromObject(
    const std::map<std::string, SocketIOClientOption::Value>& object) {
    SocketIOClientConfiguration config;
    for (const auto& [key, value] : object) {
        if (auto option = optionFrom(key, value)) config.options_.push_back(std::move(*option));
    }
    return config;
}

void SocketIOClientConfiguration::insert(SocketIOClientOption option, bool replacing) {
    auto found = std::find(options_.begin(), options_.end(), option);
    if (found == options_.end()) {
        options_.push_back(std::move(option));
    } else if (replacing) {
        *found = std::move(option);
    }
}

}  // namespace kelvane::socketio
