// URL parsing, components, percent-encoding and the custom-scheme rules on arbitrary text.
#include <kelvane/Log.hpp>
#include <kelvane/URL.hpp>

#include "FakePlatform.hpp"
#include "services/CustomSchemeService.hpp"
#include "support/Fatal.hpp"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {
void check(bool holds) {
    if (!holds) std::abort();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = (kelvane::setLogSink([](std::string_view) {}), true);
    static kelvane::fakes::FakePlatform* platform = new kelvane::fakes::FakePlatform();
    (void)quiet;
    (void)platform;
    std::string text(reinterpret_cast<const char*>(data), size);
    using namespace kelvane;

    for (auto set : {URLCharacterSet::urlHostAllowed, URLCharacterSet::urlQueryAllowed, URLCharacterSet::alphanumerics}) {
        if (auto encoded = addingPercentEncoding(text, set)) check(removingPercentEncoding(*encoded) == text);
    }

    CustomSchemeService service;
    try {
        if (auto url = URL::make(text)) {
            auto parts = URLComponents::make(*url);
            check(parts.string() == text);
            if (auto items = parts.queryItems()) {
                parts.setQueryItems(*items);
                auto rebuilt = parts.url();
                check(rebuilt.has_value());
                check(URLComponents::make(*rebuilt).queryItems() == items);
            }
            (void)url->pathExtension();
            service.preprocessUri(url);
        }
        (void)service.postProcessUri(text);
    } catch (const FatalStop&) {
        // A repeated query name, as planned.
    }
    return 0;
}
