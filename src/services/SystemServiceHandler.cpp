#include "services/SystemServiceHandler.hpp"

#include <kelvane/Log.hpp>
#include <kelvane/URL.hpp>

#include "flow/Events.hpp"
#include "services/BridgeArgs.hpp"
#include "support/Ports.hpp"

namespace kelvane {

Json CopyToClipboardModel::toJson() const {
    Json json = Json::object();
    args::put(json, "success", success);
    args::put(json, "message", message);
    return json;
}

Json SystemServiceModel::toJson() const {
    Json json{{"success", success}, {"connectivity", connectivity}, {"device", device.toJson()}};
    args::put(json, "message", message);
    return json;
}

Json LoadSekuraURLModel::toJson() const {
    Json json = Json::object();
    args::put(json, "success", success);
    args::put(json, "message", message);
    if (result) {
        Json sekura = Json::object();
        args::put(sekura, "status_code", result->statusCode);
        args::put(sekura, "data", result->data);
        json["result"] = std::move(sekura);
    }
    if (device) json["device"] = device->toJson();
    return json;
}

Json EventSupportModel::toJson() const {
    Json json = Json::object();
    args::put(json, "success", success);
    args::put(json, "message", message);
    args::put(json, "supportedEvents", supportedEvents);
    return json;
}

Json CustomSchemeRegisteredModel::toJson() const {
    return Json{{"isRegistered", isRegistered}, {"success", success}, {"message", message}};
}

void SystemServiceHandler::copyToClipboard(const Json& data, std::function<void(CopyToClipboardModel)> completion) const {
    Json body = args::processedDictionary(jsHandler, data);
    ports::pasteboard()->setString(args::string(body, "text"));
    CopyToClipboardModel record;
    record.success = true;
    record.message = "success";
    completion(std::move(record));
}

namespace {

SystemServiceModel networkRecord(const platform::NetworkPath& path, const JsHandler& jsHandler) {
    using Status = platform::NetworkPath::Status;
    SystemServiceModel record;
    if (path.status != Status::satisfied) {
        record.connectivity = "Disconnected";
        record.message = "Disconnected";
    } else {
        // Cellular first: a path on both counts as mobile. Online by wire still reports false.
        record.success = path.usesCellular || path.usesWifi;
        record.connectivity = path.usesCellular ? "mobile" : path.usesWifi ? "wifi" : "other";
        record.message = "";
    }
    record.device = jsHandler.getDeviceInfo();
    return record;
}

}  // namespace

Promise<SystemServiceModel> SystemServiceHandler::getCurrentNetwork() const {
    auto monitor = ports::networkPaths()->makeMonitor();
    return Promise<SystemServiceModel>([monitor, jsHandler = jsHandler](auto fulfill, auto) {
        auto queue = Queue::makeSerial("NetworkMonitor");
        // The handler keeps its monitor alive until the first path; the release waits for the
        // handler to return, since the monitor owns the handler that is running.
        auto held = std::make_shared<std::shared_ptr<platform::NetworkPathMonitor>>(monitor);
        std::weak_ptr<platform::NetworkPathMonitor> weakMonitor = monitor;
        monitor->setPathUpdateHandler([weakMonitor, held, queue, jsHandler, fulfill](const platform::NetworkPath& path) {
            if (auto current = weakMonitor.lock()) current->cancel();
            queue->async([held] { held->reset(); });
            fulfill(networkRecord(path, jsHandler));
        });
        monitor->start(queue);
    });
}

void SystemServiceHandler::loadSekuraSessionUrl(const Json& data, std::function<void(LoadSekuraURLModel)> completion) const {
    Json body = args::processedDictionary(jsHandler, data);
    apiService.loadSekuraSessionUrl(
        args::string(body, "url"),
        [jsHandler = jsHandler, completion = std::move(completion)](std::optional<LoadSekuraUrl> result,
                                                                    std::optional<Error> error) {
            LoadSekuraURLModel record;
            if (result) {
                record.success = true;
                record.message = "";
                record.result = std::move(result);
            } else if (error) {
                record.success = false;
                record.message = error->text();
            } else {
                return;
            }
            record.device = jsHandler.getDeviceInfo();
            completion(std::move(record));
        });
}

void SystemServiceHandler::isCustomSchemeRegisteredOnApp(
    const Json& data, std::function<void(CustomSchemeRegisteredModel)> completion) const {
    Json body = args::processedDictionary(jsHandler, data);
    std::string scheme = args::string(body, "scheme");
    std::string host = args::string(body, "host");
    logLine("scheme custom , " + scheme);
    logLine("host custom , " + host);
    URLComponents components;
    components.setScheme(scheme);
    components.setHost(host);
    CustomSchemeRegisteredModel record;
    if (auto url = components.url()) {
        record.isRegistered = ports::urlOpener()->canOpenURL(*url);
        record.success = true;
        record.message = "Process completed successfully";
    } else {
        record.message = "Invalid URL components";
    }
    completion(std::move(record));
}

void SystemServiceHandler::eventSupport(std::function<void(EventSupportModel)> completion) const {
    std::vector<std::string> names;
    for (Events event : allValues()) names.emplace_back(eventName(event));
    EventSupportModel record;
    record.success = true;
    record.message = "";
    record.supportedEvents = std::move(names);
    completion(std::move(record));
}

}  // namespace kelvane
