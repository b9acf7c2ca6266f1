// Hawk on the server's side: parsing, MACs, hashes, nonces and ages.
#include "devserver/HawkVerifier.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <stdexcept>
#include <utility>

namespace devserver {
namespace {

constexpr std::size_t kMaxHeaderLength = 4096;
// More digits than this are no time that any clock will show, and would not fit the arithmetic.
constexpr std::size_t kMaxTimestampDigits = 15;

HawkRefusal syntaxError(std::string reason) { return {400, std::move(reason), ""}; }
HawkRefusal unauthorized(std::string reason) {
  std::string challenge = "Hawk error=\"" + reason + "\"";
  return {401, std::move(reason), std::move(challenge)};
}

bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }
char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - ('a' - 'A')) : c; }
bool isWord(char c) { return isDigit(c) || c == '_' || (lower(c) >= 'a' && lower(c) <= 'z'); }
bool isValueCharacter(char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; }

std::string mapped(std::string_view text, char (*map)(char)) {
  std::string result(text);
  std::ranges::transform(result, result.begin(), map);
  return result;
}

/// Takes the characters off the front of `rest` for which `belongs` holds.
std::string_view takeWhile(std::string_view& rest, bool (*belongs)(char)) {
  const auto end = std::ranges::find_if_not(rest, belongs);
  const std::string_view taken = rest.substr(0, static_cast<std::size_t>(end - rest.begin()));
  rest.remove_prefix(taken.size());
  return taken;
}

bool takeCharacter(std::string_view& rest, char expected) {
  if (!rest.starts_with(expected)) return false;
  rest.remove_prefix(1);
  return true;
}

/// Digits without sign, fraction or leading zero: the only text of a time that signer and server are sure to read alike.
bool isTimestamp(std::string_view text) {
  return !text.empty() && text.size() <= kMaxTimestampDigits && std::ranges::all_of(text, isDigit) &&
         (text.size() == 1 || text.front() != '0');
}

struct Attribute {
  std::string_view name;
  std::string_view value;
};

/// One `name="value"` with the comma after it; absent for anything else. A trailing comma at the very end is let through.
std::optional<Attribute> takeAttribute(std::string_view& rest) {
  Attribute attribute;
  attribute.name = takeWhile(rest, isWord);
  if (attribute.name.empty() || !takeCharacter(rest, '=') || !takeCharacter(rest, '"')) return std::nullopt;
  attribute.value = takeWhile(rest, [](char c) { return c != '"' && c != '\\'; });
  if (!takeCharacter(rest, '"')) return std::nullopt;
  takeWhile(rest, isSpace);
  if (rest.empty()) return attribute;
  if (!takeCharacter(rest, ',')) return std::nullopt;
  takeWhile(rest, isSpace);
  return attribute;
}

using Found = std::map<std::string_view, std::string_view>;

std::expected<Found, HawkRefusal> readAttributes(std::string_view rest) {
  static constexpr std::array kNames{"id", "ts", "nonce", "hash", "ext", "mac", "app", "dlg"};
  Found found;
  while (!rest.empty()) {
    const auto attribute = takeAttribute(rest);
    if (!attribute) return std::unexpected(syntaxError("Bad header format"));
    const std::string name(attribute->name);
    if (std::ranges::find(kNames, name) == kNames.end()) return std::unexpected(syntaxError("Unknown attribute: " + name));
    if (attribute->value.empty() || !std::ranges::all_of(attribute->value, isValueCharacter))
      return std::unexpected(syntaxError("Bad attribute value: " + name));
    if (!found.emplace(attribute->name, attribute->value).second)
      return std::unexpected(syntaxError("Duplicate attribute: " + name));
  }
  return found;
}

std::optional<std::string> textOf(const Found& found, std::string_view name) {
  const auto at = found.find(name);
  return at == found.end() ? std::nullopt : std::optional<std::string>(at->second);
}

struct HostAndPort {
  std::string_view host;  // an IPv6 literal keeps its brackets
  std::string_view port;
};

/// A Host header field without a port means the port of HTTPS. Absent when it is malformed.
std::optional<HostAndPort> splitHost(std::string_view field) {
  const auto end = field.starts_with('[') ? field.find(']') : field.find(':');
  if (field.starts_with('[') && end == std::string_view::npos) return std::nullopt;
  HostAndPort result{field.substr(0, field.starts_with('[') ? end + 1 : end), "443"};
  std::string_view rest = field.substr(result.host.size());
  if (result.host.empty() || (!rest.empty() && !takeCharacter(rest, ':'))) return std::nullopt;
  if (field.size() == result.host.size()) return result;
  if (rest.empty() || rest.size() > 5 || !std::ranges::all_of(rest, isDigit)) return std::nullopt;
  result.port = rest;
  return result;
}

