// Watches the SDK from outside: counts the blocks and requests that are under way, and what became of each batch.
//
// The wrappers stand around the platform's services; the client knows nothing of them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/URLSession.h"

namespace cli {

/// What the URL-loading service was asked and what it answered, so far.
struct Traffic {
  std::uint64_t requests = 0;
  std::uint64_t posted = 0;      // records in requests to /events, a record sent twice counted twice
  std::uint64_t delivered = 0;   // records whose request was answered with a status below 400
  std::uint64_t challenges = 0;  // 401 answers that carried a challenge
  bool lastWasDelivered = false;
};

/// Any thread may call any operation.
class Activity {
 public:
  /// Counts one piece of work for as long as it lives.
  class Work {
   public:
    explicit Work(std::shared_ptr<Activity> activity);
    ~Work();
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;

   private:
    std::shared_ptr<Activity> activity_;
  };

  void taskStarted(const std::shared_ptr<platform::URLSessionTask>& task);
  void taskEnded(const std::shared_ptr<platform::URLSessionTask>& task);
  /// Notes an outcome of a request with `records` event records.
  void answered(std::uint64_t records, std::int64_t status, bool failed, bool challenged);
  void posted(std::uint64_t records);

  Traffic traffic() const;
  bool isIdle() const;

  /// Ends every request that is under way or starts from now on, so that the client writes its batch back.
  void cancelTasks();
  bool cancelled() const;
  /// Makes the waits that heed it end now; the user asked to stop.
  void interrupt();
  bool interrupted() const;

  enum class Interrupts { kHeed, kIgnore };
  /// Waits until at most `requests` requests and `work` pieces of work are under way. False when that takes longer than `limit`
  /// seconds, or when it was interrupted.
  bool waitUntilAtMost(std::uint64_t requests, std::uint64_t work, double limit, Interrupts interrupts = Interrupts::kHeed);

 private:
  using Lock = std::unique_lock<std::mutex>;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t work_ = 0;
  bool interrupted_ = false;
  bool cancelled_ = false;
  Traffic traffic_;
  std::set<std::shared_ptr<platform::URLSessionTask>> tasks_;
};

std::shared_ptr<platform::DispatchQueues> observe(std::shared_ptr<platform::DispatchQueues> queues,
                                                  std::shared_ptr<Activity> activity);
std::shared_ptr<platform::URLSession> observe(std::shared_ptr<platform::URLSession> session, std::shared_ptr<Activity> activity);

}  // namespace cli
