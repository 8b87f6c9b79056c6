#include <kelvane/GlobalVariables.hpp>

namespace kelvane {

GlobalVariables& GlobalVariables::shared() {
    static auto* instance = new GlobalVariables();
    return *instance;
}

std::string GlobalVariables::fcmToken() const {
    std::lock_guard lock(mutex_);
    return fcmToken_;
}

void GlobalVariables::setFcmToken(std::string token) {
    std::lock_guard lock(mutex_);
    fcmToken_ = std::move(token);
}

}  // namespace kelvane
