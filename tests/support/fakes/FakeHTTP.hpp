#pragma once

#include <kelvane/platform/Network.hpp>

#include <fstream>
#include <mutex>

namespace kelvane::fakes {

// Answers every task at once, on the caller's thread, with what the test set, and keeps the
// requests (a download's as a GET).
class FakeHTTP : public platform::HTTP {
public:
    std::optional<std::string> data;
    std::optional<platform::HTTPResponse> response;
    std::optional<Error> error;
    // A download writes this into a file in `temporaryDirectory`, removed after the completion;
    // without it there is no file, and `error` is given.
    std::optional<std::string> downloadBody;
    std::filesystem::path temporaryDirectory;

    void dataTask(const platform::HTTPRequest& request,
                  std::function<void(std::optional<std::string>, std::optional<platform::HTTPResponse>,
                                     std::optional<Error>)>
                      completion) override {
        asked(request);
        completion(data, response, error);
    }

    void downloadTask(const URL& url,
                      std::function<void(std::optional<std::filesystem::path>, std::optional<platform::HTTPResponse>,
                                         std::optional<Error>)>
                          completion) override {
        auto file = temporaryDirectory / ("download-" + std::to_string(asked({url, "GET", {}, std::nullopt, 60.0})));
        if (!downloadBody) return completion(std::nullopt, std::nullopt, error);
        std::ofstream(file, std::ios::binary) << *downloadBody;
        completion(file, platform::HTTPResponse{200, {}}, std::nullopt);
        std::filesystem::remove(file);
    }

    Result<std::string> contentsOf(const URL&) override { return Error{"FakeHTTP", 0, "not answered"}; }

    std::vector<platform::HTTPRequest> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

private:
    std::size_t asked(const platform::HTTPRequest& request) {
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
        return requests_.size();
    }

    mutable std::mutex mutex_;
    std::vector<platform::HTTPRequest> requests_;
};

}  // namespace kelvane::fakes
