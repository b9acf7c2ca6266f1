// The Hawk scheme, client side: normalised request string, payload hash, Authorization header, signed links and the server's time
// challenge.
#include "companions/KSVHawkAuth.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <initializer_list>

#include "platform/Digest.h"
#include "platform/Exception.h"

namespace {

using platform::Digest;

constexpr std::size_t kMaxHeaderLength = 4096;
constexpr std::uint64_t kLastSecond = 253'402'300'799;  // 9999-12-31T23:59:59Z

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }
bool isWhiteSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isWordCharacter(char c) { return isDigit(c) || (lower(c) >= 'a' && lower(c) <= 'z') || c == '_'; }
bool isPrintableAscii(char c) { return c >= ' ' && c <= '~'; }
/// What may stand between the quotes of an attribute, which knows no escapes when it is read.
bool isAttributeCharacter(char c) { return isPrintableAscii(c) && c != '"' && c != '\\'; }

template <char (*map)(char)>
std::string mapped(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = map(c);
  return result;
}

bool isAttributeValue(std::string_view text) { return !text.empty() && std::ranges::all_of(text, isAttributeCharacter); }

// An absent text and an empty one are the same to the scheme.
std::string_view textOf(const std::optional<std::string>& text) { return text ? std::string_view(*text) : std::string_view(); }

// --- Digests. A library that cannot do them leaves the result absent, so that nothing goes out half signed.

Digest::Algorithm algorithmOf(const KSVHawkCredentials* credentials) {
  switch (credentials ? credentials->algorithm() : KSVCryptoAlgorithmSHA256) {
    case KSVCryptoAlgorithmSHA384:
      return Digest::Algorithm::kSHA384;
    case KSVCryptoAlgorithmSHA512:
      return Digest::Algorithm::kSHA512;
    case KSVCryptoAlgorithmSHA256:
      break;
  }
  return Digest::Algorithm::kSHA256;
}

std::optional<std::string> base64Hash(const KSVHawkCredentials* credentials, std::initializer_list<std::string_view> parts) {
  try {
    return Digest::digests().hash(algorithmOf(credentials), parts).base64EncodedString();
  } catch (const platform::Exception&) {
    return std::nullopt;
  }
}

// An empty key counts as none: anybody could sign with it.
bool hasKey(const KSVHawkCredentials* credentials) { return credentials && !textOf(credentials->key()).empty(); }

std::optional<std::string> base64Mac(const KSVHawkCredentials* credentials, std::initializer_list<std::string_view> parts) {
  if (!hasKey(credentials)) return std::nullopt;
  try {
    return Digest::digests().hmac(algorithmOf(credentials), *credentials->key(), parts).base64EncodedString();
  } catch (const platform::Exception&) {
    return std::nullopt;
  }
}

// --- Signing a request.

// Whole seconds without sign. A clock before 1970 signs as 1970, which the server answers with its own time.
std::string timestampText(platform::Date timestamp) {
  const double seconds = timestamp.timeIntervalSince1970();
  if (!(seconds >= 1)) return "0";
  return std::to_string(static_cast<std::uint64_t>(std::min(seconds, static_cast<double>(kLastSecond))));
}

std::string normalisedContentType(std::string_view contentType) {
  contentType = contentType.substr(0, contentType.find(';'));
  while (!contentType.empty() && isWhiteSpace(contentType.front())) contentType.remove_prefix(1);
  while (!contentType.empty() && isWhiteSpace(contentType.back())) contentType.remove_suffix(1);
  return mapped<lower>(contentType);
}

void appendLine(std::string& text, std::string_view line) { text.append(line).push_back('\n'); }

// Appends the text with each backslash doubled and each `special` character replaced. Most texts hold none and are copied whole.
void appendEscaped(std::string& text, std::string_view raw, char special, std::string_view replacement) {
  const auto isEscaped = [special](char c) { return c == '\\' || c == special; };
  for (auto found = std::ranges::find_if(raw, isEscaped); found != raw.end(); found = std::ranges::find_if(raw, isEscaped)) {
    text.append(raw.begin(), found).append(*found == special ? replacement : "\\\\");
    raw.remove_prefix(static_cast<std::size_t>(found - raw.begin()) + 1);
  }
  text.append(raw);
}

// What is signed: the kind is the first line of the normalised string.
constexpr std::string_view kHeader = "hawk.1.header";
constexpr std::string_view kBewit = "hawk.1.bewit";

