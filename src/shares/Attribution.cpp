// Two calls of attribution: data learnt after a session had started, and the match of this device with a browser's cookie.
//
// Neither keeps state, tries again or touches the event queue.
#include <cstdint>
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVCookieMatch.h"
#include "companions/KSVDebugger.h"
#include "platform/Handler.h"
#include "platform/URLSession.h"

using platform::Dictionary;

void KSVData::patchPreviousSessionStarted(const std::optional<Dictionary>& eventData) {
  if (!eventData || eventData->empty()) {
    debugTrace("No eventData to send with patch, ignoring");
    return;
  }
  debugTrace("Patching previous session-started with data '%@'", *eventData);
  std::optional<platform::URLRequest> request = buildAuthenticatedRequestPathBody(
      "POST", "/patch-previous-session-started", {{"data", Dictionary{{"eventData", *eventData}}}});
  if (!request) {
    debugTrace("Couldn't build valid session-started patch request, aborting");
    return;
  }
  const auto task = platform::URLSession::sharedSession().dataTaskWithRequestCompletionHandler(
      *std::move(request), [](const std::optional<platform::Data>&, const platform::HTTPURLResponseRef& response,
                              const std::optional<platform::Error>& error) {
        const std::int64_t status = platform::statusCode(response);
        if (error || status >= 400)
          debugTrace("Error: Could not send Universal Link Patch event. Response was: %@, error message is: %@", response,
                     platform::localizedDescription(error));
        else
          debugTrace("HTTP Response: %li from sending Universal Link Patch event.", status);
      });
  task->resume();
}

void KSVData::tryCookieMatchWithCompletion(CookieMatchCompletion completionBlock) {
  KSVCookieMatch::sharedCookieMatch()->cookieMatchDeviceWithAppRDNSAppSecretDeviceIdCompletion(
      appRDNS, appSecret, deviceId,
      [completionBlock = std::move(completionBlock)](bool didComplete) { platform::call(completionBlock, didComplete); });
}
