// The SDK's debug trace: the newest lines in bounded memory, each also passed on to whoever watches from outside.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Export.h"
#include "platform/Format.h"

class KESTROVA_EXPORT KSVDebugger {
 public:
  /// Called with each line as it is stored, on the thread that stores it, one call at a time. Must not throw. A line that it stores
  /// itself is kept and not told to it.
  using Listener = std::function<void(std::string_view line)>;

  /// Bounds of what is kept: the oldest lines go first. Of a line of more than kMaxBytes only its beginning is kept and told.
  static constexpr std::size_t kMaxLines = 10'000;
  static constexpr std::size_t kMaxBytes = std::size_t{1024} * 1024;

  /// The one of the process.
  static std::shared_ptr<KSVDebugger> sharedDebugger();

  /// Any thread.
  void storeInTrace(std::string line);
  /// The kept lines, oldest first. Any thread.
  std::vector<std::string> trace() const;
  /// Replaces the listener; an absent one ends it. When this returns the old one is not being called any more. Not from the
  /// listener.
  void setListener(Listener listener);

 private:
  void keep(std::string line);

  mutable std::mutex mutex_;  // guards lines_ and bytes_
  std::deque<std::string> lines_;
  std::size_t bytes_ = 0;
  std::mutex listenerMutex_;  // held while a line is stored and the listener runs
  Listener listener_;
};

/// Stores a formatted message in the trace when the debug flag is on; otherwise the message is not even formatted.
template <class... Arguments>
void debugTrace(std::string_view format, const Arguments&... arguments);

/// What debugTrace is made of.
KESTROVA_EXPORT bool isDebugTraceOn();
KESTROVA_EXPORT void storeFormattedInTrace(std::string_view format, std::initializer_list<platform::FormatArgument> arguments);

template <class... Arguments>
void debugTrace(std::string_view format, const Arguments&... arguments) {
  if (isDebugTraceOn()) storeFormattedInTrace(format, {platform::FormatArgument(arguments)...});
}
