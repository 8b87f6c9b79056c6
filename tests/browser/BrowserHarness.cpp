#include "BrowserHarness.hpp"

#include <gtk/gtk.h>

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kelvane::browser {

bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds bound) {
    auto deadline = std::chrono::steady_clock::now() + bound;
    // Wakes the loop now and then, so that conditions fed by other threads are seen.
    guint ticker = g_timeout_add(20, +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    bool held = done();
    while (!held && std::chrono::steady_clock::now() < deadline) {
        g_main_context_iteration(nullptr, TRUE);
        held = done();
    }
    g_source_remove(ticker);
    return held;
}

int closedPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

void drain() {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

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

namespace {
std::unique_ptr<XvfbDisplay> display;
std::string folder;
}  // namespace

void tearDownDesktop() {
    if (!folder.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
}

bool setUpDesktop() {
    display = std::make_unique<XvfbDisplay>();
    if (display->name().empty()) return false;
    setenv("DISPLAY", display->name().c_str(), 1);
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
    char name[] = "/tmp/kelvane-browser-XXXXXX";
    if (!mkdtemp(name)) return false;
    folder = name;
    for (auto [variable, leaf] : {std::pair{"XDG_CONFIG_HOME", "config"}, {"XDG_DATA_HOME", "data"},
                                  {"XDG_CACHE_HOME", "cache"}, {"XDG_RUNTIME_DIR", "runtime"}}) {
        std::string path = folder + "/" + leaf;
        g_mkdir_with_parents(path.c_str(), 0700);
        setenv(variable, path.c_str(), 1);
    }
    return gtk_init_check();
}

}  // namespace kelvane::browser
