#include "flow/Bridge.hpp"

namespace kelvane::bridge {

std::string iosCallback(std::string_view postedName, std::string_view json) {
    std::string script;
    script.reserve(postedName.size() + json.size() + 17);
    script.append("iosCallback(\"").append(postedName).append("\" ,").append(json).append(")");
    return script;
}

std::string currentNetworkCallback(std::string_view json) { return iosCallback("getCurrentNetwork", json); }

std::string deviceDetailsCallback(std::string_view json) {
    return "iosCallback(\"readDeviceDetails\" , " + std::string(json) + ")";
}

std::string encodedText(const Result<std::string>& data) {
    if (!data) fatalStop(std::string(kUnexpectedError) + data.error().text());
    auto text = record::decodeText(*data, StringEncoding::utf8);
    return forceUnwrap(text);
}

}  // namespace kelvane::bridge
