// An append and a load at the same time: the two are stepped by hand so that the calls that touch the queue file's name come in
// every possible order. Whatever the order, the file is one that some replacement put there whole, and the last replacement has the
// say.
//
// An append touches the name three times (exists, copy, replace), a load four times when it cannot make its temporary file at first
// (attributes, open, remove, replace) and three times otherwise.
#include <condition_variable>
#include <mutex>
#include <thread>

#include "QueueTest.h"

namespace test {
namespace {

/// Lets two threads run one at a time, each up to its next turn, in an order given as a text of 'A's and 'L's.
class Schedule {
 public:
  explicit Schedule(std::string order) : order_(std::move(order)) {}

  /// Waits until it is the actor's turn; the turn lasts until the actor asks for its next one or has ended.
  void turn(char actor) {
    std::unique_lock lock(mutex_);
    if (running_ == actor) {
      running_ = 0;
      changed_.notify_all();
    }
    changed_.wait(lock,
                  [&] { return running_ == 0 && (next_ >= order_.size() || order_[next_] == actor || ended_[other(actor)]); });
    if (next_ < order_.size() && order_[next_] == actor) ++next_;
    running_ = actor;
  }

  void end(char actor) {
    const std::lock_guard lock(mutex_);
    if (running_ == actor) running_ = 0;
    ended_[actor] = true;
    changed_.notify_all();
  }

 private:
  static char other(char actor) { return actor == 'A' ? 'L' : 'A'; }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::string order_;
  std::size_t next_ = 0;
  char running_ = 0;
  std::map<char, bool> ended_;
};

std::vector<std::string> everyOrder(std::size_t appends, std::size_t loads) {
  std::string order(appends, 'A');
  order.append(loads, 'L');
  std::vector<std::string> orders;
  do {
    orders.push_back(order);
  } while (std::ranges::next_permutation(order).found);
  return orders;
}

struct Outcome {
  std::optional<std::string> queue;
  std::optional<Array> loaded;
  std::vector<std::string> whole;  // every content that the queue's name has had
};

class Overlap : public testing::Test {
 protected:
  static Array batch() { return {Dictionary{{"n", 9}}}; }
  static constexpr const char* kBatch = "{\"n\":9}\n";
  static constexpr const char* kOld = "{\"n\":1}\n{\"n\":2}\n";

  /// Runs an append beside a load in the given order of their touches of the queue's name.
  static Outcome run(const std::string& order, bool loadRemovesFirst) {
    TestProcess process;
    KSVDataInspector inspect(process.makeClient());
    process.runAll();
    process.setQueueFile(kOld);
    Outcome outcome;
    outcome.whole.push_back(kOld);

    Schedule schedule(order);
    const auto turnOf = [&](char actor) { return [&schedule, actor] { schedule.turn(actor); }; };
    auto& plan = process.plan();
    // The append asks for its first turn at "exists", the load at "attributes"; who is asking is told by the call itself.
    plan.before("FileManager.fileExists", nth(1).on(kQueue), turnOf('A'));
    plan.before("FileManager.copyItem", nth(1), turnOf('A'));
    plan.before("FileManager.attributesOfItem", nth(1).on(kQueue), turnOf('L'));
    plan.before("FileManager.openForUpdating", nth(1), turnOf('L'));
    if (loadRemovesFirst) plan.before("FileManager.removeItem", nth(1).on(kQueue), turnOf('L'));

    std::thread::id loader;
    plan.before("FileManager.replaceItem", everyCall(), [&] { schedule.turn(std::this_thread::get_id() == loader ? 'L' : 'A'); });
    plan.after("FileManager.replaceItem", everyCall(), [&] {
      if (const auto queue = process.queueFile()) outcome.whole.push_back(*queue);
    });
    if (loadRemovesFirst) plan.fail("FileManager.writeDataWithoutOverwriting", nth(1), someError());

    std::mutex starting;
    std::thread load;
    {
      const std::lock_guard lock(starting);
      load = std::thread([&] {
        {
          const std::lock_guard started(starting);
        }
        outcome.loaded = inspect.getSavedJsonData();
        schedule.end('L');
      });
      loader = load.get_id();
    }
    std::thread append([&] {
      inspect.saveQueueToFile(batch());
      schedule.end('A');
    });
    load.join();
    append.join();
    plan.clear();
    outcome.queue = process.queueFile();
    return outcome;
  }
};

TEST_F(Overlap, InEveryOrderTheFileIsWholeAndTheLastReplacementWins) {
  for (const std::string& order : everyOrder(3, 3)) {
    const Outcome outcome = run(order, false);
    SCOPED_TRACE(order);
    ASSERT_TRUE(outcome.queue);
    EXPECT_EQ(*outcome.queue, outcome.whole.back());
    ASSERT_TRUE(outcome.loaded);

    // Where the append's copy was made before the load took the records, or after.
    const bool appendLast = order.back() == 'A';
    const std::size_t copy = order.find('A', order.find('A') + 1);
    const std::size_t loadReplaces = order.rfind('L');
    const std::size_t open = order.find('L', order.find('L') + 1);
    const std::size_t appendReplaces = order.rfind('A');
    const std::string loadedText = appendReplaces < open ? std::string(kOld) + kBatch : std::string(kOld);
    EXPECT_EQ(outcome.loaded->count(), static_cast<std::size_t>(std::ranges::count(loadedText, '\n')));
    const std::string copied = copy < loadReplaces ? std::string(kOld) : std::string();
    const std::string expected = appendLast ? copied + kBatch : std::string();
    EXPECT_EQ(*outcome.queue, expected);
  }
}

TEST_F(Overlap, AlsoWhenTheLoadHasToRemoveTheQueueFirst) {
  for (const std::string& order : everyOrder(3, 4)) {
    const Outcome outcome = run(order, true);
    SCOPED_TRACE(order);
    ASSERT_TRUE(outcome.loaded);
    // Whatever is left was put there by one replacement, or nothing is.
    if (outcome.queue) {
      EXPECT_EQ(*outcome.queue, outcome.whole.back());
    }
  }
}

}  // namespace
}  // namespace test
