// Opening, closing and looking at the sockets of connections.
#include "platform/linux/CurlSockets.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace platform {
namespace {

std::uint16_t localPortOf(curl_socket_t descriptor) {
  union {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
  } address{};
  socklen_t length = sizeof address;
  if (getsockname(descriptor, &address.any, &length) != 0) return 0;
  return ntohs(address.any.sa_family == AF_INET6 ? address.v6.sin6_port : address.v4.sin_port);
}

}  // namespace

curl_socket_t CurlSockets::open(const curl_sockaddr& address) {
  // Connections are kept alive; a program that the host starts must not inherit them.
  const int descriptor = socket(address.family, address.socktype | SOCK_CLOEXEC, address.protocol);
  if (descriptor < 0) return CURL_SOCKET_BAD;
  sockets_.push_back({descriptor, 0});
  return descriptor;
}

void CurlSockets::close(curl_socket_t descriptor) {
  std::erase_if(sockets_, [descriptor](const Socket& socket) { return socket.descriptor == descriptor; });
  ::close(descriptor);
}

// Two connections to different servers may have the same local port; input on the other one then costs a new connection, no more.
bool CurlSockets::hasInput(std::uint16_t localPort) {
  return std::ranges::any_of(sockets_, [localPort](Socket& socket) {
    if (socket.localPort == 0) socket.localPort = localPortOf(socket.descriptor);
    if (socket.localPort != localPort) return false;
    pollfd query{socket.descriptor, POLLIN, 0};
    return poll(&query, 1, 0) != 0;
  });
}

}  // namespace platform
