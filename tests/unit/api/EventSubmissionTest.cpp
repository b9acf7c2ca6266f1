// Sending batches: what is taken, what is posted, and what each outcome does with the batch.
#include <limits>

#include "ApiTest.h"

namespace test {
namespace {

constexpr const char* kNothing = "Couldn't find any events to send to server";
constexpr const char* kSent = "Events successfully sent to server";
constexpr const char* kResubmitting = "Re-submitting share with adjusted timestamp";
constexpr const char* kGivingUp = "Tried to submit events twice with error, giving up";

class EventSubmission : public ApiTest {
 protected:
  /// Sends what waits, up to the point where the request waits for its answer.
  void send() {
    client->sendEventQueueToServer();
    process.runAll();
  }
  void addToMemory(std::initializer_list<int> numbers) {
    for (const int number : numbers) inspect.diskCacheQueue().addObject(record(number));
  }
  /// Messages other than those of the queue file and of the corrected clock.
  std::vector<std::string> messages() {
    std::vector<std::string> kept;
    for (std::string& message : process.messages()) {
      const bool isOfQueue = message.starts_with("Writing ") || message.starts_with("Loading ") || message.starts_with("Read ") ||
                             message.starts_with("No events on disk") || message.starts_with("Adjusting local time");
      if (!isOfQueue) kept.push_back(std::move(message));
    }
    return kept;
  }
  std::size_t requests() { return process.posts().size(); }
  std::int64_t skew() { return inspect.getLocalTimeSkew(); }

