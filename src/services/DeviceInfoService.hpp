#pragma once

#include "support/Record.hpp"

#include <optional>
#include <string>

namespace kelvane {

// The device record nearly every answer to the page carries.
struct DeviceModel : JsonRecord<DeviceModel> {
    std::string model;
    bool isPhysicalDevice = true;
    std::string osVersion;  // system name, one blank, system version
    std::string id;         // the installation's own random identifier
    std::string platform = "ios";

    DeviceModel() = default;
    DeviceModel(std::string model, bool isPhysicalDevice, std::string osVersion, std::string id, std::string platform)
        : model(std::move(model)), isPhysicalDevice(isPhysicalDevice), osVersion(std::move(osVersion)),
          id(std::move(id)), platform(std::move(platform)) {}

    Json toJson() const;
    static Result<DeviceModel> fromJson(const Json& json);
    DeviceModel with(std::optional<std::string> model = {}, std::optional<bool> isPhysicalDevice = {},
                     std::optional<std::string> osVersion = {}, std::optional<std::string> id = {},
                     std::optional<std::string> platform = {}) const;
    bool operator==(const DeviceModel&) const = default;
};

// Reads the device and the store afresh on every call; keeps nothing. Any thread.
class DeviceInfoService {
public:
    DeviceModel getDeviceInfo() const;
    // The identifier under "device_id", made and stored on first use. Two first calls at the
    // same time may both make one; the later write stays.
    std::string getOrCreateDeviceId() const;
};

}  // namespace kelvane
