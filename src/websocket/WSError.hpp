#pragma once

#include <kelvane/Error.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <variant>

namespace kelvane::websocket {

// Response header fields, name to value. Who fills it decides how names are spelled.
using Headers = std::map<std::string, std::string>;

enum class ErrorType { compressionError, securityError, protocolError, serverError };

struct WSError {
    ErrorType type = ErrorType::protocolError;
    std::string message;
    std::uint16_t code = 0;
    bool operator==(const WSError&) const = default;
};

enum class CloseCode : std::uint16_t {
    normal = 1000,
    goingAway = 1001,
    protocolError = 1002,
    protocolUnhandledType = 1003,
    noStatusReceived = 1005,
    encoding = 1007,
    policyViolated = 1008,
    messageTooBig = 1009,
};

// The upgrade response was no upgrade, or could not be read.
struct HTTPUpgradeError {
    enum class Kind { notAnUpgrade, invalidData };
    Kind kind = Kind::invalidData;
    int code = 0;      // notAnUpgrade: the status code
    Headers headers;   // notAnUpgrade: the response's fields
    bool operator==(const HTTPUpgradeError&) const = default;
};

enum class TCPTransportError { invalidRequest };

// Anything that can end a connection: the protocol's own errors, the handshake's, a request
// the transport cannot use, or the network's and the TLS layer's (as an Error).
using Failure = std::variant<WSError, HTTPUpgradeError, TCPTransportError, Error>;

// One line for logs and tests.
std::string describe(const Failure& failure);
const char* errorTypeName(ErrorType type);

}  // namespace kelvane::websocket
