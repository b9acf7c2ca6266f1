// The system log of this machine.
#include "platform/linux/SyslogSystemLog.h"

#include <signal.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace platform {
namespace {

// Keeps a SIGPIPE that a write raises from the thread it is raised on, and takes it away again.
class PipeSignalGuard {
 public:
  PipeSignalGuard() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
  }
  ~PipeSignalGuard() {
    constexpr timespec kAtOnce{};
    if (!wasPending_)
      while (sigtimedwait(&pipe_, nullptr, &kAtOnce) < 0 && errno == EINTR) {
      }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  PipeSignalGuard(const PipeSignalGuard&) = delete;
  PipeSignalGuard& operator=(const PipeSignalGuard&) = delete;

 private:
  sigset_t pipe_;
  sigset_t before_;
  bool wasPending_ = false;
};

void writeToStandardError(std::string_view text) {
  const PipeSignalGuard guard;
  while (!text.empty()) {
    const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));  // only where the system took a part
  }
}

}  // namespace

void SyslogSystemLog::log(std::string_view message) {
  const int errorBefore = errno;
  std::string line(message);
  line += '\n';
  writeToStandardError(line);
  line.pop_back();
  syslog(LOG_USER | LOG_NOTICE, "%s", line.c_str());
  errno = errorBefore;
}

}  // namespace platform
