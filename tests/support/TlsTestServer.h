// An HTTPS server on loopback that a test programs down to the byte, with certificates made at run time.
//
//     test::TlsTestServer server(test::TlsTestServer::answering([](const auto& request) {
//       return test::TlsTestServer::Answer{200, {{"X-Target", request.target}}, "hello"};
//     }));
//     setenv("SSL_CERT_FILE", test::certificateAuthorityFile().c_str(), 1);
//     ... load server.url("/events") ...
//     ASSERT_TRUE(server.waitForRequests(1));
//     EXPECT_EQ(server.requests()[0].method, "POST");
//
// For raw control give a script of your own: it runs on a thread of each connection's own and reads and writes as it likes.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/Event.h"

namespace test {

/// A PEM file with the authority that signed the good certificates; it exists until the program ends.
const std::string& certificateAuthorityFile();

class TlsTestServer {
 public:
  enum class Certificate {
    kGood,              // for localhost, 127.0.0.1 and ::1, signed by the authority above
    kExpired,           // as kGood, but two days past its end
    kNotYetValid,       // as kGood, from tomorrow on
    kWrongHost,         // for elsewhere.example only
    kUnknownAuthority,  // as kGood, signed by another authority of the same name
  };

  enum class Handshake {
    kTls,
    kStall,    // accepts the connection and never says a word
    kGarbage,  // answers with what is no TLS
  };

  struct Options {
    Certificate certificate = Certificate::kGood;
    Handshake handshake = Handshake::kTls;
  };

  using Fields = std::vector<std::pair<std::string, std::string>>;

  struct Request {
    std::string head;  // as it came, up to and with the empty line
    std::string method;
    std::string target;
    Fields fields;  // in their order, names as they came
    std::string body;
    std::size_t connection = 0;  // number of its connection, from 0

    /// The field's value, whatever the case of its name.
    std::optional<std::string> field(std::string_view name) const;
  };

  /// Content-Length is added by whoever sends it, unless a field of that name or Transfer-Encoding is there.
  struct Answer {
    int status = 200;
    Fields fields = {};
    std::string body = {};
  };

  /// One connection, for its script. Nothing here throws; what cannot be done any more is false or absent.
  class Connection {
   public:
    virtual ~Connection() = default;
    /// Waits for a whole request and counts it; absent when the peer has closed or the server stops. Bodies with Content-Length
    /// only.
    virtual std::optional<Request> readRequest() = 0;
    /// Waits for some bytes.
    virtual std::optional<std::string> readSome() = 0;
    virtual bool send(std::string_view bytes) = 0;
    bool send(const Answer& answer);
    /// Waits until the peer has closed, or the server stops.
    virtual void waitForClose() = 0;
    /// Closes without a word of TLS: a plain end of stream, or a reset. The end of a script closes in the proper way.
    virtual void drop() = 0;
    virtual void reset() = 0;
    /// Number of the connection, from 0.
    virtual std::size_t number() const = 0;
  };
  using Script = std::function<void(Connection&)>;

  /// Answers every request of a connection until the peer closes.
  static Script answering(std::function<Answer(const Request&)> answer);
  static Script answering(Answer answer);

  explicit TlsTestServer(Script script) : TlsTestServer(std::move(script), Options{}) {}
  TlsTestServer(Script script, Options options);
  /// Closes every connection and waits for the scripts to return.
  ~TlsTestServer();
  TlsTestServer(const TlsTestServer&) = delete;
  TlsTestServer& operator=(const TlsTestServer&) = delete;

  std::uint16_t port() const;
  /// `https://127.0.0.1:<port>` and the target.
  std::string url(std::string_view target = "/") const;

  /// Every whole request so far, in the order of arrival.
  std::vector<Request> requests() const;
  /// Connections accepted so far, those with a failed handshake included.
  std::size_t connections() const;
  /// False when there are fewer after the limit.
  [[nodiscard]] bool waitForRequests(std::size_t count, std::chrono::milliseconds limit = kLimit) const;
  [[nodiscard]] bool waitForConnections(std::size_t count, std::chrono::milliseconds limit = kLimit) const;
  /// Waits until the scripts of that many connections have returned.
  [[nodiscard]] bool waitForClosedConnections(std::size_t count, std::chrono::milliseconds limit = kLimit) const;

 private:
  class Wire;
  class Server;
  std::unique_ptr<Server> server_;
};

}  // namespace test
