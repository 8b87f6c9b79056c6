// Authenticates the device owner through the desktop's port and the library's controller, in
// rounds, answering the password dialog as a user would. A process of its own, so that a test
// can start it under pam_wrapper, whose preload must be there from the start.
// Usage: kelvane-pam-authenticator <PAM service> <round>...
// A round is a comma-separated list of answers to its dialog, in order: "cancel", or
// "pw:<password>". For each round it prints
//   can <1|0> <LAError code or "none">
//   answer <true|false> <the words the page gets>      (or "no answer")
// after one line "biometrics <LAError code>" for the biometrics policy.
#include "BrowserHarness.hpp"
#include "PamAuthentication.hpp"

#include <kelvane/Log.hpp>
#include <kelvane/gtk/GtkPlatform.hpp>

#include "services/BiometricController.hpp"

#include <gtk/gtk.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <sstream>
#include <vector>

using namespace kelvane;

namespace {

constexpr std::chrono::seconds kBound{20};

std::string code(const std::optional<int>& value) { return value ? std::to_string(*value) : "none"; }

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s service round...\n", argv[0]);
        return 2;
    }
    setLogSink([](std::string_view line) {
        std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
    });
    auto ports = *platform::current();
    if (gtk_init_check()) {
        gtk::DesktopOptions options;
        options.pamService = argv[1];
        ports = gtk::makePlatform("com.kelvane.pamtest", "1.0", options);
    } else {
        ports.localAuthentication = std::make_shared<gtk::PamAuthentication>(argv[1]);
    }
    platform::install(ports);

    using platform::LAPolicy;
    auto biometrics =
        ports.localAuthentication->makeContext()->canEvaluatePolicy(LAPolicy::deviceOwnerAuthenticationWithBiometrics);
    std::printf("biometrics %s\n", code(biometrics.errorCode).c_str());

    for (int round = 2; round < argc; ++round) {
        auto can = ports.localAuthentication->makeContext()->canEvaluatePolicy(LAPolicy::deviceOwnerAuthentication);
        std::printf("can %d %s\n", can.can ? 1 : 0, code(can.errorCode).c_str());

        std::vector<std::optional<std::string>> answers;
        std::stringstream list(argv[round]);
        for (std::string item; std::getline(list, item, ',');) {
            if (item.starts_with("pw:")) answers.emplace_back(item.substr(3));
            else answers.emplace_back(std::nullopt);
        }
        std::optional<std::string> answer;
        BiometricController().authenticationWithTouchID([&](bool success, std::string message) {
            answer = std::string(success ? "true " : "false ") + message;
        });
        for (const auto& reply : answers) {
            if (!browser::runUntil([&] { return answer || gtk::answerPasswordDialog(reply); }, kBound)) break;
        }
        browser::runUntil([&] { return answer.has_value(); }, kBound);
        std::printf("%s\n", answer ? ("answer " + *answer).c_str() : "no answer");
        std::fflush(stdout);
    }
    return 0;
}
