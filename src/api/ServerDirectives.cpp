// What the answer to a post of events tells the delegate and the feature switchboard.
//
// Values are handed on as they came, whatever their type; JSON null counts as absent. An answer that is no object makes the
// look-ups raise, which nothing catches.
#include <cstdint>

#include "client/KSVData.h"
#include "companions/KSVDebugger.h"
#include "companions/KSVFeatureControl.h"

using platform::Value;

namespace {

std::optional<Value> directive(const Value& responseData, std::string_view key) {
  std::optional<Value> value = responseData.objectForKey(key);
  if (value && value->isNull()) return std::nullopt;
  return value;
}

}  // namespace

void KSVData::interpretResponseData(const Value& responseData) {
  if (const auto userId = directive(responseData, "referralCode")) {
    if (const auto receiver = delegate()) receiver->setUserId(*userId);
    debugTrace("Got userId from server: %@", *userId);
  }
  if (const auto urlPath = directive(responseData, "urlPath")) {
    if (const auto receiver = delegate()) receiver->setAppIdentifier(*urlPath);
    debugTrace("Got url Path from server: %@", *urlPath);
  }
  if (const auto notifications = directive(responseData, "notifications")) {
    registerNotifications(*notifications);
    debugTrace("Got %lu notification(s) from server", notifications->count());
  }
  if (const auto matchQuality = directive(responseData, "matchQuality")) {
    debugTrace("Got matchQuality = %@ from server", *matchQuality);
  }
  if (const auto value = directive(responseData, "features")) {
    const std::int32_t features = value->intValue();
    KSVFeatureControl::sharedFeatureControl()->setRemotelyDisabledFeaturesWithReasons(features,
                                                                                      responseData.objectForKey("reasons"));
  }
}

void KSVData::registerNotifications(const Value& notifications) const {
  if (notifications.count() == 0) return;
  if (const auto receiver = delegate()) receiver->handleEventsFromServer(notifications);
}
