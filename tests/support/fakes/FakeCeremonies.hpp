#pragma once

// Fake passkey authenticators and a fake face verification library: each records what the
// library asked of it, and the test plays the user's side.

#include <kelvane/platform/FaceVerification.hpp>
#include <kelvane/platform/PasskeyAuthorization.hpp>

#include "services/FidoController.hpp"

#include <memory>
#include <vector>

namespace kelvane::fakes {

class FakePasskeys : public platform::PasskeyAuthorization {
public:
    struct Ceremony {
        std::vector<platform::AuthorizationRequest> requests;
        std::weak_ptr<platform::PasskeyAuthorizationDelegate> delegate;
    };
    std::vector<Ceremony> ceremonies;

    void performRequests(std::vector<platform::AuthorizationRequest> requests,
                         std::weak_ptr<platform::PasskeyAuthorizationDelegate> delegate) override {
        ceremonies.push_back({std::move(requests), std::move(delegate)});
    }

    // The user finishes the last ceremony.
    void complete(platform::AuthorizationCredential credential) {
        if (auto delegate = ceremonies.back().delegate.lock()) delegate->didCompleteWithAuthorization(credential);
    }
    void fail(Error error) {
        if (auto delegate = ceremonies.back().delegate.lock()) delegate->didCompleteWithError(error);
    }
};

// A controller that runs no ceremony: it keeps the request and the completion, and the test
// answers with any model or text.
class ScriptedFidoController : public FidoController {
public:
    std::vector<FidoRegRequestModel> registrations;
    std::vector<FidoVerifyRequestModel> verifications;

    void registrationFido(const FidoRegRequestModel& request, FinalRegResult completion) override {
        registrations.push_back(request);
        setFinalRegResult(std::move(completion));
    }
    void verifyFido(const FidoVerifyRequestModel& request, FinalRegResult completion) override {
        verifications.push_back(request);
        setFinalRegResult(std::move(completion));
    }
    void respond(Result<FidoRegResponseModel> result) { finalRegResult()(std::move(result)); }
};

class FakeFaceSession : public platform::FaceVerificationSession {
public:
    int cancels = 0;
    bool cancel() override {
        ++cancels;
        return cancels == 1;
    }
};

// Sessions never run by themselves: the test sends each status. Keeps the status callbacks
// apart from the sessions, so that the service's hold on a session makes no cycle.
class FakeFaceVerification : public platform::FaceVerification {
public:
    struct Launch {
        std::string streamingURL;
        std::string token;
        std::weak_ptr<platform::FaceVerificationPresentationDelegate> presentationDelegate;
        std::function<void(const platform::FaceVerificationStatus&)> onStatus;
        std::shared_ptr<FakeFaceSession> session;
    };
    std::vector<Launch> launches;
    platform::Rect screen{0, 0, 390, 844};

    std::shared_ptr<platform::FaceVerificationSession> launch(
        const URL& streamingURL, const std::string& token,
        std::weak_ptr<platform::FaceVerificationPresentationDelegate> presentationDelegate,
        std::function<void(const platform::FaceVerificationStatus&)> onStatus) override {
        auto session = std::make_shared<FakeFaceSession>();
        launches.push_back({streamingURL.absoluteString(), token, std::move(presentationDelegate),
                            std::move(onStatus), session});
        return session;
    }
    platform::Rect screenBounds() const override { return screen; }

    void send(const platform::FaceVerificationStatus& status) { launches.back().onStatus(status); }
};

}  // namespace kelvane::fakes
