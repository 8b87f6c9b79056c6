#pragma once

// The demo's bookkeeping for one run: time stamps, what the library and the page did, when the
// transaction has ended and how, the summary and the exit code. Main queue only, except now().

#include "Options.hpp"
#include "Screen.hpp"
#include "Transaction.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

typedef struct _GMainLoop GMainLoop;

namespace kelvane {
class ViewController;
}

namespace demo {

class Run {
public:
    using Clock = std::chrono::steady_clock;

    Run(Options options, Screen& screen);
    ~Run();

    const Options& options() const { return options_; }
    // Any thread.
    Clock::time_point now() const { return Clock::now(); }

    // The demo's own steps.
    void starting(const Transaction& transaction);
    void fed();
    // A line of the demo's own, time-stamped, also on the screen's list when `onScreen`.
    void note(Clock::time_point at, const std::string& text, bool onScreen = false);

    // The delegate's calls, with the time each arrived.
    void pushTokenRequested(Clock::time_point at, const std::string& token);
    void result(Clock::time_point at, const std::string& reqId, const std::string& authReqId);
    void error(Clock::time_point at, const std::string& error);
    void closed(Clock::time_point at, const std::string& reason);
    void transactionRequested(Clock::time_point at, const kelvane::Json& payload);

    // What the watchers see.
    void flowShown(const std::shared_ptr<kelvane::ViewController>& flow);
    void pageFinished();
    // The page posted `event`; `deliver` hands it to the library, now or a frame later.
    void pagePosted(const std::string& event, std::function<void()> deliver);
    void pageAnswered(const std::string& event, const std::string& outcome);
    void dialog(const std::string& title, const std::string& answer);

    // Ends the run with an exit code and a one-line reason; the first call counts.
    void finish(int code, const std::string& reason);
    // Runs the main loop until the run has ended (and, without --auto, until the window is
    // closed). Returns the exit code.
    int exec();

private:
    void line(Clock::time_point at, const std::string& text, bool onScreen);
    void settle();
    void printSummary() const;
    // Takes the screenshot, when one is wanted and not taken yet, once the window has drawn
    // what it shows now; then runs `then`.
    void screenshot(std::function<void()> then);

    struct PageEvent {
        std::string name;
        std::vector<std::string> outcomes;
    };

    Options options_;
    Screen& screen_;
    GMainLoop* loop_;
    Clock::time_point start_;
    std::optional<Clock::time_point> fedAt_, pageAt_, resultAt_;
    std::string transaction_;
    std::optional<std::string> sandboxRecord_;
    std::vector<PageEvent> events_;
    std::weak_ptr<kelvane::ViewController> flow_;
    bool flowSeen_ = false;
    bool cancelPressed_ = false;
    bool screenshotTaken_ = false;
    std::optional<std::string> error_;
    std::optional<std::string> closeReason_;
    bool resultGraceArmed_ = false;
    std::optional<int> exitCode_;
    bool summarized_ = false;
    bool windowClosed_ = false;
    std::string reason_;
};

}  // namespace demo
