// The switchboard of remotely disabled features.
#include "companions/KSVFeatureControl.h"

#include <climits>
#include <thread>

#include "CompanionsTest.h"

namespace test {
namespace {

using platform::Dictionary;
using platform::Value;

TEST_F(CompanionsTest, FeatureControlIsOneForTheProcessRecord) {
  EXPECT_EQ(KSVFeatureControl::sharedFeatureControl(), KSVFeatureControl::sharedFeatureControl());
  const auto first = KSVFeatureControl::sharedFeatureControl();
  platform::Process other;
  const platform::Process::Scope inOther(other);
  EXPECT_NE(KSVFeatureControl::sharedFeatureControl(), first);
}

TEST(KSVFeatureControl, EverythingIsEnabledBeforeTheServerSaidOtherwise) {
  const KSVFeatureControl control;
  EXPECT_EQ(control.remotelyDisabledFeatures(), 0);
  EXPECT_FALSE(control.reasons());
  for (int feature = 0; feature < 64; ++feature) EXPECT_TRUE(control.isFeatureEnabled(feature));
}

TEST(KSVFeatureControl, ABitOfTheNumberSwitchesItsFeatureOff) {
  KSVFeatureControl control;
  for (int feature = 0; feature < 64; ++feature) {
    control.setRemotelyDisabledFeaturesWithReasons(static_cast<std::int64_t>(std::uint64_t{1} << feature), std::nullopt);
    for (int asked = 0; asked < 64; ++asked) {
      EXPECT_EQ(control.isFeatureEnabled(asked), asked != feature);
    }
  }
}

TEST(KSVFeatureControl, AWidenedNegativeNumberSwitchesTheUpperHalfOffToo) {
  KSVFeatureControl control;
  control.setRemotelyDisabledFeaturesWithReasons(std::int64_t{INT32_MIN}, std::nullopt);
  EXPECT_EQ(control.remotelyDisabledFeatures(), -2147483648);
  EXPECT_TRUE(control.isFeatureEnabled(30));
  EXPECT_FALSE(control.isFeatureEnabled(31));
  EXPECT_FALSE(control.isFeatureEnabled(63));
}

TEST(KSVFeatureControl, NumbersOutsideTheBitsAreEnabled) {
  KSVFeatureControl control;
  control.setRemotelyDisabledFeaturesWithReasons(-1, std::nullopt);
  for (const int feature : {-1, 64, INT_MIN, INT_MAX}) EXPECT_TRUE(control.isFeatureEnabled(feature));
}

TEST(KSVFeatureControl, ReasonsAreKeptAsTheyCameAndReplaced) {
  KSVFeatureControl control;
  control.setRemotelyDisabledFeaturesWithReasons(1, Value(Dictionary{{"0", "maintenance"}}));
  EXPECT_EQ(control.reasons(), Value(Dictionary{{"0", "maintenance"}}));
  control.setRemotelyDisabledFeaturesWithReasons(2, Value(nullptr));
  EXPECT_EQ(control.reasons(), Value(nullptr));
  control.setRemotelyDisabledFeaturesWithReasons(3, Value("no dictionary"));
  EXPECT_EQ(control.reasons(), Value("no dictionary"));
  control.setRemotelyDisabledFeaturesWithReasons(0, std::nullopt);
  EXPECT_FALSE(control.reasons());
  EXPECT_EQ(control.remotelyDisabledFeatures(), 0);
}

TEST(KSVFeatureControl, AnyThreadMayAskWhileTheServerSays) {
  KSVFeatureControl control;
  std::thread server([&control] {
    for (std::int64_t round = 0; round < 2000; ++round) control.setRemotelyDisabledFeaturesWithReasons(round % 2, Value(round));
  });
  for (int round = 0; round < 2000; ++round) {
    const std::int64_t features = control.remotelyDisabledFeatures();
    EXPECT_TRUE(features == 0 || features == 1);
    EXPECT_TRUE(control.isFeatureEnabled(1));
    if (const auto reasons = control.reasons()) {
      EXPECT_LT(reasons->signedInteger(), 2000);
    }
  }
  server.join();
  EXPECT_EQ(control.reasons(), Value(1999));
}

}  // namespace
}  // namespace test
