#include "PeerProcess.hpp"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace kelvane::testing {

std::string PeerProcess::peersDirectory() { return std::string(KELVANE_SOURCE_DIR) + "/tests/peers"; }

PeerProcess::PeerProcess(const std::string& script, const std::vector<std::string>& args,
                         std::chrono::milliseconds startBound, const std::string& readyPrefix) {
    int input[2], output[2];
    if (pipe2(input, O_CLOEXEC) != 0) return;
    if (pipe2(output, O_CLOEXEC) != 0) {
        close(input[0]);
        close(input[1]);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    posix_spawn_file_actions_adddup2(&actions, output[1], 1);
    std::string path = script.starts_with("/") ? script : peersDirectory() + "/" + script;
    std::vector<std::string> words{"node", path};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    if (posix_spawnp(&pid_, "node", &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(input[0]);
    close(output[1]);
    stdinFd_ = input[1];
    if (pid_ < 0) {
        close(output[0]);
        return;
    }
    reader_ = std::thread([this, fd = output[0]] { readOutput(fd); });
    if (auto line = waitForLine(readyPrefix, startBound)) port_ = std::atoi(line->c_str() + line->find_last_of(" :") + 1);
}

PeerProcess::~PeerProcess() {
    if (stdinFd_ >= 0) close(stdinFd_);
    if (pid_ > 0) {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, std::chrono::seconds(5), [this] { return ended_; })) kill(pid_, SIGKILL);
        lock.unlock();
        int status = 0;
        waitpid(pid_, &status, 0);
    }
    if (reader_.joinable()) reader_.join();
}

void PeerProcess::signal(int number) const {
    if (pid_ > 0) kill(pid_, number);
}

void PeerProcess::writeLine(const std::string& line) const {
    if (stdinFd_ < 0) return;
    // A peer that died must fail the write, not end the test process.
    static const bool ignored = (std::signal(SIGPIPE, SIG_IGN), true);
    (void)ignored;
    const std::string text = line + "\n";
    std::size_t written = 0;
    while (written < text.size()) {
        ssize_t count = ::write(stdinFd_, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return;
        written += static_cast<std::size_t>(count);
    }
}

void PeerProcess::readOutput(int fd) {
    std::string pending;
    char chunk[4096];
    for (;;) {
        ssize_t count = read(fd, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        pending.append(chunk, static_cast<std::size_t>(count));
        std::size_t end;
        while ((end = pending.find('\n')) != std::string::npos) {
            std::lock_guard lock(mutex_);
            lines_.push_back(pending.substr(0, end));
            pending.erase(0, end + 1);
            changed_.notify_all();
        }
    }
    close(fd);
    std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
}

std::vector<std::string> PeerProcess::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::optional<std::string> PeerProcess::waitForLine(const std::function<bool(const std::string&)>& match,
                                                    std::chrono::milliseconds bound) const {
    std::unique_lock lock(mutex_);
    std::optional<std::string> found;
    changed_.wait_for(lock, bound, [&] {
        for (const auto& line : lines_) {
            if (match(line)) {
                found = line;
                return true;
            }
        }
        return ended_;
    });
    return found;
}

std::optional<std::string> PeerProcess::waitForLine(const std::string& prefix, std::chrono::milliseconds bound) const {
    return waitForLine([&](const std::string& line) { return line.rfind(prefix, 0) == 0; }, bound);
}

}  // namespace kelvane::testing
