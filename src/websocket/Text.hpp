#pragma once

// ASCII text rules of HTTP header fields and extension parameters.

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

namespace kelvane::websocket {

// Without leading and trailing blanks and tabs.
inline std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

inline char asciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

inline std::string asciiLowercased(std::string text) {
    for (char& c : text) c = asciiLower(c);
    return text;
}

inline bool equalsIgnoringASCIICase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (asciiLower(a[i]) != asciiLower(b[i])) return false;
    }
    return true;
}

// The whole text as a decimal integer, one leading "+" allowed; nothing when it is not one or
// does not fit.
template <class Integer>
std::optional<Integer> decimal(std::string_view text) {
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    if (text.empty() || text.front() == '+') return std::nullopt;
    Integer value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

}  // namespace kelvane::websocket
