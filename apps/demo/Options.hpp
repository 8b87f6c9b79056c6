#pragma once

// The demo's command line.

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace demo {

// Exit codes, as scripts and tests read them.
enum Exit : int {
    kCompleted = 0,      // onResult and onClosed("TranscationCompleted"), no onError
    kNotCompleted = 1,   // an onError, a close by the user, the page's failure
    kBadArguments = 2,   // bad arguments or an unreadable file
    kNoSandbox = 3,      // the sandbox could not be reached
    kTimedOut = 4,       // the time limit passed
};

struct Options {
    std::optional<std::string> pushFile;
    std::optional<std::string> key;  // from --key, or the text of --key-file
    std::optional<std::string> deeplink;
    std::optional<std::string> sandbox;  // "http://host:port", without a trailing slash
    std::optional<std::string> qrFile;   // a PNG read through the camera's image source
    bool plain = false;
    std::vector<std::pair<std::string, std::string>> mintOptions;
    bool autoRun = false;
    bool cancel = false;
    bool forceUpdate = false;
    std::string appVersion;
    std::optional<std::string> storeHost;  // "host:port"
    std::optional<std::string> screenshot;
    double timeoutSeconds = 60;
    std::optional<std::string> log;
};

// Parses the arguments. Prints the usage and exits 0 for --help; prints the reason and exits
// with kBadArguments for anything wrong, an unreadable key file included.
Options parseOptions(int argc, char** argv, const std::string& defaultVersion);

// Prints the verdict line of a failed run: the end of the summary, or all of it before a start.
void printFailure(const std::string& reason);

// The whole text of a file, or the reason it could not be read.
struct FileText {
    std::optional<std::string> text;
    std::string error;
};
FileText readFile(const std::string& path);

}  // namespace demo
