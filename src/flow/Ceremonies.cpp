#include "flow/WebViewController.hpp"
#include "services/FidoService.hpp"
#include "services/IproovService.hpp"

namespace kelvane {

bool WebViewController::runCeremony(Events event, const platform::ScriptMessage& message) {
    auto fido = [this]() -> FidoService& {
        if (!fidoService) fidoService = std::make_shared<FidoService>();
        return *fidoService;
    };
    // Each completion holds the screen and the message until the page has its answer.
    auto self = std::static_pointer_cast<WebViewController>(shared_from_this());
    auto answerWith = [self, message](const auto& record) { self->answer(message.name, record); };
    // The passkey controller keeps its last completion for good, so a strong hold there would
    // keep the screen alive after the flow; while the flow is shown, the screen lives anyway.
    std::weak_ptr<WebViewController> weakSelf = self;
    auto answerWhileShown = [weakSelf, message](const auto& record) {
        if (auto screen = weakSelf.lock()) screen->answer(message.name, record);
    };
    switch (event) {
        case Events::registerFido:
            fido().registerFido(message.body, answerWhileShown);
            return true;
        case Events::signFido:
            fido().signFido(message.body, answerWhileShown);
            return true;
        case Events::isJsFidoSupported:
            fido().isJsFidoSupported(answerWith);
            return true;
        case Events::registerIproov:
        case Events::verifyIproov:
            if (!iproovService) iproovService = std::make_shared<IproovService>();
            iproovService->iproov(message.body, answerWith);
            return true;
        default:
            return false;
    }
}

}  // namespace kelvane
