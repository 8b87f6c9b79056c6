#pragma once

#include <string>

namespace kelvane {

// A random (version 4) UUID in its canonical text: upper case, with hyphens. Any thread.
std::string makeUUIDString();

}  // namespace kelvane
