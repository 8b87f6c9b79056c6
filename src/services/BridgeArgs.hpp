#pragma once

// The forced reads by which services take a page's body. The page is trusted to send what an
// event needs: a body or key that is not there ends the process rather than answering.

#include <kelvane/Json.hpp>

#include "flow/JsHandler.hpp"
#include "support/Fatal.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::args {

// The body cast to a dictionary.
inline const Json& dictionary(const Json& body) {
    if (!body.is_object()) castFailure(json::castTypeName(body), "Dictionary<String, Any>");
    return body;
}

// The body through the handler's checked cast, then forced.
inline Json processedDictionary(const JsHandler& jsHandler, const Json& body) {
    auto processed = jsHandler.processArgs(std::vector<Json>{body});
    return forceUnwrap(processed);
}

// A key that must be there and hold a string.
inline std::string string(const Json& dictionary, std::string_view key) {
    const Json* value = json::get(dictionary, key);
    if (!value) fatalStop(kUnwrapNil);
    if (!value->is_string()) castFailure(json::castTypeName(*value), "String");
    return value->get<std::string>();
}

// Puts an optional field only when it has a value.
template <class T>
void put(Json& object, const char* key, const std::optional<T>& value) {
    if (value) object[key] = *value;
}

}  // namespace kelvane::args
