// The test's own process: what it puts in force, what it shows, and that it tells of faults that proved nothing.
#include "support/TestProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

#include "companions/KSVConstants.h"
#include "companions/KSVDebugger.h"
#include "platform/SystemLog.h"

namespace test {
namespace {

using platform::Date;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(TestProcess, PutsItsRecordInForceForItsScope) {
  platform::Process* const before = platform::Process::currentOrNull();
  {
    TestProcess process;
    EXPECT_EQ(platform::Process::currentOrNull(), &process.process());
    EXPECT_EQ(kSessionStartedKey(), TestProcess::kSessionStarted);
    EXPECT_EQ(kDidCookieMatchKey(), TestProcess::kDidCookieMatch);
    EXPECT_EQ(kHawkLocalTimeSkew(), TestProcess::kSkewKey);
    EXPECT_EQ(kAPIVersionString(), TestProcess::kApiVersion);
    EXPECT_EQ(kAPIHost(), TestProcess::kApiHost);
    EXPECT_EQ(Date::date().description(), "2026-11-20 20:19:39 +0000");
  }
  EXPECT_EQ(platform::Process::currentOrNull(), before);
}

TEST(TestProcess, EveryServiceIsThereAndBehindThePlan) {
  TestProcess process;
  platform::Process& record = process.process();
  (void)record.fileManager->fileExistsAtPath("/");
  (void)record.json->read(platform::Data("[]"));
  (void)platform::Data("ab").subdataWithRange(0, 1);
  (void)record.userDefaults->objectForKey("key");
  (void)record.queues->mainQueue();
  (void)record.urlSession->dataTaskWithRequestCompletionHandler(platform::URLRequest(std::nullopt), nullptr);
  record.clock->now();
  std::byte bytes[1];
  record.secureRandom->fill(bytes);
  (void)record.digest->hash(platform::Digest::Algorithm::kSHA256, {"a"});
  (void)record.bundle->bundleIdentifier();
  (void)record.application->isNetworkActivityIndicatorVisible();
  record.systemLog->log("message");
  EXPECT_THAT(process.plan().callNames(),
              ElementsAre("FileManager.fileExists", "JSON.read", "Data.subdata", "UserDefaults.object", "DispatchQueues.mainQueue",
                          "URLSession.dataTask", "Clock.now", "SecureRandom.fill", "Digest.hash", "Bundle.bundleIdentifier",
                          "Application.isNetworkActivityIndicatorVisible", "SystemLog.log"));
}

TEST(TestProcess, WithoutFaultsTheServicesStandBare) {
  TestProcess process({.faults = false});
  (void)Date::date();
  EXPECT_THAT(process.callTexts(), IsEmpty());
}

TEST(TestProcess, ShowsTraceAndSystemLogInOneOrder) {
  TestProcess process;
  debugTrace("first %ld", 1);
  platform::SystemLog::systemLog().log("second");
  debugTrace("third");
  EXPECT_THAT(process.messages(), ElementsAre("first 1", "system log: second", "third"));
  EXPECT_THAT(process.trace(), ElementsAre("first 1", "third"));
  EXPECT_THAT(process.systemLog(), ElementsAre("second"));
  process.clearMessages();
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST(TestProcess, WithoutTheDebugFlagTheTraceIsEmpty) {
  TestProcess process({.debug = false});
  debugTrace("a line");
  EXPECT_THAT(process.messages(), IsEmpty());
  EXPECT_THAT(process.trace(), IsEmpty());
}

class TestProcessFiles : public testing::TestWithParam<TestProcessOptions::Files> {
 protected:
  TestProcess process{{.files = GetParam()}};
};

TEST_P(TestProcessFiles, GivesAndTakesTheQueueFile) {
  EXPECT_EQ(process.queueFile(), std::nullopt);
  process.setQueueFile("first\n");
  EXPECT_EQ(process.queueFile(), "first\n");
  process.setQueueFile("");
  EXPECT_EQ(process.queueFile(), "");
  const auto content =
      platform::Data::dataWithContentsOfURL(platform::URL::fileURLWithPath(process.supportPath("event-queue.json")));
  ASSERT_TRUE(content) << "the services see the same file";
  EXPECT_TRUE(content->empty());
}

TEST_P(TestProcessFiles, ListsTemporaryFiles) {
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
  process.setFileBytes(process.temporaryFolder() + "/b", "");
  process.setFileBytes(process.temporaryFolder() + "/a", "bytes");
  EXPECT_THAT(process.temporaryFiles(), ElementsAre("a", "b"));
  EXPECT_EQ(process.fileBytes(process.temporaryFolder() + "/a"), "bytes");
  EXPECT_THAT(process.callTexts(), IsEmpty()) << "the test's own looks are not logged";
}

TEST_P(TestProcessFiles, CanBeSpoilt) {
  process.plan().fail("FileManager.applicationSupportDirectory", nth(1), someError("as planned"));
  const auto directory = platform::FileManager::defaultManager().applicationSupportDirectory();
  ASSERT_FALSE(directory);
  EXPECT_EQ(directory.error().localizedDescription(), "as planned");
}

INSTANTIATE_TEST_SUITE_P(Variants, TestProcessFiles,
                         testing::Values(TestProcessOptions::Files::kInMemory, TestProcessOptions::Files::kOnDisk),
                         [](const auto& variant) {
                           return variant.param == TestProcessOptions::Files::kInMemory ? "InMemory" : "OnDisk";
                         });

TEST(TestProcess, TheFilesOnDiskAreGoneAfterTheTest) {
  std::string path;
  {
    TestProcess process({.files = TestProcessOptions::Files::kOnDisk});
    process.setQueueFile("bytes");
    path = process.supportPath("event-queue.json");
    EXPECT_TRUE(std::filesystem::exists(path));
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(TestProcess, NothingMovesUntilItIsStepped) {
  TestProcess process;
  int ran = 0;
  const auto queue = platform::DispatchQueue::serialQueueWithLabel("queue");
  queue->async([&] { ++ran; });
  queue->async([&] { ++ran; });
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(process.blocksWaiting("queue"), 2u);
  EXPECT_TRUE(process.runOne("queue"));
  EXPECT_EQ(ran, 1);
  process.runAll();
  EXPECT_EQ(ran, 2);
  EXPECT_FALSE(process.runOne("queue"));
  process.advanceTime(1.5);
  EXPECT_EQ(Date::date(), Date::dateWithTimeIntervalSince1970(TestProcess::kStartTime + 1.5));
}

TEST(TestProcess, ARequestWaitsForItsAnswer) {
  TestProcess process;
  std::int64_t status = 0;
  platform::URLRequest request(platform::URL::URLWithString("https://api.example.com/events"));
  request.setHTTPMethod("POST");
  request.setHTTPBody(platform::Data("body"));
  platform::URLSession::sharedSession()
      .dataTaskWithRequestCompletionHandler(request, [&](auto, auto response, auto) { status = platform::statusCode(response); })
      ->resume();
  EXPECT_THAT(process.posts(), ElementsAre(platform::Data("body")));
  process.answer(404, "");
  EXPECT_EQ(status, 0);
  process.runAll();
  EXPECT_EQ(status, 404);
  EXPECT_EQ(process.plan().count("URLSession.completion"), 1u);
}

TEST(TestProcess, RealQueuesRunByThemselvesAndCannotBeStepped) {
  TestProcess process({.queues = TestProcessOptions::Queues::kThreads});
  bool ran = false;
  const auto queue = platform::DispatchQueue::serialQueueWithLabel("queue");
  queue->async([&] { ran = true; });
  TestProcess::waitUntilDrained(*queue);
  EXPECT_TRUE(ran);
  EXPECT_THROW(process.runAll(), std::logic_error);
}

TEST(TestProcess, AFaultThatNoCallReachedFailsTheTest) {
  EXPECT_NONFATAL_FAILURE(
      {
        TestProcess process;
        process.plan().fail("FileManager.copyItem", nth(1), someError());
      },
      "no call reached what was planned for FileManager.copyItem call 1, seen 0");
}

TEST(TestProcess, RecordsWhatWouldHaveEndedTheProcess) {
  TestProcess process;
  platform::DispatchQueue::mainQueue()->async([] { throw someException("of a block"); });
  process.runAll();
  EXPECT_THAT(process.uncaughtReasons(),
              ElementsAre("*** Terminating app due to uncaught exception 'NSFileHandleOperationException', reason: 'of a block'"));
}

}  // namespace
}  // namespace test
