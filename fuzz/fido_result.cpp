// The result step of the passkey events: an arbitrary controller text read back into the page's
// answer. The first byte picks the operation (bit 0: assertion), the model's success (bit 1), an
// error code (bit 2), an absent text (bit 3) or a controller error (bit 4); the rest is the text.
// The step has no planned stop, so a FatalStop is a finding too and is not caught.
#include <kelvane/Log.hpp>

#include "FakePlatform.hpp"
#include "flow/Bridge.hpp"
#include "services/FidoService.hpp"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = (kelvane::setLogSink([](std::string_view) {}), true);
    (void)quiet;
    using namespace kelvane;
    if (size == 0) return 0;
    const std::uint8_t flags = data[0];
    std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);

    fakes::FakePlatform platform;
    Result<FidoRegResponseModel> result =
        (flags & 16) ? Result<FidoRegResponseModel>(Error{"d", 1, "m"})
                     : Result<FidoRegResponseModel>(FidoRegResponseModel(
                           (flags & 2) != 0, "m", (flags & 8) ? std::nullopt : std::optional<std::string>(text),
                           (flags & 4) ? std::optional<std::string>("fidoFailed") : std::nullopt));

    std::size_t answers = 0;
    auto answer = [&answers](const auto& record) {
        // As the bridge sends it: a record that cannot be encoded would stop the flow.
        auto script = bridge::iosCallback("fido", bridge::encodeAnswer(record));
        answers += !script.empty();
    };
    if (flags & 1) {
        FidoService::verificationResult(result, FidoService::VerifyCompletion(answer));
    } else {
        FidoService::registrationResult(result, FidoService::RegisterCompletion(answer));
    }
    platform.mainQueue->runUntilIdle();
    if (answers > 1) __builtin_trap();
    return 0;
}
