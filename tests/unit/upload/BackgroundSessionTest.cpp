// What becomes of an upload: its end, the relaunch, the stored handler, the indicator, the sweep.
#include "UploadTest.h"

namespace test {
namespace {

using platform::URLSessionConfiguration;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr double kDay = 86400;  // seconds

class BackgroundSession : public UploadTest {
 protected:
  std::string started() { return "Starting GIF upload: " + onlySession(); }
  KSVData::CompletionHandler counting(int& calls) {
    return [&calls] { ++calls; };
  }
  /// A session with this client as its delegate, for the operations that the service never calls.
  platform::BackgroundURLSessionRef session(const std::string& identifier) {
    return platform::BackgroundURLSession::sessionWithConfigurationDelegateDelegateQueue(
        URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier), client, nullptr);
  }
};

// The end of a task.

TEST_F(BackgroundSession, ASuccessRemovesTheUploadFileByPathAndSaysSo) {
  upload();
  const std::string first = started();
  process.runAll();
  process.plan().clearCalls();
  const std::string name = onlySession();
  succeed();
  EXPECT_THAT(process.messages(), ElementsAre(first, "Task 1 completed"));
  EXPECT_THAT(process.plan().callTexts({"FileManager.remove"}), ElementsAre("FileManager.removeItemAtPath " + name));
  EXPECT_THAT(uploadFiles(), IsEmpty());
  EXPECT_EQ(process.fileBytes(kGif), kGifBytes) << "the host's file is not touched";
}

TEST_F(BackgroundSession, ASuccessLeavesSessionIndicatorAndHandlerAlone) {
  upload();
  int calls = 0;
  client->setBackgroundCompletionHandler(counting(calls));
  const std::string identifier = onlySession();
  succeed();
  EXPECT_THAT(indicator(), ElementsAre(true));
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(client->backgroundCompletionHandler());
  EXPECT_EQ(process.plan().count("BackgroundURLSession.invalidateAndCancel"), 0);
  EXPECT_NO_THROW((void)session(identifier)->uploadTaskWithRequestFromFile(platform::URLRequest(std::nullopt), gif()))
      << "the session stays valid";
}

TEST_F(BackgroundSession, AnyAnswerOfTheServerIsASuccess) {
  upload();
  succeed(500);
  EXPECT_EQ(process.messages().back(), "Task 1 completed");
  EXPECT_THAT(uploadFiles(), IsEmpty());
}

TEST_F(BackgroundSession, AnUploadFileThatCannotBeRemovedIsLeftWithAMessage) {
  upload();
  const std::string first = started();
  process.plan().fail("FileManager.removeItemAtPath", nth(1), someError("It is in use."));
  succeed();
  EXPECT_THAT(process.messages(), ElementsAre(first, "Task 1 completed", "Failed to delete upload file: It is in use."));
  EXPECT_THAT(uploadFiles(), SizeIs(1));
}

TEST_F(BackgroundSession, WithoutUploadDirectoryThereIsNothingToRemove) {
  upload();
  process.runAll();
  process.plan().fail("FileManager.createDirectory", everyCall(), someError());
  succeed();
  const auto messages = process.messages();
  ASSERT_THAT(messages, SizeIs(3));
  EXPECT_THAT(messages[2], testing::StartsWith("Failed to delete upload file: "));
}

TEST_F(BackgroundSession, AFailureIsSaidTwiceEndsTheSessionAndLeavesTheFile) {
  upload();
  const std::string first = started();
  fail(platform::kURLErrorTimedOut);
  const std::string failure = "Kestrova: Background task 1 failed: The request timed out.";
  EXPECT_THAT(process.messages(), ElementsAre(first, "system log: " + failure, failure));
  EXPECT_THAT(uploadFiles(), SizeIs(1));
  EXPECT_EQ(process.plan().count("BackgroundURLSession.invalidateAndCancel"), 1);
  EXPECT_THAT(indicator(), ElementsAre(true, false, false)) << "shown; hidden by the failure, and by the end of the session";
  EXPECT_THAT(service().stored().sessions, IsEmpty());
}

TEST_F(BackgroundSession, AFailureGoesThroughItsStepsInOrder) {
  upload();
  process.runAll();
  process.plan().clearCalls();
  fail(platform::kURLErrorTimedOut);
  const auto names = process.plan().callNames(
      {"SystemLog", "DispatchQueue.async", "BackgroundURLSession.invalidate", "Application.set", "URLSessionDelegate"});
  EXPECT_THAT(names, ElementsAre("URLSessionDelegate.taskDidComplete", "SystemLog.log", "DispatchQueue.async",
                                 "BackgroundURLSession.invalidateAndCancel", "DispatchQueue.async",
                                 "Application.setNetworkActivityIndicatorVisible", "URLSessionDelegate.didBecomeInvalid",
                                 "DispatchQueue.async", "Application.setNetworkActivityIndicatorVisible"));
}

TEST_F(BackgroundSession, AFailureCallsTheStoredHandlerOnceOnTheMainQueueAndClearsIt) {
  upload();
  process.runAll();
  int calls = 0;
  client->setBackgroundCompletionHandler(counting(calls));
  service().failUpload(platform::urlError(platform::kURLErrorTimedOut));
  while (process.runOne(MemoryTransferService::kQueueLabel)) {
  }
  ASSERT_TRUE(process.runOne("NSURLSession " + onlySession()));
  EXPECT_EQ(calls, 0) << "the main queue has not run";
  EXPECT_TRUE(client->backgroundCompletionHandler());
  process.queues().runAll(process.queues().mainQueue());
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(client->backgroundCompletionHandler());
  process.runAll();
  EXPECT_EQ(calls, 1);
}

TEST_F(BackgroundSession, TheHandlerIsClearedOnlyAfterItsCall) {
  bool wasStored = false;
  client->setBackgroundCompletionHandler([&] { wasStored = client->backgroundCompletionHandler() != nullptr; });
  upload();
  fail(platform::kURLErrorTimedOut);
  EXPECT_TRUE(wasStored);
  EXPECT_FALSE(client->backgroundCompletionHandler());
}

TEST_F(BackgroundSession, WithoutAStoredHandlerTheEndOfASessionCallsNothing) {
  upload();
  fail(platform::kURLErrorTimedOut);
  EXPECT_THAT(process.uncaughtReasons(), IsEmpty());
}

TEST(BackgroundSessionWithDebugOff, AFailureGoesToTheSystemLogAlone) {
  TestProcess process({.debug = false});
  process.memoryFiles().setBytesAtPath(kGif, kGifBytes);
  const auto client = process.makeClient();
  client->uploadGIFForShare(platform::URL::fileURLWithPath(kGif), shareWithId("share-1"));
  process.runAll();
  process.transfers().failUpload(platform::urlError(platform::kURLErrorTimedOut));
  process.runAll();
  EXPECT_THAT(process.systemLog(), ElementsAre("Kestrova: Background task 1 failed: The request timed out."));
  EXPECT_THAT(process.trace(), IsEmpty());
}

// The other events.

TEST_F(BackgroundSession, AnInvalidSessionHidesTheIndicatorAndNamesItsError) {
  client->URLSessionDidBecomeInvalidWithError(session("session-1"), someError("The service is gone."));
  process.runAll();
  EXPECT_THAT(process.messages(), ElementsAre("Error occured for gif upload task: The service is gone."));
  EXPECT_THAT(indicator(), ElementsAre(false));
}

TEST_F(BackgroundSession, AnInvalidSessionWithoutErrorSaysNothing) {
  client->URLSessionDidBecomeInvalidWithError(session("session-1"), std::nullopt);
  process.runAll();
  EXPECT_THAT(process.messages(), IsEmpty());
  EXPECT_THAT(indicator(), ElementsAre(false));
}

TEST_F(BackgroundSession, FinishedEventsAreOnlyNoted) {
  client->URLSessionDidFinishEventsForBackgroundURLSession(session("session-1"));
  process.runAll();
  EXPECT_THAT(process.messages(), ElementsAre("Background session completed"));
  EXPECT_THAT(indicator(), IsEmpty());
}

TEST_F(BackgroundSession, ADownloadHidesTheIndicatorAndIsNoted) {
  client->URLSessionDownloadTaskDidFinishDownloadingToURL(session("session-1"), nullptr, gif());
  process.runAll();
  EXPECT_THAT(process.messages(), ElementsAre("Download task completed"));
  EXPECT_THAT(indicator(), ElementsAre(false));
}

TEST_F(BackgroundSession, TheIndicatorIsASwitchAndOnlyTheMainQueueTurnsIt) {
  KSVDataInspector inspect(client);
  inspect.startNetworkActivitySpinner();
  inspect.startNetworkActivitySpinner();
  inspect.removeNetworkActivitySpinner();
  EXPECT_THAT(indicator(), IsEmpty());
  EXPECT_EQ(process.queues().pending(process.queues().mainQueue()), 3);
  process.queues().runAll(process.queues().mainQueue());
  EXPECT_THAT(indicator(), ElementsAre(true, true, false));
  EXPECT_FALSE(process.application().isNetworkActivityIndicatorVisible()) << "the first hide wins";
}

// Tries, which are the service's.

TEST_F(BackgroundSession, B3_ALostConnectionFailsNoTaskAndIsTriedAgainAfterGrowingWaits) {
  upload();
  const std::string first = started();
  process.runAll();
  double most = 2;  // seconds
  for (std::size_t tries = 1; tries <= 5; ++tries, most *= 2) {
    for (const auto code : {platform::kURLErrorNetworkConnectionLost, platform::kURLErrorTimedOut})
      if ((code == platform::kURLErrorTimedOut) == (tries % 2 == 0)) service().failUpload(platform::urlError(code), true);
    process.setTime(TestProcess::kStartTime + most / 2 - 0.1);
    service().tick();
    EXPECT_EQ(service().uploadsBegun(), tries) << "no sooner than after half of the wait";
    process.setTime(TestProcess::kStartTime + most);
    service().tick();
    EXPECT_EQ(service().uploadsBegun(), tries + 1);
    process.setTime(TestProcess::kStartTime);
  }
  process.runAll();
  EXPECT_THAT(process.messages(), ElementsAre(first)) << "nobody hears of it";
  EXPECT_THAT(uploadFiles(), SizeIs(1));
  succeed(404);
  EXPECT_THAT(process.messages(), ElementsAre(first, "Task 1 completed")) << "a status of 400 or more completes it";
  EXPECT_EQ(service().uploadsBegun(), 6U);
}

TEST_F(BackgroundSession, B3_AfterSevenDaysATaskEndsAsTimedOut) {
  upload();
  const std::string first = started();
  process.runAll();
  service().failUpload(platform::urlError(platform::kURLErrorNetworkConnectionLost), true);
  process.setTime(TestProcess::kStartTime + 7 * kDay - 1);
  service().tick();
  process.runAll();
  EXPECT_THAT(process.messages(), ElementsAre(first));
  EXPECT_EQ(service().uploadsBegun(), 2U) << "its last try";
  process.setTime(TestProcess::kStartTime + 7 * kDay);
  service().tick();
  process.runAll();
  const std::string failure = "Kestrova: Background task 1 failed: The request timed out.";
  EXPECT_THAT(process.messages(), ElementsAre(first, "system log: " + failure, failure));
}

TEST_F(BackgroundSession, B3_WhatWaitingCannotMendFailsAtOnce) {
  for (const auto code : {platform::kURLErrorServerCertificateUntrusted, platform::kURLErrorUnsupportedURL}) {
    upload();
    fail(code);
    const std::string text = platform::urlError(code).localizedDescription();
    EXPECT_THAT(process.messages().back(), testing::MatchesRegex("Kestrova: Background task [12] failed: " + text));
  }
  EXPECT_EQ(service().uploadsBegun(), 2U);
}

// Events that come again, and tasks that are cancelled.

TEST_F(BackgroundSession, B4_AnEventWhoseRecordIsLostWithTheServiceComesAgainAndIsSeenOnce) {
  upload();
  const std::string first = started();
  process.runAll();
  service().answerUpload(200);
  while (process.runOne(MemoryTransferService::kQueueLabel)) {
  }
  ASSERT_TRUE(process.runOne("NSURLSession " + onlySession()));
  service().crash();  // the record is on its way
  ASSERT_THAT(service().stored().events, SizeIs(1));
  process.runAll();
  EXPECT_TRUE(service().isRunning());
  EXPECT_THAT(service().stored().events, IsEmpty()) << "said again, and recorded";
  EXPECT_THAT(process.messages(), testing::Contains("Task 1 completed").Times(1));
  EXPECT_EQ(process.plan().count("URLSessionDelegate.taskDidComplete"), 1U);
  EXPECT_EQ(process.messages().front(), first);
}

TEST_F(BackgroundSession, ACancelledTaskFailsAndItsSessionEnds) {
  upload();
  const std::string first = started();
  process.runAll();
  session(onlySession())->getTasksWithCompletionHandler([](const auto&, const auto& uploads, const auto&) {
    for (const auto& task : uploads) task->cancel();
  });
  process.runAll();
  const std::string failure = "Kestrova: Background task 1 failed: cancelled";
  EXPECT_THAT(process.messages(), ElementsAre(first, "system log: " + failure, failure));
  EXPECT_THAT(service().uploads(), IsEmpty()) << "the try is given up";
  EXPECT_THAT(service().stored().sessions, IsEmpty());
  EXPECT_THAT(uploadFiles(), SizeIs(1)) << "the sweep takes it";
}

// The relaunch.

TEST_F(BackgroundSession, ARelaunchIsNotedAndKeepsTheHandler) {
  int calls = 0;
  client->handleEventsForBackgroundURLSessionCompletionHandler("any text", counting(calls));
  EXPECT_THAT(process.messages(), ElementsAre("Launching in background: any text"));
  process.runAll();
  EXPECT_EQ(calls, 0);
  ASSERT_TRUE(client->backgroundCompletionHandler());
  client->backgroundCompletionHandler()();
  EXPECT_EQ(calls, 1);
}

TEST_F(BackgroundSession, OfTwoRelaunchesTheSecondHandlerStaysAndTheFirstIsDroppedUncalled) {
  auto first = std::make_shared<int>(0);
  int second = 0;
  client->handleEventsForBackgroundURLSessionCompletionHandler("session-1", [first] { ++*first; });
  client->handleEventsForBackgroundURLSessionCompletionHandler("session-2", counting(second));
  EXPECT_EQ(first.use_count(), 1);
  process.runAll();
  upload();
  fail(platform::kURLErrorTimedOut);
  EXPECT_EQ(*first, 0);
  EXPECT_EQ(second, 1);
}

TEST_F(BackgroundSession, AnAbsentHandlerReplacesAStoredOne) {
  int calls = 0;
  client->handleEventsForBackgroundURLSessionCompletionHandler("session-1", counting(calls));
  client->handleEventsForBackgroundURLSessionCompletionHandler("session-1", nullptr);
  EXPECT_FALSE(client->backgroundCompletionHandler());
  process.runAll();
}

TEST_F(BackgroundSession, ARelaunchResumesOnlyTheTaskThatHasNotCompleted) {
  const auto made = session("session-1");
  const auto done = made->uploadTaskWithRequestFromFile(platform::URLRequest(*platform::URL::URLWithString("https://a/")), gif());
  done->resume();
  succeed();
  const auto suspended =
      made->uploadTaskWithRequestFromFile(platform::URLRequest(*platform::URL::URLWithString("https://b/")), gif());
  process.plan().clearCalls();
  client->handleEventsForBackgroundURLSessionCompletionHandler("session-1", nullptr);
  process.runAll();
  EXPECT_EQ(process.plan().count("URLSessionTask.state"), 2);
  EXPECT_EQ(process.plan().count("URLSessionTask.resume"), 1);
  EXPECT_EQ(suspended->state(), platform::URLSessionTask::State::kRunning);
  ASSERT_THAT(service().uploads(), SizeIs(1));
  EXPECT_EQ(service().uploads().front().url, "https://b/");
}

TEST_F(BackgroundSession, OneWithoutTasksResumesNothing) {
  KSVDataInspector(client).resumeTaskInSession(session("session-1"));
  process.runAll();
  EXPECT_EQ(process.plan().count("URLSessionTask.resume"), 0);
}

// Another life of the application: the upload ends while it is gone, and it is launched for the outcome.
class NextLife : public testing::Test {
 protected:
  NextLife() {
    device->files->setBytesAtPath(kGif, kGifBytes);
    TestProcess first({.device = device});
    const auto uploader = first.makeClient();
    uploader->uploadGIFForShare(platform::URL::fileURLWithPath(kGif), shareWithId("share-1"));
    first.runAll();
    identifier = first.namesIn(first.supportPath("uploads")).at(0);
  }

