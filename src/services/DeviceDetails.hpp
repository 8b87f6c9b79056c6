#pragma once

// The answer to "readDeviceDetails": a text put together by hand, not a record. Pages parse
// this exact shape (line breaks, blanks, the device's key order, quoted coordinates) and
// nothing in it is escaped.

#include <kelvane/platform/Sensors.hpp>

#include "services/DeviceInfoService.hpp"

#include <chrono>
#include <optional>
#include <string>

namespace kelvane {

// The device's clock as a JSON object text: the UTC time with milliseconds, the epoch in
// milliseconds and the time zone's offset in minutes east of Greenwich, all three as strings.
// Any thread.
std::string readDeviceTime();
std::string readDeviceTime(std::chrono::system_clock::time_point now);

// A coordinate in the shortest text that reads back as the same double, a whole number as
// "12.0"; the exponent form below 1e-4, as the platform prints it.
std::string coordinateText(double value);

// One of the four outcomes, ready for the page's callback. With a coordinate the location is
// its quoted fragment, otherwise an empty string.
std::string deviceDetailsText(bool success, const std::string& message,
                              const std::optional<platform::Coordinate>& location, const std::string& time,
                              const DeviceModel& device);

}  // namespace kelvane
