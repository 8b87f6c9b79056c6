#include "DesktopPasskeys.hpp"

#include "PasskeyVault.hpp"
#include "SecurityKeys.hpp"
#include "SoftwareAuthenticator.hpp"

#include <gio/gio.h>

#include <algorithm>

namespace kelvane::gtk {

using namespace platform;

namespace {

using Outcome = std::variant<AuthorizationCredential, Error>;

struct Ceremony {
    std::vector<AuthorizationRequest> requests;
    std::vector<std::string> relyingParties;
    std::weak_ptr<PasskeyAuthorizationDelegate> delegate;
    Outcome outcome = Error{};
};

// One request's answer, or why this desktop cannot give it.
using Attempt = std::variant<AuthorizationCredential, Error>;

template <class Credential>
Attempt attempt(Result<Credential> result) {
    if (!result) return result.error();
    return AuthorizationCredential(std::move(*result));
}

Attempt answer(const PlatformRegistrationRequest& request) {
    auto vault = PasskeyVault::open();
    if (!vault) return vault.error();
    auto made = SoftwareAuthenticator::makeCredential(request);
    if (!made) return made.error();
    if (auto error = (*vault)->store(made->passkey)) return *error;
    return AuthorizationCredential(std::move(made->credential));
}

Attempt answer(const PlatformAssertionRequest& request) {
    auto vault = PasskeyVault::open();
    if (!vault) return vault.error();
    auto passkeys = (*vault)->find(request.relyingPartyIdentifier, request.allowedCredentials);
    if (!passkeys) return passkeys.error();
    if (passkeys->empty()) {
        return passkeyError(passkeyNoCredential, "No passkey of " + request.relyingPartyIdentifier +
                                                     " in this keyring matches the allowed credentials");
    }
    auto& passkey = passkeys->front();
    auto assertion = SoftwareAuthenticator::getAssertion(request, passkey);
    if (!assertion) return assertion.error();
    // The raised count is kept before the signature leaves: a count used twice would make the
    // relying party take this passkey for a clone.
    if (auto error = (*vault)->store(passkey)) return *error;
    return AuthorizationCredential(std::move(*assertion));
}

template <class Request>
Attempt answerWithSecurityKey(const Request& request) {
    auto keys = SecurityKeys::plugged();
    if (keys.empty()) return passkeyError(passkeyNoSecurityKey, "No security key is connected");
    if constexpr (std::is_same_v<Request, SecurityKeyRegistrationRequest>) {
        return attempt(SecurityKeys::makeCredential(keys.front(), request));
    } else {
        return attempt(SecurityKeys::getAssertion(keys.front(), request));
    }
}

Attempt answer(const SecurityKeyRegistrationRequest& request) { return answerWithSecurityKey(request); }
Attempt answer(const SecurityKeyAssertionRequest& request) { return answerWithSecurityKey(request); }

const std::string& relyingPartyOf(const AuthorizationRequest& request) {
    return std::visit([](const auto& value) -> const std::string& { return value.relyingPartyIdentifier; }, request);
}

Outcome run(const std::vector<AuthorizationRequest>& requests, const std::vector<std::string>& relyingParties) {
    for (const auto& request : requests) {
        const auto& party = relyingPartyOf(request);
        if (std::find(relyingParties.begin(), relyingParties.end(), party) == relyingParties.end()) {
            return passkeyError(passkeyRelyingPartyNotAllowed,
                                "Passkeys of " + party + " are not allowed for this app");
        }
    }
    std::string reasons;
    std::int64_t firstCode = passkeyNoRequest;
    for (const auto& request : requests) {
        auto attempted = std::visit([](const auto& value) { return answer(value); }, request);
        if (auto* credential = std::get_if<AuthorizationCredential>(&attempted)) return std::move(*credential);
        const auto& error = std::get<Error>(attempted);
        // Only a missing credential or key lets the next request try; any other failure is the answer.
        if (error.code != passkeyNoCredential && error.code != passkeyNoSecurityKey) return error;
        if (reasons.empty()) firstCode = error.code;
        reasons += (reasons.empty() ? "" : "; ") + error.message;
    }
    if (reasons.empty()) return passkeyError(passkeyNoRequest, "No passkey request was made");
    return Error{kPasskeyErrorDomain, firstCode, reasons};
}

void deliver(const std::weak_ptr<PasskeyAuthorizationDelegate>& weakDelegate, Outcome outcome) {
    auto delegate = weakDelegate.lock();
    if (!delegate) return;
    if (auto* error = std::get_if<Error>(&outcome)) {
        delegate->didCompleteWithError(std::move(*error));
    } else {
        delegate->didCompleteWithAuthorization(std::move(std::get<AuthorizationCredential>(outcome)));
    }
}

}  // namespace

DesktopPasskeys::DesktopPasskeys(std::vector<std::string> relyingParties)
    : relyingParties_(std::move(relyingParties)) {}

void DesktopPasskeys::performRequests(std::vector<AuthorizationRequest> requests,
                                      std::weak_ptr<PasskeyAuthorizationDelegate> delegate) {
    GTask* task = g_task_new(
        nullptr, nullptr,
        +[](GObject*, GAsyncResult* result, gpointer) {
            auto* ceremony = static_cast<Ceremony*>(g_task_get_task_data(G_TASK(result)));
            deliver(ceremony->delegate, std::move(ceremony->outcome));
        },
        nullptr);
    g_task_set_task_data(
        task, new Ceremony{std::move(requests), relyingParties_, std::move(delegate)},
        +[](gpointer data) { delete static_cast<Ceremony*>(data); });
    g_task_run_in_thread(
        task, +[](GTask* running, gpointer, gpointer data, GCancellable*) {
            auto* ceremony = static_cast<Ceremony*>(data);
            ceremony->outcome = run(ceremony->requests, ceremony->relyingParties);
            g_task_return_boolean(running, TRUE);
        });
    g_object_unref(task);
}

}  // namespace kelvane::gtk
