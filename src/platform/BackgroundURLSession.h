// Background sessions: uploads of files that go on when the process is gone (platform rows B1 to B8).
//
// The transfers run in a service of their own. A session is known by its identifier: made again, in this process or a later one, it
// is tied to the tasks it had and receives the events that were not handed over yet.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/URL.h"
#include "platform/URLRequest.h"
#include "platform/URLSession.h"

namespace platform {

class BackgroundURLSession;
using BackgroundURLSessionRef = std::shared_ptr<BackgroundURLSession>;
using URLSessionTaskRef = std::shared_ptr<URLSessionTask>;

/// What a session is made from. Immutable.
class KESTROVA_EXPORT URLSessionConfiguration {
 public:
  static URLSessionConfiguration backgroundSessionConfigurationWithIdentifier(std::string identifier) {
    return URLSessionConfiguration(std::move(identifier));
  }
  const std::string& identifier() const { return identifier_; }

 private:
  explicit URLSessionConfiguration(std::string identifier) : identifier_(std::move(identifier)) {}
  std::string identifier_;
};

/// Told of a session's events, one at a time, on the session's delegate queue. What leaves an operation goes to the
/// uncaught-exception service; the event then counts as not handed over.
class KESTROVA_EXPORT URLSessionDelegate {
 public:
  virtual ~URLSessionDelegate() = default;
  /// A task has ended: with an answer, whatever its status (error absent), or with an error.
  virtual void URLSessionTaskDidCompleteWithError(const BackgroundURLSessionRef& session, const URLSessionTaskRef& task,
                                                  const std::optional<Error>& error) = 0;
  /// The session is over; nothing comes after it. The error is absent after invalidateAndCancel.
  virtual void URLSessionDidBecomeInvalidWithError(const BackgroundURLSessionRef& session, const std::optional<Error>& error) = 0;
  /// The events that had come up while no process held the session have all been handed over.
  virtual void URLSessionDidFinishEventsForBackgroundURLSession(const BackgroundURLSessionRef& session) = 0;
  /// Never happens: background sessions here upload only.
  virtual void URLSessionDownloadTaskDidFinishDownloadingToURL(const BackgroundURLSessionRef& session,
                                                               const URLSessionTaskRef& downloadTask, const URL& location) = 0;
};

class KESTROVA_EXPORT BackgroundURLSession {
 public:
  /// Data, upload and download tasks.
  using TasksHandler =
      std::function<void(std::vector<URLSessionTaskRef>, std::vector<URLSessionTaskRef>, std::vector<URLSessionTaskRef>)>;

  /// The session of that identifier: the one that this process has made before and not invalidated (whose delegate stays), else a
  /// new object tied to what the service knows of it. It holds the delegate until it is invalidated, and is itself held by the
  /// platform until then (rows B1, B5, B8). An absent queue stands for a serial one of the session's own. Returns at once; any
  /// thread.
  static BackgroundURLSessionRef sessionWithConfigurationDelegateDelegateQueue(const URLSessionConfiguration& configuration,
                                                                               std::shared_ptr<URLSessionDelegate> delegate,
                                                                               std::shared_ptr<DispatchQueue> delegateQueue);
  virtual ~BackgroundURLSession() = default;

  virtual const URLSessionConfiguration& configuration() const = 0;
  /// A suspended task that uploads the file as the request's body; the request's own body is not looked at. The file must stay
  /// until the task has ended (row B7). Its resume() makes the task durable before it returns (one file written and synced on the
  /// calling thread) and waits for nothing else. Raises NSGenericException on an invalidated session. Any thread.
  virtual URLSessionTaskRef uploadTaskWithRequestFromFile(URLRequest request, const URL& file) = 0;
  /// Ends every task that has not ended with -999, then the session: one URLSessionDidBecomeInvalidWithError without error, no
  /// event after it (row B6). A second call does nothing. Returns at once; any thread.
  virtual void invalidateAndCancel() = 0;
  /// Hands over all tasks of the session that the service or this process knows, ended ones included, by identifier, on the
  /// delegate queue, once. Returns at once; any thread.
  virtual void getTasksWithCompletionHandler(TasksHandler handler) = 0;
};

/// Makes the background sessions of a process, and tells a program that was launched for one when it has done its part.
class KESTROVA_EXPORT BackgroundURLSessions {
 public:
  static BackgroundURLSessions& backgroundSessions();
  virtual ~BackgroundURLSessions() = default;

  virtual BackgroundURLSessionRef sessionWithConfigurationDelegateDelegateQueue(const URLSessionConfiguration& configuration,
                                                                                std::shared_ptr<URLSessionDelegate> delegate,
                                                                                std::shared_ptr<DispatchQueue> delegateQueue) = 0;
  /// The session for whose events the transfer service launched this process; absent when it was started otherwise. The program
  /// then hands it to the client's handleEventsForBackgroundURLSession.
  virtual std::optional<std::string> identifierOfLaunch() = 0;
  /// Runs the handler once, on the main queue, when the session's stored events have been handed over and recorded, also when that
  /// was so before the call: a program that was launched for them may exit then. For a session that this process has not made it
  /// runs when it has been made and that is so. Never for a session that has no stored events and that this process was not
  /// launched for. Any thread.
  virtual void notifyWhenEventsAreDelivered(const std::string& identifier, std::function<void()> handler) = 0;
  /// Has transfers go on that nobody works on because the service, or the machine, came to a sudden end. For the start of a
  /// program; looks at the disk on the background queue and starts nothing when all is well. Any thread; returns at once.
  virtual void goOnWithInterruptedTransfers() = 0;
};

}  // namespace platform
