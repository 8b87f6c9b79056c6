#pragma once

#include <kelvane/platform/LocalAuthentication.hpp>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kelvane::gtk {

// How many wrong passwords a dialog takes, how many in a row lock the owner out, and for how long.
struct PamLimits {
    int triesPerDialog = 3;
    int failuresBeforeLockout = 5;
    std::chrono::seconds lockout{60};
};

// The device owner is the logged-in user, proved by the password PAM accepts for them under
// one service. The desktop has no biometrics: that policy is never available.
//
// evaluatePolicy shows a modal dialog with the reason, a password field, Cancel and a button
// titled with the fallback title. The password is checked by pam_authenticate and
// pam_acct_mgmt on a thread of its own, so the main thread keeps drawing. A wrong password
// leaves the dialog open for another try, up to a few tries; enough failures in a row lock
// the owner out for a while, for every context. The reply comes on the main thread with the
// LAError codes:
//   Cancel, Escape or closing the dialog       -2 userCancel
//   wrong password, account refused            -1 authenticationFailed
//   PAM_MAXTRIES, or the failures in a row     -8 lockout
//   no password PAM knows (unknown user, no    -5 passcodeNotSet
//   authentication data, expired password)
//   no display to show the dialog on           -1004 notInteractive
//   PAM itself failing                         -4 systemCancel
class PamAuthentication final : public platform::LocalAuthentication {
public:
    using Limits = PamLimits;

    explicit PamAuthentication(std::string service, Limits limits = {});

    std::shared_ptr<platform::LAContext> makeContext() override;

    // What all contexts share: the service, and the failures that lead to a lockout.
    struct Shared {
        std::string service;
        Limits limits;
        std::mutex mutex;
        int failuresInARow = 0;
        std::optional<std::chrono::steady_clock::time_point> lockedUntil;

        bool lockedOut();
        // Counts a failed password; whether it locked the owner out.
        bool failed();
        void lockOut();
        void succeeded();
    };

private:
    std::shared_ptr<Shared> shared_;
};

// For tests, in place of a user: types `password` into the open password dialog and presses
// its confirm button, or presses Cancel when `password` is absent. False when no dialog is
// waiting for input (none is open, or a check is running). Main thread.
bool answerPasswordDialog(const std::optional<std::string>& password);

}  // namespace kelvane::gtk
