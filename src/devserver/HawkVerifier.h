// The server's side of the Hawk HTTP authentication scheme, version 1 (github.com/mozilla/hawk, API.md).
//
// It stands on OpenSSL alone and shares no code with the client's signer, so that a mistake in the one cannot hide in the other.
// A request is checked in the scheme's own order: the header's syntax, its attributes, the credentials, the MAC; then, where the
// body counts, its hash; then the nonce; the age last. So a challenge that carries a time says that everything else was right, and
// a stale request has used up its nonce.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <expected>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

namespace devserver {

struct HawkAttributes {
  std::string id;
  std::string ts;
  std::string nonce;
  std::string mac;
  std::optional<std::string> hash;
  std::optional<std::string> ext;
  std::optional<std::string> app;
  std::optional<std::string> dlg;
};

/// Why a request is not taken: 400 for syntax, which has no challenge, 401 for everything else.
struct HawkRefusal {
  int status = 401;
  std::string reason;
  std::string challenge;  // the value of WWW-Authenticate; empty for none
};

/// What of a request is signed, as it was received.
struct HawkRequest {
  std::string_view method;
  std::string_view target;  // path and query
  std::string_view host;    // the Host header field
  std::optional<std::string_view> authorization;
};

/// A request whose MAC is right.
struct HawkTicket {
  HawkAttributes attributes;
  std::string key;
};

/// The attributes of an Authorization header field, all of the required ones present. Strict: ts is plain decimal digits.
std::expected<HawkAttributes, HawkRefusal> parseHawkAuthorization(std::optional<std::string_view> header);

/// The text that a request's MAC is taken over; `host` is a name alone.
std::string hawkRequestText(const HawkAttributes& attributes, std::string_view method, std::string_view target,
                            std::string_view host, std::string_view port);
/// The base64 HMAC-SHA-256 of a text.
std::string hawkMac(std::string_view key, std::string_view text);
/// The base64 hash of a body that was sent with this content type.
std::string hawkPayloadHash(std::string_view contentType, std::string_view payload);

enum class Tsm { kGood, kWrong, kMissing };
/// The challenge for a stale request, its time as text.
std::string staleChallenge(std::string_view key, std::string_view time, Tsm tsm = Tsm::kGood);

/// A signed link: what a GET has in place of a header when a browser makes it.
struct HawkBewit {
  std::string id;
  std::string exp;  // the second at which the link dies, as text
  std::string mac;
  std::string ext;
};

/// The bewit of a request target, and the target without it, which is what is signed.
struct HawkLink {
  HawkBewit bewit;
  std::string target;
};
/// Strict: one parameter "bewit", unpadded base64url of four parts, exp in plain decimal digits.
std::expected<HawkLink, HawkRefusal> parseHawkLink(std::string_view target);
/// The text that a link's MAC is taken over.
std::string hawkLinkText(const HawkBewit& bewit, std::string_view target, std::string_view host, std::string_view port);

/// Knows the applications and the nonces. Any thread.
class HawkVerifier {
 public:
  using Keys = std::map<std::string, std::string, std::less<>>;
  /// The farthest that a request's time may lie from the server's; exactly this far passes.
  static constexpr std::chrono::milliseconds kWindow{60'000};
  /// The oldest that the signature of an upload may be.
  static constexpr std::chrono::milliseconds kUploadAge = std::chrono::hours(8 * 24);
  /// How many nonces are remembered; the oldest is forgotten first.
  static constexpr std::size_t kMaxNonces = 1'000'000;

  explicit HawkVerifier(Keys keys) : keys_(std::move(keys)) {}

  /// The header alone, up to the MAC: nothing of the body is needed.
  std::expected<HawkTicket, HawkRefusal> verifyHeader(const HawkRequest& request) const;
  /// A signed link, whole: its syntax, its age, the credentials, the MAC. It is good for a GET alone, at the host that it was
  /// signed for, until its time is over, and then as often as it is used.
  std::expected<HawkBewit, HawkRefusal> verifyLink(const HawkRequest& request, std::chrono::milliseconds now) const;
  /// The body against the hash in the header.
  static std::expected<void, HawkRefusal> verifyPayload(const HawkTicket& ticket, std::string_view contentType,
                                                        std::string_view payload);
  /// The same for a body whose hash is known.
  static std::expected<void, HawkRefusal> verifyPayloadHash(const HawkTicket& ticket, std::string_view hash);
  /// The nonce, which is used up, and then the age; `now` counts from 1970.
  std::expected<void, HawkRefusal> verifyFreshness(const HawkTicket& ticket, std::chrono::milliseconds now);

  /// In place of verifyFreshness for an upload, which is signed once and may be sent again for days: the nonce must not be used up,
  /// and stays so; the age may be kUploadAge, or kWindow ahead.
  std::expected<void, HawkRefusal> verifyUpload(const HawkTicket& ticket, std::chrono::milliseconds now) const;
  /// Uses the nonce up, of an upload that came whole. Refused when another one with the same signature was faster.
  std::expected<void, HawkRefusal> spend(const HawkTicket& ticket);

 private:
  bool useNonce(const HawkTicket& ticket);

  const Keys keys_;
  mutable std::mutex mutex_;
  std::unordered_set<std::string> nonces_;
  std::deque<std::string> nonceOrder_;
};

}  // namespace devserver
