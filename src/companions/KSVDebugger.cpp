// The debug trace: a bounded list of lines, and a listener that hears each as it comes.
//
// Two locks, so that reading the trace never waits for a listener: listenerMutex_ makes storing and hearing one step, in the same
// order for both; mutex_ guards the list alone.
#include "companions/KSVDebugger.h"

#include <utility>

#include "companions/Kestrova.h"
#include "platform/Process.h"
#include "platform/UTF8.h"

namespace {

// The debugger whose listener this thread is running. What a listener itself causes to be stored is kept but not told to it again.
thread_local const KSVDebugger* listenedTo = nullptr;

class Listening {
 public:
  explicit Listening(const KSVDebugger* debugger) : before_(std::exchange(listenedTo, debugger)) {}
  ~Listening() { listenedTo = before_; }
  Listening(const Listening&) = delete;
  Listening& operator=(const Listening&) = delete;

 private:
  const KSVDebugger* before_;
};

// Of a line that alone is larger than all that may be kept, the beginning, in memory of its own size.
void cutToBound(std::string& line) {
  line.resize(platform::beginningOf(line, KSVDebugger::kMaxBytes).size());
  line.shrink_to_fit();
}

}  // namespace

std::shared_ptr<KSVDebugger> KSVDebugger::sharedDebugger() { return platform::Process::current().sharedInstance<KSVDebugger>(); }

void KSVDebugger::storeInTrace(std::string line) {
  if (line.size() > kMaxBytes) cutToBound(line);
  if (platform::Process* process = platform::Process::currentOrNull(); process && process->traceSink)
    process->traceSink->take(line);
  if (listenedTo == this) return keep(std::move(line));

  std::lock_guard lock(listenerMutex_);
  if (!listener_) return keep(std::move(line));
  keep(line);
  Listening listening(this);
  listener_(line);
}

void KSVDebugger::keep(std::string line) {
  std::lock_guard lock(mutex_);
  bytes_ += line.size();
  lines_.push_back(std::move(line));
  while (lines_.size() > kMaxLines || bytes_ > kMaxBytes) {
    bytes_ -= lines_.front().size();
    lines_.pop_front();
  }
}

std::vector<std::string> KSVDebugger::trace() const {
  std::lock_guard lock(mutex_);
  return {lines_.begin(), lines_.end()};
}

void KSVDebugger::setListener(Listener listener) {
  std::lock_guard lock(listenerMutex_);
  std::swap(listener_, listener);  // the old one dies with the parameter, after the lock
}

bool isDebugTraceOn() { return Kestrova::debug(); }

void storeFormattedInTrace(std::string_view format, std::initializer_list<platform::FormatArgument> arguments) {
  KSVDebugger::sharedDebugger()->storeInTrace(platform::stringWithFormat(format, arguments));
}
