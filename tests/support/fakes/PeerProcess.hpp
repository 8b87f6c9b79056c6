#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kelvane::testing {

// A node peer from tests/peers, started on 127.0.0.1 with an ephemeral port. Its standard
// output is read line by line in the background; closing its standard input (on destruction)
// makes it exit, and it is killed if it does not.
class PeerProcess {
public:
    using Clock = std::chrono::steady_clock;

    // Runs `node tests/peers/<script> <args...>` (a script given by an absolute path stays as
    // it is) and waits for its first line that starts with `readyPrefix`, which ends with the
    // port ("PORT <n>", "... listening on http://127.0.0.1:<n>").
    PeerProcess(const std::string& script, const std::vector<std::string>& args,
                std::chrono::milliseconds startBound = std::chrono::seconds(20),
                const std::string& readyPrefix = "PORT ");
    ~PeerProcess();
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    // 0 when the peer did not start.
    int port() const { return port_; }
    // Every line printed so far, "PORT" included.
    std::vector<std::string> lines() const;
    // Waits until some line satisfies `match`; returns the first one that does.
    std::optional<std::string> waitForLine(const std::function<bool(const std::string&)>& match,
                                           std::chrono::milliseconds bound = std::chrono::seconds(10)) const;
    // The same for a line that starts with `prefix`.
    std::optional<std::string> waitForLine(const std::string& prefix,
                                           std::chrono::milliseconds bound = std::chrono::seconds(10)) const;

    // Sends a signal to the peer: SIGSTOP freezes it, SIGCONT resumes it, SIGKILL ends it at once.
    void signal(int number) const;
    // Writes one line to the peer's standard input.
    void writeLine(const std::string& line) const;

    // Where the node peers live.
    static std::string peersDirectory();

private:
    void readOutput(int fd);

    int pid_ = -1;
    int stdinFd_ = -1;
    int port_ = 0;
    std::thread reader_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> lines_;
    bool ended_ = false;
};

}  // namespace kelvane::testing
