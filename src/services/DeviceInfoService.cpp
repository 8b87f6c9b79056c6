#include "services/DeviceInfoService.hpp"

#include "support/Ports.hpp"
#include "support/UUID.hpp"

namespace kelvane {

Json DeviceModel::toJson() const {
    return Json{{"model", model},
                {"isPhysicalDevice", isPhysicalDevice},
                {"osVersion", osVersion},
                {"id", id},
                {"platform", platform}};
}

Result<DeviceModel> DeviceModel::fromJson(const Json& json) {
    record::Decoder decoder(json);
    DeviceModel device(decoder.string("model"), decoder.boolean("isPhysicalDevice"), decoder.string("osVersion"),
                       decoder.string("id"), decoder.string("platform"));
    if (decoder.error()) return *decoder.error();
    return device;
}

DeviceModel DeviceModel::with(std::optional<std::string> newModel, std::optional<bool> newIsPhysicalDevice,
                              std::optional<std::string> newOsVersion, std::optional<std::string> newId,
                              std::optional<std::string> newPlatform) const {
    return DeviceModel(newModel.value_or(model), newIsPhysicalDevice.value_or(isPhysicalDevice),
                       newOsVersion.value_or(osVersion), newId.value_or(id), newPlatform.value_or(platform));
}

DeviceModel DeviceInfoService::getDeviceInfo() const {
    auto device = ports::device();
    std::string model = device->model();
    std::string version = device->systemVersion();
    std::string name = device->systemName();
    return DeviceModel(std::move(model), !device->isSimulator(), name + " " + version, getOrCreateDeviceId(), "ios");
}

std::string DeviceInfoService::getOrCreateDeviceId() const {
    auto store = ports::keyValueStore();
    if (auto stored = store->string("device_id")) return *stored;
    std::string fresh = makeUUIDString();
    store->setString(fresh, "device_id");
    return fresh;
}

}  // namespace kelvane
