// Start-up of the client: defaults, identity, the order of its steps, and what it leaves alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "companions/KSVIdentityStorage.h"
#include "platform/UUID.h"
#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace {

thread_local bool noMemoryForTheClient = false;

}  // namespace

// The linker sends every `new (std::nothrow)` of this program here; the client is the one object of its start-up that is asked for
// in this form. Replacing the operator itself would clash with the sanitizers' own. NOLINTBEGIN(bugprone-reserved-identifier): the
// linker's names
extern "C" void* __real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);
extern "C" void* __wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
  return noMemoryForTheClient ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace test {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

TEST(StartUp, AFreshClientHasItsDefaults) {
  TestProcess process;
  KSVDataInspector inspect(process.makeClient());
  EXPECT_EQ(inspect.newEventsInMemory(), 10);
  EXPECT_EQ(inspect.maxQueueSizeOnDiskInBytes(), 1048576);
  EXPECT_EQ(inspect.retryTimeout(), 5);
  EXPECT_TRUE(inspect.diskCacheQueue().empty());
  EXPECT_FALSE(inspect.hasRetryTimer());
  EXPECT_FALSE(inspect.hasSendQueue());
  EXPECT_EQ(inspect.client->delegate(), nullptr);
  EXPECT_FALSE(inspect.client->backgroundCompletionHandler());
}

TEST(StartUp, TheSessionIdentifierHasThirtyLettersAndDigits) {
  TestProcess process;
  KSVDataInspector inspect(process.makeClient());
  ASSERT_TRUE(inspect.sessionId());
  EXPECT_EQ(inspect.sessionId()->length(), 30u);
  EXPECT_THAT(inspect.sessionId()->description(), MatchesRegex("[A-Za-z0-9]*"));
}

TEST(StartUp, TwoClientsOfAProcessHaveDifferentSessions) {
  TestProcess process;
  KSVDataInspector first(process.makeClient());
  KSVDataInspector second(process.makeClient());
  EXPECT_NE(first.sessionId(), second.sessionId());
}

TEST(StartUp, TheSecretIsKeptAsGiven) {
  TestProcess process;
  EXPECT_EQ(KSVDataInspector(process.makeClient("a secret")).appSecret(), "a secret");
  EXPECT_EQ(KSVDataInspector(process.makeClient("")).appSecret(), "");
}

TEST(StartUp, AMissingSecretIsKeptAsMissing) {
  TestProcess process;
  KSVDataInspector inspect(process.makeClient(std::nullopt));
  ASSERT_NE(inspect.client, nullptr);
  EXPECT_EQ(inspect.appSecret(), std::nullopt);
}

TEST(StartUp, TheApplicationIsNamedByTheMainBundle) {
  TestProcess process({.bundleIdentifier = "com.example.giraffe"});
  EXPECT_EQ(KSVDataInspector(process.makeClient()).appRDNS(), "com.example.giraffe");
}

TEST(StartUp, AnAbsentBundleIdentifierIsReplacedByTheTestName) {
  TestProcess process({.bundleIdentifier = std::nullopt});
  EXPECT_EQ(KSVDataInspector(process.makeClient()).appRDNS(), "com.kestrova.sdk.test");
}

TEST(StartUp, AnEmptyBundleIdentifierIsKept) {
  TestProcess process({.bundleIdentifier = ""});
  EXPECT_EQ(KSVDataInspector(process.makeClient()).appRDNS(), "");
}

TEST(StartUp, TheDeviceIsNamedByTheStoredIdentityAsUpperCaseText) {
  TestProcess process;
  KSVDataInspector inspect(process.makeClient());
  EXPECT_EQ(inspect.deviceId(), KSVIdentityStorage().identifier().UUIDString());
  EXPECT_THAT(*inspect.deviceId(), MatchesRegex("[0-9A-F]*-[0-9A-F]*-4[0-9A-F]*-[89AB][0-9A-F]*-[0-9A-F]*"));
  EXPECT_EQ(KSVDataInspector(process.makeClient()).deviceId(), inspect.deviceId());
}

TEST(StartUp, TheSerialQueueIsLabelled) {
  TestProcess process;
  KSVDataInspector inspect(process.makeClient());
  EXPECT_EQ(inspect.diskCacheAccessQueue()->label(), "com.kestrova.sdk.DiskCacheQueueAccess");
}

TEST(StartUp, EveryClientHasAQueueOfItsOwn) {
  TestProcess process;
  KSVDataInspector first(process.makeClient());
  KSVDataInspector second(process.makeClient());
  EXPECT_NE(first.diskCacheAccessQueue(), second.diskCacheAccessQueue());
}

TEST(StartUp, TakesItsStepsInOrder) {
  TestProcess process;
  KSVIdentityStorage().identifier();  // so that the identity is only read below
  process.plan().clearCalls();
  process.secureRandom().give(std::vector<std::uint8_t>(30, 1));  // bytes that each make one character
  EXPECT_EQ(KSVDataInspector(process.makeClient()).sessionId(), platform::String(std::string(30, 'B')));
  EXPECT_THAT(process.callTexts(),
              ElementsAre("DispatchQueues.makeSerialQueue com.kestrova.sdk.DiskCacheQueueAccess",  // the serial queue
                          "Bundle.bundleIdentifier",                                               // the application
                          "FileManager.applicationSupportDirectory",                               // the device
                          "FileManager.contentsOfURL device-identifier",                           //
                          "SecureRandom.fill 30",                                                  // the session
                          "DispatchQueues.globalBackgroundQueue",                                  // the sweep
                          "DispatchQueue.async " + process.backgroundQueue()));
}

TEST(StartUp, ReadsNoQueueFileSendsNothingAndSaysNothing) {
  TestProcess process;
  process.setQueueFile("{\"event\":\"waiting\"}\n");
  process.makeClient();
  process.runAll();
  EXPECT_THAT(process.callTexts({"FileManager.", "FileHandle."}), Each(Not(HasSubstr("event-queue.json"))));
  EXPECT_EQ(process.queueFile(), "{\"event\":\"waiting\"}\n");
  EXPECT_EQ(process.plan().count("URLSession.dataTask"), 0u);
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST(StartUp, SubmitsTheSweepAndNothingElse) {
  TestProcess process;
  const auto client = process.makeClient();
  EXPECT_EQ(process.blocksWaiting(TestProcess::clientQueue()), 0u);
  EXPECT_EQ(process.blocksWaiting(process.backgroundQueue()), 1u);
}

TEST(StartUp, WithoutMemoryForTheClientThereIsNoneAndNothingIsDone) {
  TestProcess process;
  noMemoryForTheClient = true;
  const auto client = process.makeClient();
  noMemoryForTheClient = false;
  EXPECT_EQ(client, nullptr);
  EXPECT_THAT(process.callTexts(), IsEmpty());
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST(StartUp, OutlivesEveryFailureOfAServiceAndSaysNothing) {
  for (std::uint64_t k = 1;; ++k) {
    TestProcess process;
    process.plan().breakCall(k);
    KSVDataInspector inspect(process.makeClient());
    process.runAll();
    if (!process.plan().brokenCall()) {
      EXPECT_GT(k, 5u) << "the sweep over the calls broke too few of them";
      break;
    }
    SCOPED_TRACE(*process.plan().brokenCall());
    EXPECT_THAT(process.messages(), IsEmpty());
    EXPECT_THAT(process.uncaughtReasons(), IsEmpty());
    ASSERT_NE(inspect.client, nullptr);
    EXPECT_EQ(inspect.sessionId()->length(), 30u);
    EXPECT_TRUE(platform::UUID::fromString(*inspect.deviceId()));
  }
}

}  // namespace
}  // namespace test
