// From a reported event to its record: what the record holds, when it is built, and when a send is due.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Exception.h"
#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace test {
namespace {

using platform::Array;
using platform::Date;
using platform::Dictionary;
using platform::Value;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kStartTimeText = "2026-11-20T20:19:39.000Z";
constexpr const char* kNothingToSend = "Couldn't find any events to send to server";

class EventRecords : public testing::Test {
 protected:
  EventRecords() {
    process.runAll();  // the sweep
    process.plan().clearCalls();
  }

  Value sessionId() { return Value(*inspect.sessionId()); }
  const Array& records() { return inspect.diskCacheQueue(); }
  Dictionary lastRecord() { return records()[records().count() - 1].object(); }
  std::size_t tasks() { return process.blocksWaiting(TestProcess::clientQueue()); }
  /// Runs the recording of the events so far, but none of the send tasks that it queues behind.
  void runRecording(int events) {
    for (int event = 0; event < events; ++event) ASSERT_TRUE(process.runOne(TestProcess::clientQueue()));
  }
  void createEvents(int count) {
    for (int event = 0; event < count; ++event) client->createEvent("event " + std::to_string(event));
  }

  TestProcess process;
  std::shared_ptr<KSVData> client = process.makeClient();
  KSVDataInspector inspect{client};
};

// What a record holds.

TEST_F(EventRecords, AnEventWithoutDataHoldsTheSessionIdentifierOnly) {
  client->createEvent("opened");
  process.runAll();
  ASSERT_EQ(records().count(), 1u);
  EXPECT_EQ(
      lastRecord(),
      (Dictionary{{"localTime", kStartTimeText}, {"event", "opened"}, {"eventData", Dictionary{{"sessionId", sessionId()}}}}));
}

TEST_F(EventRecords, AbsentDataIsEmptyData) {
  client->createEventWithData("opened", std::nullopt);
  process.runAll();
  EXPECT_EQ(
      lastRecord(),
      (Dictionary{{"localTime", kStartTimeText}, {"event", "opened"}, {"eventData", Dictionary{{"sessionId", sessionId()}}}}));
}

TEST_F(EventRecords, EveryEntryOfTheDataIsTaken) {
  const Dictionary data{{"string", "s"},
                        {"number", 7},
                        {"double", 1.5},
                        {"true", true},
                        {"null", nullptr},
                        {"array", Array{1}},
                        {"object", Dictionary{{"a", 1}}},
                        {"", "empty key"}};
  client->createEventWithData("opened", data);
  process.runAll();
  Dictionary expected = data;
  expected.setObjectForKey(sessionId(), "sessionId");
  EXPECT_EQ(*lastRecord().objectForKey("eventData"), Value(expected));
}

TEST_F(EventRecords, TheCallersSessionIdentifierWins) {
  client->createEventWithData("opened", Dictionary{{"sessionId", "S"}});
  process.runAll();
  EXPECT_EQ(*lastRecord().objectForKey("eventData"), Value(Dictionary{{"sessionId", "S"}}));
}

TEST_F(EventRecords, TheCallersSessionIdentifierWinsOfWhateverKind) {
  client->createEventWithData("opened", Dictionary{{"sessionId", nullptr}});
  process.runAll();
  EXPECT_EQ(*lastRecord().objectForKey("eventData"), Value(Dictionary{{"sessionId", nullptr}}));
}

TEST_F(EventRecords, TheCallersLocalTimeMovesToTheRecord) {
  client->createEventWithData("opened", Dictionary{{"localTime", "yesterday"}, {"colour", "red"}});
  process.runAll();
  EXPECT_EQ(lastRecord(), (Dictionary{{"localTime", "yesterday"},
                                      {"event", "opened"},
                                      {"eventData", Dictionary{{"sessionId", sessionId()}, {"colour", "red"}}}}));
}

TEST_F(EventRecords, TheCallersLocalTimeIsKeptAsItIsOfWhateverKind) {
  const std::vector<Value> times = {
      Value(7), Value(1.5), Value(true), Value(nullptr), Value(""), Value(Array{1}), Value(Dictionary{{"a", 1}})};
  for (const Value& time : times) {
    SCOPED_TRACE(time.description());
    client->createEventWithData("opened", Dictionary{{"localTime", time}});
    ASSERT_TRUE(process.runOne(TestProcess::clientQueue()));
    EXPECT_EQ(lastRecord().objectForKey("localTime"), time);
    EXPECT_EQ(*lastRecord().objectForKey("eventData"), Value(Dictionary{{"sessionId", sessionId()}}));
  }
}

TEST_F(EventRecords, TheCallersLocalTimeLeavesTheClockAndTheCorrectionUnread) {
  client->createEventWithData("opened", Dictionary{{"localTime", "yesterday"}});
  process.runAll();
  EXPECT_EQ(process.plan().count("Clock.now"), 0u);
  EXPECT_EQ(process.plan().count("UserDefaults.object"), 0u);
}

TEST_F(EventRecords, LocalTimeIsTheCorrectedTime) {
  process.userDefaults().setObjectForKey(Value(3600), TestProcess::kSkewKey);
  process.setTime(TestProcess::kStartTime + 0.25);
  client->createEvent("opened");
  process.runAll();
  EXPECT_EQ(lastRecord().objectForKey("localTime"), Value("2026-11-20T21:19:39.250Z"));
  EXPECT_THAT(process.messages(), ElementsAre("Adjusting local time by 3600"));
}

TEST_F(EventRecords, LocalTimeIsTakenWhenTheRecordIsBuilt) {
  client->createEvent("opened");
  process.advanceTime(5);
  process.runAll();
  EXPECT_EQ(lastRecord().objectForKey("localTime"), Value("2026-11-20T20:19:44.000Z"));
}

TEST_F(EventRecords, TheDataIsTheCallersAtTheTimeOfTheCall) {
  Dictionary data{{"colour", "red"}, {"localTime", "then"}};
  client->createEventWithData("opened", data);
  data.setObjectForKey(Value("green"), "colour");
  data.removeObjectForKey("localTime");
  process.runAll();
  EXPECT_EQ(lastRecord(), (Dictionary{{"localTime", "then"},
                                      {"event", "opened"},
                                      {"eventData", Dictionary{{"sessionId", sessionId()}, {"colour", "red"}}}}));
}

TEST_F(EventRecords, TheCallersDataIsLeftAsItIs) {
  const Dictionary data{{"localTime", "then"}};
  client->createEventWithData("opened", data);
  process.runAll();
  EXPECT_EQ(data, (Dictionary{{"localTime", "then"}}));
}

TEST_F(EventRecords, BuildingARecordLeavesTheGivenDataAsItIs) {
  const Dictionary eventData{{"localTime", 7}, {"a", 1}};
  EXPECT_EQ(inspect.addEventWrappingWithData("named", eventData),
            (Dictionary{{"localTime", 7}, {"event", "named"}, {"eventData", Dictionary{{"a", 1}}}}));
  EXPECT_EQ(eventData, (Dictionary{{"localTime", 7}, {"a", 1}}));
}

TEST_F(EventRecords, ARecordHasExactlyThreeKeysEvenWithoutData) {
  EXPECT_EQ(inspect.addEventWrappingWithData("", Dictionary()),
            (Dictionary{{"localTime", kStartTimeText}, {"event", ""}, {"eventData", Dictionary()}}));
}

TEST_F(EventRecords, ValuesThatAreNoJSONAreAcceptedHere) {
  client->createEventWithData("opened", Dictionary{{"when", Date::dateWithTimeIntervalSince1970(7)}});
  process.runAll();
  EXPECT_EQ(records().count(), 1u);
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(EventRecords, ARecordThatIsNoJSONMakesItsWholeBatchUnbuildable) {
  client->createEvent("good");
  client->createEventWithData(TestProcess::kSessionStarted, Dictionary{{"when", Date::dateWithTimeIntervalSince1970(7)}});
  process.runAll();
  EXPECT_EQ(process.plan().count("URLSession.dataTask"), 0u);
  EXPECT_TRUE(records().empty());
  EXPECT_EQ(process.queueFile(), std::nullopt);
  EXPECT_EQ(process.messages().back(), "Couldn't build request for /events, aborting");
}

TEST_F(EventRecords, RecordsKeepTheOrderOfTheCalls) {
  client->createEvent("first");
  client->createEventWithData("second", Dictionary());
  client->createEvent("third");
  process.runAll();
  ASSERT_EQ(records().count(), 3u);
  EXPECT_EQ(records()[0].objectForKey("event"), Value("first"));
  EXPECT_EQ(records()[1].objectForKey("event"), Value("second"));
  EXPECT_EQ(records()[2].objectForKey("event"), Value("third"));
}

TEST_F(EventRecords, ReportingSubmitsOneTaskAndDoesNothingElse) {
  client->createEventWithData("opened", Dictionary{{"a", 1}});
  EXPECT_THAT(process.callTexts(), ElementsAre("DispatchQueue.async " + TestProcess::clientQueue()));
  EXPECT_EQ(tasks(), 1u);
  EXPECT_TRUE(records().empty()) << "the record is built on the queue";
}

TEST_F(EventRecords, RecordingWritesNoFileAndSaysNothing) {
  createEvents(9);
  process.runAll();
  EXPECT_THAT(process.callTexts({"FileManager.", "FileHandle.", "URLSession"}), IsEmpty());
  EXPECT_THAT(process.messages(), IsEmpty());
}

// Sessions.

TEST_F(EventRecords, ANewSessionGivesLaterEventsAnotherIdentifier) {
  client->createEvent("before");
  client->markNewSession();
  client->createEvent("after");
  process.runAll();
  ASSERT_EQ(records().count(), 2u);
  EXPECT_NE(records()[0].objectForKey("eventData")->objectForKey("sessionId"),
            records()[1].objectForKey("eventData")->objectForKey("sessionId"));
}

TEST_F(EventRecords, ARecordBuiltAfterANewSessionKeepsTheIdentifierOfItsCall) {
  const Value atTheCall = sessionId();
  client->createEvent("before");
  client->markNewSession();
  ASSERT_NE(sessionId(), atTheCall);
  process.runAll();
  EXPECT_EQ(lastRecord().objectForKey("eventData")->objectForKey("sessionId"), atTheCall);
}

TEST_F(EventRecords, MarkingASessionRecordsNothingAndSendsNothing) {
  client->markNewSession();
  EXPECT_THAT(process.plan().callNames(), AllOf(Not(IsEmpty()), Each("SecureRandom.fill")));
  EXPECT_EQ(tasks(), 0u);
  EXPECT_EQ(inspect.sessionId()->length(), 30u);
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(EventRecords, MakingAnIdentifierDoesNotStoreIt) {
  const Value before = sessionId();
  const platform::String made = inspect.getNewSessionId();
  EXPECT_EQ(made.length(), 30u);
  EXPECT_NE(Value(made), before);
  EXPECT_EQ(sessionId(), before);
}

// When a send is due.

TEST_F(EventRecords, TheNinthRecordStartsNoSendAndTheTenthOne) {
  createEvents(9);
  runRecording(9);
  EXPECT_EQ(tasks(), 0u);
  createEvents(1);
  runRecording(1);
  EXPECT_EQ(tasks(), 1u) << "the send runs after the recording task, never inside it";
  EXPECT_EQ(records().count(), 10u);
  process.runAll();
  EXPECT_EQ(process.plan().count("URLSession.dataTask"), 1u);
  EXPECT_TRUE(records().empty());
}

TEST_F(EventRecords, EveryRecordAtOrAboveTheThresholdQueuesOneMoreSend) {
  createEvents(13);
  runRecording(13);
  EXPECT_EQ(tasks(), 4u);
  process.runAll();
  EXPECT_EQ(process.plan().count("URLSession.dataTask"), 1u) << "the first send takes all records";
  EXPECT_THAT(process.messages(), ElementsAre("No events on disk, skipping read",                  // the one that sends
                                              "No events on disk, skipping read", kNothingToSend,  //
                                              "No events on disk, skipping read", kNothingToSend,  //
                                              "No events on disk, skipping read", kNothingToSend));
}

TEST_F(EventRecords, TheCountBeginsAnewAfterASend) {
  createEvents(10);
  process.runAll();
  createEvents(9);
  process.runAll();
  EXPECT_EQ(process.plan().count("URLSession.dataTask"), 1u);
  createEvents(1);
  process.runAll();
  EXPECT_EQ(process.plan().count("URLSession.dataTask"), 2u);
}

TEST_F(EventRecords, AThresholdOfZeroSendsEveryRecord) {
  inspect.newEventsInMemory() = 0;
  createEvents(1);
  runRecording(1);
  EXPECT_EQ(tasks(), 1u);
}

TEST_F(EventRecords, ANegativeThresholdIsWidenedToAHugeOneAndSendsNothing) {
  for (const std::int32_t threshold : {-1, INT32_MIN}) {
    inspect.newEventsInMemory() = threshold;
    createEvents(50);
    runRecording(50);
    EXPECT_EQ(tasks(), 0u);
  }
  EXPECT_EQ(records().count(), 100u);
}

TEST_F(EventRecords, ASessionStartIsSentAtOnce) {
  client->createEvent(TestProcess::kSessionStarted);
  runRecording(1);
  EXPECT_EQ(tasks(), 1u);
  EXPECT_EQ(records().count(), 1u) << "the record is there before the send";
  process.runAll();
  EXPECT_EQ(process.plan().count("URLSession.dataTask"), 1u);
}

TEST_F(EventRecords, ACookieMatchIsSentAtOnce) {
  client->createEvent(TestProcess::kDidCookieMatch);
  runRecording(1);
  EXPECT_EQ(tasks(), 1u);
}

TEST_F(EventRecords, NamesThatOnlyResembleTheTwoAreNotSentAtOnce) {
  for (const char* name : {"Session-started", "session-started ", "session-starte", "", "DID-COOKIE-MATCH"})
    client->createEvent(name);
  runRecording(5);
  EXPECT_EQ(tasks(), 0u);
}

TEST_F(EventRecords, TheSecondNameIsLookedAtOnlyWhenTheFirstDiffers) {
  process.process().constants.didCookieMatchKey = std::nullopt;
  client->createEvent(TestProcess::kSessionStarted);
  runRecording(1);
  EXPECT_THAT(process.uncaughtReasons(), IsEmpty());
  EXPECT_EQ(tasks(), 1u);
  client->createEvent("another");
  process.runAll();
  ASSERT_EQ(process.uncaughtReasons().size(), 1u);
  EXPECT_THAT(process.uncaughtReasons().front(),
              AllOf(HasSubstr("NSInternalInconsistencyException"), HasSubstr("kDidCookieMatchKey")));
}

TEST_F(EventRecords, ASessionStartThatIsTheTenthRecordQueuesTwoSends) {
  createEvents(9);
  client->createEvent(TestProcess::kSessionStarted);
  runRecording(10);
  EXPECT_EQ(tasks(), 2u);
  process.runAll();
  EXPECT_EQ(process.plan().count("URLSession.dataTask"), 1u);
  EXPECT_THAT(process.messages(),
              ElementsAre("No events on disk, skipping read", "No events on disk, skipping read", kNothingToSend));
}

TEST_F(EventRecords, EveryEventOfABatchIsPostedInOrder) {
  createEvents(10);
  process.runAll();
  ASSERT_EQ(process.posts().size(), 1u);
  const auto body = platform::JSONSerialization::JSONObjectWithData(process.posts().front());
  ASSERT_TRUE(body);
  const Array posted = body->objectForKey("data")->array();
  ASSERT_EQ(posted.count(), 10u);
  for (std::size_t index = 0; index < 10; ++index)
    EXPECT_EQ(posted[index].objectForKey("event"), Value("event " + std::to_string(index)));
}

// Faults of the caller.

TEST_F(EventRecords, AnAbsentRecordIsRefusedWithAMessage) {
  inspect.addEventToQueue(std::nullopt);
  EXPECT_THAT(process.messages(), ElementsAre("Error: Not adding nil event to queue"));
  EXPECT_TRUE(records().empty());
  EXPECT_THAT(process.callTexts(), IsEmpty());
}

TEST_F(EventRecords, AnAbsentRecordIsRefusedSilentlyWithoutTheDebugFlag) {
  process.process().debug = false;
  inspect.addEventToQueue(std::nullopt);
  EXPECT_THAT(process.messages(), IsEmpty());
  EXPECT_TRUE(records().empty());
}

TEST_F(EventRecords, AnAbsentRecordDoesNotSendWhatHasGathered) {
  inspect.newEventsInMemory() = 0;
  inspect.addEventToQueue(std::nullopt);
  EXPECT_EQ(tasks(), 0u);
}

TEST_F(EventRecords, AnAbsentNameRaisesOnTheQueueWhereNothingCatchesIt) {
  client->createEvent(std::nullopt);
  EXPECT_THAT(process.uncaughtReasons(), IsEmpty()) << "not on the caller's thread";
  process.runAll();
  ASSERT_EQ(process.uncaughtReasons().size(), 1u);
  EXPECT_THAT(process.uncaughtReasons().front(), HasSubstr("'NSInvalidArgumentException'"));
  EXPECT_TRUE(records().empty());
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(EventRecords, AnAbsentNameWithDataRaisesInTheSameWay) {
  client->createEventWithData(std::nullopt, Dictionary{{"localTime", "then"}});
  process.runAll();
  ASSERT_EQ(process.uncaughtReasons().size(), 1u);
  EXPECT_THAT(process.uncaughtReasons().front(), HasSubstr("'NSInvalidArgumentException'"));
}

TEST_F(EventRecords, AnAbsentNameRaisesFromTheRecordBuilder) {
  try {
    inspect.addEventWrappingWithData(std::nullopt, Dictionary());
    FAIL() << "did not raise";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
  }
}

TEST_F(EventRecords, AnAbsentSessionRaisesOnTheCallersThreadBeforeAnythingIsQueued) {
  inspect.setSessionId(std::nullopt);
  try {
    client->createEvent("opened");
    FAIL() << "did not raise";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
  }
  EXPECT_EQ(tasks(), 0u);
  EXPECT_THAT(process.callTexts(), IsEmpty());
  EXPECT_THAT(process.uncaughtReasons(), IsEmpty());
}

TEST_F(EventRecords, AnAbsentSessionRaisesEvenWhenTheCallerNamesOne) {
  inspect.setSessionId(std::nullopt);
  EXPECT_THROW(client->createEventWithData("opened", Dictionary{{"sessionId", "S"}}), platform::Exception);
}

TEST_F(EventRecords, AnExceptionOfAnotherKindPassesToTheUncaughtService) {
  process.plan().throwStandard("Clock.now", nth(1), "the clock is broken");
  client->createEvent("opened");
  process.runAll();
  ASSERT_EQ(process.uncaughtReasons().size(), 1u);
  EXPECT_THAT(process.uncaughtReasons().front(), HasSubstr("the clock is broken"));
  EXPECT_TRUE(records().empty());
}

}  // namespace
}  // namespace test
