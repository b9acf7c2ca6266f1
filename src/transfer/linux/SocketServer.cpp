// Accepting, reading, sending, closing.
#include "transfer/linux/SocketServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

#include "platform/SystemLog.h"
#include "platform/linux/FileErrors.h"

namespace transfer {
namespace {

using platform::Error;
using platform::FileDescriptor;

constexpr int kBacklog = 128;
constexpr std::size_t kPiece = 65536;

bool isOwnUser(const FileDescriptor& socket) {
  ucred peer{};
  socklen_t length = sizeof peer;
  return getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && peer.uid == geteuid();
}

Error socketError(int error, const std::string& path) {
  return Error(platform::kPOSIXErrorDomain, error,
               "The service cannot listen on “" + path + "”: " + platform::systemErrorText(error) + ".");
}

}  // namespace

SocketServer::SocketServer(EventLoop& loop, const platform::TransferDirectory& directory, Handlers handlers)
    : loop_(loop), directory_(directory), handlers_(std::move(handlers)) {}

SocketServer::~SocketServer() {
  if (listener_.isOpen() && !isPaused_) loop_.unwatch(listener_.get());
  for (const auto& [id, connection] : connections_) loop_.unwatch(connection.socket.get());
}

std::expected<void, Error> SocketServer::listen() {
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket.isOpen()) return std::unexpected(socketError(errno, directory_.socket()));
  if (unlink(directory_.socket().c_str()) != 0 && errno != ENOENT) return std::unexpected(socketError(errno, directory_.socket()));
  const sockaddr_un address = directory_.socketAddress();
  // The mode of the socket itself becomes that of the name, whatever the process's mask.
  if (fchmod(socket.get(), 0600) != 0 || bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      chmod(directory_.socket().c_str(), 0600) != 0 || ::listen(socket.get(), kBacklog) != 0) {
    return std::unexpected(socketError(errno, directory_.socket()));
  }
  listener_ = std::move(socket);
  loop_.watch(listener_.get(), EPOLLIN, [this](std::uint32_t) { acceptAll(); });
  return {};
}

bool SocketServer::stopListening() {
  (void)unlink(directory_.socket().c_str());  // the next service removes what is left
  const std::size_t late = acceptAll();
  if (!isPaused_) loop_.unwatch(listener_.get());
  isPaused_ = false;
  listener_ = FileDescriptor();
  return late == 0;
}

std::size_t SocketServer::acceptAll() {
  for (std::size_t count = 0;; ++count) {
    FileDescriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket.isOpen()) {
      add(std::move(socket));
      continue;
    }
    if (errno == EINTR || errno == ECONNABORTED) continue;
    // Whoever is waiting would wake the loop again and again.
    if (errno != EAGAIN && !std::exchange(isPaused_, true)) loop_.unwatch(listener_.get());
    return count;
  }
}

void SocketServer::add(FileDescriptor socket) {
  if (!isOwnUser(socket)) {
    platform::SystemLog::systemLog().log("Refused a connection of another user");
    return refuse(socket, "The service belongs to another user.");
  }
  if (connections_.size() >= kMaxConnections) return refuse(socket, "The service has too many connections.");
  const ConnectionId id = ++lastId_;
  const int descriptor = socket.get();
  connections_[id].socket = std::move(socket);
  loop_.watch(descriptor, EPOLLIN, [this, id](std::uint32_t events) { ready(id, events); });
  handlers_.opened(id);
}

void SocketServer::refuse(const FileDescriptor& socket, const std::string& reason) const {
  const std::string line = encode(Refused{reason});
  // A socket that was just opened has room; whoever does not get it sees the end.
  (void)::send(socket.get(), line.data(), line.size(), MSG_NOSIGNAL);
}

void SocketServer::ready(ConnectionId id, std::uint32_t events) {
  if ((events & EPOLLOUT) != 0)
    if (const auto found = connections_.find(id); found != connections_.end()) flush(id, found->second);
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) readFrom(id);
}

// One piece for each turn, so that nobody is kept waiting by one who talks without end.
void SocketServer::readFrom(ConnectionId id) {
  const auto found = connections_.find(id);
  if (found == connections_.end() || found->second.isEnding) return;
  std::array<char, kPiece> piece;
  const ssize_t count = recv(found->second.socket.get(), piece.data(), piece.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return endSoon(id, found->second);
  if (found->second.isDeaf) return;
  found->second.reader.append({piece.data(), static_cast<std::size_t>(count)});
  // The handlers may close the connection; it is gone in a later turn only.
  while (!found->second.isDeaf) {
    const auto message = found->second.reader.next();
    if (!message) return;
    if (*message) {
      handlers_.arrived(id, **message);
    } else {
      found->second.isDeaf = true;
      handlers_.garbage(id, message->error());
    }
  }
}

void SocketServer::send(ConnectionId id, const Message& message) {
  const auto found = connections_.find(id);
  if (found == connections_.end() || found->second.closingSince || found->second.isBroken) return;
  Connection& connection = found->second;
  connection.out += encode(message);
  flush(id, connection);
  if (connection.out.size() <= kMaxWaitingBytes) return;
  connection.isBroken = true;
  connection.out.clear();
  endSoon(id, connection);
}

void SocketServer::close(ConnectionId id) {
  const auto found = connections_.find(id);
  if (found == connections_.end() || found->second.closingSince) return;
  found->second.isDeaf = true;
  found->second.closingSince = Clock::now();
  flush(id, found->second);
}

void SocketServer::flush(ConnectionId id, Connection& connection) {
  while (!connection.out.empty() && !connection.isBroken) {
    const ssize_t count = ::send(connection.socket.get(), connection.out.data(), connection.out.size(), MSG_NOSIGNAL);
    if (count >= 0) {
      connection.out.erase(0, static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      break;
    } else if (errno != EINTR) {
      connection.isBroken = true;
      connection.out.clear();
    }
  }
  if (connection.out.empty() && (connection.isBroken || connection.closingSince)) return endSoon(id, connection);
  if (connection.isEnding || connection.wantsRoom == !connection.out.empty()) return;
  connection.wantsRoom = !connection.out.empty();
  loop_.change(connection.socket.get(), connection.wantsRoom ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

// Told later, as this may be the inside of a call of whoever is told.
void SocketServer::endSoon(ConnectionId id, Connection& connection) {
  if (std::exchange(connection.isEnding, true)) return;
  connection.isDeaf = true;
  loop_.unwatch(connection.socket.get());
  loop_.post([this, id, alive = std::weak_ptr(alive_)] {
    if (!alive.expired()) end(id);
  });
}

void SocketServer::end(ConnectionId id) {
  connections_.erase(id);
  handlers_.closed(id);
}

void SocketServer::tick() {
  const Clock::time_point now = Clock::now();
  for (auto& [id, connection] : connections_)
    if (connection.closingSince && now - *connection.closingSince > kClosingTime) endSoon(id, connection);
  if (!listener_.isOpen() || !std::exchange(isPaused_, false)) return;
  loop_.watch(listener_.get(), EPOLLIN, [this](std::uint32_t) { acceptAll(); });
}

}  // namespace transfer
