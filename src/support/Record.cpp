#include "support/Record.hpp"

#include "support/Utf8.hpp"

#include <cmath>
#include <fstream>
#include <sstream>

namespace kelvane::record {
namespace {

bool allFinite(const Json& value) {
    if (value.is_number_float()) return std::isfinite(value.get<double>());
    if (value.is_structured()) {
        for (const auto& item : value) {
            if (!allFinite(item)) return false;
        }
    }
    return true;
}

std::string_view typeName(const Json& value) {
    switch (value.type()) {
        case Json::value_t::null: return "null";
        case Json::value_t::boolean: return "a boolean";
        case Json::value_t::string: return "a string";
        case Json::value_t::array: return "an array";
        case Json::value_t::object: return "a dictionary";
        default: return "a number";
    }
}

}  // namespace

Result<std::string> encode(const Json& value) {
    if (!allFinite(value)) {
        return Error{"EncodingError", 0, "Unable to encode a non-finite floating-point value"};
    }
    std::string text;
    try {
        text = value.dump();
    } catch (const Json::type_error&) {
        return Error{"EncodingError", 0, "Unable to encode a string that is not valid UTF-8"};
    }
    // The only "/" in the output stand inside strings, so each can be escaped in place.
    std::string escaped;
    escaped.reserve(text.size());
    for (char c : text) {
        if (c == '/') escaped += '\\';
        escaped += c;
    }
    return escaped;
}

std::optional<std::string> decodeText(std::string_view bytes, StringEncoding encoding) {
    if (encoding == StringEncoding::ascii) {
        for (unsigned char c : bytes) {
            if (c >= 0x80) return std::nullopt;
        }
    } else if (!isValidUTF8(bytes)) {
        return std::nullopt;
    }
    return std::string(bytes);
}

Result<std::string> encodeText(std::string_view text, StringEncoding encoding) {
    auto fitting = decodeText(text, encoding);
    if (!fitting) return Error{"JSONDecoding", 0, "The text cannot be represented in the encoding"};
    return *fitting;
}

Result<Json> parse(std::string_view bytes) {
    auto parsed = json::parse(bytes);
    if (!parsed) return Error{"DecodingError", 4864, "The given data was not valid JSON."};
    return *parsed;
}

Result<std::string> read(const URL& url) {
    std::string path = url.absoluteString();
    if (auto scheme = url.scheme()) {
        if (*scheme != "file") return Error{"NSCocoaErrorDomain", 262, "The URL is not a file URL."};
        path = url.path();
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) return Error{"NSCocoaErrorDomain", 260, "The file \u201c" + path + "\u201d couldn\u2019t be opened."};
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

const Json Decoder::kEmpty = Json::object();

Decoder::Decoder(const Json& object) : object_(object) {
    if (!object.is_object()) {
        fail(Error{"DecodingError", 4864,
                   "Expected to decode a dictionary but found " + std::string(typeName(object)) + " instead."});
    }
}

void Decoder::fail(Error error) {
    if (!error_) error_ = std::move(error);
}

const Json* Decoder::field(std::string_view key, bool required) {
    const Json* value = json::get(object_, key);
    if (!value && required) {
        fail(Error{"DecodingError", 4865, "No value associated with key \"" + std::string(key) + "\"."});
    }
    return value;
}

void Decoder::typeMismatch(std::string_view key, std::string_view expected) {
    const Json* value = json::get(object_, key);
    fail(Error{"DecodingError", 4864,
               "Expected to decode " + std::string(expected) + " but found " +
                   std::string(value ? typeName(*value) : "nothing") + " instead (key \"" + std::string(key) + "\")."});
}

std::string Decoder::string(std::string_view key) {
    const Json* value = field(key, true);
    if (!value) return {};
    if (!value->is_string()) {
        typeMismatch(key, "String");
        return {};
    }
    return value->get<std::string>();
}

std::int64_t Decoder::integer(std::string_view key) {
    const Json* value = field(key, true);
    if (!value) return 0;
    auto number = json::asInt(*value);
    if (!number) {
        typeMismatch(key, "Int");
        return 0;
    }
    return *number;
}

bool Decoder::boolean(std::string_view key) {
    const Json* value = field(key, true);
    if (!value) return false;
    if (!value->is_boolean()) {
        typeMismatch(key, "Bool");
        return false;
    }
    return value->get<bool>();
}

const Json& Decoder::object(std::string_view key) {
    const Json* value = field(key, true);
    if (!value) return kEmpty;
    if (!value->is_object()) {
        typeMismatch(key, "a dictionary");
        return kEmpty;
    }
    return *value;
}

std::optional<std::string> Decoder::optionalString(std::string_view key) {
    const Json* value = field(key, false);
    if (!value || value->is_null()) return std::nullopt;
    if (!value->is_string()) {
        typeMismatch(key, "String");
        return std::nullopt;
    }
    return value->get<std::string>();
}

}  // namespace kelvane::record
