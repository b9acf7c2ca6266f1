// Sessions and event records: what becomes of a reported event before it is sent.
//
// A record is {"localTime", "event", "eventData"}. The session is taken on the caller's thread, the time when the record is built
// on the serial queue.
#include <cstdint>
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVConstants.h"
#include "companions/KSVDebugger.h"
#include "companions/KSVUtils.h"

namespace {

// Keys that every record uses. Made once and never destroyed, so that a block that still runs while the process exits can read
// them.
struct RecordKeys {
  platform::String localTime = "localTime";
  platform::String event = "event";
  platform::String eventData = "eventData";
  platform::String sessionId = "sessionId";
};

const RecordKeys& keys() {
  static const RecordKeys& keys = *new RecordKeys;
  return keys;
}

}  // namespace

void KSVData::markNewSession() { sessionId.store(getNewSessionId()); }

platform::String KSVData::getNewSessionId() { return KSVUtils::randomStringWithLength(30); }

void KSVData::createEvent(std::optional<std::string> event) { createEventWithData(std::move(event), platform::Dictionary()); }

void KSVData::createEventWithData(std::optional<std::string> event, std::optional<platform::Dictionary> data) {
  platform::Dictionary eventDataToSend;
  eventDataToSend.reserve(1 + (data ? data->count() : 0));
  eventDataToSend.setObjectForKey(std::optional<platform::Value>(sessionId.load()), keys().sessionId);
  if (data) eventDataToSend.addEntriesFromDictionary(*data);

  diskCacheAccessQueue->async(
      [self = shared_from_this(), event = std::move(event), eventDataToSend = std::move(eventDataToSend)]() mutable {
        self->addEventToQueue(self->addEventWrappingWithData(event, std::move(eventDataToSend)));
        const bool shouldSendImmediately = event == kSessionStartedKey() || event == kDidCookieMatchKey();
        if (shouldSendImmediately) self->sendEventQueueToServer();
      });
}

platform::Dictionary KSVData::addEventWrappingWithData(const std::optional<std::string>& event, platform::Dictionary eventData) {
  std::optional<platform::Value> localTime = eventData.objectForKey(keys().localTime);
  if (localTime) {
    eventData.removeObjectForKey(keys().localTime);
  } else {
    localTime = KSVUtils::getIso8601(getSkewedLocalTime());
  }

  platform::Dictionary record;
  record.reserve(3);
  record.setObjectForKey(std::move(localTime), keys().localTime);
  record.setObjectForKey(std::optional<platform::Value>(event), keys().event);
  record.setObjectForKey(platform::Value(std::move(eventData)), keys().eventData);
  return record;
}

void KSVData::addEventToQueue(std::optional<platform::Dictionary> data) {
  if (!data) {
    debugTrace("Error: Not adding nil event to queue");
    return;
  }
  diskCacheQueue.addObject(platform::Value(*std::move(data)));
  if (std::uint64_t{diskCacheQueue.count()} >= static_cast<std::uint64_t>(std::int64_t{newEventsInMemory}))
    sendEventQueueToServer();
}
