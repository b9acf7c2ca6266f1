// What happened between clients and the server, put together from single requests for the live page's feed: which event was carried
// how often and taken when, which request is one that came before, whose clock was corrected.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "devserver/Feed.h"
#include "platform/Value.h"

namespace devserver {

/// A request that was dealt with.
struct Happening {
  std::chrono::milliseconds at{};                  // by the machine's clock
  const char* kind = "other";                      // "batch", "share", "upload", "patch", "link", "match" or "other"
  platform::Dictionary entry;                      // as the journal has it
  platform::Array checks;                          // as checksOfHeader gives them
  std::string identity;                            // the same for the same thing sent again; empty for what is not told apart
  std::string nonce;                               // that was used up, and what it belongs to; empty when none was
  std::optional<std::chrono::milliseconds> clock;  // how far the signature's time is ahead of the machine's clock
  bool isChallenged = false;                       // the answer told the client another time
  std::optional<platform::Dictionary> behaviour;   // what is left in force after this request used some of it up
};

/// Any thread.
///
/// Items of kind "event" have app, device, name, time, session and data; one that repeats an event that was taken before names it
/// as "repeats". The item of their request follows them: "events" has the ranges of numbers that it carried, now or again; "again"
/// and "attempt" say that the same request came before and was not taken, "back" how many of its events came before in other
/// batches.
class Story {
 public:
  /// The longest data of an event or share that the feed keeps; of what is longer it has the beginning.
  static constexpr std::size_t kMaxData = std::size_t{16} * 1024;
  /// How many events, requests and nonces are remembered; the oldest are forgotten first.
  static constexpr std::size_t kMemory = 100'000;

  explicit Story(Feed& feed) : feed_(feed) {}

  void tell(const Happening& happening);
  void tellBehaviour(std::chrono::milliseconds at, const platform::Dictionary& state);
  /// When this nonce was used up, in words; empty when it was not.
  std::string firstUseOf(const std::string& nonce) const;

 private:
  /// A map of bounded size that forgets what was put in first.
  template <class T>
  class Memory {
   public:
    T* find(const std::string& key) {
      const auto known = map_.find(key);
      return known == map_.end() ? nullptr : &known->second;
    }
    const T* find(const std::string& key) const {
      const auto known = map_.find(key);
      return known == map_.end() ? nullptr : &known->second;
    }
    void put(const std::string& key, T value) {
      const bool isNew = map_.insert_or_assign(key, std::move(value)).second;
      if (isNew) order_.push_back(key);
      if (order_.size() <= kMemory) return;
      map_.erase(order_.front());
      order_.pop_front();
    }

   private:
    std::unordered_map<std::string, T> map_;
    std::deque<std::string> order_;
  };
  struct Event {
    std::uint64_t number = 0;
    bool isTaken = false;
  };
  struct Attempts {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
    bool isTaken = false;
  };
  struct Use {
    std::uint64_t number = 0;
    std::chrono::milliseconds at{};
  };
  struct Clock {
    std::chrono::milliseconds ahead{};
    std::uint64_t challenge = 0;  // the request whose answer told another time; 0 for none
  };
  /// The numbers of a request's events, as ranges.
  class Ranges;

  using Items = std::vector<platform::Dictionary>;
  void tellClock(const Happening& happening, const std::string& sender, Items& items);
  void tellEvents(const Happening& happening, const std::string& sender, bool isAgain, Items& items, platform::Dictionary& request);
  void tellAgain(const Happening& happening, std::uint64_t number, platform::Dictionary& request);

  Feed& feed_;
  mutable std::mutex mutex_;
  Memory<Event> events_;
  Memory<Attempts> attempts_;
  Memory<Use> nonces_;
  Memory<Clock> clocks_;
};

}  // namespace devserver
