#pragma once

// The road from a service's answer record to the script text that runs in the page.

#include "support/Fatal.hpp"
#include "support/Record.hpp"

#include <kelvane/Error.hpp>

#include <string>
#include <string_view>

namespace kelvane::bridge {

// The page's callback with the answer as an object literal, under the posted name. The three
// forms differ in their blanks, and pages have been written against each of them.
std::string iosCallback(std::string_view postedName, std::string_view json);
std::string currentNetworkCallback(std::string_view json);
std::string deviceDetailsCallback(std::string_view json);

// The record's JSON text. A record that cannot be encoded is a fatal stop: the page was
// promised an answer the library cannot write.
std::string encodedText(const Result<std::string>& data);

template <class Record>
std::string encodeAnswer(const Record& record) {
    return encodedText(record.jsonData());
}

}  // namespace kelvane::bridge
