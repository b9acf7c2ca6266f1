// Finding the newest session-started event, and patching it.
#include "devserver/Sessions.h"

#include <utility>

namespace devserver {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;

/// No application id and no device can hold a line feed.
std::string keyOf(std::string_view app, std::string_view device) { return std::string(app) + "\n" + std::string(device); }

/// Times are ISO 8601 texts in UTC of one width, which sort as they are.
bool isOlder(const Value& record, const Value& than) {
  const auto time = record.objectForKey("localTime");
  const auto other = than.objectForKey("localTime");
  return time && other && time->isString() && other->isString() && time->string() < other->string();
}

}  // namespace

void Sessions::note(std::string_view app, std::string_view device, const Array& records) {
  std::lock_guard lock(mutex_);
  const std::string key = keyOf(app, device);
  for (const Value& record : records) {
    if (record.objectForKey("event") != Value(kEventName)) continue;
    const Dictionary* known = shelf_.find(key);
    if (known && isOlder(record, *known->find("event"))) continue;
    shelf_.put(key, Dictionary{{"app", app}, {"device", device}, {"event", record}});
  }
}

std::optional<Dictionary> Sessions::patch(std::string_view app, std::string_view device, const Dictionary& eventData) {
  std::lock_guard lock(mutex_);
  const std::string key = keyOf(app, device);
  const Dictionary* known = shelf_.find(key);
  if (!known) return std::nullopt;
  Dictionary session = *known;
  Dictionary event = session.find("event")->object();
  Dictionary data = event.find("eventData")->object();
  data.addEntriesFromDictionary(eventData);
  event.setObjectForKey(Value(std::move(data)), "eventData");
  session.setObjectForKey(Value(event), "event");
  shelf_.replace(key, std::move(session));
  return event;
}

Array Sessions::all() const {
  std::lock_guard lock(mutex_);
  Array sessions;
  for (const std::string& key : shelf_.names()) sessions.addObject(Value(*shelf_.find(key)));
  return sessions;
}

}  // namespace devserver
