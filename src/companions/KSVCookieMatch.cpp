// The link, and the attempts to have it opened.
#include "companions/KSVCookieMatch.h"

#include <string_view>
#include <utility>

#include "companions/CorrectedClock.h"
#include "companions/KSVConstants.h"
#include "companions/KSVHawkAuth.h"
#include "platform/BrowserOpener.h"
#include "platform/Handler.h"
#include "platform/Process.h"
#include "platform/URL.h"

namespace {

using platform::URL;

bool isUnreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~';
}

/// As a value in a query: whatever could mean something there is escaped.
std::string percentEncoded(std::string_view text) {
  constexpr std::string_view kHexDigits = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (isUnreserved(c))
      encoded += c;
    else
      encoded.append({'%', kHexDigits[byte >> 4U], kHexDigits[byte & 15U]});
  }
  return encoded;
}

std::optional<std::string> bewitFor(const URL& page, const std::string& requestUri,
                                    std::shared_ptr<const KSVHawkCredentials> credentials) {
  KSVHawkAuth signer;
  signer.setCredentials(std::move(credentials));
  signer.setRequestUri(requestUri);
  signer.setHost(page.host().value_or(""));
  const std::uint16_t port = page.port().value_or(0);
  signer.setPort(port == 0 ? 443 : port);
  signer.setTimestamp(CorrectedClock::now().dateByAddingTimeInterval(KSVCookieMatch::kLinkLifetime));
  return signer.bewit();
}

/// The signed address of the match page; absent when something that it names is, or it cannot be signed.
std::optional<URL> matchLink(const std::optional<std::string>& appRDNS, const std::optional<std::string>& appSecret,
                             const std::optional<std::string>& deviceId) {
  if (!appRDNS || !deviceId || deviceId->empty()) return std::nullopt;
  const std::string requestUri = "/cookie-match?appRDNS=" + percentEncoded(*appRDNS) + "&deviceId=" + percentEncoded(*deviceId);
  const std::string address = "https://" + kAPIHost() + requestUri;
  const std::optional<URL> page = URL::URLWithString(address);
  if (!page) return std::nullopt;
  const std::optional<std::string> bewit = bewitFor(
      *page, requestUri, KSVHawkCredentials::initWithHawkIdWithKeyWithAlgorithm(appRDNS, appSecret, KSVCryptoAlgorithmSHA256));
  return bewit ? URL::URLWithString(address + "&bewit=" + *bewit) : std::nullopt;
}

}  // namespace

std::shared_ptr<KSVCookieMatch> KSVCookieMatch::sharedCookieMatch() {
  return platform::Process::current().sharedInstance<KSVCookieMatch>();
}

KSVCookieMatch::KSVCookieMatch()
    : queue_(platform::DispatchQueue::serialQueueWithLabel(std::string(kSDKReverseDNSPrefix) + ".CookieMatch")) {}

void KSVCookieMatch::cookieMatchDeviceWithAppRDNSAppSecretDeviceIdCompletion(const std::optional<std::string>& appRDNS,
                                                                             const std::optional<std::string>& appSecret,
                                                                             const std::optional<std::string>& deviceId,
                                                                             Completion completion) {
  queue_->async([self = shared_from_this(), identity = Identity{appRDNS, appSecret, deviceId},
                 completion = std::move(completion)]() mutable { self->match(identity, std::move(completion)); });
}

void KSVCookieMatch::match(const Identity& identity, Completion completion) {
  const std::optional<URL> link = matchLink(identity.appRDNS, identity.appSecret, identity.deviceId);
  if (!link) {
    platform::call(completion, false);
    return;
  }
  waiting_.push_back(std::move(completion));
  if (waiting_.size() > 1) return;

  const std::uint64_t attempt = ++attempt_;
  queue_->asyncAfter(kTimeLimit, [self = shared_from_this(), attempt] { self->end(attempt, false); });
  platform::BrowserOpener::browserOpener().openURL(*link, [self = shared_from_this(), attempt](bool didOpen) {
    self->queue_->async([self, attempt, didOpen] { self->end(attempt, didOpen); });
  });
}

// The first end of an attempt counts: what comes later finds nobody waiting, or another attempt.
void KSVCookieMatch::end(std::uint64_t attempt, bool didComplete) {
  if (attempt != attempt_) return;
  for (const Completion& completion : std::exchange(waiting_, {})) platform::call(completion, didComplete);
}