bool equal(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string base64(const unsigned char* bytes, std::size_t length) {
  std::string text(4 * ((length + 2) / 3) + 1, '\0');
  const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes, static_cast<int>(length));
  text.resize(static_cast<std::size_t>(written));
  return text;
}

/// Whether a MAC fits the text that `textOf` makes for the host.
template <class TextOf>
bool isMacRight(std::string_view key, std::string_view mac, std::string_view host, const TextOf& textOf) {
  if (equal(hawkMac(key, textOf(host)), mac)) return true;
  // Signers do not agree on whether the brackets of an IPv6 literal belong to the host.
  return host.starts_with('[') && equal(hawkMac(key, textOf(host.substr(1, host.size() - 2))), mac);
}

/// What is remembered of a nonce. No attribute can hold a line feed, so the three cannot run into one another.
std::string nonceEntry(const HawkTicket& ticket) {
  return ticket.key + "\n" + ticket.attributes.nonce + "\n" + ticket.attributes.ts;
}

std::chrono::seconds timeOf(const HawkTicket& ticket) {
  const std::string& ts = ticket.attributes.ts;
  std::int64_t seconds = 0;
  std::from_chars(ts.data(), ts.data() + ts.size(), seconds);  // digits that fit, as the parser made sure
  return std::chrono::seconds(seconds);
}

HawkRefusal stale(const HawkTicket& ticket, std::chrono::milliseconds now) {
  const auto time = std::chrono::floor<std::chrono::seconds>(now).count();
  return {401, "Stale timestamp", staleChallenge(ticket.key, std::to_string(time))};
}

/// The bytes of unpadded base64url; absent for any other text.
std::optional<std::string> base64urlDecoded(std::string_view text) {
  static constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string bytes;
  std::uint32_t bits = 0;
  int count = 0;
  for (const char c : text) {
    const auto digit = kAlphabet.find(c);
    if (digit == std::string_view::npos) return std::nullopt;
    bits = (bits << 6U | static_cast<std::uint32_t>(digit)) & 0xFFFFU;
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes += static_cast<char>(bits >> static_cast<unsigned>(count) & 0xFFU);
  }
  // What is left over is less than a digit, and no part of the text.
  if (count >= 6 || (bits & ((1U << static_cast<unsigned>(count)) - 1)) != 0) return std::nullopt;
  return bytes;
}

/// The four parts between backslashes; absent for more or fewer.
std::optional<HawkBewit> splitBewit(std::string_view text) {
  std::array<std::string, 4> parts;
  for (std::size_t at = 0; at < parts.size(); ++at) {
    const auto end = text.find('\\');
    if ((end == std::string_view::npos) != (at == parts.size() - 1)) return std::nullopt;
    parts[at] = text.substr(0, end);
    text.remove_prefix(std::min(text.size(), parts[at].size() + 1));
  }
  return HawkBewit{parts[0], parts[1], parts[2], parts[3]};
}

/// The value of the parameter "bewit", which is taken out of the target with the separator that it then needs no more. Absent when
/// there is none, or more than one.
std::optional<std::string> takeBewit(std::string& target) {
  std::optional<std::string> value;
  const auto question = target.find('?');
  if (question == std::string::npos) return std::nullopt;
  std::string kept = target.substr(0, question);
  std::string_view rest = std::string_view(target).substr(question);
  char separator = '?';
  while (!rest.empty()) {
    rest.remove_prefix(1);  // the question mark or ampersand
    const std::string_view pair = rest.substr(0, rest.find('&'));
    rest.remove_prefix(pair.size());
    if (pair.starts_with("bewit=")) {
      if (value) return std::nullopt;
      value = pair.substr(pair.find('=') + 1);
      continue;
    }
    kept.append(1, separator).append(pair);
    separator = '&';
  }
  target = kept;
  return value;
}

}  // namespace

