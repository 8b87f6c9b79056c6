#include "XvfbDisplay.hpp"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace kelvane::testing {

XvfbDisplay::XvfbDisplay() {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return;
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        // Only async-signal-safe calls between fork and exec.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(1);
        close(pipeFds[0]);
        char fd[16];
        std::snprintf(fd, sizeof fd, "%d", pipeFds[1]);
        execlp("Xvfb", "Xvfb", "-displayfd", fd, "-screen", "0", "1280x1024x24", "-nolisten", "tcp", "-noreset",
               static_cast<char*>(nullptr));
        _exit(127);
    }
    close(pipeFds[1]);
    if (pid_ < 0) {
        close(pipeFds[0]);
        return;
    }
    // Xvfb writes the display number once it accepts clients.
    std::string number;
    pollfd ready{pipeFds[0], POLLIN, 0};
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        if (poll(&ready, 1, 200) <= 0) continue;
        char chunk[16];
        ssize_t count = read(pipeFds[0], chunk, sizeof chunk);
        if (count <= 0) break;
        number.append(chunk, static_cast<std::size_t>(count));
        if (number.find('\n') != std::string::npos) break;
    }
    close(pipeFds[0]);
    while (!number.empty() && (number.back() == '\n' || number.back() == '\r')) number.pop_back();
    if (!number.empty()) name_ = ":" + number;
}

// GDK keeps its connection until the process has ended and ends the process itself if the
// server goes first, so the server is not stopped here: it gets SIGTERM when this process dies.
XvfbDisplay::~XvfbDisplay() = default;

std::string useDesktopEnvironment(const std::string& display) {
    setenv("DISPLAY", display.c_str(), 1);
    setenv("GDK_BACKEND", "x11", 1);
    // WebKit's sandbox needs user namespaces, which a container run as root lacks.
    setenv("WEBKIT_DISABLE_SANDBOX_THIS_IS_DANGEROUS", "1", 1);
    // Xvfb has no GPU: software drawing for WebKit and GTK alike.
    setenv("WEBKIT_DISABLE_COMPOSITING_MODE", "1", 1);
    setenv("LIBGL_ALWAYS_SOFTWARE", "1", 1);
    setenv("GSK_RENDERER", "cairo", 1);
    setenv("GDK_DEBUG", "gl-disable", 1);
    // No accessibility bus to talk to.
    setenv("NO_AT_BRIDGE", "1", 1);
    setenv("GTK_A11Y", "none", 1);
    // Cookies, website data, the key-value store and the app registry start empty each run.
    char name[] = "/tmp/kelvane-desktop-XXXXXX";
    if (!mkdtemp(name)) return {};
    for (auto [variable, leaf] : {std::pair{"XDG_CONFIG_HOME", "config"}, {"XDG_DATA_HOME", "data"},
                                  {"XDG_CACHE_HOME", "cache"}, {"XDG_RUNTIME_DIR", "runtime"}}) {
        auto path = std::filesystem::path(name) / leaf;
        std::error_code ignored;
        std::filesystem::create_directories(path, ignored);
        std::filesystem::permissions(path, std::filesystem::perms::owner_all, ignored);
        setenv(variable, path.c_str(), 1);
    }
    return name;
}

}  // namespace kelvane::testing
