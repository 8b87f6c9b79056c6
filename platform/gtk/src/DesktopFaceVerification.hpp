#pragma once

#include <kelvane/platform/FaceVerification.hpp>

namespace kelvane::gtk {

// Face verification on a desktop that has no face-verification library. A session ends at
// once in an error status that says so. A scripted one instead plays what a real session
// goes through (connecting, connected, a few processing steps, success) on the main context,
// a few hundred milliseconds apart, with a small screen of its own through the presentation
// delegate; it serves demos and tests, and verifies nobody. Statuses come on the main queue,
// never after cancel(). Main thread only.
class DesktopFaceVerification final : public platform::FaceVerification {
public:
    explicit DesktopFaceVerification(bool scripted) : scripted_(scripted) {}

    std::shared_ptr<platform::FaceVerificationSession> launch(
        const URL& streamingURL, const std::string& token,
        std::weak_ptr<platform::FaceVerificationPresentationDelegate> presentationDelegate,
        std::function<void(const platform::FaceVerificationStatus&)> onStatus) override;
    // The key window's size; a phone-sized screen when no window is open.
    platform::Rect screenBounds() const override;

private:
    bool scripted_;
};

}  // namespace kelvane::gtk
