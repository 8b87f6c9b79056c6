#include "services/DeviceDetails.hpp"

#include "support/Fatal.hpp"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>

namespace kelvane {

std::string readDeviceTime() { return readDeviceTime(std::chrono::system_clock::now()); }

std::string readDeviceTime(std::chrono::system_clock::time_point now) {
    double seconds = std::chrono::duration<double>(now.time_since_epoch()).count();
    double milliseconds = seconds * 1000;
    if (!std::isfinite(milliseconds) || milliseconds >= 0x1p63 || milliseconds < -0x1p63) {
        fatalStop("Double value cannot be converted to Int because it is either infinite or NaN");
    }
    auto epoch = static_cast<long long>(milliseconds);

    // The formatter's time: whole milliseconds of the same instant, counted down.
    auto floored = static_cast<long long>(std::floor(milliseconds));
    long long millisecondPart = ((floored % 1000) + 1000) % 1000;
    std::time_t whole = static_cast<std::time_t>((floored - millisecondPart) / 1000);
    std::tm utc{};
    gmtime_r(&whole, &utc);
    char utcText[64];
    std::snprintf(utcText, sizeof utcText, "%04d-%02d-%02dT%02d:%02d:%02d.%03lldZ", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, millisecondPart);

    // The zone as it stands now: TZ may have changed since the last look.
    tzset();
    std::time_t current = std::chrono::system_clock::to_time_t(now);
    std::tm local{};
    localtime_r(&current, &local);
    long offset = local.tm_gmtoff / 60;

    return "{\n    \"time\": \"" + std::string(utcText) + "\",\n    \"epoch\": \"" + std::to_string(epoch) +
           "\",\n    \"offset\": \"" + std::to_string(offset) + "\"\n}";
}

std::string coordinateText(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    char digits[64];
    auto [end, error] = std::to_chars(digits, digits + sizeof digits, value, std::chars_format::scientific);
    std::string scientific(digits, end);  // "-1.2345e+01": the shortest digits and their exponent
    bool negative = scientific.front() == '-';
    if (negative) scientific.erase(0, 1);
    auto e = scientific.find('e');
    int exponent = std::stoi(scientific.substr(e + 1));
    std::string mantissa = scientific.substr(0, e);
    std::string significant;
    for (char c : mantissa) {
        if (c != '.') significant += c;
    }
    std::string text;
    if (value != 0 && (exponent < -4 || exponent >= 16)) {
        text = mantissa + (exponent < 0 ? "e-" : "e+") + (std::abs(exponent) < 10 ? "0" : "") +
               std::to_string(std::abs(exponent));
    } else if (exponent < 0) {
        text = "0." + std::string(static_cast<std::size_t>(-exponent - 1), '0') + significant;
    } else {
        auto integerDigits = static_cast<std::size_t>(exponent) + 1;
        if (significant.size() <= integerDigits) {
            text = significant + std::string(integerDigits - significant.size(), '0') + ".0";
        } else {
            text = significant.substr(0, integerDigits) + "." + significant.substr(integerDigits);
        }
    }
    return negative ? "-" + text : text;
}

std::string deviceDetailsText(bool success, const std::string& message,
                              const std::optional<platform::Coordinate>& location, const std::string& time,
                              const DeviceModel& device) {
    std::string locationText = "\"\"";
    if (location) {
        locationText = "{\"lat\" : \"" + coordinateText(location->latitude) + "\", \"long\" : \"" +
                       coordinateText(location->longitude) + "\"}";
    }
    const char* physical = device.isPhysicalDevice ? "true" : "false";
    return "{\n\"success\" : " + std::string(success ? "true" : "false") + ",\n\"message\" : \"" + message +
           "\",\n\"location\" : " + locationText + ",\n\"time\" : " + time +
           ",\n\"device\" : {\"isPhysicalDevice\":" + physical + ",\"osVersion\":\"" + device.osVersion +
           "\",\"model\":\"" + device.model + "\",\"id\":\"" + device.id + "\",\"platform\":\"" + device.platform +
           "\"}\n}";
}

}  // namespace kelvane
