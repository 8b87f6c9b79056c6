#include "services/IproovService.hpp"

#include <kelvane/Log.hpp>
#include <kelvane/Queue.hpp>

#include "support/Fatal.hpp"
#include "support/Ports.hpp"

#include <charconv>

namespace kelvane {
namespace {

using platform::FaceVerificationStatus;

// A double as the platform prints one: the shortest text that reads back, always with a
// fraction.
std::string printed(double value) {
    char buffer[64];
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, error == std::errc() ? end : buffer);
    if (text.find_first_of(".eEn") == std::string::npos) text += ".0";
    return text;
}

// The session's record for an end state; nothing while it goes on.
std::optional<IproovRequestModel> recordFor(const FaceVerificationStatus& status) {
    const JsHandler jsHandler;
    switch (status.kind) {
        case FaceVerificationStatus::Kind::connecting:
            logLine("connecting");
            return std::nullopt;
        case FaceVerificationStatus::Kind::connected:
            logLine("connect");
            return std::nullopt;
        case FaceVerificationStatus::Kind::processing:
            logLine(printed(status.progress) + " " + status.message);
            return std::nullopt;
        case FaceVerificationStatus::Kind::success:
            logLine("result -> " + status.description);
            return IproovRequestModel(true, "Iproov Successful", jsHandler.getDeviceInfo(), "");
        case FaceVerificationStatus::Kind::failure:
            logLine(status.description);
            return IproovRequestModel(false, "", jsHandler.getDeviceInfo(), status.reason);
        case FaceVerificationStatus::Kind::canceled:
            logLine("result -> " + status.description);
            return IproovRequestModel(false, "", jsHandler.getDeviceInfo(),
                                      "Unable to complete request. Please try again!");
        case FaceVerificationStatus::Kind::error:
            return IproovRequestModel(false, "", jsHandler.getDeviceInfo(), forceUnwrap(status.failureReason));
    }
    return std::nullopt;
}

}  // namespace

Json IproovRequestModel::toJson() const {
    return Json{{"success", success}, {"message", message}, {"device", device.toJson()}, {"error", error}};
}

Result<IproovRequestModel> IproovRequestModel::fromJson(const Json& json) {
    record::Decoder decoder(json);
    auto success = decoder.boolean("success");
    auto message = decoder.string("message");
    auto device = DeviceModel::fromJson(decoder.object("device"));
    auto error = decoder.string("error");
    if (decoder.error()) return *decoder.error();
    if (!device) return device.error();
    return IproovRequestModel(success, std::move(message), std::move(*device), std::move(error));
}

void IproovService::iproov(const Json& data, std::function<void(const IproovRequestModel&)> completion) {
    _iproovInit(data).then([completion = std::move(completion)](const IproovRequestModel& record) {
        completion(record);
    });
}

Promise<IproovRequestModel> IproovService::_iproovInit(const Json& data) {
    auto body = jsHandler.processArgs({data});
    const Json& args = forceUnwrap(body);
    std::string streamingUrl = forceUnwrap(json::getString(args, "streamingUrl"));
    std::string token = forceUnwrap(json::getString(args, "token"));

    struct SessionHolder {
        std::shared_ptr<platform::FaceVerificationSession> session;
    };
    auto holder = std::make_shared<SessionHolder>();
    std::weak_ptr<platform::FaceVerificationPresentationDelegate> delegate = weak_from_this();

    return Promise<IproovRequestModel>([holder, delegate, streamingUrl, token](auto fulfill, auto) {
        auto url = forceUnwrap(URL::make(streamingUrl));
        auto onStatus = [holder, fulfill](const FaceVerificationStatus& status) {
            auto record = recordFor(status);
            if (!record) return;
            // The page hears at once; the session is ended for good only later, and stays
            // alive in the holder until then.
            Queue::main()->asyncAfter(kCancelDelay, [holder] {
                if (holder->session) holder->session->cancel();
            });
            fulfill(*record);
        };
        holder->session = ports::faceVerification()->launch(url, token, delegate, onStatus);
    });
}

void IproovService::present(std::shared_ptr<ViewController> iProovViewController, std::function<void()> completion) {
    auto container = std::make_shared<platform::FaceVerificationContainer>();
    container->modalPresentationStyle = platform::ModalPresentationStyle::overFullScreen;
    container->backgroundColor = platform::Color{0, 0, 0, 0};

    auto screen = ports::faceVerification()->screenBounds();
    const double width = screen.width * 1.0;
    const double height = screen.height * 1.0;
    // Centred on the screen; at the full size that is the origin.
    platform::Rect frame{(screen.width - width) / 2, (screen.height - height) / 2, width, height};

    for (auto it = parents_.begin(); it != parents_.end();) {
        it = it->second.expired() ? parents_.erase(it) : std::next(it);
    }
    container->child = iProovViewController;
    parents_[iProovViewController.get()] = container;
    container->view()->addSubview(iProovViewController->view());
    container->childFrame = frame;

    std::shared_ptr<ViewController> top;
    auto viewSystem = ports::viewSystem();
    for (const auto& scene : viewSystem->connectedScenes()) {
        if (scene->activationState() != platform::ActivationState::foregroundActive || !scene->isWindowScene()) {
            continue;
        }
        for (const auto& window : scene->windows()) {
            if (!window->isKeyWindow()) continue;
            top = window->rootViewController();
            break;
        }
        break;
    }
    while (top) {
        auto presented = top->presentedViewController();
        if (!presented) break;
        top = std::move(presented);
    }
    if (top) top->present(container, true, std::move(completion));
}

void IproovService::dismiss(std::shared_ptr<ViewController> iProovViewController, std::function<void()> completion) {
    auto found = parents_.find(iProovViewController.get());
    if (found == parents_.end()) return;
    auto parent = found->second.lock();
    if (!parent) return;
    parent->dismiss(true, std::move(completion));
}

}  // namespace kelvane
