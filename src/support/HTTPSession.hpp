#pragma once

#include <kelvane/Error.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/platform/Network.hpp>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kelvane {

// The library's own HTTP client on libcurl's multi interface, with one background thread of
// its own. It is also the HTTP port's default implementation. Completions run on that thread.
std::shared_ptr<platform::HTTP> defaultHTTP();

struct HTTPCookie {
    std::string name;
    std::string value;
    bool operator==(const HTTPCookie&) const = default;
};

// The request header fields for these cookies: {"Cookie": "a=1; b=2"}, or none for no cookies.
std::map<std::string, std::string> requestHeaderFields(const std::vector<HTTPCookie>& cookies);

class HTTPSessionDelegate {
public:
    virtual ~HTTPSessionDelegate() = default;
    // On the session's delegate queue, once, after finishTasksAndInvalidate() and the end of
    // every running task; `error` is set when the session failed as a whole.
    virtual void didBecomeInvalid(const std::optional<Error>& error) = 0;
};

// A group of HTTP tasks whose completions run on one delegate queue, in the manner of a URL
// session. Make it with std::make_shared. Any thread.
class HTTPSession : public std::enable_shared_from_this<HTTPSession> {
public:
    using Completion = std::function<void(std::optional<std::string> data, std::optional<platform::HTTPResponse> response,
                                          std::optional<Error> error)>;

    HTTPSession(std::shared_ptr<platform::HTTP> http, std::shared_ptr<Queue> delegateQueue,
                std::weak_ptr<HTTPSessionDelegate> delegate = {});

    // Starts a task; its completion runs once on the delegate queue. After invalidation the task
    // is not started and the completion runs with a cancellation error.
    void dataTask(const platform::HTTPRequest& request, Completion completion);
    // No new tasks from now on; running ones end normally, then the delegate hears of it.
    void finishTasksAndInvalidate();
    bool invalidated() const;

private:
    // On the delegate queue, after a started task's completion.
    void taskEnded();
    void notifyDelegate();

    std::shared_ptr<platform::HTTP> http_;
    std::shared_ptr<Queue> delegateQueue_;
    std::weak_ptr<HTTPSessionDelegate> delegate_;
    mutable std::mutex mutex_;
    bool invalidated_ = false;
    bool delegateTold_ = false;
    std::size_t running_ = 0;
};

}  // namespace kelvane
