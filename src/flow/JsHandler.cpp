#include "flow/JsHandler.hpp"

namespace kelvane {

std::vector<std::string> JsHandler::validateRequiredFields(const Json& args,
                                                           const std::vector<std::string>& fieldKeys) const {
    std::vector<std::string> missing;
    for (const auto& key : fieldKeys) {
        if (!json::get(args, key)) missing.push_back(key);
    }
    return missing;
}

std::optional<Json> JsHandler::processArgs(const std::vector<Json>& args) const {
    if (args.empty() || !args.front().is_object()) return std::nullopt;
    return args.front();
}

DeviceModel JsHandler::getDeviceInfo() const { return DeviceInfoService().getDeviceInfo(); }

}  // namespace kelvane
