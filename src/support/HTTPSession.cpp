#include "support/HTTPSession.hpp"

namespace kelvane {

std::map<std::string, std::string> requestHeaderFields(const std::vector<HTTPCookie>& cookies) {
    if (cookies.empty()) return {};
    std::string value;
    for (const auto& cookie : cookies) {
        if (!value.empty()) value += "; ";
        value += cookie.name + "=" + cookie.value;
    }
    return {{"Cookie", value}};
}

HTTPSession::HTTPSession(std::shared_ptr<platform::HTTP> http, std::shared_ptr<Queue> delegateQueue,
                         std::weak_ptr<HTTPSessionDelegate> delegate)
    : http_(std::move(http)), delegateQueue_(std::move(delegateQueue)), delegate_(std::move(delegate)) {}

void HTTPSession::dataTask(const platform::HTTPRequest& request, Completion completion) {
    bool refused = false;
    {
        std::lock_guard lock(mutex_);
        refused = invalidated_;
        if (!refused) ++running_;
    }
    if (refused) {
        delegateQueue_->async([completion = std::move(completion)] {
            completion(std::nullopt, std::nullopt, Error{"NSURLErrorDomain", -999, "cancelled"});
        });
        return;
    }
    // The task keeps the session alive until its completion has run, as a URL session's tasks do.
    http_->dataTask(request, [self = shared_from_this(), completion = std::move(completion)](
                                 std::optional<std::string> data, std::optional<platform::HTTPResponse> response,
                                 std::optional<Error> error) mutable {
        auto queue = self->delegateQueue_;
        queue->async([self = std::move(self), completion = std::move(completion), data = std::move(data),
                      response = std::move(response), error = std::move(error)]() mutable {
            completion(std::move(data), std::move(response), std::move(error));
            self->taskEnded();
        });
    });
}

void HTTPSession::finishTasksAndInvalidate() {
    {
        std::lock_guard lock(mutex_);
        if (invalidated_) return;
        invalidated_ = true;
        if (running_ > 0) return;
        delegateTold_ = true;
    }
    delegateQueue_->async([self = shared_from_this()] { self->notifyDelegate(); });
}

bool HTTPSession::invalidated() const {
    std::lock_guard lock(mutex_);
    return invalidated_;
}

void HTTPSession::taskEnded() {
    {
        std::lock_guard lock(mutex_);
        --running_;
        if (!invalidated_ || running_ > 0 || delegateTold_) return;
        delegateTold_ = true;
    }
    notifyDelegate();
}

void HTTPSession::notifyDelegate() {
    if (auto delegate = delegate_.lock()) delegate->didBecomeInvalid(std::nullopt);
}

}  // namespace kelvane
