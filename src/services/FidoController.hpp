#pragma once

#include <kelvane/Bytes.hpp>
#include <kelvane/Error.hpp>
#include <kelvane/platform/PasskeyAuthorization.hpp>

#include "services/FidoRecords.hpp"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kelvane {

// Drives the platform's passkey and security-key ceremonies and writes the credential as JSON
// text in the shape of a browser's PublicKeyCredential. One object serves every ceremony of
// its FidoService; requests start on the main queue, the outcome arrives on the platform's
// thread of choice and goes to the one pending completion there.
class FidoController : public platform::PasskeyAuthorizationDelegate,
                       public std::enable_shared_from_this<FidoController> {
public:
    // Every outcome is a model; the error side is part of the contract but never produced here.
    using FinalRegResult = std::function<void(Result<FidoRegResponseModel>)>;

    const FidoRegResponseModel failedRegResponse{false, "Use IOS Version more than 15!", std::nullopt,
                                                 "platformNotSupported"};

    // The one pending completion, shared by both ceremonies. Any thread.
    FinalRegResult finalRegResult() const;
    void setFinalRegResult(FinalRegResult completion);

    // Replaces the pending completion (the previous caller never hears back) and starts the
    // ceremony. Main queue.
    virtual void registrationFido(const FidoRegRequestModel& request, FinalRegResult completion);
    virtual void verifyFido(const FidoVerifyRequestModel& request, FinalRegResult completion);

    // Offers a platform request and then a security-key request for the relying party. Both
    // carry the user name as their name; the algorithms go to the security-key request only.
    // An absent algorithm is a fatal stop. Main queue.
    void registerFido(const std::string& rpEntityId, const Bytes& challenge, const std::string& userDisplayName,
                      const std::string& userName, const Bytes& userId,
                      const std::vector<std::optional<std::int64_t>>& publicCredentials);
    // Both assertion requests allow the same credentials; an absent one is a fatal stop.
    void signFido(const std::string& rpEntityId, const Bytes& challenge,
                  const std::vector<std::optional<AllowCredential>>& allowCreds);

    // The first window of the app; none is a fatal stop.
    std::shared_ptr<platform::Window> presentationAnchor() override;
    void didCompleteWithAuthorization(platform::AuthorizationCredential credential) override;
    void didCompleteWithError(Error error) override;

    // Answer with the registration text. `authenticatorAttachment` does not reach the text,
    // which always says "platform". An absent attestation object is a fatal stop.
    void registrationSuccess(const Bytes& credentialID, const Bytes& rawClientDataJSON,
                             const std::optional<Bytes>& rawAttestationObject,
                             const std::string& authenticatorAttachment);
    // Answer with the assertion text; an absent user id gives an empty user handle.
    void verifySuccess(const Bytes& credentialID, const Bytes& rawClientDataJSON, const std::optional<Bytes>& userID,
                       const Bytes& rawAuthenticatorData, const Bytes& signature);

    // Base64 bytes read as UTF-8 text; "" when they are not.
    static std::string convert(ByteView data);
    // URL-safe base64 without padding (`on`), or back to standard base64 with padding.
    static std::string toggleBase64URLSafe(std::string text, bool on);
    // How every binary value appears in the texts: URL-safe base64 without padding.
    static std::string encodeBinary(ByteView data);

    // The two texts, exactly as the page's parsers were written against them.
    static std::string registrationText(const std::string& clientDataJSON, const std::string& attestationObject,
                                        const std::string& credentialID);
    static std::string assertionText(const std::string& credentialID, const std::string& clientDataJSON,
                                     const std::string& authenticatorData, const std::string& signature,
                                     const std::string& userHandle);

    virtual ~FidoController() = default;

private:
    void perform(std::vector<platform::AuthorizationRequest> requests);
    // Calls the pending completion with the model; unset is a fatal stop.
    void answer(const FidoRegResponseModel& model);

    mutable std::mutex mutex_;
    FinalRegResult finalRegResult_;
};

}  // namespace kelvane
