#pragma once

#include <kelvane/Export.hpp>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelvane {

// Dictionaries, payloads and page bodies. Byte buffers inside Socket.IO data are its binary
// values.
using Json = nlohmann::json;

namespace json {

// Typed reads of one key of an object. A missing key, a receiver that is no object and a
// value of another type all count as absent. Integers are whole numbers only (an integral
// floating-point value counts, a boolean or a numeric text does not).
KELVANE_EXPORT const Json* get(const Json& object, std::string_view key);
KELVANE_EXPORT std::optional<std::string> getString(const Json& object, std::string_view key);
KELVANE_EXPORT std::optional<std::int64_t> getInt(const Json& object, std::string_view key);
KELVANE_EXPORT std::optional<bool> getBool(const Json& object, std::string_view key);
KELVANE_EXPORT std::optional<double> getNumber(const Json& object, std::string_view key);
KELVANE_EXPORT const Json* getObject(const Json& object, std::string_view key);
KELVANE_EXPORT const Json* getArray(const Json& object, std::string_view key);

// The value as an integer, by the rule above.
KELVANE_EXPORT std::optional<std::int64_t> asInt(const Json& value);
// The platform's name for the value's type, as a failed cast reports it.
KELVANE_EXPORT std::string_view castTypeName(const Json& value);

// Parses a JSON text (UTF-8; a top-level scalar is accepted). Nothing on any error.
KELVANE_EXPORT std::optional<Json> parse(std::string_view text);
// Compact text. Never fails: invalid UTF-8 inside strings is replaced.
KELVANE_EXPORT std::string dump(const Json& value);
// Indented text, two blanks per level.
KELVANE_EXPORT std::string prettyDump(const Json& value);

}  // namespace json
}  // namespace kelvane