  /// The service answers for the server, and has run for long enough to know that the application does not.
  void answerUpload() {
    device->transfers->answerUpload(200);
    device->clock->advance(1);
    device->transfers->tick();
  }
  /// The relaunch; `next` ends before the device.
  void relaunch(KSVData::CompletionHandler handler) {
    next.emplace(TestProcessOptions{.device = device, .launchedFor = identifier});
    client = next->makeClient();
    client->handleEventsForBackgroundURLSessionCompletionHandler(
        next->process().backgroundSessions->identifierOfLaunch().value_or("(none)"), std::move(handler));
    next->runAll();
  }

  std::shared_ptr<TestDevice> device = std::make_shared<TestDevice>();
  std::string identifier;
  std::optional<TestProcess> next;
  std::shared_ptr<KSVData> client;
};

TEST_F(NextLife, IsLaunchedForASuccessAndRemovesTheUploadFile) {
  answerUpload();
  ASSERT_THAT(device->transfers->launches(), SizeIs(1));
  EXPECT_EQ(device->transfers->launches().front().session, identifier);
  int calls = 0;
  relaunch([&] { ++calls; });
  EXPECT_THAT(next->messages(),
              ElementsAre("Launching in background: " + identifier, "Task 1 completed", "Background session completed"));
  EXPECT_THAT(next->namesIn(next->supportPath("uploads")), IsEmpty());
  EXPECT_EQ(calls, 0) << "a success does not call the handler";
  EXPECT_TRUE(client->backgroundCompletionHandler());
}

TEST_F(NextLife, IsLaunchedForAFailureAndCallsTheHandler) {
  device->transfers->failUpload(platform::urlError(platform::kURLErrorTimedOut));
  int calls = 0;
  relaunch([&] { ++calls; });
  const std::string failure = "Kestrova: Background task 1 failed: The request timed out.";
  EXPECT_THAT(next->messages(), testing::Contains(failure));
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(next->namesIn(next->supportPath("uploads")), SizeIs(1));
}

// An exception ends the application, and with it the life in which the event was begun to be handed over.
TEST_F(NextLife, B4_AnEventWhoseOperationRaisesIsHandedOverAgain) {
  answerUpload();
  next.emplace(TestProcessOptions{.device = device, .launchedFor = identifier});
  client = next->makeClient();
  next->runAll();
  next->plan().raise("FileManager.removeItemAtPath", nth(1), platform::Exception("Broken", "on purpose"));
  client->handleEventsForBackgroundURLSessionCompletionHandler(identifier, nullptr);
  next->runAll();
  EXPECT_THAT(next->uncaughtReasons(), ElementsAre("*** Terminating app due to uncaught exception 'Broken', reason: 'on purpose'"));
  EXPECT_THAT(device->transfers->stored().events, SizeIs(1)) << "its return was never recorded";
  client.reset();
  next.reset();

  device->transfers->launchEnded(identifier);
  device->clock->advance(5);
  device->transfers->tick();
  ASSERT_THAT(device->transfers->launches(), SizeIs(2)) << "it is launched for it once more";
  relaunch(nullptr);
  EXPECT_THAT(next->messages(),
              ElementsAre("Launching in background: " + identifier, "Task 1 completed", "Background session completed"));
  EXPECT_THAT(device->transfers->stored().events, IsEmpty());
  EXPECT_THAT(next->namesIn(next->supportPath("uploads")), IsEmpty());
}

TEST_F(NextLife, HasInterruptedTransfersGoOnWithoutItsSessions) {
  device->transfers->crash();
  next.emplace(TestProcessOptions{.device = device});
  next->process().backgroundSessions->goOnWithInterruptedTransfers();
  EXPECT_FALSE(device->transfers->isRunning()) << "the disk is looked at in the background";
  next->runAll();
  EXPECT_TRUE(device->transfers->isRunning());
  EXPECT_EQ(device->transfers->uploadsBegun(), 2U) << "begun anew";
  EXPECT_EQ(device->transfers->connections(), 0U) << "this life needs nothing of the service yet";
  answerUpload();
  ASSERT_THAT(device->transfers->launches(), SizeIs(1));
}

TEST_F(NextLife, StartsNoServiceWhenNothingWasInterrupted) {
  const auto before = device->transfers->received();
  next.emplace(TestProcessOptions{.device = device});
  next->process().backgroundSessions->goOnWithInterruptedTransfers();
  next->runAll();
  EXPECT_EQ(device->transfers->received(), before) << "nobody has spoken to the service";
  EXPECT_EQ(device->transfers->connections(), 0U);
  EXPECT_EQ(device->transfers->uploadsBegun(), 1U);
}

TEST_F(NextLife, TiesAnUploadThatStillRuns) {
  relaunch(nullptr);
  EXPECT_THAT(next->messages(), testing::Contains("Launching in background: " + identifier));
  EXPECT_EQ(device->transfers->uploadsBegun(), 1) << "it was never begun anew";
  device->transfers->answerUpload(200);
  next->runAll();
  EXPECT_THAT(next->messages(), testing::Contains("Task 1 completed"));
}

TEST_F(NextLife, SweepsTheFileOfAFailureAfterEightDays) {
  device->transfers->failUpload(platform::urlError(platform::kURLErrorTimedOut));
  relaunch(nullptr);
  ASSERT_THAT(next->namesIn(next->supportPath("uploads")), ElementsAre(identifier));
  client.reset();
  next.reset();

  device->clock->advance(8 * kDay);
  next.emplace(TestProcessOptions{.device = device});
  client = next->makeClient();
  next->runAll();
  EXPECT_THAT(next->namesIn(next->supportPath("uploads")), ElementsAre(identifier)) << "not older than 8 days";
  client.reset();
  next.reset();

  device->clock->advance(1);
  next.emplace(TestProcessOptions{.device = device});
  client = next->makeClient();
  next->runAll();
  EXPECT_THAT(next->namesIn(next->supportPath("uploads")), IsEmpty());
}

}  // namespace
}  // namespace test
