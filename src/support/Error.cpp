#include <kelvane/Error.hpp>

namespace kelvane {

std::string Error::text() const {
    return "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" + message + "\"";
}

std::string Error::localizedDescription() const {
    if (!message.empty()) return message;
    return "The operation couldn\u2019t be completed. (" + domain + " error " + std::to_string(code) + ".)";
}

}  // namespace kelvane
