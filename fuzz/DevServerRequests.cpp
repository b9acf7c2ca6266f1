// Requests to the development server, from the bytes of a connection to what the journal says of them.
//
// Input: a letter for the part that is meant, and what is given to it:
//   h  the bytes of a connection. In a piece between two bytes 0x1E, "@SIGN@" becomes the value of an Authorization field that is
//      right for the piece's request line and body, "@LINK@" a right signature of the link, and "@LENGTH@" the body's length
//   a  an Authorization field
//   l  the target of a signed link
//   b  behaviour settings as JSON
//   s  new states of shares as JSON, with "@CODE@" for a share that there is
//
// The connection's TLS is replaced when the program is linked: this file brings the whole class TlsConnection of its own, which
// reads from memory.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/Check.h"
#include "common/Input.h"
#include "companions/KSVHawkAuth.h"
#include "devserver/Api.h"
#include "devserver/HttpConnection.h"
#include "devserver/Json.h"
#include "devserver/TlsConnection.h"
#include "support/TemporaryDirectory.h"
#include "support/TestProcess.h"

namespace {

using platform::Dictionary;
using platform::Value;

constexpr char kPieceEnd = '\x1E';
constexpr const char* kApplication = "com.example.app";
constexpr std::uint64_t kPort = 8443;

/// The wire that the connection of this program is made of.
struct Wire {
  std::vector<std::string> pieces;  // what the client sends
  std::size_t piece = 0;
  std::size_t at = 0;
  std::string answers;
  bool isClosed = false;
  devserver::Api* api = nullptr;
};
Wire* wire = nullptr;

}  // namespace

namespace devserver {

TlsConnection::TlsConnection(int socket, SSL_CTX* /*context*/, std::chrono::milliseconds /*timeout*/)
    : socket_(socket), ssl_(nullptr), usable_(socket_ < 0) {}
TlsConnection::~TlsConnection() = default;
bool TlsConnection::handshake() { return usable_ && !ssl_; }

std::size_t TlsConnection::read(char* buffer, std::size_t size) {
  if (!usable_ || wire->piece == wire->pieces.size()) return 0;
  const std::string& piece = wire->pieces[wire->piece];
  const std::size_t count = std::min(size, piece.size() - wire->at);
  std::memcpy(buffer, piece.data() + wire->at, count);
  wire->at += count;
  if (wire->at == piece.size()) ++wire->piece, wire->at = 0;
  return count;
}

bool TlsConnection::write(std::string_view bytes) {
  fuzz::check(!wire->isClosed, "something was written to a closed connection");
  wire->answers += bytes;
  // A delay that the request has just ordered would be slept.
  fuzz::check(wire->api->behaviour().change({{"delay", nullptr}, {"read-rate", nullptr}}).has_value(), "settings were refused");
  return usable_;
}

void TlsConnection::closeOrderly() { wire->isClosed = true; }
void TlsConnection::closeLingering() { wire->isClosed = true; }
void TlsConnection::interrupt() const {}

}  // namespace devserver

namespace {

void replaceAll(std::string& text, std::string_view mark, const std::string& replacement) {
  for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark, at + replacement.size()))
    text.replace(at, mark.size(), replacement);
}

std::string authorization(const std::string& method, const std::string& target, const std::string& body, bool isLink) {
  static std::uint64_t lastNonce = 0;
  KSVHawkAuth auth;
  auth.setCredentials(
      KSVHawkCredentials::initWithHawkIdWithKeyWithAlgorithm(kApplication, test::TestProcess::kSecret, KSVCryptoAlgorithmSHA256));
  auth.setMethod(method);
  auth.setRequestUri(target);
  auth.setHost("localhost");
  auth.setPort(kPort);
  auth.setTimestamp(platform::Date::dateWithTimeIntervalSince1970(test::TestProcess::kStartTime + (isLink ? 60 : 0)));
  auth.setNonce("n" + std::to_string(++lastNonce));
  auth.setExt("device");
  if (!target.starts_with("/gifs")) auth.setPayload(body);
  return (isLink ? auth.bewit() : auth.requestHeader()).value_or("");
}

