// What the client does with the events of its background sessions: the end of a task, the end of a session, the relaunch.
//
// A session whose upload succeeded stays as it is for the rest of the process; only a failure ends it, and only that calls the
// handler that the platform gave at a relaunch. The upload file goes after a success and stays after a failure, until the sweep.
#include <cstdint>
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVDebugger.h"
#include "platform/Application.h"
#include "platform/FileManager.h"
#include "platform/Format.h"
#include "platform/SystemLog.h"

using platform::BackgroundURLSessionRef;
using platform::URLSessionTaskRef;

// Events, on the session's delegate queue.

void KSVData::URLSessionTaskDidCompleteWithError(const BackgroundURLSessionRef& session, const URLSessionTaskRef& task,
                                                 const std::optional<platform::Error>& error) {
  const auto taskIdentifier = static_cast<std::int64_t>(task->taskIdentifier());
  if (error) {
    const std::string message =
        platform::stringWithFormat("Kestrova: Background task %ld failed: %@", {taskIdentifier, error->localizedDescription()});
    platform::SystemLog::systemLog().log(message);
    debugTrace("%@", message);
    endBackgroundSession(session);
    return;
  }
  debugTrace("Task %ld completed", taskIdentifier);
  const std::optional<platform::URL> uploadFile = uploadFileForSessionConfiguration(session->configuration());
  const auto removed = platform::FileManager::defaultManager().removeItemAtPath(uploadFile ? uploadFile->path() : "");
  if (!removed) debugTrace("Failed to delete upload file: %@", removed.error().localizedDescription());
}

void KSVData::URLSessionDidBecomeInvalidWithError(const BackgroundURLSessionRef& /*session*/,
                                                  const std::optional<platform::Error>& error) {
  removeNetworkActivitySpinner();
  if (error) debugTrace("Error occured for gif upload task: %@", error->localizedDescription());
}

void KSVData::URLSessionDidFinishEventsForBackgroundURLSession(const BackgroundURLSessionRef& /*session*/) {
  debugTrace("Background session completed");
}

void KSVData::URLSessionDownloadTaskDidFinishDownloadingToURL(const BackgroundURLSessionRef& /*session*/,
                                                              const URLSessionTaskRef& /*downloadTask*/,
                                                              const platform::URL& /*location*/) {
  removeNetworkActivitySpinner();
  debugTrace("Download task completed");
}

// The relaunch.

void KSVData::handleEventsForBackgroundURLSessionCompletionHandler(const std::string& identifier,
                                                                   CompletionHandler completionHandler) {
  debugTrace("Launching in background: %@", identifier);
  setBackgroundCompletionHandler(std::move(completionHandler));
  const auto configuration = platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier);
  resumeTaskInSession(
      platform::BackgroundURLSession::sessionWithConfigurationDelegateDelegateQueue(configuration, shared_from_this(), nullptr));
}

void KSVData::resumeTaskInSession(const BackgroundURLSessionRef& session) {
  session->getTasksWithCompletionHandler([](const std::vector<URLSessionTaskRef>& /*dataTasks*/,
                                            const std::vector<URLSessionTaskRef>& uploadTasks,
                                            const std::vector<URLSessionTaskRef>& /*downloadTasks*/) {
    for (const URLSessionTaskRef& task : uploadTasks)
      if (task->state() != platform::URLSessionTask::State::kCompleted) task->resume();
  });
}

// The end of a session.

void KSVData::endBackgroundSession(const BackgroundURLSessionRef& session) {
  removeNetworkActivitySpinner();
  session->invalidateAndCancel();
  platform::DispatchQueue::mainQueue()->async([self = shared_from_this()] {
    const CompletionHandler handler = self->backgroundCompletionHandler();
    if (!handler) return;
    handler();
    self->setBackgroundCompletionHandler(nullptr);
  });
}

KSVData::CompletionHandler KSVData::backgroundCompletionHandler() const {
  const auto handler = backgroundCompletionHandler_.load();
  return handler ? *handler : CompletionHandler();
}

void KSVData::setBackgroundCompletionHandler(CompletionHandler handler) {
  backgroundCompletionHandler_.store(handler ? std::make_shared<const CompletionHandler>(std::move(handler)) : nullptr);
}

// The network activity indicator: a switch, no counter.

void KSVData::startNetworkActivitySpinner() {
  platform::DispatchQueue::mainQueue()->async(
      [] { platform::Application::sharedApplication().setNetworkActivityIndicatorVisible(true); });
}

void KSVData::removeNetworkActivitySpinner() {
  platform::DispatchQueue::mainQueue()->async(
      [] { platform::Application::sharedApplication().setNetworkActivityIndicatorVisible(false); });
}
