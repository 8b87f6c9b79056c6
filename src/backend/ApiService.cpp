#include "backend/ApiService.hpp"

#include "support/Ports.hpp"
#include "support/PrettyJson.hpp"
#include "support/Record.hpp"
#include "support/Utf8.hpp"

#include <kelvane/Log.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/URL.hpp>

#include <cmath>
#include <memory>

namespace kelvane {
namespace {

using platform::HTTPRequest;
using platform::HTTPResponse;

// The platform's default time-out for a request, in seconds.
constexpr double requestTimeout = 60.0;

Error payloadError(std::string message, std::int64_t code = -1) { return {"", code, std::move(message)}; }

// A parse failure, as the platform's JSON reader reports it.
Error jsonReadError() {
    return {"NSCocoaErrorDomain", 3840, "The data couldn\u2019t be read because it isn\u2019t in the correct format."};
}

Result<Json> payloadFromAnswer(const std::optional<std::string>& data, const std::optional<HTTPResponse>& response,
                               const std::optional<Error>& error) {
    if (error) return *error;
    if (!response) return payloadError("Invalid response");
    logLine("status -> " + std::to_string(response->statusCode));
    if (!data) return payloadError("No data received");
    if (response->statusCode != 200) {
        return payloadError("HTTP error " + std::to_string(response->statusCode), response->statusCode);
    }
    // The platform's parser takes only an array or an object at the top.
    auto parsed = json::parse(*data);
    if (!parsed || !parsed->is_structured()) return jsonReadError();
    if (!parsed->is_object()) return payloadError("Failed to parse JSON");
    // A parsed document always serialises again, as valid UTF-8.
    std::string text = *prettyPrinted(*parsed);
    logLine("response -> " + text);
    return Json{{"payload", text}};
}

using SekuraCompletion = std::function<void(std::optional<LoadSekuraUrl>, std::optional<Error>)>;

void completeOnMain(const SekuraCompletion& completion, std::optional<LoadSekuraUrl> result,
                    std::optional<Error> error) {
    Queue::main()->async([completion, result = std::move(result), error = std::move(error)] {
        completion(result, error);
    });
}

Error sekuraError(std::string message) { return {std::move(message), -1, ""}; }

}  // namespace

int connection(ConnectionStatus status) { return static_cast<int>(status); }

std::optional<ConnectionStatus> connectionStatus(int raw) {
    for (auto status : {ConnectionStatus::started, ConnectionStatus::completed, ConnectionStatus::connectionReset,
                        ConnectionStatus::userClosed}) {
        if (connection(status) == raw) return status;
    }
    return std::nullopt;
}

void ApiService::sendConnectionStatus(ConnectionStatus status, const std::optional<std::string>& socketUrl,
                                      const std::optional<std::string>& requestId, int /*tryCount*/,
                                      std::function<void(bool)> completion) const {
    if (!socketUrl || !requestId) {
        completion(false);
        return;
    }
    auto url = URL::make(*socketUrl + "/status?key=" + *requestId);
    if (!url) {
        completion(false);
        return;
    }
    std::string body = json::dump(Json{{"status", std::to_string(connection(status))}});
    HTTPRequest request{*url, "POST", {{"Content-Type", "application/json"}}, body, requestTimeout};
    ports::http()->dataTask(request, [completion = std::move(completion)](auto, auto response, auto error) {
        if (error) {
            logLine("Error: " + error->localizedDescription());
            completion(false);
        } else if (response) {
            logLine("Status code: " + std::to_string(response->statusCode));
            completion(response->statusCode == 200);
        }
    });
}

void ApiService::sendConnectionStatus(ConnectionStatus status, const std::optional<std::string>& socketUrl,
                                      const std::optional<std::string>& requestId,
                                      std::function<void(bool)> completion) const {
    sendConnectionStatus(status, socketUrl, requestId, 0, std::move(completion));
}

void ApiService::getPayloadFromId(const std::string& id, const std::string& baseUrl, const std::string& actionToken,
                                  const std::string& realmId, std::function<void(Result<Json>)> completion) const {
    std::string text = baseUrl + "/" + id + "/" + realmId;
    logLine("url : " + text + " , action token : " + actionToken);
    auto url = URL::make(text);
    if (!url) {
        completion(payloadError("Invalid URL"));
        return;
    }
    HTTPRequest request{*url,
                        "GET",
                        {{"Content-Type", "application/json"}, {"Authorization", "Bearer " + actionToken}},
                        std::nullopt,
                        requestTimeout};
    ports::http()->dataTask(request, [completion = std::move(completion)](auto data, auto response, auto error) {
        completion(payloadFromAnswer(data, response, error));
    });
}

void ApiService::loadSekuraSessionUrl(const std::string& urlString, SekuraCompletion completion) const {
    Queue::global()->async([urlString, completion = std::move(completion)] {
        auto url = URL::make(urlString);
        if (!url) {
            completeOnMain(completion, std::nullopt, sekuraError("Invalid URL"));
            return;
        }
        HTTPRequest request{*url, "GET", {}, std::nullopt, requestTimeout};
        ports::http()->dataTask(request, [completion](auto data, auto response, auto error) {
            if (error) {
                completeOnMain(completion, std::nullopt, error);
            } else if (!response) {
                completeOnMain(completion, std::nullopt, sekuraError("Invalid response"));
            } else if (!data) {
                completeOnMain(completion, std::nullopt, sekuraError("No data"));
            } else {
                auto body = isValidUTF8(*data) ? data : std::nullopt;
                completeOnMain(completion, LoadSekuraUrl{response->statusCode, body}, std::nullopt);
            }
        });
    });
}

}  // namespace kelvane
