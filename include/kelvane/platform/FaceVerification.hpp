#pragma once

#include <kelvane/URL.hpp>
#include <kelvane/ViewController.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kelvane::platform {

// A state of a face verification session.
struct FaceVerificationStatus {
    enum class Kind { connecting, connected, processing, success, canceled, failure, error };
    Kind kind = Kind::connecting;
    double progress = 0;                       // processing
    std::string text;                          // success result, canceler, failure reason
    std::optional<std::string> failureReason;  // error
};

// Where the outside library puts its own screen.
class FaceVerificationPresentationDelegate {
public:
    virtual ~FaceVerificationPresentationDelegate() = default;
    virtual void present(std::shared_ptr<ViewController> controller, std::function<void()> completion) = 0;
    virtual void dismiss(std::shared_ptr<ViewController> controller, std::function<void()> completion) = 0;
};

class FaceVerificationSession {
public:
    virtual ~FaceVerificationSession() = default;
    // Ends the session; whether it was still running.
    virtual bool cancel() = 0;
};

// The outside face verification library. `onStatus` runs on the main queue, once per state
// change.
class FaceVerification {
public:
    virtual ~FaceVerification() = default;
    virtual std::shared_ptr<FaceVerificationSession> launch(
        const URL& streamingURL, const std::string& token,
        std::weak_ptr<FaceVerificationPresentationDelegate> presentationDelegate,
        std::function<void(const FaceVerificationStatus&)> onStatus) = 0;
};

}  // namespace kelvane::platform
