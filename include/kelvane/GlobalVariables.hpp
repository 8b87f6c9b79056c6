#pragma once

#include <kelvane/Export.hpp>

#include <mutex>
#include <string>

namespace kelvane {

// Process-wide values kept for the host. Nothing in the library reads or writes them. Any
// thread.
class KELVANE_EXPORT GlobalVariables {
public:
    static GlobalVariables& shared();

    std::string fcmToken() const;
    void setFcmToken(std::string token);

private:
    GlobalVariables() = default;
    mutable std::mutex mutex_;
    std::string fcmToken_;
};

}  // namespace kelvane
