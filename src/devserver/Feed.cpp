// Keeping, paging and waiting.
#include "devserver/Feed.h"

#include <algorithm>
#include <utility>

#include "devserver/Json.h"

namespace devserver {
namespace {

void append(Feed::Chunk& chunk, const std::string& text) {
  chunk.items += chunk.empty ? text : "," + text;
  chunk.empty = false;
}

}  // namespace

void Feed::add(std::vector<platform::Dictionary> items) {
  {
    const std::lock_guard lock(mutex_);
    for (platform::Dictionary& item : items) {
      item.setObjectForKey(platform::Value(next_++), "n");
      texts_.push_back(writeJson(std::move(item)));
      bytes_ += texts_.back().size();
    }
    while (texts_.size() > bounds_.items || bytes_ > bounds_.bytes) {
      bytes_ -= texts_.front().size();
      texts_.pop_front();
    }
  }
  changed_.notify_all();
}

std::uint64_t Feed::next() const {
  const std::lock_guard lock(mutex_);
  return next_;
}

std::uint64_t Feed::oldest() const {
  const std::lock_guard lock(mutex_);
  return oldestOf();
}

Feed::Chunk Feed::before(std::uint64_t number, std::size_t limit) const {
  const std::lock_guard lock(mutex_);
  Chunk chunk{"[", number, true};
  const std::uint64_t end = std::clamp(number, oldestOf(), next_);
  const std::uint64_t begin = end - std::min<std::uint64_t>(limit, end - oldestOf());
  for (std::uint64_t at = end; at > begin; --at) append(chunk, textOf(at - 1));
  if (!chunk.empty) chunk.last = end - 1;
  chunk.items += "]";
  return chunk;
}

Feed::Chunk Feed::after(std::uint64_t number, std::size_t limit, std::chrono::milliseconds time) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, time, [&] { return isClosed_ || next_ > number + 1; });
  Chunk chunk{"[", number, true};
  const std::uint64_t begin = std::clamp(number + 1, oldestOf(), next_);
  const std::uint64_t end = begin + std::min<std::uint64_t>(limit, next_ - begin);
  for (std::uint64_t at = begin; at < end; ++at) append(chunk, textOf(at));
  if (!chunk.empty) chunk.last = end - 1;
  chunk.items += "]";
  return chunk;
}

void Feed::close() {
  {
    const std::lock_guard lock(mutex_);
    isClosed_ = true;
  }
  changed_.notify_all();
}

bool Feed::isClosed() const {
  const std::lock_guard lock(mutex_);
  return isClosed_;
}

}  // namespace devserver
