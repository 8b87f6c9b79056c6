#include "SecurityKeys.hpp"

#include <fido.h>

#include <memory>
#include <mutex>

namespace kelvane::gtk {

using namespace platform;

namespace {

void initialise() {
    static std::once_flag once;
    std::call_once(once, [] { fido_init(0); });
}

Error keyError(const std::string& what, int code) {
    return passkeyError(passkeySecurityKeyFailed, "The security key failed: " + what + " (" + fido_strerr(code) + ")");
}

struct Free {
    void operator()(fido_dev_t* device) const {
        fido_dev_close(device);
        fido_dev_free(&device);
    }
    void operator()(fido_cred_t* credential) const { fido_cred_free(&credential); }
    void operator()(fido_assert_t* assertion) const { fido_assert_free(&assertion); }
    void operator()(fido_dev_info_t* list) const { fido_dev_info_free(&list, kMaxDevices); }
    static constexpr std::size_t kMaxDevices = 16;
};

Result<std::unique_ptr<fido_dev_t, Free>> openDevice(const std::string& path) {
    initialise();
    std::unique_ptr<fido_dev_t, Free> device(fido_dev_new());
    if (!device) return keyError("no memory", FIDO_ERR_INTERNAL);
    if (int code = fido_dev_open(device.get(), path.c_str()); code != FIDO_OK) return keyError("opening " + path, code);
    return device;
}

Bytes bytesOf(const unsigned char* data, std::size_t length) { return data ? Bytes(data, data + length) : Bytes{}; }

// The content of a CBOR byte string, as libfido2 hands out authenticator data.
std::optional<Bytes> unwrapByteString(const Bytes& cbor) {
    if (cbor.empty() || (cbor[0] >> 5) != 2) return std::nullopt;
    std::size_t info = cbor[0] & 0x1F, at = 1, length = info;
    if (info >= 24) {
        if (info > 27) return std::nullopt;
        std::size_t width = std::size_t{1} << (info - 24);
        if (cbor.size() < 1 + width) return std::nullopt;
        length = 0;
        for (std::size_t i = 0; i < width; ++i) length = (length << 8) | cbor[1 + i];
        at += width;
    }
    if (cbor.size() - at != length) return std::nullopt;
    return Bytes(cbor.begin() + static_cast<std::ptrdiff_t>(at), cbor.end());
}

}  // namespace

std::vector<std::string> SecurityKeys::plugged() {
    initialise();
    std::unique_ptr<fido_dev_info_t, Free> list(fido_dev_info_new(Free::kMaxDevices));
    std::size_t found = 0;
    std::vector<std::string> paths;
    if (!list || fido_dev_info_manifest(list.get(), Free::kMaxDevices, &found) != FIDO_OK) return paths;
    for (std::size_t i = 0; i < found; ++i) {
        if (const char* path = fido_dev_info_path(fido_dev_info_ptr(list.get(), i))) paths.emplace_back(path);
    }
    return paths;
}

Result<SecurityKeyCredentialRegistration> SecurityKeys::makeCredential(const std::string& path,
                                                                       const SecurityKeyRegistrationRequest& request) {
    int algorithm = COSE_ES256;
    for (auto wanted : request.credentialParameters) {
        if (wanted == COSE_ES256 || wanted == COSE_ES384 || wanted == COSE_RS256 || wanted == COSE_EDDSA) {
            algorithm = static_cast<int>(wanted);
            break;
        }
    }
    auto device = openDevice(path);
    if (!device) return device.error();
    std::unique_ptr<fido_cred_t, Free> credential(fido_cred_new());
    auto clientData = clientDataJSON("webauthn.create", request.challenge, request.relyingPartyIdentifier);
    int code = !credential ? FIDO_ERR_INTERNAL : fido_cred_set_type(credential.get(), algorithm);
    if (code == FIDO_OK) code = fido_cred_set_clientdata(credential.get(), clientData.data(), clientData.size());
    if (code == FIDO_OK) {
        code = fido_cred_set_rp(credential.get(), request.relyingPartyIdentifier.c_str(),
                                request.relyingPartyIdentifier.c_str());
    }
    if (code == FIDO_OK) {
        code = fido_cred_set_user(credential.get(), request.userID.data(), request.userID.size(), request.name.c_str(),
                                  request.displayName.c_str(), nullptr);
    }
    if (code != FIDO_OK) return keyError("preparing the credential", code);
    if (code = fido_dev_make_cred(device->get(), credential.get(), nullptr); code != FIDO_OK) {
        return keyError("making the credential", code);
    }

    // The attestation object a browser passes on: the key's format and statement as they
    // are, and its authenticator data.
    const char* format = fido_cred_fmt(credential.get());
    Bytes statement = bytesOf(fido_cred_attstmt_ptr(credential.get()), fido_cred_attstmt_len(credential.get()));
    Bytes authData =
        bytesOf(fido_cred_authdata_raw_ptr(credential.get()), fido_cred_authdata_raw_len(credential.get()));
    if (!format || statement.empty()) {
        format = "none";
        statement = {0xA0};
    }
    Cbor attestation;
    attestation.map(3).text("fmt").text(format).text("attStmt").raw(statement).text("authData").bytes(authData);

    SecurityKeyCredentialRegistration registration;
    registration.credentialID = bytesOf(fido_cred_id_ptr(credential.get()), fido_cred_id_len(credential.get()));
    registration.rawClientDataJSON = std::move(clientData);
    registration.rawAttestationObject = std::move(attestation.out);
    return registration;
}

Result<SecurityKeyCredentialAssertion> SecurityKeys::getAssertion(const std::string& path,
                                                                  const SecurityKeyAssertionRequest& request) {
    auto device = openDevice(path);
    if (!device) return device.error();
    std::unique_ptr<fido_assert_t, Free> assertion(fido_assert_new());
    auto clientData = clientDataJSON("webauthn.get", request.challenge, request.relyingPartyIdentifier);
    int code = !assertion ? FIDO_ERR_INTERNAL
                          : fido_assert_set_clientdata(assertion.get(), clientData.data(), clientData.size());
    if (code == FIDO_OK) code = fido_assert_set_rp(assertion.get(), request.relyingPartyIdentifier.c_str());
    for (const auto& allowed : request.allowedCredentials) {
        if (code == FIDO_OK) {
            code = fido_assert_allow_cred(assertion.get(), allowed.credentialID.data(), allowed.credentialID.size());
        }
    }
    if (code != FIDO_OK) return keyError("preparing the assertion", code);
    if (code = fido_dev_get_assert(device->get(), assertion.get(), nullptr); code != FIDO_OK) {
        return keyError("signing", code);
    }
    if (fido_assert_count(assertion.get()) == 0) return keyError("signing", FIDO_ERR_NO_CREDENTIALS);

    auto authData = unwrapByteString(
        bytesOf(fido_assert_authdata_ptr(assertion.get(), 0), fido_assert_authdata_len(assertion.get(), 0)));
    if (!authData) return keyError("reading its authenticator data", FIDO_ERR_INVALID_CBOR);
    SecurityKeyCredentialAssertion result;
    result.credentialID = bytesOf(fido_assert_id_ptr(assertion.get(), 0), fido_assert_id_len(assertion.get(), 0));
    result.rawClientDataJSON = std::move(clientData);
    if (auto length = fido_assert_user_id_len(assertion.get(), 0); length > 0) {
        result.userID = bytesOf(fido_assert_user_id_ptr(assertion.get(), 0), length);
    }
    result.rawAuthenticatorData = std::move(*authData);
    result.signature = bytesOf(fido_assert_sig_ptr(assertion.get(), 0), fido_assert_sig_len(assertion.get(), 0));
    return result;
}

}  // namespace kelvane::gtk
