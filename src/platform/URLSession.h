// URL loading: the shared session and its data tasks (platform rows U1 to U12).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/URLRequest.h"
#include "platform/URLResponse.h"

namespace platform {

class KESTROVA_EXPORT URLSessionTask {
 public:
  enum class State : int { kRunning = 0, kSuspended = 1, kCanceling = 2, kCompleted = 3 };

  virtual ~URLSessionTask() = default;
  /// Unique within the session, from 1.
  virtual std::uint64_t taskIdentifier() const = 0;
  virtual State state() const = 0;
  /// Starts a suspended task; does nothing otherwise. Returns at once.
  virtual void resume() = 0;
  /// Ends the task with -999 exactly once; does nothing when it has completed (platform row U11). Any thread.
  virtual void cancel() = 0;
};

class KESTROVA_EXPORT URLSession {
 public:
  /// Body, response and error; an error is present exactly when the exchange was not completed, whatever the status. Runs exactly
  /// once, on the session's own serial completion queue.
  using CompletionHandler = std::move_only_function<void(std::optional<Data>, HTTPURLResponseRef, std::optional<Error>)>;

  static URLSession& sharedSession();
  virtual ~URLSession() = default;

  /// A suspended task. The session keeps a resumed task alive until its handler has run. Any thread; never waits.
  virtual std::shared_ptr<URLSessionTask> dataTaskWithRequestCompletionHandler(URLRequest request, CompletionHandler handler) = 0;
};

}  // namespace platform
