// One accepted connection: a blocking socket with time-outs under TLS (OpenSSL).
#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <cstddef>
#include <expected>
#include <memory>
#include <string>
#include <string_view>

#include "devserver/CertificateAuthority.h"

namespace devserver {

struct FreeTlsContext {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using TlsContext = std::unique_ptr<SSL_CTX, FreeTlsContext>;

/// TLS 1.2 and up with the server's certificate; HTTP/1.1 is the only protocol.
std::expected<TlsContext, std::string> makeTlsContext(const Certificates& certificates);

/// Used by one thread, but for interrupt.
class TlsConnection {
 public:
  /// Takes the socket over. Reads and writes fail when they make no progress for `timeout`.
  TlsConnection(int socket, SSL_CTX* context, std::chrono::milliseconds timeout);
  ~TlsConnection();
  TlsConnection(const TlsConnection&) = delete;
  TlsConnection& operator=(const TlsConnection&) = delete;

  bool handshake();
  /// How many bytes came; 0 at the end, at a time-out and at any failure, after all of which the connection is of no more use.
  std::size_t read(char* buffer, std::size_t size);
  bool write(std::string_view bytes);
  /// Reads fail from this moment on, so that a client cannot hold a thread by sending a byte now and then.
  void setReadDeadline(std::chrono::steady_clock::time_point deadline) { deadline_ = deadline; }

  /// Tells the client that nothing more comes.
  void closeOrderly();
  /// As closeOrderly, and lets a client that is still sending read its answer first: a socket that is closed over unread bytes
  /// takes back what was sent.
  void closeLingering();
  /// Ends every read and write, now and later. Any thread.
  void interrupt() const;

 private:
  const int socket_;
  SSL* ssl_;
  bool usable_;
  std::chrono::steady_clock::time_point deadline_ = std::chrono::steady_clock::time_point::max();
};

}  // namespace devserver