std::expected<HawkAttributes, HawkRefusal> parseHawkAuthorization(std::optional<std::string_view> header) {
  if (!header || header->empty()) return std::unexpected(HawkRefusal{401, "No Authorization header", "Hawk"});
  if (header->size() > kMaxHeaderLength) return std::unexpected(syntaxError("Header length too long"));
  if (header->find_first_of("\r\n") != std::string_view::npos) return std::unexpected(syntaxError("Invalid header syntax"));
  std::string_view rest = *header;
  const std::string_view scheme = takeWhile(rest, isWord);
  const std::string_view gap = takeWhile(rest, isSpace);
  if (scheme.empty() || (gap.empty() && !rest.empty())) return std::unexpected(syntaxError("Invalid header syntax"));
  if (mapped(scheme, lower) != "hawk") return std::unexpected(HawkRefusal{401, "Not the Hawk scheme", "Hawk"});
  if (rest.empty()) return std::unexpected(syntaxError("Invalid header syntax"));

  const auto found = readAttributes(rest);
  if (!found) return std::unexpected(found.error());
  const auto id = textOf(*found, "id");
  const auto ts = textOf(*found, "ts");
  const auto nonce = textOf(*found, "nonce");
  const auto mac = textOf(*found, "mac");
  if (!id || !ts || !nonce || !mac) return std::unexpected(syntaxError("Missing attributes"));
  if (!isTimestamp(*ts)) return std::unexpected(syntaxError("Bad attribute value: ts"));
  return HawkAttributes{
      *id, *ts, *nonce, *mac, textOf(*found, "hash"), textOf(*found, "ext"), textOf(*found, "app"), textOf(*found, "dlg")};
}

std::string hawkRequestText(const HawkAttributes& attributes, std::string_view method, std::string_view target,
                            std::string_view host, std::string_view port) {
  std::string text = "hawk.1.header\n";
  const auto addLine = [&text](std::string_view line) { text.append(line).push_back('\n'); };
  addLine(attributes.ts);
  addLine(attributes.nonce);
  addLine(mapped(method, upper));
  addLine(target);
  addLine(mapped(host, lower));
  addLine(port);
  addLine(attributes.hash.value_or(""));
  // An ext with something to escape never comes this far: the header's syntax does not let a backslash or a line feed through.
  addLine(attributes.ext.value_or(""));
  if (attributes.app) {
    addLine(*attributes.app);
    addLine(attributes.dlg.value_or(""));
  }
  return text;
}

std::expected<HawkLink, HawkRefusal> parseHawkLink(std::string_view target) {
  HawkLink link;
  link.target = target;
  const auto text = takeBewit(link.target);
  if (!text || text->empty()) return std::unexpected(HawkRefusal{401, "No bewit, or more than one", "Hawk"});
  const auto decoded = base64urlDecoded(*text);
  if (!decoded) return std::unexpected(syntaxError("Invalid bewit encoding"));
  auto bewit = splitBewit(*decoded);
  if (!bewit) return std::unexpected(syntaxError("Invalid bewit structure"));
  if (bewit->id.empty() || bewit->exp.empty() || bewit->mac.empty())
    return std::unexpected(syntaxError("Missing bewit attributes"));
  for (const std::string& part : {bewit->id, bewit->mac, bewit->ext})
    if (!std::ranges::all_of(part, isValueCharacter)) return std::unexpected(syntaxError("Bad bewit attribute value"));
  if (!isTimestamp(bewit->exp)) return std::unexpected(syntaxError("Bad bewit attribute value: exp"));
  link.bewit = *std::move(bewit);
  return link;
}

std::string hawkLinkText(const HawkBewit& bewit, std::string_view target, std::string_view host, std::string_view port) {
  const std::string lowerHost = mapped(host, lower);
  std::string text = "hawk.1.bewit\n";
  // A link has no nonce and no hash; its lines for them are empty.
  for (const std::string_view line : {std::string_view(bewit.exp), std::string_view(), std::string_view("GET"), target,
                                      std::string_view(lowerHost), port, std::string_view(), std::string_view(bewit.ext)})
    text.append(line).push_back('\n');
  return text;
}

std::string hawkMac(std::string_view key, std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> mac{};
  unsigned length = 0;
  if (!HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(text.data()),
            text.size(), mac.data(), &length))
    throw std::runtime_error("OpenSSL cannot compute an HMAC");
  return base64(mac.data(), length);
}

