#pragma once

#include <kelvane/Json.hpp>

#include "backend/ApiService.hpp"
#include "flow/JsHandler.hpp"
#include "services/DeviceInfoService.hpp"
#include "support/Promise.hpp"
#include "support/Record.hpp"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kelvane {

// The answer to "copyToClipboard".
struct CopyToClipboardModel : JsonRecord<CopyToClipboardModel> {
    std::optional<bool> success;
    std::optional<std::string> message;

    Json toJson() const;
};

// The answer to "getCurrentNetwork".
struct SystemServiceModel : JsonRecord<SystemServiceModel> {
    bool success = false;
    std::string connectivity;
    std::optional<std::string> message;
    DeviceModel device;

    Json toJson() const;
};

// The answer to "loadSekuraSessionUrl"; the page reads "status_code" itself.
struct LoadSekuraURLModel : JsonRecord<LoadSekuraURLModel> {
    std::optional<bool> success;
    std::optional<std::string> message;
    std::optional<LoadSekuraUrl> result;
    std::optional<DeviceModel> device;

    Json toJson() const;
};

// The answer to "isEventSupported".
struct EventSupportModel : JsonRecord<EventSupportModel> {
    std::optional<bool> success;
    std::optional<std::string> message;
    std::optional<std::vector<std::string>> supportedEvents;

    Json toJson() const;
};

// The answer to "isCustomSchemeRegisteredOnApp"; it carries no device.
struct CustomSchemeRegisteredModel : JsonRecord<CustomSchemeRegisteredModel> {
    bool isRegistered = false;
    bool success = false;
    std::string message;

    Json toJson() const;
};

// The small services the page asks of the system. Events arrive on the main queue; each
// member says where it completes.
class SystemServiceHandler {
public:
    // Replaces the pasteboard's text with the body's "text". Completes at once.
    void copyToClipboard(const Json& data, std::function<void(CopyToClipboardModel)> completion) const;
    // One look at the network path, from a monitor of its own on a new "NetworkMonitor" queue,
    // cancelled at the first path. The work starts on the promises' default queue; never
    // rejected.
    Promise<SystemServiceModel> getCurrentNetwork() const;
    // GETs the body's "url". Completes on the main queue with the answer, whatever its status,
    // or with the error; not at all when there is neither.
    void loadSekuraSessionUrl(const Json& data, std::function<void(LoadSekuraURLModel)> completion) const;
    // Whether an app takes URLs of the body's "scheme" and "host". Completes at once.
    void isCustomSchemeRegisteredOnApp(const Json& data,
                                       std::function<void(CustomSchemeRegisteredModel)> completion) const;
    // Every bridge event, in registration order. Completes at once.
    void eventSupport(std::function<void(EventSupportModel)> completion) const;

    const JsHandler jsHandler{};
    const ApiService apiService{};
};

}  // namespace kelvane
