// What the answer to a post of events tells the delegate and the feature switchboard.
#include "ApiTest.h"

namespace test {
namespace {

using testing::Pair;

class ServerDirectives : public ApiTest {
 protected:
  std::shared_ptr<KSVFeatureControl> features() { return KSVFeatureControl::sharedFeatureControl(); }
};

TEST_F(ServerDirectives, AnEmptyAnswerSaysNothing) {
  inspect.interpretResponseData(Dictionary());
  EXPECT_THAT(delegate->calls, IsEmpty());
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(ServerDirectives, AllAreAppliedInTheirOrder) {
  const Array notifications{Dictionary{{"text", "hello"}}, 5};
  inspect.interpretResponseData(Dictionary{{"features", 5},
                                           {"matchQuality", "exact"},
                                           {"notifications", notifications},
                                           {"reasons", Dictionary{{"0", "maintenance"}}},
                                           {"referralCode", "abcdefgh"},
                                           {"urlPath", "/app"},
                                           {"unknown", 1}});
  EXPECT_THAT(delegate->calls, ElementsAre(Pair("setUserId", Value("abcdefgh")), Pair("setAppIdentifier", Value("/app")),
                                           Pair("handleEventsFromServer", Value(notifications))));
  EXPECT_THAT(process.messages(), ElementsAre("Got userId from server: abcdefgh", "Got url Path from server: /app",
                                              "Got 2 notification(s) from server", "Got matchQuality = exact from server"));
  EXPECT_EQ(features()->remotelyDisabledFeatures(), 5);
  EXPECT_EQ(features()->reasons(), Value(Dictionary{{"0", "maintenance"}}));
}

TEST_F(ServerDirectives, EachMessageComesAfterItsAction) {
  class Speaking final : public KSVDelegate {
   public:
    void setUserId(const Value&) override { KSVDebugger::sharedDebugger()->storeInTrace("setUserId"); }
    void setAppIdentifier(const Value&) override { KSVDebugger::sharedDebugger()->storeInTrace("setAppIdentifier"); }
    void handleEventsFromServer(const Value&) override { KSVDebugger::sharedDebugger()->storeInTrace("handleEventsFromServer"); }
  };
  const auto speaking = std::make_shared<Speaking>();
  client->setDelegate(speaking);
  inspect.interpretResponseData(Dictionary{{"referralCode", "u"}, {"urlPath", "p"}, {"notifications", Array{1}}});
  EXPECT_THAT(process.trace(),
              ElementsAre("setUserId", "Got userId from server: u", "setAppIdentifier", "Got url Path from server: p",
                          "handleEventsFromServer", "Got 1 notification(s) from server"));
}

TEST_F(ServerDirectives, JSONNullIsAbsent) {
  features()->setRemotelyDisabledFeaturesWithReasons(1, std::nullopt);
  inspect.interpretResponseData(Dictionary{{"referralCode", nullptr},
                                           {"urlPath", nullptr},
                                           {"notifications", nullptr},
                                           {"matchQuality", nullptr},
                                           {"features", nullptr},
                                           {"reasons", "r"}});
  EXPECT_THAT(delegate->calls, IsEmpty());
  EXPECT_THAT(process.messages(), IsEmpty());
  EXPECT_EQ(features()->remotelyDisabledFeatures(), 1);
  EXPECT_EQ(features()->reasons(), std::nullopt);
}

TEST_F(ServerDirectives, ValuesOfOtherTypesArePassedOnAsTheyAre) {
  inspect.interpretResponseData(Dictionary{{"referralCode", 7}, {"urlPath", Array{1}}, {"matchQuality", Dictionary{{"a", 1}}}});
  EXPECT_THAT(delegate->calls, ElementsAre(Pair("setUserId", Value(7)), Pair("setAppIdentifier", Value(Array{1}))));
  ASSERT_THAT(process.messages(), SizeIs(3));
  EXPECT_EQ(process.messages()[0], "Got userId from server: 7");
}

TEST_F(ServerDirectives, NoNotificationsAreCountedButNotHandedOver) {
  inspect.interpretResponseData(Dictionary{{"notifications", Array()}});
  EXPECT_THAT(delegate->calls, IsEmpty());
  EXPECT_THAT(process.messages(), ElementsAre("Got 0 notification(s) from server"));
}

TEST_F(ServerDirectives, AnObjectOfNotificationsIsHandedOverByItsCount) {
  inspect.interpretResponseData(Dictionary{{"notifications", Dictionary{{"a", 1}}}});
  EXPECT_THAT(delegate->calls, SizeIs(1));
  EXPECT_THAT(process.messages(), ElementsAre("Got 1 notification(s) from server"));
}

TEST_F(ServerDirectives, ScalarNotificationsAreAFault) {
  for (const Value& scalar : {Value("text"), Value(5), Value(true)}) {
    EXPECT_THROW(inspect.interpretResponseData(Dictionary{{"notifications", scalar}}), platform::Exception);
  }
}

TEST_F(ServerDirectives, FeaturesMayBeANumberOrAText) {
  for (const auto& [value, expected] : std::vector<std::pair<Value, std::int64_t>>{{Value(3), 3},
                                                                                   {Value("3"), 3},
                                                                                   {Value(" -4x"), -4},
                                                                                   {Value("none"), 0},
                                                                                   {Value(2.9), 2},
                                                                                   {Value(true), 1},
                                                                                   {Value(std::int64_t{0x1'0000'0005}), 5},
                                                                                   {Value(std::int64_t{0xffff'ffff}), -1},
                                                                                   {Value("99999999999"), 2147483647}}) {
    inspect.interpretResponseData(Dictionary{{"features", value}});
    EXPECT_EQ(features()->remotelyDisabledFeatures(), expected) << value.description();
    EXPECT_EQ(features()->reasons(), std::nullopt);
  }
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(ServerDirectives, FeaturesThatAreNoIntegerAreAFault) {
  for (const Value& value : {Value(Array{3}), Value(Dictionary{{"a", 3}})}) {
    EXPECT_THROW(inspect.interpretResponseData(Dictionary{{"features", value}}), platform::Exception);
  }
}

TEST_F(ServerDirectives, ReasonsArePassedOnExactlyAsFound) {
  for (const Value& reasons : {Value(), Value("text"), Value(Array{1}), Value(Dictionary{{"0", "r"}})}) {
    inspect.interpretResponseData(Dictionary{{"features", 1}, {"reasons", reasons}});
    EXPECT_EQ(features()->reasons(), reasons);
  }
}

TEST_F(ServerDirectives, ReasonsWithoutFeaturesAreNotRead) {
  inspect.interpretResponseData(Dictionary{{"reasons", "r"}});
  EXPECT_EQ(features()->reasons(), std::nullopt);
}

TEST_F(ServerDirectives, ADelegateThatHasGoneIsSkippedAndFeaturesStillArrive) {
  delegate.reset();
  inspect.interpretResponseData(Dictionary{{"referralCode", "u"}, {"urlPath", "p"}, {"notifications", Array{1}}, {"features", 3}});
  EXPECT_THAT(process.messages(),
              ElementsAre("Got userId from server: u", "Got url Path from server: p", "Got 1 notification(s) from server"));
  EXPECT_EQ(features()->remotelyDisabledFeatures(), 3);
}

TEST_F(ServerDirectives, AnAnswerThatIsNoObjectIsAFault) {
  for (const Value& answer : {Value(Array()), Value("text"), Value(5)}) {
    EXPECT_THROW(inspect.interpretResponseData(answer), platform::Exception);
  }
  EXPECT_THAT(delegate->calls, IsEmpty());
}

TEST_F(ServerDirectives, RegisteringNoNotificationsDoesNothing) {
  inspect.registerNotifications(Array());
  EXPECT_THAT(delegate->calls, IsEmpty());
  inspect.registerNotifications(Array{1});
  EXPECT_THAT(delegate->calls, SizeIs(1));
  EXPECT_THAT(process.messages(), IsEmpty());
}

}  // namespace
}  // namespace test
