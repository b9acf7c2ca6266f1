// Submitting a share: one post, a second one after a clock correction, and the user identifier that the answer brings.
//
// Nothing is kept for later: a share whose submission fails is not sent again. Outcomes are dealt with on the URL session's
// completion queue, and the delegate is told there.
#include <cstdint>
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVDebugger.h"
#include "platform/Format.h"
#include "platform/JSONSerialization.h"
#include "platform/SystemLog.h"
#include "platform/URLSession.h"

using platform::Value;

namespace {

/// The share's place in the body. An absent share is put there as what it is, which raises.
platform::Dictionary bodyWithShare(const std::shared_ptr<const KSVShare>& share) {
  std::optional<Value> serialized;
  if (share) serialized = Value(share->serialize());
  platform::Dictionary body;
  body.setObjectForKey(std::move(serialized), "data");
  return body;
}

/// The member "id" of the object under "data"; absent when either is absent or JSON null.
std::optional<Value> referralCodeIn(const Value& answer) {
  const std::optional<Value> data = answer.objectForKey("data");
  std::optional<Value> code = data ? data->objectForKey("id") : std::nullopt;
  if (code && code->isNull()) return std::nullopt;
  return code;
}

}  // namespace

void KSVData::submitShare(std::shared_ptr<const KSVShare> share) { submitShareAttemptNumber(std::move(share), 1); }

void KSVData::submitShareAttemptNumber(std::shared_ptr<const KSVShare> share, std::int32_t attemptNumber) {
  if (attemptNumber > 2) {
    debugTrace("Tried twice without luck, giving up on submitting share");
    return;
  }
  std::optional<platform::URLRequest> request = buildAuthenticatedRequestPathBody("POST", "/shares", bodyWithShare(share));
  if (!request) {
    debugTrace("Couldn't build request for /shares, aborting.");
    return;
  }
  const auto task = platform::URLSession::sharedSession().dataTaskWithRequestCompletionHandler(
      *std::move(request), [self = shared_from_this(), share = std::move(share), attemptNumber](
                               const std::optional<platform::Data>& data, const platform::HTTPURLResponseRef& response,
                               const std::optional<platform::Error>& error) mutable {
        self->handleShareOutcome(std::move(share), attemptNumber, data, response, error);
      });
  task->resume();
}

void KSVData::handleShareOutcome(std::shared_ptr<const KSVShare> share, std::int32_t attemptNumber,
                                 const std::optional<platform::Data>& data, const platform::HTTPURLResponseRef& response,
                                 const std::optional<platform::Error>& error) {
  const std::int64_t status = platform::statusCode(response);
  if (!error && status < 400) {
    handleSubmitShareResponse(data);
    return;
  }

  const std::optional<std::string> wwwAuth = platform::headerField(response, "www-authenticate");
  if (status == 401 && wwwAuth) {
    // A challenge without a usable time ends it: the server would refuse the share again.
    if (!setLocalSkew(wwwAuth)) return;
    debugTrace("Re-submitting share with adjusted timestamp");
    submitShareAttemptNumber(std::move(share), attemptNumber + 1);
    return;
  }

  const std::string message = platform::stringWithFormat("Kestrova: Couldn't submit share. Response was: %@, error message is: %@",
                                                         {response, platform::localizedDescription(error)});
  platform::SystemLog::systemLog().log(message);
  debugTrace("%@", message);
}

void KSVData::handleSubmitShareResponse(const std::optional<platform::Data>& response) const {
  const auto answer = platform::JSONSerialization::JSONObjectWithData(response);
  if (!answer) {
    debugTrace("Got invalid JSON from server: %@", answer.error().localizedDescription());
    return;
  }
  const std::optional<Value> referralCode = referralCodeIn(*answer);
  if (!referralCode) return;
  constexpr std::size_t kUserIdLength = 8;  // characters; the share's own identifier follows
  const Value userId(referralCode->substringToIndex(kUserIdLength));
  if (const auto receiver = delegate()) receiver->setUserId(userId);
  debugTrace("Got referral code through gif upload: %@", *referralCode);
}
