// JSON read by a second parser (Boost.JSON), and the equality that fuzzers compare with: to the bit, kinds included.
#pragma once

#include <optional>
#include <string_view>

#include "platform/Value.h"

namespace fuzz {

/// The object or array that a text holds by the second parser's judgement, under the rules that the platform adds: no other top
/// level, containers at most as deep, no number beyond a double, and of equal keys the first wins.
std::optional<platform::Value> readBySecondParser(std::string_view text);

/// Equal, and of the same kinds, and numbers to the bit. Recurses.
bool isIdentical(const platform::Value& a, const platform::Value& b);

}  // namespace fuzz
