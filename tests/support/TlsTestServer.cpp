// The HTTPS server for tests: a listener, and a blocking thread for each connection.
#include "support/TlsTestServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "support/TemporaryDirectory.h"

namespace test {
namespace {

template <auto free>
struct Free {
  void operator()(auto* object) const { free(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using X509Ref = std::unique_ptr<X509, Free<X509_free>>;
using Context = std::unique_ptr<SSL_CTX, Free<SSL_CTX_free>>;

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(std::string("TLS test server: ") + what);
}

Key makeKey() {
  Key key(EVP_EC_gen("P-256"));
  require(key != nullptr, "EVP_EC_gen");
  return key;
}

constexpr long kDay = 24 * 60 * 60;

struct Validity {
  long from = -kDay;  // seconds from now
  long to = 30 * kDay;
};

void addExtension(X509* certificate, X509* issuer, int kind, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value);
  require(extension != nullptr, value);
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

void setName(X509_NAME* name, const char* text) {
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(text), -1, -1, 0);
}

// Without extensions and signature; serial numbers are all different.
X509Ref makeBareCertificate(const char* name, EVP_PKEY* key, Validity validity) {
  static std::atomic<long> lastSerial{0};
  X509Ref certificate(X509_new());
  X509_set_version(certificate.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), ++lastSerial);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), validity.from);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), validity.to);
  setName(X509_get_subject_name(certificate.get()), name);
  X509_set_pubkey(certificate.get(), key);
  return certificate;
}

// An authority of its own name and key.
class Authority {
 public:
  Authority() : key_(makeKey()), certificate_(makeBareCertificate("Test Authority", key_.get(), {})) {
    X509_set_issuer_name(certificate_.get(), X509_get_subject_name(certificate_.get()));
    addExtension(certificate_.get(), certificate_.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate_.get(), certificate_.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    addExtension(certificate_.get(), certificate_.get(), NID_subject_key_identifier, "hash");
    require(X509_sign(certificate_.get(), key_.get(), EVP_sha256()) > 0, "X509_sign");
  }

  X509Ref issue(EVP_PKEY* key, const char* hosts, Validity validity) const {
    X509Ref leaf = makeBareCertificate("Test Server", key, validity);
    X509_set_issuer_name(leaf.get(), X509_get_subject_name(certificate_.get()));
    addExtension(leaf.get(), certificate_.get(), NID_subject_alt_name, hosts);
    // Tells authorities of one name apart: the other one's certificates have an unknown issuer, not a broken signature.
    addExtension(leaf.get(), certificate_.get(), NID_authority_key_identifier, "keyid:always");
    require(X509_sign(leaf.get(), key_.get(), EVP_sha256()) > 0, "X509_sign");
    return leaf;
  }

  void writeTo(const std::string& path) const {
    const std::unique_ptr<FILE, Free<fclose>> file(fopen(path.c_str(), "we"));
    require(file && PEM_write_X509(file.get(), certificate_.get()) == 1, "cannot write the authority's file");
  }

 private:
  Key key_;
  X509Ref certificate_;
};

// Made once; gone, folder and all, when the program ends.
struct TrustedAuthority {
  TrustedAuthority() { authority.writeTo(file); }
  ~TrustedAuthority() {
    // A child made by fork must leave the folder to its parent.
    if (getpid() != process) directory.release();  // NOLINT(bugprone-unused-return-value)
  }
  TrustedAuthority(const TrustedAuthority&) = delete;
  TrustedAuthority& operator=(const TrustedAuthority&) = delete;

  const pid_t process = getpid();
  Authority authority;
  std::unique_ptr<TemporaryDirectory> directory = std::make_unique<TemporaryDirectory>();
  std::string file = directory->path() + "/authority.pem";
};

const TrustedAuthority& trustedAuthority() {
  // Connections of a test program that exits in their midst must not lose the library under their feet.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  static const TrustedAuthority kTrusted;
  return kTrusted;
}

X509Ref certificateOf(TlsTestServer::Certificate kind, EVP_PKEY* key) {
  constexpr const char* kLoopback = "DNS:localhost,IP:127.0.0.1,IP:::1";
  using enum TlsTestServer::Certificate;
  const Authority& trusted = trustedAuthority().authority;
  switch (kind) {
    case kGood:
      return trusted.issue(key, kLoopback, {});
    case kExpired:
      return trusted.issue(key, kLoopback, {-30 * kDay, -2 * kDay});
    case kNotYetValid:
      return trusted.issue(key, kLoopback, {kDay, 30 * kDay});
    case kWrongHost:
      return trusted.issue(key, "DNS:elsewhere.example", {});
    case kUnknownAuthority:
      return Authority().issue(key, kLoopback, {});
  }
  throw std::logic_error("No such certificate");
}

Context makeContext(TlsTestServer::Certificate kind) {
  Context context(SSL_CTX_new(TLS_server_method()));
  const Key key = makeKey();
  const X509Ref certificate = certificateOf(kind, key.get());
  require(SSL_CTX_use_certificate(context.get(), certificate.get()) == 1, "SSL_CTX_use_certificate");
  require(SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1, "SSL_CTX_use_PrivateKey");
  return context;
}

// A connection that the peer has left must not end the test program.
void blockSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  return std::ranges::equal(a, b, {}, lower, lower);
}

