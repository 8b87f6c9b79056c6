#pragma once

#include <kelvane/Json.hpp>

#include "services/DeviceInfoService.hpp"

#include <string>
#include <vector>

namespace kelvane {

// The argument utility every service shares. Stateless; any thread.
class JsHandler {
public:
    // The keys that have no entry in `args`, in the order of `fieldKeys`. A null value counts
    // as an entry.
    std::vector<std::string> validateRequiredFields(const Json& args, const std::vector<std::string>& fieldKeys) const;
    // The first element of `args` when it is an object; nothing for an empty list or another
    // first element.
    std::optional<Json> processArgs(const std::vector<Json>& args) const;
    // A fresh device record.
    DeviceModel getDeviceInfo() const;
};

}  // namespace kelvane
