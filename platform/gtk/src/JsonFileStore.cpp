#include "JsonFileStore.hpp"

#include <kelvane/Log.hpp>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace kelvane::gtk {

namespace {

Json readObject(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return Json::object();
    std::stringstream text;
    text << in.rdbuf();
    Json parsed = Json::parse(text.str(), nullptr, false);
    // A file that is not ours to read counts as an empty store; the next write replaces it.
    return parsed.is_object() ? parsed : Json::object();
}

bool writeAll(int fd, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        ssize_t count = ::write(fd, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        written += static_cast<std::size_t>(count);
    }
    return true;
}

void syncDirectory(const std::filesystem::path& directory) {
    int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

// Temporary files of writers that died before their rename.
void removeStaleTemporaries(const std::filesystem::path& file) {
    const std::string prefix = "." + file.filename().string() + ".";
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(file.parent_path(), error)) {
        auto name = entry.path().filename().string();
        if (!name.starts_with(prefix) || !name.ends_with(".tmp")) continue;
        auto pid = std::atoi(name.substr(prefix.size()).c_str());
        if (pid > 0 && pid != ::getpid() && ::kill(pid, 0) != 0 && errno == ESRCH) {
            std::filesystem::remove(entry.path(), error);
        }
    }
}

}  // namespace

JsonFileStore::JsonFileStore(std::filesystem::path file) : file_(std::move(file)), values_(readObject(file_)) {
    removeStaleTemporaries(file_);
}

std::optional<std::string> JsonFileStore::string(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto found = values_.find(key);
    if (found == values_.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

std::optional<Json> JsonFileStore::dictionary(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto found = values_.find(key);
    if (found == values_.end() || !found->is_object()) return std::nullopt;
    return *found;
}

void JsonFileStore::setString(const std::string& value, const std::string& key) { set(key, value); }

void JsonFileStore::setDictionary(const Json& value, const std::string& key) { set(key, value); }

void JsonFileStore::removeObject(const std::string& key) {
    std::lock_guard lock(mutex_);
    if (values_.erase(key) == 0) return;
    save();
}

void JsonFileStore::set(const std::string& key, Json value) {
    std::lock_guard lock(mutex_);
    values_[key] = std::move(value);
    save();
}

bool JsonFileStore::save() const {
    static std::atomic<unsigned> sequence{0};
    std::error_code ignored;
    const auto directory = file_.parent_path();
    std::filesystem::create_directories(directory, ignored);
    ::chmod(directory.c_str(), 0700);
    // A name of its own per process and write, so that writers never share a temporary file.
    auto temporary = directory / ("." + file_.filename().string() + "." + std::to_string(::getpid()) + "." +
                                  std::to_string(sequence.fetch_add(1)) + ".tmp");
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        logLine("Could not write " + temporary.string() + ": " + std::strerror(errno));
        return false;
    }
    bool written = writeAll(fd, values_.dump()) && ::fsync(fd) == 0;
    written = ::close(fd) == 0 && written;
    if (!written || ::rename(temporary.c_str(), file_.c_str()) != 0) {
        logLine("Could not write " + file_.string() + ": " + std::strerror(errno));
        ::unlink(temporary.c_str());
        return false;
    }
    syncDirectory(directory);
    return true;
}

}  // namespace kelvane::gtk