std::string_view trimmed(std::string_view text) {
  while (text.starts_with(' ')) text.remove_prefix(1);
  while (text.ends_with(' ')) text.remove_suffix(1);
  return text;
}

// Of a head that ends with the empty line.
TlsTestServer::Request parsedHead(std::string head) {
  TlsTestServer::Request request;
  std::string_view rest = head;
  const auto nextLine = [&rest] {
    const std::size_t end = rest.find("\r\n");
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end + 2);
    return line;
  };
  const std::string_view first = nextLine();
  const std::size_t blank = first.find(' ');
  request.method = first.substr(0, blank);
  request.target = first.substr(blank + 1, first.rfind(' ') - blank - 1);
  for (std::string_view line = nextLine(); !line.empty(); line = nextLine()) {
    const std::size_t colon = std::min(line.find(':'), line.size() - 1);
    request.fields.emplace_back(line.substr(0, colon), trimmed(line.substr(colon + 1)));
  }
  request.head = std::move(head);
  return request;
}

std::size_t contentLength(const TlsTestServer::Request& request) {
  const std::string text = request.field("Content-Length").value_or("0");
  std::size_t length = 0;
  std::from_chars(text.data(), text.data() + text.size(), length);
  return length;
}

}  // namespace

const std::string& certificateAuthorityFile() { return trustedAuthority().file; }

std::optional<std::string> TlsTestServer::Request::field(std::string_view name) const {
  const auto found = std::ranges::find_if(fields, [name](const auto& field) { return equalIgnoringCase(field.first, name); });
  return found == fields.end() ? std::nullopt : std::optional(found->second);
}

bool TlsTestServer::Connection::send(const Answer& answer) {
  std::string bytes = "HTTP/1.1 " + std::to_string(answer.status) + " Status\r\n";
  bool framed = answer.status == 204 || answer.status == 304 || answer.status < 200;
  for (const auto& [name, value] : answer.fields) {
    bytes += name + ": " + value + "\r\n";
    framed = framed || equalIgnoringCase(name, "Content-Length") || equalIgnoringCase(name, "Transfer-Encoding");
  }
  if (!framed) bytes += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
  return send(bytes + "\r\n" + answer.body);
}

TlsTestServer::Script TlsTestServer::answering(std::function<Answer(const Request&)> answer) {
  return [answer = std::move(answer)](Connection& connection) {
    while (const std::optional<Request> request = connection.readRequest())
      if (!connection.send(answer(*request))) return;
  };
}

TlsTestServer::Script TlsTestServer::answering(Answer answer) {
  return answering([answer = std::move(answer)](const Request&) { return answer; });
}

class TlsTestServer::Server {
 public:
  Server(Script script, Options options);
  ~Server();

  std::uint16_t port() const { return port_; }
  Options options() const { return options_; }
  const Script& script() const { return script_; }
  SSL_CTX* context() const { return context_.get(); }

  void noteRequest(const Request& request) {
    change([&] { requests_.push_back(request); });
  }
  void noteClosed() {
    change([&] { ++closed_; });
  }
  std::vector<Request> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  std::size_t connections() const {
    std::lock_guard lock(mutex_);
    return wires_.size();
  }
  bool waitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
    return waitFor(limit, [&] { return requests_.size() >= count; });
  }
  bool waitForConnections(std::size_t count, std::chrono::milliseconds limit) const {
    return waitFor(limit, [&] { return wires_.size() >= count; });
  }
  bool waitForClosed(std::size_t count, std::chrono::milliseconds limit) const {
    return waitFor(limit, [&] { return closed_ >= count; });
  }

 private:
  void acceptConnections();

  void change(const auto& what) {
    std::lock_guard lock(mutex_);
    what();
    changed_.notify_all();
  }
  bool waitFor(std::chrono::milliseconds limit, const auto& condition) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, condition);
  }

  const Script script_;
  const Options options_;
  const Context context_;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::thread acceptor_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool stopping_ = false;
  std::vector<std::unique_ptr<Wire>> wires_;
  std::vector<Request> requests_;
  std::size_t closed_ = 0;
};

// One connection and its thread. The descriptor stays open until the object goes, so that stop() cannot hit another one's.
class TlsTestServer::Wire final : public Connection {
 public:
  Wire(Server& server, int descriptor, std::size_t number) : server_(server), descriptor_(descriptor), number_(number) {
    thread_ = std::thread([this] { serve(); });
  }
  ~Wire() override {
    shutdown(descriptor_, SHUT_RDWR);
    thread_.join();
    close(descriptor_);
  }

