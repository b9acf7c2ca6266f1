// TLS over a socket.
#include "devserver/TlsConnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <utility>

namespace devserver {
namespace {

constexpr std::size_t kReadAhead = std::size_t{128} * 1024;
constexpr std::chrono::seconds kLinger{5};
constexpr std::chrono::milliseconds kLingerStep{500};

std::string lastError() {
  std::array<char, 256> text{};
  ERR_error_string_n(ERR_get_error(), text.data(), text.size());
  return text.data();
}

void setTimeout(int socket, int option, std::chrono::milliseconds timeout) {
  timeval value{};
  value.tv_sec = timeout.count() / 1000;
  value.tv_usec = (timeout.count() % 1000) * 1000;
  ::setsockopt(socket, SOL_SOCKET, option, &value, sizeof(value));
}

int selectProtocol(SSL*, const unsigned char** chosen, unsigned char* chosenLength, const unsigned char* offered, unsigned length,
                   void*) {
  static constexpr std::array<unsigned char, 9> kHttp11{8, 'h', 't', 't', 'p', '/', '1', '.', '1'};
  unsigned char* found = nullptr;
  const int result = SSL_select_next_proto(&found, chosenLength, kHttp11.data(), kHttp11.size(), offered, length);
  *chosen = found;
  return result == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_NOACK;
}

}  // namespace

std::expected<TlsContext, std::string> makeTlsContext(const Certificates& certificates) {
  TlsContext context(SSL_CTX_new(TLS_server_method()));
  if (!context) return std::unexpected("OpenSSL: " + lastError());
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  SSL_CTX_set_mode(context.get(), SSL_MODE_AUTO_RETRY);
  // One system call for several records, where so many have come.
  SSL_CTX_set_read_ahead(context.get(), 1);
  SSL_CTX_set_default_read_buffer_len(context.get(), kReadAhead);
  SSL_CTX_set_alpn_select_cb(context.get(), selectProtocol, nullptr);
  if (SSL_CTX_use_certificate_chain_file(context.get(), certificates.certificate.c_str()) != 1)
    return std::unexpected(certificates.certificate.string() + ": " + lastError());
  if (SSL_CTX_use_PrivateKey_file(context.get(), certificates.key.c_str(), SSL_FILETYPE_PEM) != 1)
    return std::unexpected(certificates.key.string() + ": " + lastError());
  return context;
}

TlsConnection::TlsConnection(int socket, SSL_CTX* context, std::chrono::milliseconds timeout)
    : socket_(socket), ssl_(SSL_new(context)), usable_(ssl_ && SSL_set_fd(ssl_, socket_) == 1) {
  setTimeout(socket_, SO_RCVTIMEO, timeout);
  setTimeout(socket_, SO_SNDTIMEO, timeout);
  const int on = 1;
  ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

TlsConnection::~TlsConnection() {
  SSL_free(ssl_);
  ::close(socket_);
}

bool TlsConnection::handshake() {
  ERR_clear_error();
  usable_ = usable_ && SSL_accept(ssl_) == 1;
  return usable_;
}

std::size_t TlsConnection::read(char* buffer, std::size_t size) {
  if (!usable_ || std::chrono::steady_clock::now() >= deadline_) return 0;
  ERR_clear_error();
  const int count = SSL_read(ssl_, buffer, static_cast<int>(std::min<std::size_t>(size, INT_MAX)));
  if (count > 0) return static_cast<std::size_t>(count);
  usable_ = SSL_get_error(ssl_, count) == SSL_ERROR_ZERO_RETURN;  // the client may still read what is written
  return 0;
}

bool TlsConnection::write(std::string_view bytes) {
  while (usable_ && !bytes.empty()) {
    ERR_clear_error();
    const int count = SSL_write(ssl_, bytes.data(), static_cast<int>(std::min<std::size_t>(bytes.size(), INT_MAX)));
    usable_ = count > 0;
    if (usable_) bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return usable_;
}

void TlsConnection::closeOrderly() {
  ERR_clear_error();
  if (std::exchange(usable_, false)) SSL_shutdown(ssl_);
}

void TlsConnection::closeLingering() {
  closeOrderly();
  ::shutdown(socket_, SHUT_WR);
  setTimeout(socket_, SO_RCVTIMEO, kLingerStep);
  const auto end = std::chrono::steady_clock::now() + kLinger;
  std::array<char, 65536> ignored{};
  // A pause longer than a step is taken for the end: the client has read its answer by then.
  while (std::chrono::steady_clock::now() < end && ::recv(socket_, ignored.data(), ignored.size(), 0) > 0) continue;
}

void TlsConnection::interrupt() const { ::shutdown(socket_, SHUT_RDWR); }

}  // namespace devserver
