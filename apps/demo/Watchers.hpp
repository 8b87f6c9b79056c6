#pragma once

// How the demo sees the flow without the library's internals: small decorators over the public
// ports of the desktop platform, put in place before the platform is installed.
//
// - web views: the page's first finished navigation, the events the page posts, and the
//   outcome of each answer the library evaluates in the page (iosCallback("name" ,{...}));
// - screens: the dialogs the library shows (answered as an unattended user would with --auto)
//   and the flow's screen (whose exit button --cancel presses);
// - the URL opener: a stand-in for the partner app of an app-to-app hand-off, which the desktop
//   lacks. It says it can open "uaepass" and "uaepassstg" links and returns at once through
//   the link's success callback, as that app would after the user agreed;
// - face verification: each state of a session, as it passes;
// - with --auto, device-owner authentication: a scripted approval in place of the password
//   dialog, said in the output.

#include <kelvane/platform/Platform.hpp>

#include <functional>
#include <optional>
#include <string>

namespace demo {

class Run;

// `appReturn` is how the stand-in partner app opens the host app again: the host passes the
// URL to KelvaneApp::onDeeplinkRequest. Main thread.
void watch(kelvane::platform::Platform& ports, Run& run, std::function<void(const std::string& url)> appReturn);

// The outcome of an answer the library evaluates in the page: "success:true" or
// "success:false" (with the record's "message" or "error" in brackets, when it has one) for a
// record with a "success" field, "answered" otherwise; the event's name is set. Nothing for a
// script that is no answer.
struct Answer {
    std::string event;
    std::string outcome;
};
std::optional<Answer> readAnswer(const std::string& script);

}  // namespace demo
