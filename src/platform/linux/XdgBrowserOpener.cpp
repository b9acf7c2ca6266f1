// Starting xdg-open and waiting for its end.
#include "platform/linux/XdgBrowserOpener.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <utility>

#include "platform/linux/DetachedProgram.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/SpawnTexts.h"

namespace platform {

// Becomes readable for everybody when the opener is closed.
class XdgBrowserOpener::Closing {
 public:
  Closing() : event_(eventfd(0, EFD_CLOEXEC)) {}
  void close() const { eventfd_write(event_.get(), 1); }
  int descriptor() const { return event_.get(); }

 private:
  FileDescriptor event_;
};

namespace {

constexpr const char* kProgram = "xdg-open";

// True when the child has ended, false when the opener was closed before. A system without handles of processes (before Linux 5.3)
// cannot wait for both, and waits for the child.
bool waitForEnd(pid_t child, int closing) {
  const auto handle = descriptorOfProcess(child);
  if (!handle) return true;
  std::array<pollfd, 2> events{{{handle->get(), POLLIN, 0}, {closing, POLLIN, 0}}};
  while (poll(events.data(), events.size(), -1) < 0 && errno == EINTR) {
  }
  return events[0].revents != 0;
}

bool endedWell(pid_t child) {
  int status = 0;
  pid_t ended = 0;
  do ended = waitpid(child, &status, 0);
  while (ended < 0 && errno == EINTR);
  return ended == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool isForBrowsers(const URL& url) { return url.scheme() == "https" || url.scheme() == "http"; }

bool opened(const URL& url, int closing) {
  if (!isForBrowsers(url)) return false;
  // It starts where the host is, as PATH and the user's choice of a browser may hold relative names.
  const auto child = startDetachedProgram({kProgram, url.absoluteString()}, environmentForOthersWith({}), StartFolder::kCallers);
  return child && waitForEnd(*child, closing) && endedWell(*child);
}

}  // namespace

XdgBrowserOpener::XdgBrowserOpener(DispatchQueues& queues) : queues_(queues), closing_(std::make_shared<Closing>()) {}

XdgBrowserOpener::~XdgBrowserOpener() { closing_->close(); }

void XdgBrowserOpener::openURL(const URL& url, Completion completion) {
  queues_.makeSerialQueue("browser")->async(
      [closing = closing_, url, completion = std::move(completion)]() mutable { completion(opened(url, closing->descriptor())); });
}

}  // namespace platform
