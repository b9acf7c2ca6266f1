// Sending event records: one batch from disk and memory, at most two posts, and what becomes of it.
//
// A batch is taken on the serial queue; its outcome is dealt with on the URL session's completion queue, where it is written back
// to the queue file when it was not delivered. Several batches may be in flight at once; no record is in two of them.
#include <cstdint>
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVDebugger.h"
#include "platform/JSONSerialization.h"
#include "platform/URLSession.h"

void KSVData::sendEventQueueToServer() {
  diskCacheAccessQueue->async([self = shared_from_this()] {
    Events events;
    if (const std::optional<Events> saved = self->getSavedJsonData()) events.addObjectsFromArray(*saved);
    events.addObjectsFromArray(self->diskCacheQueue);
    if (events.empty()) {
      debugTrace("Couldn't find any events to send to server");
      return;
    }
    self->diskCacheQueue.removeAllObjects();
    self->sendEvents(std::move(events));
  });
}

void KSVData::sendEvents(Events events) { sendEventsAttempt(std::move(events), 1); }

void KSVData::sendEventsAttempt(Events events, std::int32_t attemptNumber) {
  if (attemptNumber > 2) {
    debugTrace("Tried to submit events twice with error, giving up");
    return;
  }
  std::optional<platform::URLRequest> request = buildAuthenticatedRequestPathBody("POST", "/events", {{"data", events}});
  if (!request) {
    debugTrace("Couldn't build request for /events, aborting");
    return;
  }
  const auto task = platform::URLSession::sharedSession().dataTaskWithRequestCompletionHandler(
      *std::move(request), [self = shared_from_this(), events = std::move(events), attemptNumber](
                               const std::optional<platform::Data>& data, const platform::HTTPURLResponseRef& response,
                               const std::optional<platform::Error>& error) mutable {
        self->handleEventsOutcome(std::move(events), attemptNumber, data, response, error);
      });
  task->resume();
}

void KSVData::handleEventsOutcome(Events events, std::int32_t attemptNumber, const std::optional<platform::Data>& data,
                                  const platform::HTTPURLResponseRef& response, const std::optional<platform::Error>& error) {
  if (error) {
    saveQueueToFile(events);
    debugTrace("Couldn't submit events: %@", error->localizedDescription());
    return;
  }

  const std::int64_t status = platform::statusCode(response);
  if (status >= 400) {
    const std::optional<std::string> wwwAuth = platform::headerField(response, "www-authenticate");
    if (status != 401 || !wwwAuth) {
      saveQueueToFile(events);
      debugTrace("Couldn't submit events, got %ld: %@", status, response);
    } else if (setLocalSkew(wwwAuth)) {
      debugTrace("Re-submitting share with adjusted timestamp");
      sendEventsAttempt(std::move(events), attemptNumber + 1);
    }
    // A challenge without a usable time drops the batch: the server would refuse it again.
    return;
  }

  debugTrace("Events successfully sent to server");
  const auto answer = platform::JSONSerialization::JSONObjectWithData(data);
  if (!answer) {
    debugTrace("Got invalid JSON from server: %@", answer.error().localizedDescription());
    return;
  }
  interpretResponseData(*answer);
}
