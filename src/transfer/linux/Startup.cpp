// The lock, and the question whether somebody answers.
#include "transfer/linux/Startup.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/FileErrors.h"

namespace transfer {
namespace {

using platform::Error;
using platform::FileDescriptor;
using Clock = std::chrono::steady_clock;

constexpr int kAnswerLimit = 2000;  // milliseconds
constexpr int kPause = 20;          // milliseconds

void pauseABit() { (void)poll(nullptr, 0, kPause); }

Error lockError(int error, const platform::TransferDirectory& directory) {
  return Error(platform::kPOSIXErrorDomain, error,
               "The lock “" + directory.lock() + "” cannot be taken: " + platform::systemErrorText(error) + ".");
}

}  // namespace

// An empty line is no message, so that the service refuses it, which is an answer, and remembers nothing of it.
std::optional<pid_t> answeringService(const platform::TransferDirectory& directory) {
  const auto socket = directory.connect();
  if (!socket || send(socket->get(), "\n", 1, MSG_NOSIGNAL) != 1) return std::nullopt;
  pollfd query{socket->get(), POLLIN, 0};
  char first = 0;
  if (poll(&query, 1, kAnswerLimit) != 1 || recv(socket->get(), &first, 1, 0) != 1) return std::nullopt;
  ucred peer{};
  socklen_t length = sizeof peer;
  if (getsockopt(socket->get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return std::nullopt;
  return peer.pid;
}

std::optional<pid_t> waitForService(const platform::TransferDirectory& directory) {
  for (const auto limit = Clock::now() + kStartLimit; Clock::now() < limit; pauseABit())
    if (const auto process = answeringService(directory)) return process;
  return std::nullopt;
}

std::expected<FileDescriptor, Error> takeLock(const platform::TransferDirectory& directory) {
  auto lock = FileDescriptor::open(directory.lock(), O_RDWR | O_CREAT | O_NOFOLLOW);
  if (!lock) return std::unexpected(lockError(lock.error(), directory));
  for (const auto limit = Clock::now() + kStartLimit; Clock::now() < limit; pauseABit()) {
    if (flock(lock->get(), LOCK_EX | LOCK_NB) == 0) return std::move(*lock);
    if (errno != EWOULDBLOCK && errno != EINTR) return std::unexpected(lockError(errno, directory));
    if (answeringService(directory)) return FileDescriptor();
  }
  return std::unexpected(
      Error(platform::kPOSIXErrorDomain, EBUSY, "A service that does not answer holds the lock “" + directory.lock() + "”."));
}

}  // namespace transfer
