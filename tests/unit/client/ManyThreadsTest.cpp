// Events reported by many threads at once, over the real queues with their threads: none is lost, none doubled, and each thread's
// own events stay in order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/JSONSerialization.h"
#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace test {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;
using testing::IsEmpty;

constexpr int kThreads = 64;
constexpr int kEventsEach = 50;

class ManyThreads : public testing::Test {
 protected:
  /// Every record that was posted, in the order of the posts.
  std::vector<Value> postedRecords() {
    std::vector<Value> records;
    for (const platform::Data& body : process.posts()) {
      const auto parsed = platform::JSONSerialization::JSONObjectWithData(body);
      if (!parsed) {
        ADD_FAILURE() << "a body that is no JSON";
        continue;
      }
      const Array batch = parsed->objectForKey("data")->array();
      records.insert(records.end(), batch.begin(), batch.end());
    }
    return records;
  }

  static Value dataOf(const Value& record, std::string_view key) { return *record.objectForKey("eventData")->objectForKey(key); }

  TestProcess process{{.queues = TestProcessOptions::Queues::kThreads, .faults = false, .debug = false}};
  std::shared_ptr<KSVData> client = process.makeClient();
  KSVDataInspector inspect{client};
};

TEST_F(ManyThreads, LoseAndDoubleNothing) {
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
      threads.emplace_back([&, thread] {
        for (int event = 0; event < kEventsEach; ++event)
          client->createEventWithData(event % 17 == 0 ? TestProcess::kSessionStarted : "tapped",
                                      Dictionary{{"thread", thread}, {"number", event}});
      });
  }
  client->sendEventQueueToServer();  // the last few that are below the threshold
  TestProcess::waitUntilDrained(*inspect.diskCacheAccessQueue());

  std::map<std::int64_t, std::int64_t> nextOfThread;
  for (const Value& record : postedRecords()) {
    const std::int64_t thread = dataOf(record, "thread").integerValue();
    EXPECT_EQ(dataOf(record, "number").integerValue(), nextOfThread[thread]++);
  }
  EXPECT_EQ(nextOfThread.size(), static_cast<std::size_t>(kThreads));
  for (const auto& [thread, next] : nextOfThread) EXPECT_EQ(next, kEventsEach) << "thread " << thread;
  EXPECT_TRUE(inspect.diskCacheQueue().empty());
  EXPECT_THAT(process.uncaughtReasons(), IsEmpty());
}

TEST_F(ManyThreads, SeeTheOldSessionOrTheNewOneAndNeverAMixture) {
  std::set<std::string> sessions = {inspect.sessionId()->description()};
  {
    std::vector<std::jthread> reporters;
    for (int thread = 0; thread < 8; ++thread)
      reporters.emplace_back([&] {
        for (int event = 0; event < 200; ++event) client->createEvent("tapped");
      });
    std::jthread marker([&] {
      for (int session = 0; session < 100; ++session) {
        client->markNewSession();
        sessions.insert(inspect.sessionId()->description());
      }
    });
  }
  client->sendEventQueueToServer();
  TestProcess::waitUntilDrained(*inspect.diskCacheAccessQueue());

  const std::vector<Value> records = postedRecords();
  EXPECT_EQ(records.size(), 1600u);
  for (const Value& record : records) EXPECT_TRUE(sessions.contains(dataOf(record, "sessionId").string().description()));
}

TEST_F(ManyThreads, ReplaceTheDelegateWhileOthersReadIt) {
  struct QuietDelegate : KSVDelegate {
    int mark = 7;
    void setUserId(const Value&) override {}
    void setAppIdentifier(const Value&) override {}
    void handleEventsFromServer(const Value&) override {}
  };
  std::atomic<int> wrong = 0;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([&] {
        for (int round = 0; round < 500; ++round) {
          const auto own = std::make_shared<QuietDelegate>();
          client->setDelegate(own);
        }
      });
      threads.emplace_back([&] {
        for (int round = 0; round < 500; ++round)
          if (const auto read = std::dynamic_pointer_cast<QuietDelegate>(client->delegate()); read && read->mark != 7) ++wrong;
      });
    }
  }
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace test