// The normalised request string. `timestamp` and `hash` are the very texts of the header.
std::string normalisedRequest(std::string_view kind, const KSVHawkAuth& request, std::string_view timestamp,
                              std::string_view hash) {
  std::string text;
  text.reserve(128 + request.requestUri().size() + request.host().size() + hash.size());
  appendLine(text, kind);
  appendLine(text, timestamp);
  appendLine(text, request.nonce());
  appendLine(text, mapped<upper>(request.method()));
  appendLine(text, request.requestUri());
  appendLine(text, mapped<lower>(request.host()));
  appendLine(text, std::to_string(request.port()));
  appendLine(text, hash);
  appendEscaped(text, textOf(request.ext()), '\n', "\\n");
  text.push_back('\n');
  if (!textOf(request.app()).empty()) {
    appendLine(text, *request.app());
    appendLine(text, textOf(request.dlg()));
  }
  return text;
}

struct Signature {
  std::string timestamp;
  std::string hash;  // empty without a payload
  std::string mac;
};

std::optional<Signature> sign(std::string_view kind, const KSVHawkAuth& request) {
  if (!hasKey(request.credentials().get())) return std::nullopt;
  std::optional<std::string> hash = request.payload() ? request.digest() : std::string();
  if (!hash) return std::nullopt;
  std::string timestamp = timestampText(request.timestamp());
  std::optional<std::string> mac = base64Mac(request.credentials().get(), {normalisedRequest(kind, request, timestamp, *hash)});
  if (!mac) return std::nullopt;
  return Signature{std::move(timestamp), *std::move(hash), *std::move(mac)};
}

// Everything that could break out of the header, or that no server takes, is refused. Only ext is escaped.
bool canStandInHeader(const KSVHawkAuth& request) {
  if (!isAttributeValue(textOf(request.credentials()->hawkId())) || !isAttributeValue(request.nonce())) return false;
  if (!std::ranges::all_of(textOf(request.ext()), isPrintableAscii)) return false;
  return std::ranges::all_of(textOf(request.app()), isAttributeCharacter) &&
         std::ranges::all_of(textOf(request.dlg()), isAttributeCharacter);
}

// `opening` is everything between two values: `", ts="`.
void appendAttribute(std::string& header, std::string_view opening, std::string_view value) {
  header.append(opening).append(value);
}

// Base64 in the alphabet that URLs carry, without the filling at its end.
std::string unpaddedBase64URL(std::string_view bytes) {
  std::string text = platform::Data(bytes).base64EncodedString();
  text.resize(text.find_last_not_of('=') + 1);
  std::ranges::replace(text, '+', '-');
  std::ranges::replace(text, '/', '_');
  return text;
}

// --- Reading a challenge.

enum ChallengeAttribute : std::size_t { kTs, kTsm, kError };
constexpr std::array<std::string_view, 3> kChallengeNames = {"ts", "tsm", "error"};
using Challenge = std::array<std::optional<std::string_view>, kChallengeNames.size()>;

/// Takes the front of a text apart.
class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text) {}

  bool isAtEnd() const { return rest_.empty(); }
  std::string_view takeWhile(bool (*belongs)(char)) {
    const auto length = static_cast<std::size_t>(std::ranges::find_if_not(rest_, belongs) - rest_.begin());
    const std::string_view taken = rest_.substr(0, length);
    rest_.remove_prefix(length);
    return taken;
  }
  bool take(char c) {
    if (!rest_.starts_with(c)) return false;
    rest_.remove_prefix(1);
    return true;
  }

 private:
  std::string_view rest_;
};

// name="value", with a name that is known and was not there before and a value that is not empty.
bool readAttribute(Reader& reader, Challenge& challenge) {
  const auto name = std::ranges::find(kChallengeNames, reader.takeWhile(isWordCharacter));
  if (name == kChallengeNames.end() || !reader.take('=') || !reader.take('"')) return false;
  const std::string_view value = reader.takeWhile(isAttributeCharacter);
  std::optional<std::string_view>& slot = challenge[static_cast<std::size_t>(name - kChallengeNames.begin())];
  if (value.empty() || slot || !reader.take('"')) return false;
  slot = value;
  return true;
}

