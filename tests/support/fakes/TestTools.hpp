#pragma once

#include <filesystem>
#include <string>

namespace kelvane::testing {

// Runs a shell command and returns its standard output; fails the test on a non-zero exit.
std::string run(const std::string& command);

// A port on 127.0.0.1 that nothing listens on.
int closedPort();

std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& contents);

// A fresh directory, removed with everything in it when this goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

}  // namespace kelvane::testing
