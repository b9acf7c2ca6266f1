// The sockets of a loop's connections, known to us beside the library. Used by the loop's thread only.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <vector>

namespace platform {

/// Must outlive every connection that was opened through it.
class CurlSockets {
 public:
  curl_socket_t open(const curl_sockaddr& address);
  void close(curl_socket_t descriptor);

  /// Whether something, be it the end, has arrived on the connection with this local port. The library does not tell which socket
  /// belongs to a transfer before its end, only the ports.
  bool hasInput(std::uint16_t localPort);

 private:
  struct Socket {
    curl_socket_t descriptor;
    std::uint16_t localPort;  // 0 until it is looked up
  };

  std::vector<Socket> sockets_;
};

}  // namespace platform
