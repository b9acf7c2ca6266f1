// Keeps what the server has switched off.
#include "companions/KSVFeatureControl.h"

#include <utility>

#include "platform/Process.h"

std::shared_ptr<KSVFeatureControl> KSVFeatureControl::sharedFeatureControl() {
  return platform::Process::current().sharedInstance<KSVFeatureControl>();
}

void KSVFeatureControl::setRemotelyDisabledFeaturesWithReasons(std::int64_t features, std::optional<platform::Value> reasons) {
  std::lock_guard lock(mutex_);
  features_ = features;
  std::swap(reasons_, reasons);  // the old reasons die with the parameter, after the lock
}

std::int64_t KSVFeatureControl::remotelyDisabledFeatures() const {
  std::lock_guard lock(mutex_);
  return features_;
}

std::optional<platform::Value> KSVFeatureControl::reasons() const {
  std::lock_guard lock(mutex_);
  return reasons_;
}

bool KSVFeatureControl::isFeatureEnabled(int feature) const {
  if (feature < 0 || feature > 63) return true;
  return (static_cast<std::uint64_t>(remotelyDisabledFeatures()) >> feature & 1) == 0;
}
