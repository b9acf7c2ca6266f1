// The cookie match: the signed link, one attempt at a time, its time limit, and that everybody who waits is told exactly once.
#include "companions/KSVCookieMatch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "companions/CorrectedClock.h"
#include "companions/KSVConstants.h"
#include "platform/UserDefaults.h"
#include "support/FaultyServices.h"
#include "support/TestProcess.h"

namespace test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Text = std::optional<std::string>;

constexpr const char* kDevice = "3F2504E0-4F89-41D3-9A0C-0305E82C3301";
constexpr const char* kApplication = "com.example.app";
// What the scheme's reference library gives for a link that dies 60 s after 1795209519.
constexpr const char* kLink =
    "https://api.example.com/cookie-match?appRDNS=com.example.app&deviceId=3F2504E0-4F89-41D3-9A0C-0305E82C3301&bewit="
    "Y29tLmV4YW1wbGUuYXBwXDE3OTUyMDk1NzlcdzJ0Ujk4QkY5K3g4UUYrL0E1R2V0d2F2clFPRzU2R2k4K2JKUGVZSkgycz1c";

class CookieMatchTest : public testing::Test {
 protected:
  void match(const Text& application = kApplication, const Text& secret = TestProcess::kSecret, const Text& device = kDevice) {
    service->cookieMatchDeviceWithAppRDNSAppSecretDeviceIdCompletion(
        application, secret, device, [this, caller = callers++](bool didComplete) {
          told.push_back(std::to_string(caller) + (didComplete ? " true" : " false"));
        });
  }
  void matchAndRun() {
    match();
    process.runAll();
  }
  void answer(std::size_t attempt, bool didOpen) {
    process.browser().answer(attempt, didOpen);
    process.runAll();
  }
  void wait(double seconds) {
    process.advanceTime(seconds);
    process.runAll();
  }
  std::size_t attempts() { return process.browser().opened().size(); }
  std::string address(std::size_t attempt = 0) { return process.browser().opened().at(attempt).absoluteString(); }

  TestProcess process;
  std::shared_ptr<KSVCookieMatch> service = KSVCookieMatch::sharedCookieMatch();
  int callers = 0;
  std::vector<std::string> told;  // caller and outcome
};

// The link.

TEST_F(CookieMatchTest, TheLinkIsTheOneThatTheReferenceLibraryMakes) {
  process.setTime(1795209519);
  matchAndRun();
  EXPECT_EQ(address(), kLink);
}

TEST_F(CookieMatchTest, TheLinkDiesAMinuteFromTheCorrectedTime) {
  process.setTime(1795209519 - 3600.5);
  process.userDefaults().setObjectForKey(platform::Value(3601), TestProcess::kSkewKey);
  matchAndRun();
  EXPECT_EQ(address(), kLink) << "seconds are cut, not rounded";
}

TEST_F(CookieMatchTest, WhatMeansSomethingInAQueryIsEscaped) {
  match("com.example/a&b=c", TestProcess::kSecret, "d e+%ä");
  process.runAll();
  EXPECT_TRUE(address().starts_with(
      "https://api.example.com/cookie-match?appRDNS=com.example%2Fa%26b%3Dc&deviceId=d%20e%2B%25%C3%A4&bewit="))
      << address();
}

TEST_F(CookieMatchTest, AHostWithAPortIsOpenedAndSignedWithIt) {
  process.setTime(1795209519);
  process.process().constants.apiHost = "api.example.com:8443";
  matchAndRun();
  const std::string other = address();
  EXPECT_TRUE(other.starts_with("https://api.example.com:8443/cookie-match?appRDNS=com.example.app&deviceId=")) << other;
  process.process().constants.apiHost = "api.example.com:443";
  answer(0, true);
  matchAndRun();
  const std::string signatureOfLink = std::string(kLink).substr(std::string(kLink).find("&bewit="));
  EXPECT_TRUE(address(1).ends_with(signatureOfLink)) << "443 is what https means anyway";
  EXPECT_FALSE(other.ends_with(signatureOfLink));
}

