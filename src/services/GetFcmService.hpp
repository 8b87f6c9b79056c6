#pragma once

#include <kelvane/KelvaneService.hpp>

#include "flow/JsHandler.hpp"
#include "services/DeviceInfoService.hpp"
#include "support/Record.hpp"

#include <functional>
#include <string>

namespace kelvane {

// The answer to "getFcmToken".
struct GetFcmModel : JsonRecord<GetFcmModel> {
    std::string pushToken;
    std::string pushType;
    DeviceModel device;

    Json toJson() const;
};

// Asks the host for its push token and hands it to the page. The host owns the push
// registration; a host that returns no token stops the process. Completes at once on the
// caller's thread (the main queue), where the delegate is asked too.
class GetFcmService {
public:
    void getFcmToken(KelvaneService& kelvane, std::function<void(GetFcmModel)> completion) const;

    const JsHandler jsHandler{};
};

}  // namespace kelvane
