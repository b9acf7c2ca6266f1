// The time as HTTP tells it.
#pragma once

#include <chrono>
#include <string>

namespace devserver {

/// A time since 1970 as the value of a Date field (RFC 9110, section 5.6.7): `Sun, 06 Nov 1994 08:49:37 GMT`, whatever the locale.
/// For the years 0 to 9999.
std::string httpDate(std::chrono::milliseconds time);

}  // namespace devserver
