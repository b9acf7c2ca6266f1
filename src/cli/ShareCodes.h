// Referral codes as people type them.
#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "companions/KSVReferralCode.h"

namespace cli {

/// The two parts of a code: the user's eight characters (Unicode code points), and the share's own, at least one. Else what is
/// wrong with it. A character that would end the code inside a list or an address is refused.
std::expected<KSVReferralCode, std::string> parseReferralCode(std::string_view text);

}  // namespace cli
