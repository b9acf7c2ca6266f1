// A share's referral code: who shared, and what.
#pragma once

#include <optional>
#include <string>

#include "platform/Export.h"

struct KESTROVA_EXPORT KSVReferralCode {
  /// The identifier of the user who shared.
  std::optional<std::string> userId;
  /// The share's identifier on the server.
  std::optional<std::string> shareId;

  /// The text form: the user identifier followed by the share identifier, an absent part empty.
  std::string description() const { return userId.value_or("") + shareId.value_or(""); }
  friend bool operator==(const KSVReferralCode&, const KSVReferralCode&) = default;
};
