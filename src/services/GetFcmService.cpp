#include "services/GetFcmService.hpp"

#include "support/Fatal.hpp"

#include <kelvane/Log.hpp>

namespace kelvane {

Json GetFcmModel::toJson() const {
    return Json{{"pushToken", pushToken}, {"pushType", pushType}, {"device", device.toJson()}};
}

void GetFcmService::getFcmToken(KelvaneService& kelvane, std::function<void(GetFcmModel)> completion) const {
    auto token = kelvane.onPushTokenRequest();
    logLine("fcmTOken : " + token.value_or("fcm token"));
    GetFcmModel record;
    record.pushToken = forceUnwrap(token);
    record.pushType = "firebase";
    record.device = jsHandler.getDeviceInfo();
    completion(std::move(record));
}

}  // namespace kelvane
