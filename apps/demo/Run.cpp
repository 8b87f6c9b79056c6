#include "Run.hpp"

#include <kelvane/ViewController.hpp>

#include <glib.h>

#include <cstdio>
#include <functional>

namespace demo {

namespace {

// After the flow closed on the page's success, how long the backend's result may still take.
constexpr auto kResultGrace = std::chrono::seconds(5);

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

std::string seconds(Run::Clock::duration span) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f s", std::chrono::duration<double>(span).count());
    return text;
}

// The demo's own timers, on the GLib main context whatever platform is installed.
void after(std::chrono::milliseconds delay, std::function<void()> task) {
    g_timeout_add_full(G_PRIORITY_DEFAULT, static_cast<guint>(delay.count()),
                       +[](gpointer data) -> gboolean {
                           (*static_cast<std::function<void()>*>(data))();
                           return G_SOURCE_REMOVE;
                       },
                       new std::function<void()>(std::move(task)),
                       +[](gpointer data) { delete static_cast<std::function<void()>*>(data); });
}

// Why a transaction failed, in the host's words, from the library's error text.
std::string describeError(const std::string& error) {
    if (error == "WebSocketConnectionFailed") return "the status socket did not connect (WebSocketConnectionFailed)";
    if (error == "ConnectionError") return "the page could not be loaded (ConnectionError)";
    if (error == "appUpdateRequired") return "the app must be updated first (appUpdateRequired)";
    if (error == "MissingEncryptionKey") return "the payload could not be decrypted or read (MissingEncryptionKey)";
    if (error == "IdMismatch") return "the message is not a Kelvane transaction (IdMismatch)";
    if (error == "InvalidPayload") return "the flow had no payload (InvalidPayload)";
    return "the transaction failed: " + error;
}

}  // namespace

Run::Run(Options options, Screen& screen)
    : options_(std::move(options)), screen_(screen), loop_(g_main_loop_new(nullptr, FALSE)), start_(Clock::now()) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    auto limit = std::chrono::duration<double>(options_.timeoutSeconds);
    after(std::chrono::duration_cast<std::chrono::milliseconds>(limit), [this] {
        // The bound holds for a window left open after the verdict too.
        if (summarized_) return g_main_loop_quit(loop_);
        char text[96];
        std::snprintf(text, sizeof text, "the transaction did not complete within %g s", options_.timeoutSeconds);
        finish(kTimedOut, text);
    });
}

Run::~Run() { g_main_loop_unref(loop_); }

void Run::line(Clock::time_point at, const std::string& text, bool onScreen) {
    double offset = std::chrono::duration<double>(at - start_).count();
    std::printf("[%8.3fs] %s\n", offset, text.c_str());
    if (onScreen) screen_.addLine(text);
}

void Run::note(Clock::time_point at, const std::string& text, bool onScreen) { line(at, text, onScreen); }

void Run::starting(const Transaction& transaction) {
    transaction_ = transaction.description;
    sandboxRecord_ = transaction.sandboxRecord;
    screen_.setStarted();
    note(now(), "transaction " + transaction_);
}

void Run::fed() { fedAt_ = now(); }

void Run::pushTokenRequested(Clock::time_point at, const std::string& token) {
    line(at, "delegate onPushTokenRequest() -> " + quoted(token), true);
}

void Run::result(Clock::time_point at, const std::string& reqId, const std::string& authReqId) {
    line(at, "delegate onResult(" + quoted(reqId) + ", " + quoted(authReqId) + ")", true);
    if (!resultAt_) resultAt_ = at;
    settle();
}

void Run::error(Clock::time_point at, const std::string& error) {
    line(at, "delegate onError(" + quoted(error) + ")", true);
    if (!error_) error_ = error;
    settle();
}

void Run::closed(Clock::time_point at, const std::string& reason) {
    line(at, "delegate onClosed(" + quoted(reason) + ")", true);
    if (!closeReason_) closeReason_ = reason;
    settle();
}

void Run::transactionRequested(Clock::time_point at, const kelvane::Json& payload) {
    auto text = kelvane::json::dump(payload);
    if (text.size() > 60) text = text.substr(0, 57) + "...";
    line(at, "delegate onTransactionRequest(" + text + ")", true);
}

void Run::flowShown(const std::shared_ptr<kelvane::ViewController>& flow) {
    flow_ = flow;
    flowSeen_ = true;
}

