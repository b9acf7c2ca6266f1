// The switchboard of features that the server has switched off.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/Export.h"
#include "platform/Value.h"

/// Feature n is bit n of the server's number, 0 to 63. Any thread.
class KESTROVA_EXPORT KSVFeatureControl {
 public:
  /// The one of the process.
  static std::shared_ptr<KSVFeatureControl> sharedFeatureControl();

  /// Replaces what was recorded before. The reasons are kept as they came, of whatever kind.
  void setRemotelyDisabledFeaturesWithReasons(std::int64_t features, std::optional<platform::Value> reasons);

  /// What was recorded last; 0 and absent before.
  std::int64_t remotelyDisabledFeatures() const;
  std::optional<platform::Value> reasons() const;
  /// True unless the server has switched the feature off; true for a number outside 0 to 63.
  bool isFeatureEnabled(int feature) const;

 private:
  mutable std::mutex mutex_;
  std::int64_t features_ = 0;
  std::optional<platform::Value> reasons_;
};