TEST_F(CookieMatchTest, TheSecretIsNowhereToBeSeen) {
  matchAndRun();
  answer(0, true);
  EXPECT_EQ(address().find(TestProcess::kSecret), std::string::npos);
  EXPECT_THAT(process.messages(), IsEmpty()) << "it says nothing at all";
}

TEST_F(CookieMatchTest, WithoutIdentityNothingIsOpened) {
  match(std::nullopt);
  match("");
  match(kApplication, std::nullopt);
  match(kApplication, "");
  match(kApplication, TestProcess::kSecret, std::nullopt);
  match(kApplication, TestProcess::kSecret, "");
  match("ä");
  match("back\\slash");
  EXPECT_THAT(told, IsEmpty()) << "never inside the call";
  process.runAll();
  EXPECT_THAT(told, ElementsAre("0 false", "1 false", "2 false", "3 false", "4 false", "5 false", "6 false", "7 false"));
  EXPECT_EQ(attempts(), 0U);
}

TEST_F(CookieMatchTest, WhoHasNoIdentityDoesNotWaitForTheAttemptOfAnother) {
  matchAndRun();
  match(kApplication, std::nullopt);
  process.runAll();
  EXPECT_THAT(told, ElementsAre("1 false"));
  answer(0, true);
  EXPECT_THAT(told, ElementsAre("1 false", "0 true"));
}

TEST_F(CookieMatchTest, AHostThatIsNoneOpensNothing) {
  process.process().constants.apiHost = "no host";
  matchAndRun();
  EXPECT_THAT(told, ElementsAre("0 false"));
}

TEST_F(CookieMatchTest, ASignatureThatFailsOpensNothing) {
  process.plan().raise("Digest.hmac", nth(1), someException());
  matchAndRun();
  EXPECT_THAT(told, ElementsAre("0 false"));
  EXPECT_EQ(attempts(), 0U);
}

// The outcome.

TEST_F(CookieMatchTest, TheBrowsersAnswerIsTheOutcome) {
  for (const bool didOpen : {true, false}) {
    matchAndRun();
    EXPECT_EQ(attempts(), static_cast<std::size_t>(callers));
    answer(attempts() - 1, didOpen);
  }
  EXPECT_THAT(told, ElementsAre("0 true", "1 false"));
}

TEST_F(CookieMatchTest, TheCompletionRunsOnTheServicesQueue) {
  match();
  EXPECT_THAT(process.queues().pendingLabels(), ElementsAre("com.kestrova.sdk.CookieMatch"));
  process.runAll();
  process.browser().answer(0, true);
  EXPECT_THAT(told, IsEmpty());
  EXPECT_THAT(process.queues().pendingLabels(), ElementsAre("com.kestrova.sdk.CookieMatch"));
  process.runAll();
  EXPECT_THAT(told, ElementsAre("0 true"));
}

TEST_F(CookieMatchTest, EverybodyIsTheSameService) { EXPECT_EQ(service, KSVCookieMatch::sharedCookieMatch()); }

TEST_F(CookieMatchTest, WhoComesMeanwhileWaitsForTheSameOutcomeAndIsToldOnce) {
  for (const bool didOpen : {true, false}) {
    told.clear();
    callers = 0;
    const std::size_t before = attempts();
    matchAndRun();
    matchAndRun();
    match();
    process.runAll();
    EXPECT_EQ(attempts(), before + 1);
    EXPECT_THAT(told, IsEmpty());
    answer(before, didOpen);
    const std::string outcome = didOpen ? " true" : " false";
    EXPECT_THAT(told, ElementsAre("0" + outcome, "1" + outcome, "2" + outcome));
    wait(100);
    EXPECT_THAT(told, SizeIs(3));
  }
}

