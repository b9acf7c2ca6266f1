// A blocking HTTPS client for tests that must decide about every byte and every moment: it sends text and reads answers.
#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace test {

struct HttpAnswer {
  int status = 0;
  std::map<std::string, std::string> fields;  // names in lower case
  std::string body;

  std::string field(const std::string& name) const {
    const auto found = fields.find(name);
    return found == fields.end() ? "" : found->second;
  }
};

class HttpsClient {
 public:
  /// Connects to 127.0.0.1 and verifies that the server is `name` with the authority of the file; fault() tells what failed.
  HttpsClient(std::uint16_t port, const std::string& authorityFile, const std::string& name = "localhost");
  ~HttpsClient();
  HttpsClient(const HttpsClient&) = delete;
  HttpsClient& operator=(const HttpsClient&) = delete;

  /// Why there is no connection; empty when there is one.
  const std::string& fault() const { return fault_; }
  bool send(std::string_view text);
  /// The next whole answer; absent when the server closed the connection before, or said nothing within the limit.
  std::optional<HttpAnswer> read();
  /// Waits until this text has come, of an answer without an end; false when the server closed the connection before, or said
  /// nothing within the limit.
  bool waitFor(std::string_view text);
  /// What has come and was not read as an answer.
  const std::string& received() const { return received_; }
  /// Waits for the server to close the connection; false when bytes come instead, or nothing within the limit.
  bool isClosedByServer();

 private:
  void connect(std::uint16_t port, const std::string& authorityFile, const std::string& name);
  bool readMore();

  SSL_CTX* context_;
  SSL* ssl_ = nullptr;
  int socket_ = -1;
  std::string fault_;
  std::string received_;
  bool timedOut_ = false;
};

}  // namespace test
