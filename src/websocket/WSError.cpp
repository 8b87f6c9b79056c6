#include "websocket/WSError.hpp"

#include <type_traits>

namespace kelvane::websocket {

const char* errorTypeName(ErrorType type) {
    switch (type) {
        case ErrorType::compressionError: return "compressionError";
        case ErrorType::securityError: return "securityError";
        case ErrorType::protocolError: return "protocolError";
        case ErrorType::serverError: return "serverError";
    }
    return "protocolError";
}

std::string describe(const Failure& failure) {
    return std::visit(
        [](const auto& value) -> std::string {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, WSError>) {
                return value.message + ". code=" + std::to_string(value.code) + ", type=" + errorTypeName(value.type);
            } else if constexpr (std::is_same_v<T, HTTPUpgradeError>) {
                if (value.kind == HTTPUpgradeError::Kind::notAnUpgrade) {
                    return "notAnUpgrade(" + std::to_string(value.code) + ")";
                }
                return "invalidData";
            } else if constexpr (std::is_same_v<T, TCPTransportError>) {
                return "invalidRequest";
            } else {
                return value.text();
            }
        },
        failure);
}

}  // namespace kelvane::websocket
