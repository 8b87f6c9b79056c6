#pragma once

#include <kelvane/Export.hpp>
#include <kelvane/Json.hpp>

#include <filesystem>
#include <optional>
#include <string>

namespace kelvane::platform {

// The general pasteboard's text. Main queue only.
class KELVANE_EXPORT Pasteboard {
public:
    virtual ~Pasteboard();
    virtual std::optional<std::string> string() const = 0;
    virtual void setString(const std::string& text) = 0;
};

// The app's small persistent store of strings and dictionaries. Any thread; each write is
// atomic and survives a crash with either the old or the new contents.
class KELVANE_EXPORT KeyValueStore {
public:
    virtual ~KeyValueStore();
    // Nothing for a missing key or a value of another kind.
    virtual std::optional<std::string> string(const std::string& key) const = 0;
    virtual void setString(const std::string& value, const std::string& key) = 0;
    // A JSON object, or nothing.
    virtual std::optional<Json> dictionary(const std::string& key) const = 0;
    virtual void setDictionary(const Json& value, const std::string& key) = 0;
    virtual void removeObject(const std::string& key) = 0;
};

// Where downloaded files go.
class KELVANE_EXPORT DocumentsDirectory {
public:
    virtual ~DocumentsDirectory();
    virtual std::optional<std::filesystem::path> documentsDirectory() const = 0;
};

}  // namespace kelvane::platform