  static constexpr std::int64_t kServer = static_cast<std::int64_t>(kStart) + 100;
};

// What is taken.

TEST_F(EventSubmission, WithNothingAnywhereNoRequestIsMade) {
  send();
  EXPECT_EQ(requests(), 0U);
  EXPECT_THAT(process.messages(), ElementsAre("No events on disk, skipping read", kNothing));
}

TEST_F(EventSubmission, ItReturnsAtOnceAndWorksOnTheSerialQueue) {
  addToMemory({1});
  client->sendEventQueueToServer();
  EXPECT_EQ(requests(), 0U);
  EXPECT_EQ(process.blocksWaiting(TestProcess::clientQueue()), 1U);
  ASSERT_TRUE(process.runOne(TestProcess::clientQueue()));
  EXPECT_EQ(requests(), 1U);
}

TEST_F(EventSubmission, RecordsOnDiskComeBeforeThoseInMemory) {
  process.setQueueFile(line(1) + line(2));
  addToMemory({3, 4});
  send();
  EXPECT_THAT(posted(0), ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(process.queueFile(), "");
  EXPECT_TRUE(inspect.diskCacheQueue().empty());
}

TEST_F(EventSubmission, TheBodyHoldsExactlyTheBatch) {
  addToMemory({1, 2});
  send();
  EXPECT_EQ(process.posts().at(0).bytes(), R"({"data":[{"n":1},{"n":2}]})");
  const auto request = process.urlSession().requests().at(0);
  EXPECT_EQ(request.HTTPMethod(), "POST");
  EXPECT_EQ(request.URL()->absoluteString(), "https://api.example.com/events");
}

TEST_F(EventSubmission, RecordsOnDiskAloneAreSent) {
  process.setQueueFile(line(1));
  send();
  EXPECT_THAT(posted(0), ElementsAre(1));
}

TEST_F(EventSubmission, AnUnreadableQueueAddsNothing) {
  process.setQueueFile(line(1));
  process.plan().raise("FileHandle.readDataOfLength", nth(1), someException());
  addToMemory({2});
  send();
  EXPECT_THAT(posted(0), ElementsAre(2));
  EXPECT_EQ(process.queueFile(), line(1));
}

TEST_F(EventSubmission, ALargeQueueIsDrainedOverSeveralSendsOldestFirst) {
  std::string queue;
  for (int number = 1; number <= 400; ++number) {
    const std::string head = "{\"n\":" + std::to_string(number) + ",\"t\":\"";
    queue += head + std::string(1000 - head.size() - 3, 'x') + "\"}\n";
  }
  process.setQueueFile(queue);
  addToMemory({1001});
  send();
  std::vector<int> first = posted(0);
  EXPECT_THAT(first, SizeIs(209));
  EXPECT_EQ(first[207], 208);
  EXPECT_EQ(first[208], 1001);
  addToMemory({1002});
  send();
  const std::vector<int> second = posted(1);
  EXPECT_EQ(second.front(), 210) << "209 straddled the budget and was given up";
  EXPECT_EQ(second.back(), 1002);
}

TEST_F(EventSubmission, SeveralBatchesMayBeInFlight) {
  addToMemory({1});
  send();
  addToMemory({2});
  send();
  ASSERT_EQ(requests(), 2U);
  EXPECT_THAT(posted(0), ElementsAre(1));
  EXPECT_THAT(posted(1), ElementsAre(2));
  process.answer(200, "{}");
  process.answer(500, "");
  process.runAll();
  EXPECT_EQ(process.queueFile(), line(2));
}

TEST_F(EventSubmission, ATaskKeepsTheClientAliveUntilItHasEnded) {
  addToMemory({1});
  const std::weak_ptr<KSVData> alive = client;
  send();
  client.reset();
  inspect.client.reset();
  EXPECT_FALSE(alive.expired());
  process.answer(200, "{}");
  process.runAll();
  EXPECT_TRUE(alive.expired());
}

// Success.

TEST_F(EventSubmission, ASuccessHandsTheAnswerOver) {
  addToMemory({1});
  send();
  process.clearMessages();
  process.answer(200, R"({"referralCode":"abcdefgh"})");
  process.runAll();
  EXPECT_THAT(delegate->calls, ElementsAre(testing::Pair("setUserId", Value("abcdefgh"))));
  EXPECT_THAT(process.messages(), ElementsAre(kSent, "Got userId from server: abcdefgh"));
  EXPECT_EQ(process.queueFile(), std::nullopt);
}

TEST_F(EventSubmission, EveryStatusBelow400IsASuccess) {
  for (const std::int64_t status : {100, 199, 200, 204, 299, 301, 304, 399}) {
    process.clearMessages();
    inspect.sendEvents({record(1)});
    process.answer(status, "{}");
    process.runAll();
    EXPECT_THAT(process.messages(), ElementsAre(kSent)) << status;
    EXPECT_EQ(process.queueFile(), std::nullopt) << status;
  }
}

TEST_F(EventSubmission, AnEmptyBodyIsInvalidJSONAndTheBatchIsNotWrittenBack) {
  inspect.sendEvents({record(1)});
  process.answer(204, "");
  process.runAll();
  EXPECT_THAT(process.messages(), ElementsAre(kSent,
                                              "Got invalid JSON from server: The data couldn’t be read because it isn’t in the "
                                              "correct format."));
  EXPECT_EQ(process.queueFile(), std::nullopt);
  EXPECT_EQ(requests(), 1U);
}

TEST_F(EventSubmission, AbsentDataIsInvalidJSONToo) {
  inspect.sendEvents({record(1)});
  process.urlSession().next()->end(std::nullopt, nullptr, std::nullopt);
  process.runAll();
  ASSERT_THAT(process.messages(), SizeIs(2));
  EXPECT_EQ(process.messages()[0], kSent) << "an absent response has the status 0";
  EXPECT_THAT(process.messages()[1], StartsWith("Got invalid JSON from server: "));
}

TEST_F(EventSubmission, AnAnswerThatIsNoObjectEndsTheProcess) {
  for (const char* answer : {"[]", "[{}]"}) {
    inspect.sendEvents({record(1)});
    process.answer(200, answer);
    process.runAll();
  }
  ASSERT_THAT(process.uncaughtReasons(), SizeIs(testing::Ge(1U)));
  EXPECT_THAT(process.uncaughtReasons()[0],
              StartsWith("*** Terminating app due to uncaught exception 'NSInvalidArgumentException', reason: '"));
}

// Failures that are written back.

TEST_F(EventSubmission, ATransportErrorWritesTheBatchBack) {
  process.setQueueFile(line(1));
  addToMemory({2});
  send();
  process.clearMessages();
  process.failRequest(-1004);
  process.runAll();
  EXPECT_EQ(process.queueFile(), line(1) + line(2));
  EXPECT_THAT(process.messages(),
              ElementsAre(StartsWith("Writing 2 events to "), "Couldn't submit events: Could not connect to the server."));
  EXPECT_EQ(requests(), 1U);
}

TEST_F(EventSubmission, AnErrorCountsEvenBesideAGoodStatus) {
  inspect.sendEvents({record(1)});
  auto response = std::make_shared<platform::HTTPURLResponse>(*platform::URL::URLWithString("https://api.example.com/events"), 200,
                                                              platform::HTTPHeaderFields());
  process.urlSession().next()->end(platform::Data("{}"), response, platform::urlError(-1005));
  process.runAll();
  EXPECT_EQ(process.queueFile(), line(1));
  EXPECT_THAT(messages(), ElementsAre("Couldn't submit events: The network connection was lost."));
}

TEST_F(EventSubmission, AServerErrorWritesTheBatchBackAndTellsTheWholeResponse) {
  addToMemory({1, 2});
  send();
  process.clearMessages();
  process.answer(500, "oops", {{"X-Reason", "tired"}});
  process.runAll();
  EXPECT_EQ(process.queueFile(), line(1) + line(2));
  ASSERT_THAT(process.messages(), SizeIs(2));
  EXPECT_THAT(process.messages()[1],
              StartsWith("Couldn't submit events, got 500: <NSHTTPURLResponse> { URL: https://api.example.com/events } "
                         "{ Status Code: 500, Headers {"));
  EXPECT_THAT(process.messages()[1], HasSubstr("tired"));
  EXPECT_EQ(requests(), 1U);
}

TEST_F(EventSubmission, EveryStatusFrom400OnIsWrittenBack) {
  std::string expected;
  for (const std::int64_t status : {400, 402, 403, 404, 429, 500, 503, 599}) {
    inspect.sendEvents({record(static_cast<int>(status))});
    process.answer(status, "{}", {{"www-authenticate", challenge(kServer)}});
    process.runAll();
    expected += line(static_cast<int>(status));
    EXPECT_EQ(process.queueFile(), expected) << status;
  }
  EXPECT_EQ(requests(), 8U);
  EXPECT_EQ(skew(), 0) << "only a 401 corrects the clock";
}

TEST_F(EventSubmission, A401WithoutAChallengeIsWrittenBack) {
  inspect.sendEvents({record(1)});
  process.answer(401, "");
  process.runAll();
  EXPECT_EQ(process.queueFile(), line(1));
  EXPECT_THAT(messages(), ElementsAre(StartsWith("Couldn't submit events, got 401: ")));
  EXPECT_EQ(requests(), 1U);
}

TEST_F(EventSubmission, AWrittenBackBatchGoesOutWithALaterSend) {
  inspect.sendEvents({record(1)});
  process.failRequest(-1001);
  process.runAll();
  addToMemory({2});
  send();
  EXPECT_THAT(posted(1), ElementsAre(1, 2));
}

// The challenge.

TEST_F(EventSubmission, AChallengeCorrectsTheClockAndTheSameBatchIsPostedOnceMore) {
  inspect.sendEvents({record(1), record(2)});
  process.clearMessages();
  process.answer(401, "", {{"www-authenticate", challenge(kServer)}});
  process.runAll();
  EXPECT_EQ(requests(), 2U);
  EXPECT_THAT(posted(1), ElementsAre(1, 2));
  EXPECT_EQ(skew(), 100);
  EXPECT_THAT(process.messages(), ElementsAre(kResubmitting, "Adjusting local time by 100"));
  const auto header = process.urlSession().requests()[1].valueForHTTPHeaderField("Authorization");
  EXPECT_THAT(*header, HasSubstr("ts=\"" + std::to_string(kServer) + "\""));
  process.answer(200, "{}");
  process.runAll();
  EXPECT_EQ(process.queueFile(), std::nullopt);
  EXPECT_THAT(messages(), ElementsAre(kResubmitting, kSent));
}

TEST_F(EventSubmission, TheHeadersNameIsMatchedWithoutRegardToCase) {
  inspect.sendEvents({record(1)});
  process.answer(401, "", {{"WWW-Authenticate", challenge(kServer)}});
  process.runAll();
  EXPECT_EQ(requests(), 2U);
}

TEST_F(EventSubmission, ASecondChallengeIsStoredToldAndGivenUp) {
  inspect.sendEvents({record(1)});
  process.answer(401, "", {{"www-authenticate", challenge(kServer)}});
  process.runAll();
  process.answer(401, "", {{"www-authenticate", challenge(kServer + 50)}});
  process.runAll();
  EXPECT_EQ(requests(), 2U);
  EXPECT_EQ(skew(), 150);
  EXPECT_THAT(messages(), ElementsAre(kResubmitting, kResubmitting, kGivingUp));
  EXPECT_EQ(process.queueFile(), std::nullopt) << "the batch is dropped";
}

TEST_F(EventSubmission, AChallengeThatCannotBeUsedDropsTheBatchWithoutAWord) {
  for (const std::string& header : {std::string("Hawk"), challenge(kServer, "AAAA"), std::string("Basic realm=\"x\"")}) {
    process.clearMessages();
    inspect.sendEvents({record(1)});
    process.answer(401, "", {{"www-authenticate", header}});
    process.runAll();
    EXPECT_THAT(process.messages(), IsEmpty()) << header;
    EXPECT_EQ(process.queueFile(), std::nullopt) << header;
  }
  EXPECT_EQ(requests(), 3U);
}

TEST_F(EventSubmission, ASecondAttemptThatFailsOtherwiseIsWrittenBack) {
  inspect.sendEvents({record(1)});
  process.answer(401, "", {{"www-authenticate", challenge(kServer)}});
  process.runAll();
  process.answer(503, "");
  process.runAll();
  EXPECT_EQ(process.queueFile(), line(1));
}

TEST_F(EventSubmission, AThirdAttemptIsRefusedAtOnce) {
  inspect.sendEventsAttempt({record(1)}, 3);
  EXPECT_EQ(requests(), 0U);
  EXPECT_THAT(process.messages(), ElementsAre(kGivingUp));
  EXPECT_EQ(process.queueFile(), std::nullopt);
}

TEST_F(EventSubmission, ASecondAttemptIsPosted) {
  inspect.sendEventsAttempt({record(1)}, 2);
  EXPECT_EQ(requests(), 1U);
}

// Batches that cannot be built.

TEST_F(EventSubmission, ABatchWithARecordThatCannotBeWrittenIsDroppedWhole) {
  addToMemory({1});
  inspect.diskCacheQueue().addObject(Value(Dictionary{{"d", platform::Date()}}));
  send();
  EXPECT_EQ(requests(), 0U);
  EXPECT_THAT(messages(), ElementsAre("Serializing universal link patch event failed: Invalid type in JSON write (NSDate)",
                                      "Couldn't build request for /events, aborting"));
  EXPECT_EQ(process.queueFile(), std::nullopt);
  EXPECT_TRUE(inspect.diskCacheQueue().empty());
}

TEST_F(EventSubmission, WhatWasLoadedFromDiskIsDroppedWithIt) {
  process.setQueueFile(line(1));
  inspect.diskCacheQueue().addObject(Value(Dictionary{{"x", std::numeric_limits<double>::quiet_NaN()}}));
  send();
  EXPECT_EQ(requests(), 0U);
  EXPECT_EQ(process.queueFile(), "");
  EXPECT_THAT(messages(), ElementsAre("Serializing universal link patch event failed: Invalid number value (NaN) in JSON write",
                                      "Couldn't build request for /events, aborting"));
}

TEST_F(EventSubmission, ALostSecretMakesAnUnsignedRequestThatTheServerRefuses) {
  KSVDataInspector other(process.makeClient(std::nullopt));
  other.sendEvents({record(1)});
  EXPECT_EQ(process.urlSession().requests().at(0).valueForHTTPHeaderField("Authorization"), std::nullopt);
}

TEST_F(EventSubmission, WithDebugOffEverythingHappensSilently) {
  process.process().debug = false;
  inspect.sendEvents({record(1)});
  process.answer(500, "");
  process.runAll();
  EXPECT_EQ(process.queueFile(), line(1));
  EXPECT_THAT(process.messages(), IsEmpty());
}

}  // namespace
}  // namespace test
