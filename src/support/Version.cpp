#include <kelvane/Version.hpp>

namespace kelvane {

const char* version() noexcept { return KELVANE_VERSION_STRING; }

}  // namespace kelvane
