// The clock correction: what a challenge stores, and what the corrected clock shows.
#include "ApiTest.h"

namespace test {
namespace {

class ClockSkew : public ApiTest {
 protected:
  std::optional<Value> stored() { return process.userDefaults().objectForKey(TestProcess::kSkewKey); }
  static constexpr std::int64_t kServer = 1795205979;
};

TEST_F(ClockSkew, WithNothingStoredTheCorrectedTimeIsTheDevicesAndNothingIsSaid) {
  EXPECT_EQ(inspect.getLocalTimeSkew(), 0);
  EXPECT_EQ(inspect.getSkewedLocalTime(), inspect.now());
  EXPECT_EQ(inspect.now().timeIntervalSince1970(), kStart);
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(ClockSkew, AServerAheadIsStoredTruncatedTowardZero) {
  process.setTime(kServer - 125.9);
  EXPECT_TRUE(inspect.setLocalSkew(challenge(kServer)));
  EXPECT_EQ(stored(), Value(125));
}

TEST_F(ClockSkew, AServerBehindIsStoredTruncatedTowardZero) {
  process.setTime(kServer + 125.9);
  EXPECT_TRUE(inspect.setLocalSkew(challenge(kServer)));
  EXPECT_EQ(stored(), Value(-125));
}

TEST_F(ClockSkew, LessThanASecondIsNone) {
  process.setTime(kServer + 0.9);
  EXPECT_TRUE(inspect.setLocalSkew(challenge(kServer)));
  EXPECT_EQ(stored(), Value(0));
}

TEST_F(ClockSkew, TheSecondCorrectionReplacesTheFirst) {
  process.setTime(kServer - 100);
  EXPECT_TRUE(inspect.setLocalSkew(challenge(kServer)));
  EXPECT_TRUE(inspect.setLocalSkew(challenge(kServer + 50)));
  EXPECT_EQ(stored(), Value(150));
}

TEST_F(ClockSkew, ADeviceThatBelievesIn1970Heals) {
  process.setTime(10);
  EXPECT_TRUE(inspect.setLocalSkew(challenge(kServer)));
  EXPECT_EQ(inspect.getLocalTimeSkew(), kServer - 10);
  EXPECT_EQ(inspect.getSkewedLocalTime().timeIntervalSince1970(), kServer);
}

TEST_F(ClockSkew, WithoutAHeaderNothingIsStored) {
  process.userDefaults().setObjectForKey(Value(7), TestProcess::kSkewKey);
  EXPECT_FALSE(inspect.setLocalSkew(std::nullopt));
  EXPECT_EQ(stored(), Value(7));
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(ClockSkew, AHeaderWithoutAUsableTimeLeavesTheStoredOne) {
  process.userDefaults().setObjectForKey(Value(7), TestProcess::kSkewKey);
  const std::string wrong = "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=";
  for (const std::string& header : {std::string(), std::string("Hawk"), std::string("Basic realm=\"x\""), challenge(kServer, wrong),
                                    "Hawk ts=\"" + std::to_string(kServer) + "\"", std::string("Hawk error=\"Bad mac\"")}) {
    EXPECT_FALSE(inspect.setLocalSkew(header)) << header;
    EXPECT_EQ(stored(), Value(7)) << header;
  }
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(ClockSkew, ACorrectionIsAppliedAndToldAtEachUse) {
  process.userDefaults().setObjectForKey(Value(-3600), TestProcess::kSkewKey);
  EXPECT_EQ(inspect.getSkewedLocalTime().timeIntervalSince1970(), kStart - 3600);
  EXPECT_EQ(inspect.getSkewedLocalTime().timeIntervalSince1970(), kStart - 3600);
  EXPECT_THAT(process.messages(), ElementsAre("Adjusting local time by -3600", "Adjusting local time by -3600"));
}

TEST_F(ClockSkew, ACorrectionMovesTheTimeOfEvents) {
  process.userDefaults().setObjectForKey(Value(-3600), TestProcess::kSkewKey);
  const Dictionary record = inspect.addEventWrappingWithData("opened", {});
  EXPECT_EQ(record.objectForKey("localTime"), Value("2026-11-20T19:19:39.000Z"));
  EXPECT_THAT(process.messages(), ElementsAre("Adjusting local time by -3600"));
}

TEST_F(ClockSkew, AnEventWithATimeOfItsOwnDoesNotAskForTheCorrectedOne) {
  process.userDefaults().setObjectForKey(Value(-3600), TestProcess::kSkewKey);
  inspect.addEventWrappingWithData("opened", {{"localTime", 5}});
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(ClockSkew, WithDebugOffTheCorrectionIsAppliedSilently) {
  process.process().debug = false;
  process.userDefaults().setObjectForKey(Value(60), TestProcess::kSkewKey);
  EXPECT_EQ(inspect.getSkewedLocalTime().timeIntervalSince1970(), kStart + 60);
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(ClockSkew, TheClientsOwnKeyVerifiesTheChallenge) {
  KSVDataInspector other(process.makeClient("another secret"));
  EXPECT_FALSE(other.setLocalSkew(challenge(kServer)));
  EXPECT_TRUE(inspect.setLocalSkew(challenge(kServer)));
}

}  // namespace
}  // namespace test
