// What the live page is told, in the order in which it happened: numbered JSON objects in bounded memory. The oldest go first.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Value.h"

namespace devserver {

/// Any thread.
class Feed {
 public:
  /// 100,000 events fit beside the batches of ten that bring them.
  struct Bounds {
    std::size_t items = 125'000;
    std::size_t bytes = std::size_t{128} * 1024 * 1024;  // of their JSON texts
  };
  /// Items as the text of a JSON array.
  struct Chunk {
    std::string items = "[]";
    std::uint64_t last = 0;  // the number of the newest among them; without items, the number that was asked from
    bool empty = true;
  };

  Feed() : Feed(Bounds()) {}
  explicit Feed(Bounds bounds) : bounds_(bounds) {}

  /// Adds items, each of which gets the next number as its member "n"; nobody sees some of them without the others.
  void add(std::vector<platform::Dictionary> items);

  /// The number that the next item gets; numbers count from 1.
  std::uint64_t next() const;
  /// The number of the oldest item that is still here; that of the next one when there is none.
  std::uint64_t oldest() const;

  /// At most so many items with numbers below this one, the newest first.
  Chunk before(std::uint64_t number, std::size_t limit) const;
  /// At most so many items with numbers above this one, the oldest first. Waits this long for one, unless the feed is closed.
  Chunk after(std::uint64_t number, std::size_t limit, std::chrono::milliseconds time) const;

  /// Ends every wait, now and later.
  void close();
  bool isClosed() const;

 private:
  std::uint64_t oldestOf() const { return next_ - texts_.size(); }
  const std::string& textOf(std::uint64_t number) const { return texts_[static_cast<std::size_t>(number - oldestOf())]; }

  const Bounds bounds_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::deque<std::string> texts_;
  std::size_t bytes_ = 0;
  std::uint64_t next_ = 1;
  bool isClosed_ = false;
};

}  // namespace devserver
