// HTTPS by hand, over OpenSSL.
#include "support/HttpsClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "support/Event.h"

namespace test {
namespace {

std::string lowered(std::string text) {
  std::ranges::transform(text, text.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return text;
}

HttpAnswer headOf(std::string_view head) {
  HttpAnswer answer;
  answer.status = std::atoi(std::string(head.substr(head.find(' ') + 1, 3)).c_str());
  for (auto at = head.find("\r\n"); at != std::string_view::npos;) {
    const auto end = head.find("\r\n", at + 2);
    const std::string_view line = head.substr(at + 2, end == std::string_view::npos ? end : end - at - 2);
    const auto colon = line.find(": ");
    if (colon != std::string_view::npos) answer.fields[lowered(std::string(line.substr(0, colon)))] = line.substr(colon + 2);
    at = end;
  }
  return answer;
}

}  // namespace

HttpsClient::HttpsClient(std::uint16_t port, const std::string& authorityFile, const std::string& name)
    : context_(SSL_CTX_new(TLS_client_method())) {
  connect(port, authorityFile, name);
}

HttpsClient::~HttpsClient() {
  SSL_free(ssl_);
  SSL_CTX_free(context_);
  if (socket_ >= 0) ::close(socket_);
}

void HttpsClient::connect(std::uint16_t port, const std::string& authorityFile, const std::string& name) {
  ERR_clear_error();
  SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, nullptr);
  if (SSL_CTX_load_verify_locations(context_, authorityFile.c_str(), nullptr) != 1) {
    fault_ = "no authority in " + authorityFile;
    return;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval limit{};
  limit.tv_sec = kLimit.count();
  socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  ::setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    fault_ = std::strerror(errno);
    return;
  }
  ssl_ = SSL_new(context_);
  SSL_set_tlsext_host_name(ssl_, name.c_str());
  SSL_set1_host(ssl_, name.c_str());
  SSL_set_fd(ssl_, socket_);
  if (SSL_connect(ssl_) != 1) {
    const long verdict = SSL_get_verify_result(ssl_);
    fault_ = verdict != X509_V_OK ? X509_verify_cert_error_string(verdict) : "the TLS handshake failed";
  }
}

bool HttpsClient::send(std::string_view text) {
  ERR_clear_error();
  return fault_.empty() && SSL_write(ssl_, text.data(), static_cast<int>(text.size())) == static_cast<int>(text.size());
}

bool HttpsClient::readMore() {
  if (!fault_.empty()) return false;
  ERR_clear_error();
  std::array<char, 65536> block{};
  const int count = SSL_read(ssl_, block.data(), static_cast<int>(block.size()));
  if (count > 0) {
    received_.append(block.data(), static_cast<std::size_t>(count));
    return true;
  }
  timedOut_ = SSL_get_error(ssl_, count) == SSL_ERROR_WANT_READ;
  return false;
}

std::optional<HttpAnswer> HttpsClient::read() {
  while (received_.find("\r\n\r\n") == std::string::npos)
    if (!readMore()) return std::nullopt;
  const std::size_t end = received_.find("\r\n\r\n");
  HttpAnswer answer = headOf(std::string_view(received_).substr(0, end));
  received_.erase(0, end + 4);
  const std::size_t length = static_cast<std::size_t>(std::atoll(answer.field("content-length").c_str()));
  while (received_.size() < length)
    if (!readMore()) return std::nullopt;
  answer.body = received_.substr(0, length);
  received_.erase(0, length);
  return answer;
}

bool HttpsClient::waitFor(std::string_view text) {
  while (received_.find(text) == std::string::npos)
    if (!readMore()) return false;
  return true;
}

bool HttpsClient::isClosedByServer() { return received_.empty() && !readMore() && !timedOut_; }

}  // namespace test
