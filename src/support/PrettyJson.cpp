#include "support/PrettyJson.hpp"

#include "support/Record.hpp"

#include <cmath>

namespace kelvane {
namespace {

std::string scalarText(const Json& value) {
    if (value.is_number_float()) {
        double number = value.get<double>();
        if (std::trunc(number) == number && std::fabs(number) < 1e15) {
            return std::to_string(static_cast<long long>(number));
        }
    }
    // Checked by the caller: every value here encodes.
    return *record::encode(value);
}

void write(const Json& value, std::size_t depth, std::string& out) {
    if (!value.is_structured()) {
        out += scalarText(value);
        return;
    }
    const bool object = value.is_object();
    out += object ? "{\n" : "[\n";
    const std::string inner(2 * (depth + 1), ' ');
    for (auto item = value.begin(); item != value.end(); ++item) {
        if (item != value.begin()) out += ",\n";
        out += inner;
        if (object) out += scalarText(Json(item.key())) + " : ";
        write(item.value(), depth + 1, out);
    }
    out += '\n' + std::string(2 * depth, ' ') + (object ? '}' : ']');
}

}  // namespace

Result<std::string> prettyPrinted(const Json& value) {
    // The compact encoder refuses exactly what the pretty writer cannot write.
    auto compact = record::encode(value);
    if (!compact) return compact.error();
    std::string out;
    write(value, 0, out);
    return out;
}

}  // namespace kelvane