/// A piece of the connection with its marks replaced.
std::string signedPiece(std::string_view text) {
  std::string piece(text);
  const std::string method = piece.substr(0, piece.find(' '));
  std::string target = piece.substr(std::min(piece.size(), method.size() + 1));
  target = target.substr(0, target.find_first_of(" \r\n"));
  const auto head = piece.find("\r\n\r\n");
  const std::string body = head == std::string::npos ? "" : piece.substr(head + 4);
  std::string unsignedTarget = target;
  for (const char* const mark : {"?bewit=@LINK@", "&bewit=@LINK@"}) replaceAll(unsignedTarget, mark, "");
  replaceAll(piece, "@LINK@", authorization("GET", unsignedTarget, "", true));
  replaceAll(piece, "@SIGN@", authorization(method, target, body, false));
  replaceAll(piece, "@LENGTH@", std::to_string(body.size()));
  return piece;
}

std::vector<std::string> signedPieces(std::string_view text) {
  std::vector<std::string> pieces;
  while (!text.empty()) {
    const std::string_view piece = text.substr(0, text.find(kPieceEnd));
    if (!piece.empty()) pieces.push_back(signedPiece(piece));
    text.remove_prefix(std::min(text.size(), piece.size() + 1));
  }
  return pieces;
}

/// Answers as a client reads them: each with a status line, fields, and as many bytes of a body as it says. How many there are.
std::size_t countAnswers(std::string_view text) {
  constexpr std::string_view kLength = "\r\nContent-Length: ";
  std::size_t answers = 0;
  while (!text.empty()) {
    const auto end = text.find("\r\n\r\n");
    fuzz::check(text.starts_with("HTTP/1.1 ") && end != std::string_view::npos, "an answer has no head");
    const std::string_view head = text.substr(0, end + 2);
    text.remove_prefix(end + 4);
    if (head.starts_with("HTTP/1.1 100 ")) continue;
    ++answers;
    const auto field = head.rfind(kLength);
    const std::size_t length = field == std::string_view::npos ? 0 : std::stoull(std::string(head.substr(field + kLength.size())));
    fuzz::check(length <= text.size(), "an answer is cut short");
    text.remove_prefix(length);
  }
  return answers;
}

/// The answer to HEAD says the length of a body that does not follow.
bool hasHead(const Wire& ours) {
  return std::ranges::any_of(ours.pieces, [](const std::string& piece) { return piece.find("HEAD") != std::string::npos; });
}

std::chrono::milliseconds serverTime() {
  return std::chrono::milliseconds(static_cast<std::int64_t>(test::TestProcess::kStartTime) * 1000);
}

void serveConnection(std::string_view text) {
  static const test::TemporaryDirectory kFolder;
  static const auto kGifs = devserver::Gifs::open(kFolder.path() + "/gifs", {.files = 4, .bytes = 65536});
  const std::string journalFile = kFolder.path() + "/journal.jsonl";
  std::filesystem::remove(journalFile);
  devserver::Journal journal;
  fuzz::check(kGifs && journal.open(journalFile), "there is no place for the server's files");
  devserver::Api api({{kApplication, test::TestProcess::kSecret}}, journal, **kGifs, devserver::Api::Uploads::kRepeatable,
                     "authority.pem", serverTime);
  api.feed().close();  // a live stream would wait for what never happens

  Wire ours{.pieces = signedPieces(text), .answers = {}, .api = &api};
  wire = &ours;
  devserver::TlsConnection connection(-1, nullptr, std::chrono::milliseconds(0));
  devserver::StopSignal stop;
  devserver::serveConnection(connection, api, stop, 1, std::chrono::milliseconds(1000));
  wire = nullptr;

  if (!hasHead(ours)) (void)countAnswers(ours.answers);
  const auto entries = journal.entriesAsJson();
  fuzz::check(entries.has_value(), "the journal cannot be read");
  const auto read = devserver::readJson(*entries);
  // An entry holds what was posted, a little deeper than it stood there.
  fuzz::check(read || read.error().find("Too many nested") != std::string::npos, "the journal is no JSON");
}

