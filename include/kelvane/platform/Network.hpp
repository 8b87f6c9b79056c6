#pragma once

#include <kelvane/Error.hpp>
#include <kelvane/Export.hpp>
#include <kelvane/URL.hpp>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::platform {

// Hands URLs to other apps and to the system. Main queue only; completions may come on any
// thread.
class KELVANE_EXPORT URLOpener {
public:
    virtual ~URLOpener();
    virtual bool canOpenURL(const URL& url) const = 0;
    virtual void open(const URL& url, std::function<void(bool opened)> completion) = 0;
    // The text of the URL that opens this app's settings.
    virtual std::string openSettingsURLString() const = 0;
};

struct HTTPRequest {
    URL url;
    std::string method = "GET";
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<std::string> body;
    double timeoutInterval = 60.0;  // seconds
};

struct HTTPResponse {
    int statusCode = 0;
    std::vector<std::pair<std::string, std::string>> headers;
};

// HTTP for the library. Completions run on the HTTP thread, once per task.
class KELVANE_EXPORT HTTP {
public:
    virtual ~HTTP();
    virtual void dataTask(const HTTPRequest& request,
                          std::function<void(std::optional<std::string> data, std::optional<HTTPResponse> response,
                                             std::optional<Error> error)>
                              completion) = 0;
    // Downloads into a temporary file, which the completion may move; it is removed after.
    virtual void downloadTask(const URL& url,
                              std::function<void(std::optional<std::filesystem::path> location,
                                                 std::optional<HTTPResponse> response, std::optional<Error> error)>
                                  completion) = 0;
    // Reads a URL's whole contents, blocking the caller.
    virtual Result<std::string> contentsOf(const URL& url) = 0;
};

}  // namespace kelvane::platform
