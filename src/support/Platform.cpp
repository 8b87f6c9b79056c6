#include <kelvane/platform/Platform.hpp>

#include <atomic>

namespace kelvane::platform {
namespace {
std::atomic<std::shared_ptr<const Platform>>& slot() {
    static auto* installed = new std::atomic<std::shared_ptr<const Platform>>(std::make_shared<Platform>());
    return *installed;
}
}  // namespace

void install(Platform platform) { slot().store(std::make_shared<const Platform>(std::move(platform))); }

std::shared_ptr<const Platform> current() { return slot().load(); }

}  // namespace kelvane::platform
