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

bool isMacRight(const HawkTicket& ticket, const HawkRequest& request, const HostAndPort& place, std::string_view host) {
  const std::string text = hawkRequestText(ticket.attributes, request.method, request.target, host, place.port);
  return equal(hawkMac(ticket.key, text), ticket.attributes.mac);
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
  bool right = isMacRight(ticket, request, *place, place->host);
  // Signers do not agree on whether the brackets of an IPv6 literal belong to the host.
  if (!right && place->host.starts_with('['))
    right = isMacRight(ticket, request, *place, place->host.substr(1, place->host.size() - 2));
  if (!right) return std::unexpected(unauthorized("Bad mac"));
  return ticket;
}

std::expected<void, HawkRefusal> HawkVerifier::verifyPayload(const HawkTicket& ticket, std::string_view contentType,
                                                             std::string_view payload) {
  if (!ticket.attributes.hash) return std::unexpected(unauthorized("Missing required payload hash"));
  if (!equal(hawkPayloadHash(contentType, payload), *ticket.attributes.hash))
    return std::unexpected(unauthorized("Bad payload hash"));
  return {};
}

std::expected<void, HawkRefusal> HawkVerifier::verifyFreshness(const HawkTicket& ticket, std::chrono::milliseconds now) {
  if (!useNonce(ticket)) return std::unexpected(unauthorized("Invalid nonce"));
  const std::string& ts = ticket.attributes.ts;
  std::int64_t seconds = 0;
  std::from_chars(ts.data(), ts.data() + ts.size(), seconds);  // digits that fit, as the parser made sure
  if (std::chrono::abs(now - std::chrono::seconds(seconds)) > kWindow) {
    const auto time = std::chrono::floor<std::chrono::seconds>(now).count();
    return std::unexpected(HawkRefusal{401, "Stale timestamp", staleChallenge(ticket.key, std::to_string(time))});
  }
  return {};
}

bool HawkVerifier::useNonce(const HawkTicket& ticket) {
  // No attribute can hold a line feed, so the three cannot run into one another.
  std::string entry = ticket.key + "\n" + ticket.attributes.nonce + "\n" + ticket.attributes.ts;
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
