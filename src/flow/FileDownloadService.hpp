#pragma once

#include <kelvane/URL.hpp>

#include <functional>
#include <optional>
#include <string>

namespace kelvane {

// Whether a link names a document to download: a path extension of "pdf" in any case. Any
// thread.
bool isDownloadURL(const URL& url);

// Fetches a file into the documents directory, under the last path component of its URL,
// replacing a file of that name. No state; any thread.
class FileDownloadService {
public:
    // `completion` runs on the HTTP thread with the saved file's path as a file URL spells it
    // (percent-encoded, so a blank stays %20), or nothing on failure. The status code is not
    // looked at. When an old file cannot be removed it runs twice: nothing first, then the
    // outcome of the move. Each call comes before the matching log line.
    void fileDownload(const URL& url, std::function<void(std::optional<std::string>)> completion) const;
};

}  // namespace kelvane
