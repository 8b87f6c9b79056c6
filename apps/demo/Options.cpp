#include "Options.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace demo {

namespace {

constexpr const char* kUsage = R"(Usage: kelvane-demo [options]

Runs one Kelvane transaction in a GTK window and prints each delegate call, then a summary.

Where the transaction comes from (one of):
  --push FILE              a transaction message: a JSON object whose "payload" holds the payload text
  --deeplink URL           a transaction link, resolved by the library (onTransactionRequest)
  --sandbox URL            mint one at the sandbox (POST URL/api/transactions) and use its encrypted push
  --qr FILE                scan the QR code in the PNG FILE (launchQrScanner, through the camera's
                           image source); with --sandbox, the minted transaction's code is first
                           written to FILE
Options:
  --key KEY                the push's encryption key (base64)
  --key-file FILE          the same, read from a file
  --plain                  with --sandbox: use the plain push instead of the encrypted one
  --mint-option NAME=VALUE with --sandbox: a minting option (mode=playground, fail=true, ...); VALUE is
                           read as JSON when it is JSON, else as text
  --auto                   start at once instead of waiting for "Start verification", mint with
                           "auto", answer the library's dialogs as an unattended user would, and
                           approve the device owner's authentication without asking (a scripted
                           approval, said in the output)
  --cancel                 once the page has loaded, press the flow's exit button and confirm
  --force-update           start with sdkInit(forceUpdate: true) against the store lookup at
                           --store-host (default: the sandbox's host:port)
  --app-version V          the bundle's short version (default: the project's version)
  --store-host HOST:PORT   where the store lookup goes
  --screenshot FILE        save a PNG of the window showing the page after the verification
  --timeout SECONDS        bound on the whole run (default 60)
  --log FILE               the library's log lines go to FILE instead of standard output
  --help                   this text

Exit status: 0 completed, 1 not completed, 2 bad arguments or unreadable file,
3 sandbox unreachable, 4 time limit passed.
)";

[[noreturn]] void usageError(const std::string& reason) {
    std::fprintf(stderr, "kelvane-demo: %s\nTry 'kelvane-demo --help'.\n", reason.c_str());
    std::exit(kBadArguments);
}

std::string trimmed(std::string text) {
    auto blank = [](char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; };
    while (!text.empty() && blank(text.back())) text.pop_back();
    std::size_t start = 0;
    while (start < text.size() && blank(text[start])) ++start;
    return text.substr(start);
}

}  // namespace

void printFailure(const std::string& reason) { std::printf("  verdict:        failed: %s\n", reason.c_str()); }

FileText readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {std::nullopt, std::strerror(errno)};
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) return {std::nullopt, std::strerror(errno)};
    return {text.str(), {}};
}

Options parseOptions(int argc, char** argv, const std::string& defaultVersion) {
    Options options;
    options.appVersion = defaultVersion;
    std::optional<std::string> keyFile;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) usageError(arg + " needs a value");
            return argv[++i];
        };
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (arg == "--push") {
            options.pushFile = value();
        } else if (arg == "--key") {
            options.key = value();
        } else if (arg == "--key-file") {
            keyFile = value();
        } else if (arg == "--deeplink") {
            options.deeplink = value();
        } else if (arg == "--sandbox") {
            std::string url = value();
            while (!url.empty() && url.back() == '/') url.pop_back();
            if (!url.starts_with("http://")) usageError("--sandbox takes an http:// address, not '" + url + "'");
            options.sandbox = url;
        } else if (arg == "--qr") {
            options.qrFile = value();
        } else if (arg == "--plain") {
            options.plain = true;
        } else if (arg == "--mint-option") {
            std::string pair = value();
            auto equals = pair.find('=');
            if (equals == std::string::npos || equals == 0) usageError("--mint-option takes NAME=VALUE, not '" + pair + "'");
            options.mintOptions.emplace_back(pair.substr(0, equals), pair.substr(equals + 1));
        } else if (arg == "--auto") {
            options.autoRun = true;
        } else if (arg == "--cancel") {
            options.cancel = true;
        } else if (arg == "--force-update") {
            options.forceUpdate = true;
        } else if (arg == "--app-version") {
            options.appVersion = value();
        } else if (arg == "--store-host") {
            options.storeHost = value();
        } else if (arg == "--screenshot") {
            options.screenshot = value();
        } else if (arg == "--timeout") {
            std::string text = value();
            char* end = nullptr;
            double seconds = std::strtod(text.c_str(), &end);
            if (text.empty() || *end || !(seconds > 0)) usageError("--timeout takes a positive number of seconds");
            options.timeoutSeconds = seconds;
        } else if (arg == "--log") {
            options.log = value();
        } else {
            usageError("unknown option '" + arg + "'");
        }
    }
    if (!options.pushFile && !options.deeplink && !options.sandbox && !options.qrFile) {
        usageError("no transaction: give --push FILE, --deeplink URL, --sandbox URL or --qr FILE");
    }
    if (options.qrFile && (options.pushFile || options.deeplink)) usageError("--qr takes no --push or --deeplink");
    if (options.key && keyFile) usageError("give --key or --key-file, not both");
    if (options.forceUpdate && !options.storeHost && options.sandbox) options.storeHost = options.sandbox->substr(7);
    if (options.forceUpdate && !options.storeHost) usageError("--force-update needs --store-host or --sandbox");
    if (keyFile) {
        auto file = readFile(*keyFile);
        if (!file.text) {
            printFailure("the file " + *keyFile + " could not be read: " + file.error);
            std::exit(kBadArguments);
        }
        options.key = trimmed(*file.text);
    }
    return options;
}

}  // namespace demo
