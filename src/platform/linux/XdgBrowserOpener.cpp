// Starting xdg-open and waiting for its end.
#include "platform/linux/XdgBrowserOpener.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/FileDescriptor.h"

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

// What is set for the new program before it starts.
class Preparation {
 public:
  Preparation() {
    posix_spawn_file_actions_init(&actions_);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
      posix_spawn_file_actions_addopen(&actions_, standard, "/dev/null", O_RDWR, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);

    // The waiting thread blocks nearly every signal, and a host may ignore some: a new program would inherit both.
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setsigmask(&attributes_, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~Preparation() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }
  Preparation(const Preparation&) = delete;
  Preparation& operator=(const Preparation&) = delete;

  const posix_spawn_file_actions_t& actions() const { return actions_; }
  const posix_spawnattr_t& attributes() const { return attributes_; }

 private:
  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
};

std::optional<pid_t> start(std::string address) {
  const Preparation preparation;
  std::string program = kProgram;
  const std::array<char*, 3> arguments{program.data(), address.data(), nullptr};
  pid_t child = 0;
  if (posix_spawnp(&child, kProgram, &preparation.actions(), &preparation.attributes(), arguments.data(), environ) != 0)
    return std::nullopt;
  return child;
}

// True when the child has ended, false when the opener was closed before. A system without handles of processes (before Linux 5.3)
// cannot wait for both, and waits for the child.
bool waitForEnd(pid_t child, int closing) {
  const FileDescriptor handle(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  if (!handle.isOpen()) return true;
  std::array<pollfd, 2> events{{{handle.get(), POLLIN, 0}, {closing, POLLIN, 0}}};
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
  const std::optional<pid_t> child = start(url.absoluteString());
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
