#pragma once

#include <kelvane/Bytes.hpp>
#include <kelvane/URL.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelvane::websocket {

// An HTTP request as the handshake builds it. Field names compare without regard to case, and
// keep the spelling and the order in which they were first set.
struct Request {
    std::optional<URL> url;
    std::string method = "GET";
    double timeoutInterval = 60.0;  // seconds
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<Bytes> body;

    Request() = default;
    explicit Request(std::optional<URL> url, double timeoutInterval = 60.0)
        : url(std::move(url)), timeoutInterval(timeoutInterval) {}

    std::optional<std::string> value(std::string_view name) const;
    // Replaces the value of a field of that name, or adds the field at the end.
    void setValue(std::string value, std::string_view name);
    // The name of the first field whose name or value holds a CR or LF: written out, it would
    // end its line early and smuggle lines of its own into the request.
    std::optional<std::string> fieldWithLineBreak() const;
};

}  // namespace kelvane::websocket