void checkAuthorization(std::string_view header) {
  const auto attributes = devserver::parseHawkAuthorization(header);
  if (!attributes) {
    fuzz::check(attributes.error().status == 400 || attributes.error().status == 401, "a refusal has another status");
    return;
  }
  std::string rebuilt = "Hawk id=\"" + attributes->id + "\", ts=\"" + attributes->ts + "\", nonce=\"" + attributes->nonce +
                        "\", mac=\"" + attributes->mac + "\"";
  const auto add = [&rebuilt](const char* name, const std::optional<std::string>& value) {
    if (value) rebuilt.append(", ").append(name).append("=\"").append(*value).append("\"");
  };
  add("hash", attributes->hash);
  add("ext", attributes->ext);
  add("app", attributes->app);
  add("dlg", attributes->dlg);
  if (rebuilt.size() > 4096) return;
  const auto again = devserver::parseHawkAuthorization(rebuilt);
  fuzz::check(again.has_value(), "the attributes of a good header make a bad one");
  const auto text = [](const devserver::HawkAttributes& of) { return devserver::hawkRequestText(of, "GET", "/", "host", "1"); };
  fuzz::check(text(*again) == text(*attributes) && again->id == attributes->id && again->mac == attributes->mac,
              "attributes changed on the way");
}

void checkLink(std::string_view target) {
  const auto link = devserver::parseHawkLink(target);
  if (!link) return;
  fuzz::check(link->target.find("bewit=") == std::string::npos || target.find("bewit=") != target.rfind("bewit="),
              "a link's signature stayed in what is signed");
  const std::string parts = link->bewit.id + "\\" + link->bewit.exp + "\\" + link->bewit.mac + "\\" + link->bewit.ext;
  std::string bewit = platform::Data(parts).base64EncodedString();
  bewit.resize(bewit.find_last_not_of('=') + 1);
  for (char& c : bewit) c = c == '+' ? '-' : c == '/' ? '_' : c;
  fuzz::check(target.find("bewit=" + bewit) != std::string_view::npos, "a link's parts are not those that it was made of");
}

/// What is in force can be ordered again, and is the same then.
void checkBehaviour(std::string_view text) {
  const auto settings = devserver::readJsonObject(text);
  if (!settings) return;
  devserver::Behaviour behaviour;
  const std::string before = devserver::writeJson(Value(behaviour.state()));
  const auto changed = behaviour.change(*settings);
  const Dictionary state = behaviour.state();
  if (!changed) {
    fuzz::check(devserver::writeJson(Value(state)) == before, "refused settings changed something");
    return;
  }
  devserver::Behaviour other;
  fuzz::check(other.change(state).has_value(), "the state in force is refused");
  fuzz::check(other.state() == state, "the state in force changed on the way");
  for (int request = 0; request < 8; ++request) (void)behaviour.take(request % 2 == 0);
}

void checkShares(std::string_view text) {
  devserver::Shares shares;
  const std::string code = shares.submit("app", "device", Dictionary(), serverTime());
  std::string states(text);
  replaceAll(states, "@CODE@", code);
  const auto changes = devserver::readJsonObject(states);
  if (!changes) return;
  (void)devserver::faultOfShare(*changes);
  const auto before = shares.all();
  if (!shares.change(*changes, serverTime())) fuzz::check(shares.all() == before, "refused states changed something");
  fuzz::check(shares.find(code + "," + states).count() >= 1, "a share is not found");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static test::TestProcess process({.faults = false, .debug = false});
  [[maybe_unused]] static const bool kIsQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;  // a line for each request
  fuzz::Input input(data, size);
  switch (input.byte()) {
    case 'a':
      checkAuthorization(input.rest());
      break;
    case 'l':
      checkLink(input.rest());
      break;
    case 'b':
      checkBehaviour(input.rest());
      break;
    case 's':
      checkShares(input.rest());
      break;
    default:
      serveConnection(input.rest());
      break;
  }
  return 0;
}