std::string hawkPayloadHash(std::string_view contentType, std::string_view payload) {
  contentType = contentType.substr(0, contentType.find(';'));
  takeWhile(contentType, isSpace);
  while (!contentType.empty() && isSpace(contentType.back())) contentType.remove_suffix(1);

  struct Free {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  const std::unique_ptr<EVP_MD_CTX, Free> context(EVP_MD_CTX_new());
  const std::string head = "hawk.1.payload\n" + mapped(contentType, lower) + "\n";
  std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
  unsigned length = 0;
  if (!context || EVP_DigestInit_ex2(context.get(), EVP_sha256(), nullptr) != 1 ||
      EVP_DigestUpdate(context.get(), head.data(), head.size()) != 1 ||
      EVP_DigestUpdate(context.get(), payload.data(), payload.size()) != 1 || EVP_DigestUpdate(context.get(), "\n", 1) != 1 ||
      EVP_DigestFinal_ex(context.get(), hash.data(), &length) != 1)
    throw std::runtime_error("OpenSSL cannot compute a digest");
  return base64(hash.data(), length);
}

std::string staleChallenge(std::string_view key, std::string_view time, Tsm tsm) {
  std::string challenge = "Hawk ts=\"" + std::string(time) + "\"";
  if (tsm != Tsm::kMissing) {
    std::string mac = hawkMac(key, "hawk.1.ts\n" + std::string(time) + "\n");
    if (tsm == Tsm::kWrong) mac.front() = mac.front() == 'A' ? 'B' : 'A';
    challenge += ", tsm=\"" + mac + "\"";
  }
  return challenge + ", error=\"Stale timestamp\"";
}

std::expected<HawkTicket, HawkRefusal> HawkVerifier::verifyHeader(const HawkRequest& request) const {
  auto attributes = parseHawkAuthorization(request.authorization);
  if (!attributes) return std::unexpected(attributes.error());
  const auto place = splitHost(request.host);
  if (!place) return std::unexpected(syntaxError("Invalid Host header"));
  const auto key = keys_.find(attributes->id);
  if (key == keys_.end()) return std::unexpected(unauthorized("Unknown credentials"));

  HawkTicket ticket{*std::move(attributes), key->second};
  const bool right = isMacRight(ticket.key, ticket.attributes.mac, place->host, [&](std::string_view host) {
    return hawkRequestText(ticket.attributes, request.method, request.target, host, place->port);
  });
  if (!right) return std::unexpected(unauthorized("Bad mac"));
  return ticket;
}

std::expected<HawkBewit, HawkRefusal> HawkVerifier::verifyLink(const HawkRequest& request, std::chrono::milliseconds now) const {
  if (request.method != "GET") return std::unexpected(unauthorized("Invalid method"));
  if (request.authorization) return std::unexpected(syntaxError("Multiple authentications"));
  auto link = parseHawkLink(request.target);
  if (!link) return std::unexpected(link.error());
  const HawkBewit& bewit = link->bewit;
  if (now >= std::chrono::seconds(std::stoll(bewit.exp))) return std::unexpected(unauthorized("Access expired"));
  const auto place = splitHost(request.host);
  if (!place) return std::unexpected(syntaxError("Invalid Host header"));
  const auto key = keys_.find(bewit.id);
  if (key == keys_.end()) return std::unexpected(unauthorized("Unknown credentials"));
  const bool right = isMacRight(key->second, bewit.mac, place->host,
                                [&](std::string_view host) { return hawkLinkText(bewit, link->target, host, place->port); });
  if (!right) return std::unexpected(unauthorized("Bad mac"));
  return std::move(link->bewit);
}

std::expected<void, HawkRefusal> HawkVerifier::verifyPayload(const HawkTicket& ticket, std::string_view contentType,
                                                             std::string_view payload) {
  return verifyPayloadHash(ticket, hawkPayloadHash(contentType, payload));
}

std::expected<void, HawkRefusal> HawkVerifier::verifyPayloadHash(const HawkTicket& ticket, std::string_view hash) {
  if (!ticket.attributes.hash) return std::unexpected(unauthorized("Missing required payload hash"));
  if (!equal(hash, *ticket.attributes.hash)) return std::unexpected(unauthorized("Bad payload hash"));
  return {};
}

std::expected<void, HawkRefusal> HawkVerifier::verifyFreshness(const HawkTicket& ticket, std::chrono::milliseconds now) {
  if (auto spent = spend(ticket); !spent) return spent;
  if (std::chrono::abs(now - timeOf(ticket)) > kWindow) return std::unexpected(stale(ticket, now));
  return {};
}

std::expected<void, HawkRefusal> HawkVerifier::verifyUpload(const HawkTicket& ticket, std::chrono::milliseconds now) const {
  {
    const std::lock_guard lock(mutex_);
    if (nonces_.contains(nonceEntry(ticket))) return std::unexpected(unauthorized("Invalid nonce"));
  }
  const auto age = now - timeOf(ticket);
  if (age > kUploadAge || -age > kWindow) return std::unexpected(stale(ticket, now));
  return {};
}

std::expected<void, HawkRefusal> HawkVerifier::spend(const HawkTicket& ticket) {
  if (!useNonce(ticket)) return std::unexpected(unauthorized("Invalid nonce"));
  return {};
}

bool HawkVerifier::useNonce(const HawkTicket& ticket) {
  std::string entry = nonceEntry(ticket);
  std::lock_guard lock(mutex_);
  if (!nonces_.insert(entry).second) return false;
  nonceOrder_.push_back(std::move(entry));
  if (nonceOrder_.size() > kMaxNonces) {
    nonces_.erase(nonceOrder_.front());
    nonceOrder_.pop_front();
  }
  return true;
}

}  // namespace devserver
