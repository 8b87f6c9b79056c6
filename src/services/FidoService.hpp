#pragma once

#include <kelvane/Json.hpp>

#include "flow/JsHandler.hpp"
#include "services/FidoController.hpp"
#include "services/FidoRecords.hpp"

#include <functional>
#include <memory>
#include <vector>

namespace kelvane {

// Serves the page's three passkey events: reads the page's WebAuthn options into a request,
// hands it to the controller, and reads the controller's JSON text back into the page's answer.
// Calls start on the main queue. The page's options are trusted: a malformed one is a fatal
// stop, and a malformed controller text ends without an answer.
class FidoService {
public:
    using RegisterCompletion = std::function<void(const FidoRegisterResultModel&)>;
    using VerifyCompletion = std::function<void(const FidoVerifyResultModel&)>;

    FidoService();

    const JsHandler jsHandler{};
    const std::shared_ptr<FidoController>& fido() const { return fido_; }
    void setFido(std::shared_ptr<FidoController> fido) { fido_ = std::move(fido); }

    // Always "not supported", at once: the page is to use these events, not its own WebAuthn.
    void isJsFidoSupported(const std::function<void(const FidoSupportModel&)>& completion) const;
    // `completion` may run twice: once at once for missing fields (the call then goes on and
    // stops), and once later on the main queue with the controller's outcome.
    void registerFido(const Json& data, RegisterCompletion completion);
    void signFido(const Json& data, VerifyCompletion completion);

    // The result steps: the controller's outcome as the page's answer, delivered later on the
    // main queue, or no answer at all for an error or a text that does not read. Any thread.
    static void registrationResult(const Result<FidoRegResponseModel>& result, const RegisterCompletion& completion);
    static void verificationResult(const Result<FidoRegResponseModel>& result, const VerifyCompletion& completion);

    // The JSON form of a typed byte array ({"0":1,"1":2}): one byte per entry, read by index;
    // a missing index or a value that is no byte gives 0.
    static Bytes _convertAlgToUInt(const Json& input);
    // The "alg" of each entry given as a decimal text; numbers and other entries are skipped.
    static std::vector<std::int64_t> _getAlgValues(const std::vector<Json>& from);

private:
    std::shared_ptr<FidoController> fido_;
};

}  // namespace kelvane
