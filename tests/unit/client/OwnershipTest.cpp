// Who keeps whom alive: the weak delegate, the copied completion handler, and what destruction leaves undone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace test {
namespace {

using testing::IsEmpty;

struct QuietDelegate : KSVDelegate {
  int calls = 0;
  void setUserId(const platform::Value&) override { ++calls; }
  void setAppIdentifier(const platform::Value&) override { ++calls; }
  void handleEventsFromServer(const platform::Value&) override { ++calls; }
};

TEST(Delegate, IsNeverKeptAlive) {
  TestProcess process;
  const auto client = process.makeClient();
  auto delegate = std::make_shared<QuietDelegate>();
  client->setDelegate(delegate);
  EXPECT_EQ(client->delegate(), delegate);
  EXPECT_EQ(delegate.use_count(), 1);
  delegate.reset();
  EXPECT_EQ(client->delegate(), nullptr);
}

TEST(Delegate, IsHeldWhileItIsRead) {
  TestProcess process;
  const auto client = process.makeClient();
  auto delegate = std::make_shared<QuietDelegate>();
  std::weak_ptr<QuietDelegate> watched = delegate;
  client->setDelegate(delegate);
  {
    const auto read = client->delegate();
    delegate.reset();
    EXPECT_FALSE(watched.expired());
  }
  EXPECT_TRUE(watched.expired());
}

TEST(Delegate, CanBeReplacedAndTakenAway) {
  TestProcess process;
  const auto client = process.makeClient();
  const auto first = std::make_shared<QuietDelegate>();
  const auto second = std::make_shared<QuietDelegate>();
  client->setDelegate(first);
  client->setDelegate(second);
  EXPECT_EQ(client->delegate(), second);
  client->setDelegate(nullptr);
  EXPECT_EQ(client->delegate(), nullptr);
}

TEST(BackgroundCompletionHandler, CanBeCalledAfterTheFrameThatMadeItIsGone) {
  TestProcess process;
  const auto client = process.makeClient();
  const auto count = std::make_shared<int>(0);
  const auto setFromAFrame = [&] {
    const auto local = count;
    KSVData::CompletionHandler handler = [local] { ++*local; };
    client->setBackgroundCompletionHandler(handler);
    handler = nullptr;
  };
  setFromAFrame();
  ASSERT_TRUE(client->backgroundCompletionHandler());
  client->backgroundCompletionHandler()();
  EXPECT_EQ(*count, 1);
}

TEST(BackgroundCompletionHandler, IsHeldUntilItIsReplacedOrCleared) {
  TestProcess process;
  const auto client = process.makeClient();
  const auto first = std::make_shared<int>(0);
  client->setBackgroundCompletionHandler([first] { ++*first; });
  EXPECT_EQ(first.use_count(), 2);
  const auto second = std::make_shared<int>(0);
  client->setBackgroundCompletionHandler([second] { ++*second; });
  EXPECT_EQ(first.use_count(), 1);
  client->setBackgroundCompletionHandler(nullptr);
  EXPECT_EQ(second.use_count(), 1);
  EXPECT_FALSE(client->backgroundCompletionHandler());
}

TEST(Destruction, DropsWhatTheClientOwns) {
  TestProcess process;
  auto client = process.makeClient();
  process.runAll();
  const auto held = std::make_shared<int>(0);
  client->setBackgroundCompletionHandler([held] { ++*held; });
  std::weak_ptr<platform::DispatchQueue> queue = KSVDataInspector(client).diskCacheAccessQueue();
  client.reset();
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_TRUE(queue.expired());
}

TEST(Destruction, WritesNothingCallsNobodyAndCancelsNothing) {
  TestProcess process;
  const auto delegate = std::make_shared<QuietDelegate>();
  auto client = process.makeClient();
  client->setDelegate(delegate);
  client->createEvent("in memory");
  process.runAll();
  ASSERT_EQ(KSVDataInspector(client).diskCacheQueue().count(), 1u);
  std::weak_ptr<KSVData> watched = client;
  process.plan().clearCalls();
  client.reset();
  EXPECT_TRUE(watched.expired());
  EXPECT_THAT(process.callTexts(), IsEmpty());
  EXPECT_EQ(process.queueFile(), std::nullopt);
  EXPECT_EQ(delegate->calls, 0);
}

TEST(Destruction, WaitsForQueuedTasksWhichRunAsIfNothingHadHappened) {
  TestProcess process;
  auto client = process.makeClient();
  process.runAll();
  client->createEvent(TestProcess::kSessionStarted);
  std::weak_ptr<KSVData> watched = client;
  client.reset();
  EXPECT_FALSE(watched.expired()) << "the queued task holds the client";
  process.runAll();
  EXPECT_EQ(process.plan().count("URLSession.dataTask"), 1u);
}

TEST(Destruction, WaitsForARequestInFlightAndDoesNotCancelIt) {
  TestProcess process;
  auto client = process.makeClient();
  client->createEvent(TestProcess::kSessionStarted);
  process.runAll();
  ASSERT_EQ(process.posts().size(), 1u);
  std::weak_ptr<KSVData> watched = client;
  client.reset();
  EXPECT_FALSE(watched.expired()) << "the completion handler holds the client";
  EXPECT_EQ(process.plan().count("URLSessionTask.cancel"), 0u);
  process.answer(200, "{}");
  process.runAll();
  EXPECT_TRUE(watched.expired());
}

}  // namespace
}  // namespace test
