// Asking the server for the current form of known shares: one unsigned GET, and fresh shares for the callback.
//
// Neither the shares given nor the client change; matching old and new is the caller's business. There is no second try and no
// clock correction, as nothing is signed.
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVDebugger.h"
#include "platform/Format.h"
#include "platform/Handler.h"
#include "platform/JSONSerialization.h"
#include "platform/URLSession.h"

using platform::stringWithFormat;
using platform::Value;

namespace {

/// Text forms of the referral codes that have a user identifier, in the order of the shares, joined by commas; absent when there is
/// none.
std::optional<std::string> joinedIdentifiers(const KSVShares& shares) {
  std::optional<std::string> joined;
  for (const auto& share : shares) {
    if (!share || !share->referralCode || !share->referralCode->userId) continue;
    if (joined)
      joined->push_back(',');
    else
      joined.emplace();
    joined->append(share->referralCode->description());
  }
  return joined;
}

/// What an answer's "data" holds, in its order; elements that are no share are passed over.
KSVShares deserializedShares(const Value& answer) {
  KSVShares shares;
  const std::optional<Value> data = answer.objectForKey("data");
  if (!data) return shares;
  const platform::Array elements = data->enumerated();
  for (const Value& element : elements)
    if (auto share = KSVShare::deserialize(element)) shares.push_back(std::move(share));
  return shares;
}

KSVShares updatedShares(const std::optional<platform::Data>& data, const platform::HTTPURLResponseRef& response,
                        const std::optional<platform::Error>& error) {
  if (error || platform::statusCode(response) >= 400) {
    debugTrace("Could not get updated shares: %@, response was: %@", platform::localizedDescription(error), response);
    return {};
  }
  const auto answer = platform::JSONSerialization::JSONObjectWithData(data);
  if (!answer) {
    debugTrace("Got invalid JSON from server: %@", answer.error().localizedDescription());
    return {};
  }
  return deserializedShares(*answer);
}

}  // namespace

void KSVData::updateSharesFromServerWithCallback(const std::optional<KSVShares>& sharesToBeUpdated,
                                                 KSVShareUpdateCallback callback) {
  if (!sharesToBeUpdated || sharesToBeUpdated->empty()) {
    debugTrace("No shares given for update, ignoring");
    return;
  }
  const std::optional<std::string> identifiers = joinedIdentifiers(*sharesToBeUpdated);
  if (!identifiers) {
    debugTrace("No shares with userId known, skipping update");
    return;
  }
  debugTrace("Updating shares: %@", *identifiers);
  platform::URLRequest request = buildRequestForApi(stringWithFormat("/shares?ids=%@", {*identifiers}));
  request.setHTTPMethod("GET");
  const auto task = platform::URLSession::sharedSession().dataTaskWithRequestCompletionHandler(
      std::move(request),
      [callback = std::move(callback)](const std::optional<platform::Data>& data, const platform::HTTPURLResponseRef& response,
                                       const std::optional<platform::Error>& error) {
        platform::call(callback, updatedShares(data, response, error));
      });
  task->resume();
}
