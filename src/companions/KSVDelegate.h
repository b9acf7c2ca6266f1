// The host side's object that is told of what the server answers.
#pragma once

#include "platform/Export.h"
#include "platform/Value.h"

/// Held weakly by the client. Called on the completion queue of the shared URL session, one call at a time; what the server sent is
/// handed over as it is, of whatever kind. A delegate may throw only what it wants the process to end with.
class KESTROVA_EXPORT KSVDelegate {
 public:
  virtual ~KSVDelegate() = default;
  /// The identifiers of the user and of the application.
  virtual void setUserId(const platform::Value& userId) = 0;
  virtual void setAppIdentifier(const platform::Value& appIdentifier) = 0;
  /// Notifications, at least one.
  virtual void handleEventsFromServer(const platform::Value& notifications) = 0;
};
