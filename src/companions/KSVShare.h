// A share made by the host application.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "companions/KSVReferralCode.h"
#include "platform/Date.h"
#include "platform/URL.h"
#include "platform/Value.h"

enum KSVShareState : std::int64_t {
  KSVShareStateSent = 0,
  KSVShareStateClicked = 1,
  KSVShareStateOpened = 2,
  KSVShareStateInstalled = 3,
};

struct KSVShare {
  std::shared_ptr<const KSVReferralCode> referralCode;
  bool isFallback = false;
  KSVShareState state = KSVShareStateSent;
  std::optional<platform::Date> createdAt;
  std::optional<platform::Date> updatedAt;
  std::optional<platform::Dictionary> data;
  std::optional<platform::URL> URL;
};
