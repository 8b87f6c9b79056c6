#pragma once

#include <kelvane/Error.hpp>
#include <kelvane/Json.hpp>

#include <functional>
#include <optional>
#include <string>

namespace kelvane {

// The state of a transaction's connection; the raw value is what the backend receives.
enum class ConnectionStatus { started = 201, completed = 200, connectionReset = 205, userClosed = 403 };

int connection(ConnectionStatus status);
// Nothing for a value that names no case.
std::optional<ConnectionStatus> connectionStatus(int raw);

// The Sekura page's answer: any status code, and the body when it is UTF-8.
struct LoadSekuraUrl {
    std::optional<int> statusCode;
    std::optional<std::string> data;
};

// The backend's plain HTTP calls. No state and no retries; every member may be called from any
// thread.
class ApiService {
public:
    // POSTs {"status":"<raw value>"} to <socketUrl>/status?key=<requestId>, nothing escaped.
    // `completion` gets true only for an HTTP 200. It runs on the HTTP thread, or at once on the
    // caller's thread for absent input or a text that is no URL; it never runs when the answer
    // is not HTTP. `tryCount` is ignored.
    void sendConnectionStatus(ConnectionStatus status, const std::optional<std::string>& socketUrl,
                              const std::optional<std::string>& requestId, int tryCount,
                              std::function<void(bool)> completion) const;
    void sendConnectionStatus(ConnectionStatus status, const std::optional<std::string>& socketUrl,
                              const std::optional<std::string>& requestId, std::function<void(bool)> completion) const;

    // GETs <baseUrl>/<id>/<realmId> with the bearer token. Succeeds with {"payload": text}, the
    // answer's JSON object pretty-printed, where a push carries its payload text. Errors have an
    // empty domain and code -1 (the status for "HTTP error <code>"); transport and parse errors
    // come as they are. `completion` runs once, on the HTTP thread (the caller's for a bad URL).
    void getPayloadFromId(const std::string& id, const std::string& baseUrl, const std::string& actionToken,
                          const std::string& realmId, std::function<void(Result<Json>)> completion) const;

    // A plain GET, started from the global queue. `completion` runs once on the main queue: a
    // result for any status code, or an error whose domain is its message ("Invalid URL",
    // "Invalid response", "No data") with code -1, or the transport's error.
    void loadSekuraSessionUrl(const std::string& urlString,
                              std::function<void(std::optional<LoadSekuraUrl>, std::optional<Error>)> completion) const;
};

}  // namespace kelvane
