// What the live page is told of requests: events and who carried them, retries, write-backs, clock corrections.
#include "devserver/Story.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "devserver/Json.h"

namespace devserver {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;
using std::chrono::seconds;
using ::testing::ElementsAre;

class StoryTest : public ::testing::Test {
 protected:
  static Value record(const std::string& name, const std::string& time = "2026-11-20T20:19:39.000Z") {
    return Dictionary{{"event", name}, {"eventData", Dictionary{{"sessionId", "s1"}, {"x", 1}}}, {"localTime", time}};
  }
  /// A batch as it was answered; its identity is that of its records.
  static Happening batch(Array records, int status) {
    Happening happening;
    happening.at = seconds(1'795'205'979);
    happening.kind = "batch";
    happening.identity = writeJson(records);
    happening.entry = {{"app", "com.example.app"},
                       {"device", "d1"},
                       {"path", "/events"},
                       {"status", status},
                       {"verdict", "ok"},
                       {"taken", status == 200},
                       {"records", std::move(records)}};
    return happening;
  }
  std::vector<Dictionary> items() const {
    std::vector<Dictionary> all;
    const auto list = readJson(feed_.after(0, 1000, std::chrono::milliseconds(0)).items);
    for (const Value& item : list.value().array()) all.push_back(item.object());
    return all;
  }
  Dictionary last() const { return items().back(); }
  static std::string json(const std::optional<Value>& value) {
    return value && (value->isArray() || value->isObject()) ? writeJson(*value) : "none";
  }
  static std::vector<std::string> kinds(const std::vector<Dictionary>& items) {
    std::vector<std::string> all;
    for (const Dictionary& item : items) all.emplace_back(item.find("kind")->string().view());
    return all;
  }

  Feed feed_;
  Story story_{feed_};
};

TEST_F(StoryTest, BatchIsItsEventsAndThenItself) {
  story_.tell(batch({record("opened"), record("shared")}, 200));
  const auto all = items();
  ASSERT_THAT(kinds(all), ElementsAre("event", "event", "batch"));
  EXPECT_EQ(Value(all[0]), Value(Dictionary{{"n", 1},
                                            {"kind", "event"},
                                            {"at", 1'795'205'979'000},
                                            {"app", "com.example.app"},
                                            {"device", "d1"},
                                            {"name", "opened"},
                                            {"time", "2026-11-20T20:19:39.000Z"},
                                            {"session", "s1"},
                                            {"data", Dictionary{{"sessionId", "s1"}, {"x", 1}}}}));
  EXPECT_EQ(Value(all[2]), Value(Dictionary{{"n", 3},
                                            {"kind", "batch"},
                                            {"at", 1'795'205'979'000},
                                            {"app", "com.example.app"},
                                            {"device", "d1"},
                                            {"path", "/events"},
                                            {"status", 200},
                                            {"verdict", "ok"},
                                            {"taken", true},
                                            {"records", 2},
                                            {"events", readJson("[[1,2]]").value()},
                                            {"checks", Array()}}));
}

TEST_F(StoryTest, RetryCarriesTheSameEventsAgain) {
  story_.tell(batch({record("opened"), record("shared")}, 500));
  story_.tell(batch({record("opened"), record("shared")}, 500));
  story_.tell(batch({record("opened"), record("shared")}, 200));
  ASSERT_THAT(kinds(items()), ElementsAre("event", "event", "batch", "batch", "batch"));
  EXPECT_EQ(json(last().objectForKey("events")), "[[1,2]]");
  EXPECT_EQ(last().objectForKey("again"), Value(3));
  EXPECT_EQ(last().objectForKey("attempt"), Value(3));
  EXPECT_EQ(last().objectForKey("back"), std::nullopt);
}

TEST_F(StoryTest, EventsThatComeBackInAnotherBatchAreCounted) {
  story_.tell(batch({record("opened"), record("shared")}, 0));
  story_.tell(batch({record("new"), record("opened"), record("shared")}, 200));
  ASSERT_THAT(kinds(items()), ElementsAre("event", "event", "batch", "event", "batch"));
  EXPECT_EQ(json(last().objectForKey("events")), "[[4,4],[1,2]]");
  EXPECT_EQ(last().objectForKey("back"), Value(2));
  EXPECT_EQ(last().objectForKey("again"), std::nullopt);
}

TEST_F(StoryTest, EventThatWasTakenBeforeIsNamedAsARepetition) {
  story_.tell(batch({record("opened")}, 200));
  story_.tell(batch({record("opened"), record("shared")}, 200));
  const auto all = items();
  ASSERT_THAT(kinds(all), ElementsAre("event", "batch", "event", "event", "batch"));
  EXPECT_EQ(all[2].objectForKey("repeats"), Value(1));
  EXPECT_EQ(all[3].objectForKey("repeats"), std::nullopt);
  EXPECT_EQ(last().objectForKey("back"), std::nullopt);
}

TEST_F(StoryTest, TwoAlikeInOneBatchAreTwo) {
  story_.tell(batch({record("tapped"), record("tapped")}, 200));
  const auto all = items();
  ASSERT_THAT(kinds(all), ElementsAre("event", "event", "batch"));
  EXPECT_EQ(all[1].objectForKey("repeats"), std::nullopt);
}

TEST_F(StoryTest, EqualRecordsOfABatchStayTwoWhenItIsRetried) {
  story_.tell(batch({record("tapped"), record("opened"), record("tapped")}, 500));
  story_.tell(batch({record("tapped"), record("opened"), record("tapped")}, 200));
  ASSERT_THAT(kinds(items()), ElementsAre("event", "event", "event", "batch", "batch"));
  EXPECT_EQ(json(last().objectForKey("events")), "[[1,3]]");
  story_.tell(batch({record("tapped"), record("tapped"), record("tapped")}, 200));
  const auto all = items();
  ASSERT_THAT(kinds(all), ElementsAre("event", "event", "event", "batch", "batch", "event", "event", "event", "batch"));
  EXPECT_EQ(all[5].objectForKey("repeats"), Value(1));
  EXPECT_EQ(all[6].objectForKey("repeats"), Value(3));
  EXPECT_EQ(all[7].objectForKey("repeats"), std::nullopt);
}

TEST_F(StoryTest, SameRequestAfterOneThatWasTakenIsNoRetry) {
  Happening share;
  share.kind = "share";
  share.identity = "a";
  share.entry = {{"taken", true}, {"status", 201}, {"verdict", "ok"}, {"data", Dictionary{{"text", "x"}}}};
  story_.tell(share);
  story_.tell(share);
  EXPECT_EQ(last().objectForKey("again"), std::nullopt);
  EXPECT_EQ(json(last().objectForKey("data")), R"({"text":"x"})");
}

TEST_F(StoryTest, ClockThatMovesAfterAChallengeWasCorrected) {
  Happening stale = batch({record("opened")}, 401);
  stale.clock = seconds(-3600);
  stale.isChallenged = true;
  story_.tell(stale);
  Happening corrected = batch({record("opened")}, 200);
  corrected.clock = seconds(-1);
  story_.tell(corrected);
  const auto all = items();
  ASSERT_THAT(kinds(all), ElementsAre("event", "batch", "clock", "batch"));
  EXPECT_EQ(Value(all[2]), Value(Dictionary{{"n", 3},
                                            {"kind", "clock"},
                                            {"at", 1'795'205'979'000},
                                            {"app", "com.example.app"},
                                            {"device", "d1"},
                                            {"seconds", 3599.0},
                                            {"challenge", 2}}));
}

TEST_F(StoryTest, ClockThatStaysOrWasNotChallengedIsNotTold) {
  Happening stale = batch({record("opened")}, 401);
  stale.clock = seconds(-3600);
  stale.isChallenged = true;
  story_.tell(stale);
  story_.tell(stale);
  Happening fresh = batch({record("opened")}, 200);
  fresh.clock = seconds(0);
  fresh.entry.setObjectForKey(Value("d2"), "device");
  story_.tell(fresh);
  fresh.clock = seconds(100);
  story_.tell(fresh);
  EXPECT_THAT(kinds(items()), testing::Not(testing::Contains("clock")));
}

TEST_F(StoryTest, NonceIsKnownByItsFirstUse) {
  EXPECT_EQ(story_.firstUseOf("n"), "");
  Happening happening = batch({}, 200);
  happening.nonce = "n";
  story_.tell(happening);
  EXPECT_EQ(story_.firstUseOf("n"), "number 1, at 2026-11-20T20:19:39.000Z");
  happening.at += seconds(1);
  happening.nonce = "";
  story_.tell(happening);
  EXPECT_EQ(story_.firstUseOf("n"), "number 1, at 2026-11-20T20:19:39.000Z");
}

TEST_F(StoryTest, LongDataIsKeptByItsBeginning) {
  const Dictionary data{{"sessionId", "s1"}, {"text", std::string(20'000, 'x')}};
  story_.tell(batch({Dictionary{{"event", "big"}, {"eventData", data}, {"localTime", ""}}}, 200));
  const Dictionary event = items().front();
  EXPECT_EQ(event.objectForKey("data"), std::nullopt);
  EXPECT_EQ(event.objectForKey("dataBytes"), Value(writeJson(data).size()));
  EXPECT_EQ(event.objectForKey("dataBeginning"), Value(writeJson(data).substr(0, Story::kMaxData)));
  EXPECT_EQ(event.objectForKey("session"), Value("s1"));
}

TEST_F(StoryTest, LongDataIsCutBetweenCharacters) {
  std::string text;
  while (text.size() < 20'000) text += "ü";
  story_.tell(batch({Dictionary{{"event", "big"}, {"eventData", Dictionary{{"t", text}}}, {"localTime", ""}}}, 200));
  const Value beginning = *items().front().objectForKey("dataBeginning");
  EXPECT_EQ(beginning.string().view().size(), Story::kMaxData);  // {"t":" and whole characters of two bytes
  EXPECT_TRUE(beginning.string().view().ends_with("ü"));
}

TEST_F(StoryTest, RecordsThatAreNoneAreShownAsTheyAre) {
  story_.tell(batch({1, "two", Dictionary{{"event", 3}}}, 400));
  const auto all = items();
  ASSERT_THAT(kinds(all), ElementsAre("event", "event", "event", "batch"));
  EXPECT_EQ(all[0].objectForKey("data"), Value(1));
  EXPECT_EQ(all[2].objectForKey("name"), Value(""));
}

TEST_F(StoryTest, MisbehaviourThatIsOrderedAndUsedUpIsTold) {
  story_.tellBehaviour(seconds(1), {{"drop", 1}});
  EXPECT_EQ(Value(last()),
            Value(Dictionary{{"n", 1}, {"kind", "behaviour"}, {"at", 1000}, {"behaviour", Dictionary{{"drop", 1}}}}));
  Happening happening = batch({}, 0);
  happening.behaviour = Dictionary{{"drop", 0}};
  story_.tell(happening);
  EXPECT_EQ(json(last().objectForKey("behaviour")), R"({"drop":0})");
}

}  // namespace
}  // namespace devserver
