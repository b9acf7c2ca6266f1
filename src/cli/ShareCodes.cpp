// Taking referral codes apart.
#include "cli/ShareCodes.h"

#include <algorithm>
#include <cstddef>

#include "platform/Data.h"
#include "platform/UTF8.h"

namespace cli {
namespace {

constexpr std::size_t kUserIdLength = 8;  // code points

bool isBreaking(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte <= ' ' || byte == 0x7F || c == ',' || c == '&' || c == '#';
}

}  // namespace

std::expected<KSVReferralCode, std::string> parseReferralCode(std::string_view text) {
  if (!platform::Data(text).utf8String()) return std::unexpected("not UTF-8");
  if (std::ranges::any_of(text, isBreaking)) return std::unexpected("no comma, ampersand, number sign or blank may stand in it");
  std::size_t at = 0;
  for (std::size_t characters = 0; at < text.size(); ++at)
    if (!platform::continuesCharacter(text[at]) && ++characters > kUserIdLength) break;
  if (at == text.size()) return std::unexpected("it has eight characters for the user and then the share's own");
  return KSVReferralCode{std::string(text.substr(0, at)), std::string(text.substr(at))};
}

}  // namespace cli
