#pragma once

#include <kelvane/Queue.hpp>
#include <kelvane/platform/Sensors.hpp>

#include <atomic>
#include <mutex>

namespace kelvane::fakes {

// A camera session that runs when told and reports the codes a test shows it. Any thread.
class FakeCaptureSession : public platform::CaptureSession {
public:
    std::optional<Error> inputError;
    std::atomic<bool> running{false};
    std::atomic<int> previews{0};

    std::optional<Error> addDefaultVideoInput() override { return inputError; }
    bool canAddMetadataOutput() const override { return true; }
    void addMetadataOutput(std::shared_ptr<Queue> queue,
                           std::function<void(std::vector<std::optional<std::string>>)> onCodes) override {
        std::lock_guard lock(mutex_);
        queue_ = std::move(queue);
        onCodes_ = std::move(onCodes);
    }
    bool isRunning() const override { return running; }
    void startRunning() override { running = true; }
    void stopRunning() override { running = false; }
    void attachPreview(std::shared_ptr<platform::View>, platform::Rect) override { ++previews; }

    std::shared_ptr<Queue> outputQueue() const {
        std::lock_guard lock(mutex_);
        return queue_;
    }
    // One detection of these objects, delivered on the output's queue as the camera would;
    // false without an output.
    bool detect(std::vector<std::optional<std::string>> codes) {
        std::lock_guard lock(mutex_);
        if (!queue_) return false;
        queue_->async([onCodes = onCodes_, codes = std::move(codes)] { onCodes(codes); });
        return true;
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<Queue> queue_;
    std::function<void(std::vector<std::optional<std::string>>)> onCodes_;
};

// Answers a request for access on another thread, as the platform may, with `grants`.
class FakeCamera : public platform::Camera {
public:
    platform::AuthorizationStatus status = platform::AuthorizationStatus::authorized;
    bool grants = true;
    std::shared_ptr<FakeCaptureSession> session = std::make_shared<FakeCaptureSession>();

    platform::AuthorizationStatus authorizationStatus() const override { return status; }
    void requestAccess(std::function<void(bool)> completion) override {
        Queue::global()->async([completion = std::move(completion), granted = grants] { completion(granted); });
    }
    bool hasDefaultVideoDevice() const override { return true; }
    std::shared_ptr<platform::CaptureSession> makeSession() override { return session; }
};

}  // namespace kelvane::fakes