TEST_F(CookieMatchTest, ACallInsideACompletionBeginsAnotherAttempt) {
  service->cookieMatchDeviceWithAppRDNSAppSecretDeviceIdCompletion(kApplication, TestProcess::kSecret, kDevice,
                                                                   [this](bool) { match(); });
  process.runAll();
  answer(0, true);
  EXPECT_EQ(attempts(), 2U);
  answer(1, false);
  EXPECT_THAT(told, ElementsAre("0 false"));
}

// The time limit.

TEST_F(CookieMatchTest, AfterTenSecondsItIsOver) {
  matchAndRun();
  wait(9);
  match();
  process.runAll();
  wait(0.999);
  EXPECT_THAT(told, IsEmpty());
  wait(0.001);
  EXPECT_THAT(told, ElementsAre("0 false", "1 false")) << "who came late has waited for the same attempt";
}

TEST_F(CookieMatchTest, AClockThatIsSetDoesNotEndTheAttempt) {
  matchAndRun();
  process.setTime(TestProcess::kStartTime + 1e6);
  process.runAll();
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(CookieMatchTest, ALateAnswerIsIgnored) {
  matchAndRun();
  wait(10);
  answer(0, true);
  EXPECT_THAT(told, ElementsAre("0 false"));
}

TEST_F(CookieMatchTest, ALateAnswerDoesNotDecideTheNextAttempt) {
  matchAndRun();
  wait(10);
  matchAndRun();
  answer(0, true);
  EXPECT_THAT(told, ElementsAre("0 false"));
  answer(1, false);
  EXPECT_THAT(told, ElementsAre("0 false", "1 false"));
}

TEST_F(CookieMatchTest, ASecondAnswerIsIgnored) {
  matchAndRun();
  answer(0, true);
  answer(0, false);
  matchAndRun();
  answer(0, false);
  EXPECT_THAT(told, ElementsAre("0 true"));
  answer(1, true);
  EXPECT_THAT(told, ElementsAre("0 true", "1 true"));
}

TEST_F(CookieMatchTest, TheTimeLimitOfAnAttemptDoesNotEndTheNextOne) {
  matchAndRun();
  wait(6);
  answer(0, true);
  matchAndRun();
  wait(6);
  EXPECT_THAT(told, ElementsAre("0 true")) << "the second attempt has run for six seconds";
  wait(4);
  EXPECT_THAT(told, ElementsAre("0 true", "1 false"));
}

TEST_F(CookieMatchTest, AnOpenerThatNeverAnswersLeavesTheNextAttemptAlone) {
  process.plan().yieldEmpty("BrowserOpener.openURL", nth(1));
  matchAndRun();
  wait(10);
  matchAndRun();
  answer(0, true);
  EXPECT_THAT(told, ElementsAre("0 false", "1 true"));
}

TEST_F(CookieMatchTest, AnAbsentCompletionRaisesWhenItIsCalled) {
  service->cookieMatchDeviceWithAppRDNSAppSecretDeviceIdCompletion(kApplication, TestProcess::kSecret, kDevice, nullptr);
  process.runAll();
  EXPECT_THAT(process.uncaughtReasons(), IsEmpty());
  process.browser().answer(0, true);
  process.runAll();
  EXPECT_THAT(
      process.uncaughtReasons(),
      ElementsAre("*** Terminating app due to uncaught exception 'NSInvalidArgumentException', reason: 'An absent handler was "
                  "called'"));
}

// The clock that it goes by.

TEST_F(CookieMatchTest, TheCorrectedClockAddsWhatIsStored) {
  EXPECT_EQ(CorrectedClock::skew(), 0);
  EXPECT_EQ(CorrectedClock::now(), platform::Date::dateWithTimeIntervalSince1970(TestProcess::kStartTime));
  process.userDefaults().setObjectForKey(platform::Value(-125), TestProcess::kSkewKey);
  EXPECT_EQ(CorrectedClock::skew(), -125);
  EXPECT_EQ(CorrectedClock::now(), platform::Date::dateWithTimeIntervalSince1970(TestProcess::kStartTime - 125));
}

}  // namespace
}  // namespace test
