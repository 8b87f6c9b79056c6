#include "flow/WebViewController.hpp"

#include "support/Fatal.hpp"

#include <kelvane/Log.hpp>

namespace kelvane {

bool WebViewController::runDeviceService(Events event, const platform::ScriptMessage& message) {
    auto self = std::static_pointer_cast<WebViewController>(shared_from_this());
    // Answers carry the posted name; completions hold the screen until they have run.
    auto reply = [self, name = message.name](const auto& record) { self->answer(name, record); };
    const Json& body = message.body;
    switch (event) {
        case Events::isEventSupported: systemServiceHandler.eventSupport(reply); return true;
        case Events::checkBiometric: biometricService.checkBiometric(reply); return true;
        case Events::registerBiometric: biometricService.registerBiometric(body, reply); return true;
        case Events::verifyBiometric: biometricService.verifyBiometric(body, reply); return true;
        case Events::registerAshield:
        case Events::authenticateAshield: ashieldService.ashieldInit(body, reply); return true;
        case Events::getFcmToken:
            getFcmService.getFcmToken(forceUnwrap(kelvaneService, kImplicitUnwrapNil), reply);
            return true;
        case Events::registerSilentBinding: silentBindingService.registerBinding(body, reply); return true;
        case Events::verifySilentBinding: silentBindingService.verify(body, reply); return true;
        case Events::readDeviceDetails: readDeviceDetails(); return true;
        case Events::copyToClipboard: systemServiceHandler.copyToClipboard(body, reply); return true;
        case Events::getCurrentNetwork:
            systemServiceHandler.getCurrentNetwork().then([self](const SystemServiceModel& record) {
                self->sendData(bridge::currentNetworkCallback(bridge::encodeAnswer(record)));
            });
            return true;
        case Events::loadSekuraSessionUrl: systemServiceHandler.loadSekuraSessionUrl(body, reply); return true;
        case Events::isCustomSchemeRegisteredOnApp:
            systemServiceHandler.isCustomSchemeRegisteredOnApp(body, [self, name = message.name](const auto& record) {
                logLine("Final result for is custom scheme, " + bridge::encodeAnswer(record));
                self->answer(name, record);
            });
            return true;
        default: return false;
    }
}

}  // namespace kelvane
