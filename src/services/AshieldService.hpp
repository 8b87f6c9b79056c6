#pragma once

#include <kelvane/Json.hpp>

#include "flow/JsHandler.hpp"
#include "services/DeviceInfoService.hpp"
#include "support/Record.hpp"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kelvane {

// The answer to "registerAshield" and "authenticateAshield".
struct AshieldResponseModel : JsonRecord<AshieldResponseModel> {
    bool success = false;
    std::optional<std::string> message;
    std::optional<std::string> authTransactionID;  // key "authTransactionId"
    std::optional<std::string> regTransactionID;   // key "regTransactionId"
    DeviceModel device;
    std::optional<std::vector<std::string>> errorCodes;

    Json toJson() const;
};

// Ashield does not run on this platform: both events get a refusal that echoes the body's two
// transaction identifiers. Completes at once on the caller's thread.
class AshieldService {
public:
    void ashieldInit(const Json& data, std::function<void(AshieldResponseModel)> completion) const;

    const JsHandler jsHandler{};
};

}  // namespace kelvane
