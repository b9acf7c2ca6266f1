// From requests to what the live page shows.
#include "devserver/Story.h"

#include <openssl/sha.h>

#include <array>
#include <cstdlib>
#include <utility>

#include "devserver/Journal.h"
#include "devserver/Json.h"
#include "platform/UTF8.h"

namespace devserver {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;

constexpr std::size_t kMaxName = 1024;
constexpr std::size_t kMaxSession = 256;
/// A clock that moves by less between two requests was not corrected; their way to the server took that long.
constexpr std::chrono::milliseconds kCorrection{2000};

/// Data as it is, or the beginning of its text and its length when it is long.
void setData(Dictionary& item, const char* name, const Value& data) {
  const std::string text = data.isObject() || data.isArray() ? writeJson(data) : "";
  if (text.size() <= Story::kMaxData) return item.setObjectForKey(data, name);
  item.setObjectForKey(Value(platform::beginningOf(text, Story::kMaxData)), std::string(name) + "Beginning");
  item.setObjectForKey(Value(text.size()), std::string(name) + "Bytes");
}

std::string textOf(const Dictionary& object, const char* key, std::size_t bytes) {
  const Value* value = object.find(key);
  return value && value->isString() ? std::string(platform::beginningOf(value->string().view(), bytes)) : "";
}

std::string digestOf(const std::string& text) {
  std::array<unsigned char, SHA256_DIGEST_LENGTH> hash{};
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), hash.data());
  return {reinterpret_cast<const char*>(hash.data()), hash.size()};
}

/// Application and device; neither holds a line feed.
std::string senderOf(const Dictionary& entry) { return textOf(entry, "app", kMaxName) + "\n" + textOf(entry, "device", kMaxName); }

Dictionary itemOf(const Happening& happening, const char* kind) {
  Dictionary item{{"kind", kind}, {"at", happening.at.count()}};
  for (const char* name : {"app", "device"})
    if (const Value* value = happening.entry.find(name)) item.setObjectForKey(*value, name);
  return item;
}

/// What the feed says of an event record; one that the API does not take may lack any of it.
Dictionary eventOf(const Happening& happening, const Value& record) {
  Dictionary item = itemOf(happening, "event");
  if (!record.isObject()) {
    setData(item, "data", record);
    return item;
  }
  const Dictionary& object = record.object();
  item.setObjectForKey(Value(textOf(object, "event", kMaxName)), "name");
  item.setObjectForKey(Value(textOf(object, "localTime", kMaxSession)), "time");
  if (const Value* data = object.find("eventData")) {
    if (data->isObject()) item.setObjectForKey(Value(textOf(data->object(), "sessionId", kMaxSession)), "session");
    setData(item, "data", *data);
  }
  return item;
}

}  // namespace

class Story::Ranges {
 public:
  void add(std::uint64_t number) {
    if (!ranges_.empty() && ranges_.back().second + 1 == number)
      ++ranges_.back().second;
    else
      ranges_.emplace_back(number, number);
  }
  Array asArray() const {
    Array all;
    for (const auto& [first, last] : ranges_) all.addObject(Value(Array{first, last}));
    return all;
  }

 private:
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges_;
};

void Story::tell(const Happening& happening) {
  const std::lock_guard lock(mutex_);
  const std::string sender = senderOf(happening.entry);
  Items items;
  tellClock(happening, sender, items);

  Dictionary request = itemOf(happening, happening.kind);
  for (const auto& [key, value] : happening.entry)
    if (key.view() == "data" || key.view() == "patched")
      setData(request, key.view() == "data" ? "data" : "patched", value);
    else if (key.view() != "records" && key.view() != "time")
      request.setObjectForKey(value, key);
  request.setObjectForKey(Value(happening.checks), "checks");
  if (happening.behaviour) request.setObjectForKey(Value(*happening.behaviour), "behaviour");

  const Attempts* before = happening.identity.empty() ? nullptr : attempts_.find(happening.identity);
  tellEvents(happening, sender, before && !before->isTaken, items, request);
  const std::uint64_t number = feed_.next() + items.size();
  tellAgain(happening, number, request);
  if (!happening.nonce.empty()) nonces_.put(happening.nonce, {number, happening.at});
  if (happening.clock) clocks_.put(sender, {*happening.clock, happening.isChallenged ? number : 0});
  items.push_back(std::move(request));
  feed_.add(std::move(items));
}

void Story::tellClock(const Happening& happening, const std::string& sender, Items& items) {
  const Clock* before = clocks_.find(sender);
  if (!happening.clock || !before || before->challenge == 0) return;
  const auto step = *happening.clock - before->ahead;
  if (std::chrono::abs(step) < kCorrection) return;
  Dictionary item = itemOf(happening, "clock");
  item.setObjectForKey(Value(static_cast<double>(step.count()) / 1000), "seconds");
  item.setObjectForKey(Value(before->challenge), "challenge");
  items.push_back(std::move(item));
}

void Story::tellEvents(const Happening& happening, const std::string& sender, bool isAgain, Items& items, Dictionary& request) {
  const Value* records = happening.entry.find("records");
  if (!records || !records->isArray()) return;
  const bool isTaken = happening.entry.objectForKey("taken") == Value(true);
  const std::uint64_t start = feed_.next();
  std::uint64_t back = 0;
  Ranges ranges;
  std::unordered_map<std::string, std::uint64_t> occurrences;
  for (const Value& record : records->array()) {
    // Two that are alike in one batch are two, and stay the same two when the batch comes again.
    const std::string content = digestOf(sender + "\n" + writeJson(Array{record}));
    const std::string key = content + std::to_string(occurrences[content]++);
    const Event* known = events_.find(key);
    std::uint64_t number = start + items.size();
    if (known && !known->isTaken) {
      number = known->number;
      ++back;
    } else {
      Dictionary item = eventOf(happening, record);
      if (known) item.setObjectForKey(Value(known->number), "repeats");
      items.push_back(std::move(item));
    }
    ranges.add(number);
    events_.put(key, {number, isTaken});
  }
  request.setObjectForKey(Value(records->count()), "records");
  request.setObjectForKey(Value(ranges.asArray()), "events");
  if (back > 0 && !isAgain) request.setObjectForKey(Value(back), "back");
}

void Story::tellAgain(const Happening& happening, std::uint64_t number, Dictionary& request) {
  if (happening.identity.empty()) return;
  const bool isTaken = happening.entry.objectForKey("taken") == Value(true);
  const Attempts* before = attempts_.find(happening.identity);
  if (!before || before->isTaken) {
    attempts_.put(happening.identity, {number, 1, isTaken});
    return;
  }
  request.setObjectForKey(Value(before->first), "again");
  request.setObjectForKey(Value(before->count + 1), "attempt");
  attempts_.put(happening.identity, {before->first, before->count + 1, isTaken});
}

void Story::tellBehaviour(std::chrono::milliseconds at, const Dictionary& state) {
  const std::lock_guard lock(mutex_);
  feed_.add({{{"kind", "behaviour"}, {"at", at.count()}, {"behaviour", state}}});
}

std::string Story::firstUseOf(const std::string& nonce) const {
  const std::lock_guard lock(mutex_);
  const Use* use = nonces_.find(nonce);
  return use ? "number " + std::to_string(use->number) + ", at " + timeText(use->at) : "";
}

}  // namespace devserver
