// The desktop's device-owner authentication: the password dialog answered as a user would, the
// password checked by PAM under services that pam_wrapper reads from a test folder (nothing
// under /etc is touched), and the words the library's controller gives the page for each
// outcome.
#include "TestTools.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

using kelvane::testing::TempDir;
using kelvane::testing::writeFile;

namespace {

const std::string kSuccess = "answer true Registration Success";
const std::string kCancelled = "answer false The user did cancel";
const std::string kWrong = "answer false The user failed to provide valid credentials";
const std::string kLockedOut =
    "answer false Authentication could not continue because the user has been locked out of biometric "
    "authentication, due to failing authentication too many times.";
const std::string kNoPasscode = "answer false Passcode is not set on the device";

std::string user() { return getpwuid(getuid())->pw_name; }

class DeviceOwnerAuthentication : public ::testing::Test {
protected:
    DeviceOwnerAuthentication() {
        std::filesystem::create_directory(services.path() / "pam.d");
        writeFile(services / "passdb", user() + ":right:kelvane-owner\n");
        // No password file at all: PAM has no authentication data for anyone.
        for (auto [service, passdb] : {std::pair{"kelvane-owner", "passdb"}, {"kelvane-nodata", "missing"}}) {
            std::string module = std::string(KELVANE_PAM_MODULES) + "/pam_matrix.so passdb=" + (services / passdb);
            writeFile(services.path() / "pam.d" / service,
                      "auth required " + module + "\naccount required " + module + "\n");
        }
        // "other" is where PAM falls back to, and where it looks first.
        for (auto service : {"kelvane-deny", "other"}) {
            writeFile(services.path() / "pam.d" / service, "auth required pam_deny.so\naccount required pam_deny.so\n");
        }
    }

    // The authenticator's lines for `rounds` under `service`, run under pam_wrapper. `environment`
    // goes before the rest of the command, for changes to the display. The sanitizers cannot
    // live with pam_wrapper's deep binding, which its 1.1 versions turn off under the name of
    // uid_wrapper's variable.
    std::string authenticate(const std::string& service, const std::vector<std::string>& rounds,
                             const std::string& environment = "") {
        const char* asan = std::getenv("ASAN_OPTIONS");
        std::string command = "timeout 60 env " + environment;
        command += " LD_PRELOAD=" KELVANE_PAM_WRAPPER " PAM_WRAPPER=1";
        command += " PAM_WRAPPER_DISABLE_DEEPBIND=1 UID_WRAPPER_DISABLE_DEEPBIND=1";
        command += " PAM_WRAPPER_SERVICE_DIR=" + (services / "pam.d");
        command += " ASAN_OPTIONS=" + (asan ? std::string(asan) + ":" : "") + "verify_asan_link_order=0";
        command += " " KELVANE_PAM_AUTHENTICATOR " " + service;
        for (const auto& round : rounds) command += " '" + round + "'";
        return kelvane::testing::run(command);
    }

    TempDir services;
};

}  // namespace

TEST_F(DeviceOwnerAuthentication, PamDecidesTheLoggedInUsersPasswordAndCancelIsTheUsers) {
    EXPECT_EQ(authenticate("kelvane-owner", {"pw:right", "pw:wrong,pw:right", "cancel", "pw:wrong,cancel",
                                             "pw:wrong,pw:wrong,pw:wrong"}),
              "biometrics -6\n"
              "can 1 none\n" + kSuccess + "\n"
              "can 1 none\n" + kSuccess + "\n"
              "can 1 none\n" + kCancelled + "\n"
              "can 1 none\n" + kCancelled + "\n"
              "can 1 none\n" + kWrong + "\n");
    // No password PAM could check, and a service no file describes.
    EXPECT_EQ(authenticate("kelvane-nodata", {"pw:right"}), "biometrics -6\ncan 1 none\n" + kNoPasscode + "\n");
    EXPECT_EQ(authenticate("kelvane-nowhere", {""}), "biometrics -6\ncan 0 -5\n" + kNoPasscode + "\n");
}

TEST_F(DeviceOwnerAuthentication, FailuresInARowLockTheOwnerOutOfEveryContext) {
    EXPECT_EQ(authenticate("kelvane-deny", {"pw:a,pw:b,pw:c", "pw:d,pw:e", "pw:f"}),
              "biometrics -6\n"
              "can 1 none\n" + kWrong + "\n"
              "can 1 none\n" + kLockedOut + "\n"
              "can 0 -8\n" + kLockedOut + "\n");
}

TEST_F(DeviceOwnerAuthentication, WithoutADisplayTheOwnerCannotBeAsked) {
    EXPECT_EQ(authenticate("kelvane-owner", {"pw:right"}, "-u DISPLAY -u WAYLAND_DISPLAY"),
              "biometrics -6\ncan 0 -1004\nanswer false Not interactive\n");
}
