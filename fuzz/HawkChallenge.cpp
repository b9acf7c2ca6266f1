// The challenge that corrects the clock: whatever stands in www-authenticate, against a plain retelling of the rules.
//
// Input: a line with a time, and the header. An '@' in the header becomes the MAC over that time.
#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "common/Challenge.h"
#include "common/Check.h"
#include "common/Input.h"
#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace {

constexpr std::string_view kSpaces = " \t\n\v\f\r";

/// Cuts the white space at the front off.
std::string_view trimmed(std::string_view text) { return text.substr(std::min(text.find_first_not_of(kSpaces), text.size())); }

/// The attributes of a challenge by a search for its quotes; absent when it is none.
std::optional<std::map<std::string_view, std::string_view>> attributesOf(std::string_view header) {
  constexpr std::string_view kHawk = "hawk";
  if (header.size() > 4096 || header.size() <= kHawk.size()) return std::nullopt;
  for (std::size_t at = 0; at < kHawk.size(); ++at)
    if ((header[at] | 0x20) != kHawk[at]) return std::nullopt;
  for (const char c : header)
    if (c == '\r' || c == '\n') return std::nullopt;
  std::string_view rest = trimmed(header.substr(kHawk.size()));
  if (rest.empty() || rest.size() == header.size() - kHawk.size()) return std::nullopt;
  std::map<std::string_view, std::string_view> attributes;
  while (!rest.empty()) {
    const auto open = rest.find("=\"");
    if (open == std::string_view::npos) return std::nullopt;
    const auto close = rest.find('"', open + 2);
    if (close == std::string_view::npos || close == open + 2) return std::nullopt;
    const std::string_view value = rest.substr(open + 2, close - open - 2);
    for (const char c : value)
      if (c < ' ' || c > '~' || c == '\\') return std::nullopt;
    const std::string_view name = rest.substr(0, open);
    if ((name != "ts" && name != "tsm" && name != "error") || !attributes.emplace(name, value).second) return std::nullopt;
    rest = trimmed(rest.substr(close + 1));
    if (rest.empty()) break;
    if (rest.front() != ',') return std::nullopt;
    rest = trimmed(rest.substr(1));
  }
  return attributes;
}

/// The server's time that the header proves.
std::optional<std::int64_t> expectedTime(std::string_view header) {
  const auto attributes = attributesOf(header);
  if (!attributes || !attributes->contains("ts") || !attributes->contains("tsm") ||
      attributes->at("tsm") != fuzz::macOver(attributes->at("ts")))
    return std::nullopt;
  std::string digits(attributes->at("ts"));
  if (digits.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
  digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
  if (digits.empty() || digits.size() > 12) return std::nullopt;
  const std::int64_t seconds = std::stoll(digits);
  return seconds <= 253'402'300'799 ? std::optional(seconds) : std::nullopt;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static test::TestProcess process({.faults = false, .debug = false});
  static KSVDataInspector inspect(process.makeClient());
  fuzz::Input input(data, size);
  const std::string_view time = input.line();
  const std::string header = fuzz::withMac(input.rest(), time);

  process.userDefaults().removeObjectForKey(test::TestProcess::kSkewKey);
  const auto expected = expectedTime(header);
  fuzz::check(inspect.setLocalSkew(header) == expected.has_value(), expected ? "a proved time was refused" : "a time was taken");
  const auto stored = process.userDefaults().objectForKey(test::TestProcess::kSkewKey);
  fuzz::check(stored.has_value() == expected.has_value(), "the correction was stored against the verdict");
  const auto now = static_cast<std::int64_t>(test::TestProcess::kStartTime);
  if (stored) fuzz::check(*stored == platform::Value(*expected - now), "another correction was stored");
  return 0;
}
