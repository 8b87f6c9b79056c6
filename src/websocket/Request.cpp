#include "websocket/Request.hpp"

#include "websocket/Text.hpp"

namespace kelvane::websocket {

std::optional<std::string> Request::value(std::string_view name) const {
    for (const auto& [field, value] : headers) {
        if (equalsIgnoringASCIICase(field, name)) return value;
    }
    return std::nullopt;
}

void Request::setValue(std::string value, std::string_view name) {
    for (auto& field : headers) {
        if (equalsIgnoringASCIICase(field.first, name)) {
            field.second = std::move(value);
            return;
        }
    }
    headers.emplace_back(std::string(name), std::move(value));
}

std::optional<std::string> Request::fieldWithLineBreak() const {
    for (const auto& [field, value] : headers) {
        if (field.find_first_of("\r\n") != std::string::npos || value.find_first_of("\r\n") != std::string::npos) {
            return field;
        }
    }
    return std::nullopt;
}

}  // namespace kelvane::websocket