  std::optional<Request> readRequest() override {
    while (true) {
      if (const std::size_t end = buffer_.find("\r\n\r\n"); end != std::string::npos) {
        Request request = parsedHead(buffer_.substr(0, end + 4));
        const std::size_t whole = end + 4 + contentLength(request);
        while (buffer_.size() < whole)
          if (!fill()) return std::nullopt;
        request.body = buffer_.substr(end + 4, whole - end - 4);
        request.connection = number_;
        buffer_.erase(0, whole);
        server_.noteRequest(request);
        return request;
      }
      if (!fill()) return std::nullopt;
    }
  }

  std::optional<std::string> readSome() override {
    if (buffer_.empty() && !fill()) return std::nullopt;
    return std::exchange(buffer_, {});
  }

  using Connection::send;
  bool send(std::string_view bytes) override {
    if (!ssl_) return false;
    if (bytes.empty()) return true;
    ERR_clear_error();
    return SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size())) > 0;
  }

  void waitForClose() override {
    while (fill()) buffer_.clear();
  }

  void drop() override {
    ssl_.reset();
    shutdown(descriptor_, SHUT_RDWR);
  }

  void reset() override {
    ssl_.reset();
    // Connecting a connected socket to nothing makes the system send a reset and leaves the descriptor open.
    const sockaddr nothing{AF_UNSPEC, {}};
    connect(descriptor_, &nothing, sizeof nothing);
  }

  std::size_t number() const override { return number_; }

 private:
  void serve() {
    blockSignals();
    const int on = 1;
    setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (server_.options().handshake != Handshake::kTls) {
      constexpr std::string_view kGarbage = "220 mail.example ESMTP\r\n";
      if (server_.options().handshake == Handshake::kGarbage) ::send(descriptor_, kGarbage.data(), kGarbage.size(), MSG_NOSIGNAL);
      std::array<char, 4096> ignored;
      while (recv(descriptor_, ignored.data(), ignored.size(), 0) > 0) {
      }
    } else {
      ssl_.reset(SSL_new(server_.context()));
      SSL_set_fd(ssl_.get(), descriptor_);
      ERR_clear_error();
      if (SSL_accept(ssl_.get()) == 1) server_.script()(*this);
      if (ssl_ && SSL_is_init_finished(ssl_.get())) SSL_shutdown(ssl_.get());
      ssl_.reset();
    }
    shutdown(descriptor_, SHUT_RDWR);
    server_.noteClosed();
  }

  bool fill() {
    if (!ssl_) return false;
    std::array<char, 16384> bytes;
    ERR_clear_error();
    const int length = SSL_read(ssl_.get(), bytes.data(), static_cast<int>(bytes.size()));
    if (length <= 0) return false;
    buffer_.append(bytes.data(), static_cast<std::size_t>(length));
    return true;
  }

  Server& server_;
  const int descriptor_;
  const std::size_t number_;
  std::unique_ptr<SSL, Free<SSL_free>> ssl_;
  std::string buffer_;
  std::thread thread_;
};

TlsTestServer::Server::Server(Script script, Options options)
    : script_(std::move(script)), options_(options), context_(makeContext(options.certificate)) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  require(bind(listener_, generic, length) == 0 && listen(listener_, 64) == 0, "cannot listen");
  require(getsockname(listener_, generic, &length) == 0, "getsockname");
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptConnections(); });
}

void TlsTestServer::Server::acceptConnections() {
  blockSignals();
  while (true) {
    const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    std::lock_guard lock(mutex_);
    if (stopping_) {
      if (descriptor >= 0) close(descriptor);
      return;
    }
    if (descriptor < 0) continue;
    wires_.push_back(std::make_unique<Wire>(*this, descriptor, wires_.size()));
    changed_.notify_all();
  }
}

TlsTestServer::Server::~Server() {
  change([&] { stopping_ = true; });
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  close(listener_);
  wires_.clear();
}

TlsTestServer::TlsTestServer(Script script, Options options) : server_(std::make_unique<Server>(std::move(script), options)) {}
TlsTestServer::~TlsTestServer() = default;

std::uint16_t TlsTestServer::port() const { return server_->port(); }
std::string TlsTestServer::url(std::string_view target) const {
  return "https://127.0.0.1:" + std::to_string(port()) + std::string(target);
}
std::vector<TlsTestServer::Request> TlsTestServer::requests() const { return server_->requests(); }
std::size_t TlsTestServer::connections() const { return server_->connections(); }
bool TlsTestServer::waitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
  return server_->waitForRequests(count, limit);
}
bool TlsTestServer::waitForConnections(std::size_t count, std::chrono::milliseconds limit) const {
  return server_->waitForConnections(count, limit);
}
bool TlsTestServer::waitForClosedConnections(std::size_t count, std::chrono::milliseconds limit) const {
  return server_->waitForClosed(count, limit);
}

}  // namespace test
