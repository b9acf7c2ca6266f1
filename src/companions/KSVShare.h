// A share made by the host application.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "companions/KSVReferralCode.h"
#include "platform/Date.h"
#include "platform/Export.h"
#include "platform/URL.h"
#include "platform/Value.h"

/// How far a share has come.
enum KSVShareState : std::int64_t {
  KSVShareStateSent = 0,
  KSVShareStateClicked = 1,
  KSVShareStateOpened = 2,
  KSVShareStateInstalled = 3,
};

/// A value: reading one from many threads is safe, changing it is its owner's business.
struct KESTROVA_EXPORT KSVShare {
  std::shared_ptr<const KSVReferralCode> referralCode;  // who shared, and what
  bool isFallback = false;                              // kept and passed on
  KSVShareState state = KSVShareStateSent;              // as the server said last
  std::optional<platform::Date> createdAt;              // when the host made it
  std::optional<platform::Date> updatedAt;              // when its state changed last
  std::optional<platform::Dictionary> data;             // the host's own
  std::optional<platform::URL> URL;                     // the address that is shared

  /// The share as a JSON object, in the form of docs/formats/share.md; what is absent is left out.
  platform::Dictionary serialize() const;
  /// The share of such an object; null for any other value, and for an object with a member of the wrong kind. Members that are
  /// unknown are passed over. Never raises.
  static std::shared_ptr<KSVShare> deserialize(const platform::Value& serialized);
};
