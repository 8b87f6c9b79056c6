// Writes one key of a bundle's desktop key-value store over and over, for the tests that run
// writers side by side or kill one mid-write.
// Usage: kelvane-store-writer <bundle identifier> <key> <tag> <padding> <count>
// Each value is "<tag>-<n>" followed by <padding> 'x' characters, n counting from 0.
#include <kelvane/gtk/GtkPlatform.hpp>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s bundle key tag padding count\n", argv[0]);
        return 2;
    }
    auto store = kelvane::gtk::makePlatform(argv[1], "1.0").keyValueStore;
    const std::string padding(std::stoul(argv[4]), 'x');
    const long count = std::stol(argv[5]);
    for (long n = 0; n < count; ++n) store->setString(std::string(argv[3]) + "-" + std::to_string(n) + padding, argv[2]);
    return 0;
}
