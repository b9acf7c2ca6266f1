// Both ends of the trace's socket.
#include "platform/linux/TraceSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/UTF8.h"
#include "platform/linux/ApplicationFolder.h"
#include "platform/linux/FileErrors.h"

namespace platform {
namespace {

constexpr const char* kName = "trace.socket";
/// Locked by the one who watches, for as long as it does: between making the socket and listening on it looks like being dead.
constexpr const char* kLockName = "trace.lock";

/// By way of the folder's descriptor: a path may be too long for an address.
sockaddr_un addressIn(const FileDescriptor& folder) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = "/proc/self/fd/" + std::to_string(folder.get()) + "/" + kName;
  std::memcpy(address.sun_path, name.c_str(), name.size() + 1);
  return address;
}

FileDescriptor packetSocket() { return FileDescriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); }

/// 0 or the system's error number.
int connectTo(const FileDescriptor& socket, const FileDescriptor& folder) {
  const sockaddr_un address = addressIn(folder);
  return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}
int bindTo(const FileDescriptor& socket, const FileDescriptor& folder) {
  const sockaddr_un address = addressIn(folder);
  return ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

/// The name of one whom nobody answers for any more goes, so that it does not keep the next one out.
int bindInPlaceOfTheDead(const FileDescriptor& socket, const FileDescriptor& folder) {
  const int bound = bindTo(socket, folder);
  if (bound != EADDRINUSE) return bound;
  if (connectTo(packetSocket(), folder) != ECONNREFUSED) return EADDRINUSE;
  (void)::unlinkat(folder.get(), kName, 0);
  return bindTo(socket, folder);
}

std::unexpected<Error> failure(int error, const std::string& path) {
  return std::unexpected(Error(kPOSIXErrorDomain, error, path + ": " + systemErrorText(error)));
}

pid_t processBehind(int connection) {
  ucred peer{};
  socklen_t length = sizeof peer;
  return ::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : 0;
}

}  // namespace

TraceSocket::TraceSocket(const SystemOptions& options) : path_(ApplicationFolder(options).path()) {}

void TraceSocket::take(std::string_view line) {
  if (!path_) return;
  const int before = errno;  // of the code that is being traced
  {
    const std::lock_guard lock(mutex_);
    if (isConnected_ || connect()) {
      const bool isTold = leftOut_ == 0 || send(std::to_string(leftOut_) + " lines were left out");
      if (isTold) leftOut_ = 0;
      if (!isTold || !send(line)) ++leftOut_;
    }
  }
  errno = before;
}

bool TraceSocket::findFolder() {
  struct stat there{};
  if (::stat(path_->c_str(), &there) != 0) return folder_.close(), false;
  // While it is open here, no other folder gets its number.
  if (folder_.isOpen() && there.st_dev == device_ && there.st_ino == number_) return true;
  auto opened = FileDescriptor::open(*path_, O_PATH | O_DIRECTORY);
  if (!opened || ::fstat(opened->get(), &there) != 0) return folder_.close(), false;
  folder_ = *std::move(opened);
  device_ = there.st_dev;
  number_ = there.st_ino;
  return true;
}

bool TraceSocket::connect() {
  if (!findFolder()) return false;
  if (!socket_.isOpen()) socket_ = packetSocket();
  isConnected_ = connectTo(socket_, folder_) == 0;
  leftOut_ = 0;
  return isConnected_;
}

bool TraceSocket::send(std::string_view line) {
  line = beginningOf(line, kMaxBytes);
  if (::send(socket_.get(), line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) return true;
  if (errno != EAGAIN) {  // the watcher is gone
    (void)socket_.close();
    isConnected_ = false;
  }
  return false;
}

std::expected<TraceListener, Error> TraceListener::open(const SystemOptions& options) {
  const auto path = ApplicationFolder(options).path();
  if (!path) return failure(ENOENT, "the application's folder");
  if (const int error = makeDirectories(*path)) return failure(error, *path);
  auto folder = FileDescriptor::open(*path, O_PATH | O_DIRECTORY);
  if (!folder) return failure(folder.error(), *path);
  std::string name = *path + "/" + kName;
  auto lock = FileDescriptor::open(*path + "/" + kLockName, O_RDWR | O_CREAT);
  if (!lock) return failure(lock.error(), *path + "/" + kLockName);
  // A file system without locks has other errors, and is no reason to watch nothing.
  if (::flock(lock->get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) return failure(EADDRINUSE, name);
  FileDescriptor socket = packetSocket();
  if (!socket.isOpen()) return failure(errno, name);
  if (const int error = bindInPlaceOfTheDead(socket, *folder)) return failure(error, name);
  if (::listen(socket.get(), SOMAXCONN) != 0) return failure(errno, name);
  return TraceListener(std::move(name), *std::move(lock), *std::move(folder), std::move(socket));
}

TraceListener::~TraceListener() {
  if (socket_.isOpen()) (void)::unlinkat(folder_.get(), kName, 0);
}

void TraceListener::accept() {
  FileDescriptor connection(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!connection.isOpen()) return;
  const pid_t process = processBehind(connection.get());
  const int descriptor = connection.get();
  connections_.emplace(descriptor, std::pair(std::move(connection), process));
}

bool TraceListener::receive(int connection, bool hasEnded, const Lines& lines) {
  std::array<char, TraceSocket::kMaxBytes> buffer;
  const ssize_t length = ::recv(connection, buffer.data(), buffer.size(), 0);
  if (length < 0) return errno == EAGAIN || errno == EINTR;
  if (length == 0 && hasEnded) return false;  // else an empty line
  lines(connections_.at(connection).second, std::string_view(buffer.data(), static_cast<std::size_t>(length)));
  return true;
}

int TraceListener::follow(const Lines& lines, int stop) {
  for (;;) {
    std::vector<pollfd> waited{{stop, POLLIN, 0}, {socket_.get(), POLLIN, 0}};
    for (const auto& connection : connections_) waited.push_back({connection.first, POLLIN, 0});
    if (::poll(waited.data(), waited.size(), -1) < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (waited[0].revents) return 0;
    for (std::size_t i = 2; i < waited.size(); ++i) {
      const bool hasEnded = (waited[i].revents & ~POLLIN) != 0;
      const bool hasLine = (waited[i].revents & POLLIN) != 0;
      if (hasLine ? !receive(waited[i].fd, hasEnded, lines) : hasEnded) connections_.erase(waited[i].fd);
    }
    if (waited[1].revents) accept();
  }
}

}  // namespace platform
