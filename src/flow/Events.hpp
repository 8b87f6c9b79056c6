#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace kelvane {

// The page's bridge events. Each name is a script message handler the page posts to.
enum class Events {
    isEventSupported,
    success,
    failure,
    checkBiometric,
    registerBiometric,
    verifyBiometric,
    registerAshield,
    authenticateAshield,
    registerFido,
    signFido,
    getFcmToken,
    isJsFidoSupported,
    registerSilentBinding,
    verifySilentBinding,
    readDeviceDetails,
    copyToClipboard,
    registerIproov,
    verifyIproov,
    getCurrentNetwork,
    loadSekuraSessionUrl,
    isCustomSchemeRegisteredOnApp,
};

// In registration order, which is also the order of the supported-events list.
const std::array<Events, 21>& allValues();
std::string_view eventName(Events event);
std::optional<Events> eventNamed(std::string_view name);

}  // namespace kelvane
