#include "flow/FileDownloadService.hpp"

#include "support/Ports.hpp"

#include <kelvane/Error.hpp>
#include <kelvane/Log.hpp>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

namespace kelvane {
namespace {

namespace fs = std::filesystem;

const char* const fileErrorDomain = "NSCocoaErrorDomain";

std::string quoted(const fs::path& path) { return "\u201C" + path.filename().string() + "\u201D"; }

// Only a file goes. A directory here is the documents directory itself or one above it (an
// empty name, "/", ".."), and removing it would take everything in it.
std::optional<Error> removeItem(const fs::path& path) {
    std::error_code error;
    if (!fs::is_directory(path, error)) {
        fs::remove(path, error);
        if (!error) return std::nullopt;
    }
    return Error{fileErrorDomain, 513, quoted(path) + " couldn\u2019t be removed."};
}

std::optional<Error> moveItem(const fs::path& from, const fs::path& to) {
    std::string failure = quoted(from) + " couldn\u2019t be moved to " + quoted(to.parent_path());
    std::error_code error;
    // Never over something, as rename() would do to a file.
    if (fs::exists(fs::symlink_status(to, error))) {
        return Error{fileErrorDomain, 516, failure + " because an item with the same name already exists."};
    }
    fs::rename(from, to, error);
    if (error == std::errc::cross_device_link) {
        // The temporary file may lie on another file system.
        error.clear();
        fs::copy_file(from, to, error);
        std::error_code ignored;
        fs::remove(error ? to : from, ignored);
    }
    if (error) return Error{fileErrorDomain, 512, failure + "."};
    return std::nullopt;
}

// The destination's text as a file URL writes it.
std::string fileURLText(const fs::path& path) {
    std::string text = path.string();
    return "file://" + addingPercentEncoding(text, URLCharacterSet::urlPathAllowed).value_or(text);
}

std::string removingFileScheme(std::string text) {
    const std::string scheme = "file://";
    for (auto at = text.find(scheme); at != std::string::npos; at = text.find(scheme, at)) {
        text.erase(at, scheme.size());
    }
    return text;
}

}  // namespace

bool isDownloadURL(const URL& url) {
    std::string extension = url.pathExtension();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension == "pdf";
}

void FileDownloadService::fileDownload(const URL& url,
                                       std::function<void(std::optional<std::string>)> completion) const {
    std::string name = url.lastPathComponent();
    ports::http()->downloadTask(url, [name, completion = std::move(completion)](auto location, auto, auto error) {
        if (!location) {
            completion(std::nullopt);
            logLine("Failed to download file: " + (error ? error->localizedDescription() : "Unknown error"));
            return;
        }
        auto documents = ports::documents()->documentsDirectory();
        if (!documents) {
            completion(std::nullopt);
            logLine("Documents directory not found");
            return;
        }
        // An empty path or "/" names the directory itself.
        fs::path destination = name.empty() || name == "/" ? *documents : *documents / name;

        std::error_code ignored;
        if (fs::exists(destination, ignored)) {
            if (auto failure = removeItem(destination)) {
                completion(std::nullopt);
                logLine("Failed to remove existing file: " + failure->localizedDescription());
            }
        }
        if (auto failure = moveItem(*location, destination)) {
            completion(std::nullopt);
            logLine("Failed to save file: " + failure->localizedDescription());
            return;
        }
        std::string text = fileURLText(destination);
        completion(removingFileScheme(text));
        logLine("File downloaded successfully. Location: " + text);
    });
}

}  // namespace kelvane
