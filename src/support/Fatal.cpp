#include "support/Fatal.hpp"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace kelvane {

void fatalStop(std::string_view message) {
#ifdef KELVANE_FUZZING
    throw FatalStop(std::string(message));
#else
    std::fprintf(stderr, "Fatal error: %.*s\n", static_cast<int>(message.size()), message.data());
    std::fflush(stderr);
    std::abort();
#endif
}

void castFailure(std::string_view actual, std::string_view target) {
    fatalStop("Could not cast value of type '" + std::string(actual) + "' to '" + std::string(target) + "'.");
}

}  // namespace kelvane