void Run::pageFinished() {
    if (pageAt_) return;
    pageAt_ = now();
    note(*pageAt_, "page loaded");
    if (options_.cancel && !cancelPressed_) {
        cancelPressed_ = true;
        note(now(), "pressing the flow's exit button");
        std::weak_ptr<kelvane::ViewController> flow = flow_;
        after(std::chrono::milliseconds(0), [flow] {
            if (auto shown = flow.lock()) shown->performAction("exit");
        });
    }
}

void Run::pagePosted(const std::string& event, std::function<void()> deliver) {
    events_.push_back({event, {}});
    // The page as the user saw it at the end, before the library takes the flow down.
    if (event == "success" || event == "failure") return screenshot(std::move(deliver));
    deliver();
}

void Run::pageAnswered(const std::string& event, const std::string& outcome) {
    PageEvent* last = nullptr;
    for (auto& posted : events_) {
        if (posted.name != event) continue;
        if (posted.outcomes.empty()) {
            posted.outcomes.push_back(outcome);
            return;
        }
        last = &posted;
    }
    if (last) {
        last->outcomes.push_back(outcome);
    } else {
        events_.push_back({event + " (not posted)", {outcome}});
    }
}

void Run::dialog(const std::string& title, const std::string& answer) {
    line(now(), "dialog " + quoted(title) + (answer.empty() ? " (left open)" : " -> " + answer), true);
}

void Run::settle() {
    if (exitCode_) return;
    if (closeReason_) {
        if (*closeReason_ == "ByUser") return finish(kNotCompleted, "the user cancelled the transaction (ByUser)");
        if (error_) return finish(kNotCompleted, describeError(*error_));
        for (const auto& posted : events_) {
            if (posted.name == "failure") return finish(kNotCompleted, "the page reported a failure");
        }
        if (resultAt_) return finish(kCompleted, "");
        if (resultGraceArmed_) return;
        resultGraceArmed_ = true;
        after(kResultGrace, [this] {
            finish(kNotCompleted, "the flow closed without a result from the backend (no onResult)");
        });
        return;
    }
    // Errors without a flow: the update gate, the message's id, the link's fetch.
    if (error_ && !flowSeen_) finish(kNotCompleted, describeError(*error_));
}

void Run::screenshot(std::function<void()> then) {
    if (!options_.screenshot || screenshotTaken_) return then();
    screenshotTaken_ = true;
    screen_.afterNextFrame([this, then = std::move(then)] {
        auto failure = screen_.saveScreenshot(*options_.screenshot);
        note(now(), failure.empty() ? "screenshot saved to " + *options_.screenshot : "no screenshot: " + failure);
        then();
    });
}

void Run::finish(int code, const std::string& reason) {
    if (exitCode_) return;
    exitCode_ = code;
    reason_ = reason;
    screen_.setVerdict(code == kCompleted ? "Completed" : "Failed: " + reason, code == kCompleted);
    screenshot([this] {
        printSummary();
        summarized_ = true;
        if (options_.autoRun || windowClosed_ || exitCode_ == kTimedOut) {
            g_main_loop_quit(loop_);
        } else {
            note(now(), "close the window to quit");
        }
    });
}

void Run::printSummary() const {
    std::printf("summary:\n");
    std::printf("  transaction:    %s\n", transaction_.empty() ? "none" : transaction_.c_str());
    for (const auto& posted : events_) {
        std::string outcome;
        for (const auto& each : posted.outcomes) outcome += (outcome.empty() ? "" : ", ") + each;
        if (outcome.empty()) outcome = posted.name == "success" || posted.name == "failure" ? "posted" : "no answer";
        std::printf("  event:          %s -> %s\n", posted.name.c_str(), outcome.c_str());
    }
    auto since = [&](const std::optional<Clock::time_point>& at) {
        return at && fedAt_ ? seconds(*at - *fedAt_) : std::string("none");
    };
    if (sandboxRecord_ && fedAt_) {
        for (const auto& check : sandboxChecks(*sandboxRecord_)) std::printf("  sandbox:        %s\n", check.c_str());
    }
    std::printf("  time to page:   %s\n", since(pageAt_).c_str());
    std::printf("  time to result: %s\n", since(resultAt_).c_str());
    std::printf("  close reason:   %s\n", closeReason_ ? closeReason_->c_str() : "none");
    if (exitCode_ == kCompleted) {
        std::printf("  verdict:        completed\n");
    } else {
        printFailure(reason_);
    }
}

int Run::exec() {
    screen_.onWindowClose([this] {
        windowClosed_ = true;
        if (summarized_) return g_main_loop_quit(loop_);
        finish(kNotCompleted, "the window was closed before the transaction ended");
    });
    if (!exitCode_) g_main_loop_run(loop_);
    return exitCode_.value_or(kNotCompleted);
}

}  // namespace demo