// The scheme's header syntax: `Hawk`, white space, attributes with a comma between; one more comma may stand at the end.
std::optional<Challenge> parseChallenge(std::string_view header) {
  if (header.size() > kMaxHeaderLength || header.find_first_of("\r\n") != std::string_view::npos) return std::nullopt;
  Reader reader(header);
  if (mapped<lower>(reader.takeWhile(isWordCharacter)) != "hawk" || reader.takeWhile(isWhiteSpace).empty() || reader.isAtEnd())
    return std::nullopt;
  Challenge challenge;
  while (!reader.isAtEnd()) {
    if (!readAttribute(reader, challenge)) return std::nullopt;
    reader.takeWhile(isWhiteSpace);
    if (reader.isAtEnd()) break;
    if (!reader.take(',')) return std::nullopt;
    reader.takeWhile(isWhiteSpace);
  }
  return challenge;
}

// Plain decimal digits from 1 to the end of the year 9999.
std::optional<std::uint64_t> secondsOf(std::string_view text) {
  std::uint64_t seconds = 0;
  for (const char c : text) {
    if (!isDigit(c)) return std::nullopt;
    seconds = seconds * 10 + static_cast<std::uint64_t>(c - '0');
    if (seconds > kLastSecond) return std::nullopt;
  }
  return seconds == 0 ? std::nullopt : std::optional(seconds);
}

}  // namespace

std::optional<std::string> KSVHawkAuth::digest() const {
  if (!payload_) return std::nullopt;
  return base64Hash(credentials_.get(), {"hawk.1.payload\n", normalisedContentType(contentType_), "\n", payload_->view(), "\n"});
}

std::optional<std::string> KSVHawkAuth::hmac() const {
  std::optional<Signature> signature = sign(kHeader, *this);
  return signature ? std::optional(std::move(signature->mac)) : std::nullopt;
}

std::optional<std::string> KSVHawkAuth::requestHeader() const {
  if (!hasKey(credentials_.get()) || !canStandInHeader(*this)) return std::nullopt;
  const std::optional<Signature> signature = sign(kHeader, *this);
  if (!signature) return std::nullopt;
  std::string header;
  header.reserve(256);
  appendAttribute(header, "Hawk id=\"", *credentials_->hawkId());
  appendAttribute(header, "\", ts=\"", signature->timestamp);
  appendAttribute(header, "\", nonce=\"", nonce_);
  if (payload_) appendAttribute(header, "\", hash=\"", signature->hash);
  if (!textOf(ext_).empty()) {
    header.append("\", ext=\"");
    appendEscaped(header, *ext_, '"', "\\\"");
  }
  appendAttribute(header, "\", mac=\"", signature->mac);
  if (!textOf(app_).empty()) {
    appendAttribute(header, "\", app=\"", *app_);
    if (!textOf(dlg_).empty()) appendAttribute(header, "\", dlg=\"", *dlg_);
  }
  header.push_back('"');
  return header;
}

std::optional<std::string> KSVHawkAuth::bewit() const {
  // The parts are joined by backslashes, which none of them may hold.
  if (!hasKey(credentials_.get()) || !isAttributeValue(textOf(credentials_->hawkId()))) return std::nullopt;
  if (!std::ranges::all_of(textOf(ext_), isAttributeCharacter)) return std::nullopt;
  KSVHawkAuth link;
  link.credentials_ = credentials_;
  link.method_ = "GET";
  link.requestUri_ = requestUri_;
  link.host_ = host_;
  link.port_ = port_;
  link.timestamp_ = timestamp_;
  link.ext_ = ext_;
  const std::optional<Signature> signature = sign(kBewit, link);
  if (!signature) return std::nullopt;
  std::string parts = *credentials_->hawkId();
  for (const std::string_view part : {std::string_view(signature->timestamp), std::string_view(signature->mac), textOf(ext_)})
    parts.append("\\").append(part);
  return unpaddedBase64URL(parts);
}

std::optional<platform::Date> KSVHawkAuth::getTimestampSkew(std::string_view wwwAuthenticateHeader) const {
  const std::optional<Challenge> challenge = parseChallenge(wwwAuthenticateHeader);
  if (!challenge || !(*challenge)[kTs] || !(*challenge)[kTsm]) return std::nullopt;
  const std::string_view ts = *(*challenge)[kTs];
  const std::optional<std::uint64_t> seconds = secondsOf(ts);
  if (!seconds) return std::nullopt;
  const std::optional<std::string> tsm = base64Mac(credentials_.get(), {"hawk.1.ts\n", ts, "\n"});
  if (!tsm || !Digest::digests().constantTimeEqual(*tsm, *(*challenge)[kTsm])) return std::nullopt;
  return platform::Date::dateWithTimeIntervalSince1970(static_cast<double>(*seconds));
}
