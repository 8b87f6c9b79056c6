#pragma once

#include <kelvane/Json.hpp>
#include <kelvane/platform/FaceVerification.hpp>

#include "flow/JsHandler.hpp"
#include "services/DeviceInfoService.hpp"
#include "support/Promise.hpp"
#include "support/Record.hpp"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace kelvane {

// The answer to a face verification, despite its name. The page reads `error` on failure;
// `message` is empty then.
struct IproovRequestModel : JsonRecord<IproovRequestModel> {
    bool success = false;
    std::string message;
    DeviceModel device;
    std::string error;

    IproovRequestModel() = default;
    IproovRequestModel(bool success, std::string message, DeviceModel device, std::string error)
        : success(success), message(std::move(message)), device(std::move(device)), error(std::move(error)) {}

    Json toJson() const;
    static Result<IproovRequestModel> fromJson(const Json& json);
    bool operator==(const IproovRequestModel&) const = default;
};

// Runs a face verification session of the outside library, which owns the whole capture
// screen, and answers once with its end state. Enrolment and verification differ only in the
// token. The library's screen goes over whatever is on top. Main queue, unless said otherwise;
// held by a shared pointer, since the library holds it weakly as its presentation delegate.
class IproovService : public platform::FaceVerificationPresentationDelegate,
                      public std::enable_shared_from_this<IproovService> {
public:
    static constexpr auto kCancelDelay = std::chrono::seconds(10);

    const JsHandler jsHandler{};

    // Answers on the main queue with the session's first end state.
    void iproov(const Json& data, std::function<void(const IproovRequestModel&)> completion);
    // Reads "streamingUrl" and "token" (a body without them, or with a streaming URL that is
    // no URL, is a fatal stop) and launches the session later on the promise's queue. The
    // promise is fulfilled at the first end state and never rejected; each end state also
    // cancels the session 10 seconds later on the main queue.
    Promise<IproovRequestModel> _iproovInit(const Json& data);

    // Shows the library's screen in a see-through full-screen container over the top screen
    // of the key window of the first foreground-active scene. Without one, nothing is shown
    // and `completion` is not called.
    void present(std::shared_ptr<ViewController> iProovViewController, std::function<void()> completion) override;
    // Dismisses the container that holds the library's screen; without one, nothing happens.
    void dismiss(std::shared_ptr<ViewController> iProovViewController, std::function<void()> completion) override;

private:
    // The container of each library screen: the child's parent, while the container lives.
    std::map<const ViewController*, std::weak_ptr<platform::FaceVerificationContainer>> parents_;
};

}  // namespace kelvane
