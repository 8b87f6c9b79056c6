#include "flow/Events.hpp"

namespace kelvane {
namespace {
constexpr std::array<std::string_view, 21> kNames = {
    "isEventSupported",      "success",         "failure",
    "checkBiometric",        "registerBiometric", "verifyBiometric",
    "registerAshield",       "authenticateAshield", "registerFido",
    "signFido",              "getFcmToken",     "isJsFidoSupported",
    "registerSilentBinding", "verifySilentBinding", "readDeviceDetails",
    "copyToClipboard",       "registerIproov",  "verifyIproov",
    "getCurrentNetwork",     "loadSekuraSessionUrl", "isCustomSchemeRegisteredOnApp",
};
}  // namespace

const std::array<Events, 21>& allValues() {
    static const auto values = [] {
        std::array<Events, 21> list{};
        for (std::size_t i = 0; i < list.size(); ++i) list[i] = static_cast<Events>(i);
        return list;
    }();
    return values;
}

std::string_view eventName(Events event) { return kNames.at(static_cast<std::size_t>(event)); }

std::optional<Events> eventNamed(std::string_view name) {
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        if (kNames[i] == name) return static_cast<Events>(i);
    }
    return std::nullopt;
}

}  // namespace kelvane
