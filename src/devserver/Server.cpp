// Listening, accepting and stopping.
#include "devserver/Server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

namespace devserver {
namespace {

constexpr int kPortAttempts = 16;
/// How long accepting rests when the process has run out of descriptors.
constexpr std::chrono::milliseconds kRest{50};

int makeListener(const sockaddr* address, socklen_t size, int family) {
  const int listener = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener < 0) return -1;
  const int on = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (family == AF_INET6) ::setsockopt(listener, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
  if (::bind(listener, address, size) == 0 && ::listen(listener, SOMAXCONN) == 0) return listener;
  const int error = errno;
  ::close(listener);
  errno = error;
  return -1;
}

int listenOn4(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return makeListener(reinterpret_cast<const sockaddr*>(&address), sizeof(address), AF_INET);
}

int listenOn6(std::uint16_t port) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  address.sin6_addr = in6addr_loopback;
  return makeListener(reinterpret_cast<const sockaddr*>(&address), sizeof(address), AF_INET6);
}

std::uint16_t portOf(int listener) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

}  // namespace

struct Server::Worker {
  Worker(int socket, SSL_CTX* context, std::chrono::milliseconds timeout) : connection(socket, context, timeout) {}
  TlsConnection connection;
  std::atomic<bool> done{false};
  std::thread thread;
};

Server::Server(Api& api, TlsContext context, std::chrono::milliseconds idleTimeout)
    : api_(api), context_(std::move(context)), idleTimeout_(idleTimeout) {}

Server::~Server() {
  if (listener4_ >= 0) ::close(listener4_);
  if (listener6_ >= 0) ::close(listener6_);
}

std::expected<void, std::string> Server::listen(std::uint16_t port) {
  int error = 0;
  // A port that is free on one address may be taken on the other; when any will do, the next one is tried.
  for (int attempt = 0; attempt < (port == 0 ? kPortAttempts : 1); ++attempt) {
    listener4_ = listenOn4(port);
    error = errno;
    if (listener4_ < 0) break;
    port_ = portOf(listener4_);
    listener6_ = listenOn6(port_);
    error = errno;
    if (listener6_ >= 0 || error != EADDRINUSE) return {};
    ::close(std::exchange(listener4_, -1));
  }
  return std::unexpected("cannot listen on port " + std::to_string(port) + ": " + std::generic_category().message(error));
}

void Server::run(int stopDescriptor) {
  while (true) {
    std::array<pollfd, 3> waiting{pollfd{stopDescriptor, POLLIN, 0}, pollfd{listener4_, POLLIN, 0}, pollfd{listener6_, POLLIN, 0}};
    if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) break;
    if (waiting[0].revents) break;
    reap(false);
    if (waiting[1].revents) accept(listener4_);
    if (waiting[2].revents) accept(listener6_);
  }
  stop_.raise();
  api_.feed().close();
  for (const auto& worker : workers_) worker->connection.interrupt();
  reap(true);
}

void Server::accept(int listener) {
  const int socket = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (socket < 0) {
    if (errno == EMFILE || errno == ENFILE) std::this_thread::sleep_for(kRest);
    return;
  }
  if (workers_.size() >= kMaxConnections) {
    ::close(socket);
    return;
  }
  auto worker = std::make_unique<Worker>(socket, context_.get(), idleTimeout_);
  try {
    worker->thread = std::thread([this, &worker = *worker, number = ++accepted_] { serve(worker, number); });
  } catch (const std::system_error& error) {  // no more threads: this connection is closed, the others go on
    printError(error.what());
    return;
  }
  workers_.push_back(std::move(worker));
}

void Server::serve(Worker& worker, std::uint64_t number) {
  try {
    serveConnection(worker.connection, api_, stop_, number, idleTimeout_);
  } catch (const std::exception& error) {
    printError("connection " + std::to_string(number) + ": " + error.what());
  }
  // The other side must not wait for the next accept, which takes this connection apart.
  worker.connection.interrupt();
  worker.done = true;
}

void Server::reap(bool all) {
  std::erase_if(workers_, [all](const std::unique_ptr<Worker>& worker) {
    if (!all && !worker->done) return false;
    worker->thread.join();
    return true;
  });
}

}  // namespace devserver
