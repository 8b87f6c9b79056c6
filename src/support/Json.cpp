#include <kelvane/Json.hpp>

#include <cmath>
#include <limits>

namespace kelvane::json {

const Json* get(const Json& object, std::string_view key) {
    if (!object.is_object()) return nullptr;
    auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

std::optional<std::int64_t> asInt(const Json& value) {
    if (value.is_number_integer() && !value.is_number_unsigned()) return value.get<std::int64_t>();
    if (value.is_number_unsigned()) {
        auto unsignedValue = value.get<std::uint64_t>();
        if (unsignedValue > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return std::nullopt;
        return static_cast<std::int64_t>(unsignedValue);
    }
    if (value.is_number_float()) {
        double number = value.get<double>();
        // Bounds are exclusive at the top: 2^63 itself does not fit.
        if (std::isfinite(number) && std::trunc(number) == number && number >= -9223372036854775808.0 &&
            number < 9223372036854775808.0) {
            return static_cast<std::int64_t>(number);
        }
    }
    return std::nullopt;
}

std::optional<std::string> getString(const Json& object, std::string_view key) {
    const Json* value = get(object, key);
    if (!value || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

std::string_view castTypeName(const Json& value) {
    switch (value.type()) {
        case Json::value_t::null: return "NSNull";
        case Json::value_t::boolean: return "Bool";
        case Json::value_t::string: return "String";
        case Json::value_t::array: return "Array<Any>";
        case Json::value_t::object: return "Dictionary<String, Any>";
        case Json::value_t::binary: return "Data";
        case Json::value_t::number_float: return "Double";
        default: return "Int";
    }
}

std::optional<std::int64_t> getInt(const Json& object, std::string_view key) {
    const Json* value = get(object, key);
    return value ? asInt(*value) : std::nullopt;
}

std::optional<bool> getBool(const Json& object, std::string_view key) {
    const Json* value = get(object, key);
    if (!value || !value->is_boolean()) return std::nullopt;
    return value->get<bool>();
}

std::optional<double> getNumber(const Json& object, std::string_view key) {
    const Json* value = get(object, key);
    if (!value || !value->is_number()) return std::nullopt;
    return value->get<double>();
}

const Json* getObject(const Json& object, std::string_view key) {
    const Json* value = get(object, key);
    return value && value->is_object() ? value : nullptr;
}

const Json* getArray(const Json& object, std::string_view key) {
    const Json* value = get(object, key);
    return value && value->is_array() ? value : nullptr;
}

std::optional<Json> parse(std::string_view text) {
    Json parsed = Json::parse(text.begin(), text.end(), nullptr, false);
    if (parsed.is_discarded()) return std::nullopt;
    return parsed;
}

std::string dump(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

std::string prettyDump(const Json& value) { return value.dump(2, ' ', false, Json::error_handler_t::replace); }

}  // namespace kelvane::json
