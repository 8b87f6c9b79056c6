#include "websocket/Request.hpp"

namespace kelvane::websocket {
namespace {

bool sameName(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

}  // namespace

std::optional<std::string> Request::value(std::string_view name) const {
    for (const auto& [field, value] : headers) {
        if (sameName(field, name)) return value;
    }
    return std::nullopt;
}

void Request::setValue(std::string value, std::string_view name) {
    for (auto& field : headers) {
        if (sameName(field.first, name)) {
            field.second = std::move(value);
            return;
        }
    }
    headers.emplace_back(std::string(name), std::move(value));
}

}  // namespace kelvane::websocket
