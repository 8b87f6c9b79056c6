#include "services/AshieldService.hpp"

#include "services/BridgeArgs.hpp"

namespace kelvane {

Json AshieldResponseModel::toJson() const {
    Json json{{"success", success}, {"device", device.toJson()}};
    args::put(json, "message", message);
    args::put(json, "authTransactionId", authTransactionID);
    args::put(json, "regTransactionId", regTransactionID);
    args::put(json, "errorCodes", errorCodes);
    return json;
}

void AshieldService::ashieldInit(const Json& data, std::function<void(AshieldResponseModel)> completion) const {
    Json body = args::processedDictionary(jsHandler, data);
    AshieldResponseModel record;
    record.authTransactionID = args::string(body, "authTransactionId");
    record.regTransactionID = args::string(body, "regTransactionId");
    record.success = false;
    record.message = "Platform not supported!";
    record.device = jsHandler.getDeviceInfo();
    record.errorCodes = std::vector<std::string>{"platformNotSupported"};
    completion(std::move(record));
}

}  // namespace kelvane
