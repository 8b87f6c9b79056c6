#pragma once

#include <kelvane/platform/Storage.hpp>

#include <filesystem>
#include <map>
#include <mutex>

namespace kelvane::gtk {

// The key-value store as one JSON object in a file, owner-only. Reads come from memory; every
// write replaces the whole file atomically (a temporary file beside it, flushed to disk, then
// renamed over it), so a crash at any point leaves the old or the new contents. Other
// processes' writes are seen when the store is made. Any thread.
class JsonFileStore final : public platform::KeyValueStore {
public:
    explicit JsonFileStore(std::filesystem::path file);

    std::optional<std::string> string(const std::string& key) const override;
    void setString(const std::string& value, const std::string& key) override;
    std::optional<Json> dictionary(const std::string& key) const override;
    void setDictionary(const Json& value, const std::string& key) override;
    void removeObject(const std::string& key) override;

private:
    void set(const std::string& key, Json value);
    // Writes the values; false when the disk refused, the memory copy staying ahead.
    bool save() const;

    std::filesystem::path file_;
    mutable std::mutex mutex_;
    Json values_;
};

}  // namespace kelvane::gtk
