#pragma once

#include <kelvane/Export.hpp>
#include <kelvane/URL.hpp>
#include <kelvane/ViewController.hpp>
#include <kelvane/platform/View.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kelvane::platform {

// A state of a face verification session, with the library's own words for it.
struct FaceVerificationStatus {
    enum class Kind { connecting, connected, processing, success, canceled, failure, error };
    Kind kind = Kind::connecting;
    // processing: how far along (0 to 1), and what the library tells the user.
    double progress = 0;
    std::string message;
    // success: the result's text form; canceled: the canceler's (who ended it); failure: the
    // failure result's.
    std::string description;
    // failure: the text form of the failure reason.
    std::string reason;
    // error: the error's failure reason, which a library error may lack.
    std::optional<std::string> failureReason;
};

// Where the outside library puts its own screen. The library calls it on the main queue.
class KELVANE_EXPORT FaceVerificationPresentationDelegate {
public:
    virtual ~FaceVerificationPresentationDelegate();
    virtual void present(std::shared_ptr<ViewController> controller, std::function<void()> completion) = 0;
    virtual void dismiss(std::shared_ptr<ViewController> controller, std::function<void()> completion) = 0;
};

enum class ModalPresentationStyle { fullScreen = 0, pageSheet = 1, formSheet = 2, currentContext = 3, custom = 4,
                                    overFullScreen = 5 };

// A plain screen that carries the library's screen as its one child, so that the library's
// screen can be shown over whatever is on top. A view system shows it in its presentation
// style, its own background behind the child, and lays the child's view out at `childFrame`.
class KELVANE_EXPORT FaceVerificationContainer : public ViewController {
public:
    ~FaceVerificationContainer() override;

    ModalPresentationStyle modalPresentationStyle = ModalPresentationStyle::fullScreen;
    Color backgroundColor{1, 1, 1, 1};
    std::shared_ptr<ViewController> child;
    Rect childFrame;
};

class KELVANE_EXPORT FaceVerificationSession {
public:
    virtual ~FaceVerificationSession();
    // Ends the session; whether it was still running. Main queue.
    virtual bool cancel() = 0;
};

// The outside face verification library.
class KELVANE_EXPORT FaceVerification {
public:
    virtual ~FaceVerification();
    // Starts a session against the streaming URL with the token. `onStatus` runs once per
    // state change, on a queue of the library's choice; the library lets it go once the
    // session has ended or been cancelled. The library's screen reaches `presentationDelegate`
    // (held weakly). Main queue.
    virtual std::shared_ptr<FaceVerificationSession> launch(
        const URL& streamingURL, const std::string& token,
        std::weak_ptr<FaceVerificationPresentationDelegate> presentationDelegate,
        std::function<void(const FaceVerificationStatus&)> onStatus) = 0;
    // The bounds of the main screen, in points, where the library's screen is laid out. Main
    // queue.
    virtual Rect screenBounds() const = 0;
};

}  // namespace kelvane::platform
