// Matching this device with the cookie of the system's browser.
//
// The browser is sent to a page of the API host whose address names the application and the device; the page reads the cookie that
// the browser may have from the link which led to the application. The address is signed with the application's secret and dies
// after a minute, so nobody else can match a device, and the secret stays in the process.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/DispatchQueue.h"

class KSVCookieMatch : public std::enable_shared_from_this<KSVCookieMatch> {
 public:
  using Completion = std::function<void(bool didComplete)>;

  /// How long the browser may take, in seconds.
  static constexpr double kTimeLimit = 10;
  /// How long the link lives, in seconds of the corrected clock.
  static constexpr double kLinkLifetime = 60;

  static std::shared_ptr<KSVCookieMatch> sharedCookieMatch();

  KSVCookieMatch();

  /// Opens the browser, one attempt at a time: who calls while one runs waits for its outcome. `didComplete` says whether the
  /// browser took the address within the time limit; false, with nothing opened, when application, secret or device is absent or
  /// empty, or cannot be signed. The completion runs exactly once, on this service's own serial queue and never inside the call; an
  /// absent one raises there. Returns at once; any thread. Logs nothing.
  void cookieMatchDeviceWithAppRDNSAppSecretDeviceIdCompletion(const std::optional<std::string>& appRDNS,
                                                               const std::optional<std::string>& appSecret,
                                                               const std::optional<std::string>& deviceId, Completion completion);

 private:
  struct Identity {
    std::optional<std::string> appRDNS;
    std::optional<std::string> appSecret;
    std::optional<std::string> deviceId;
  };

  void match(const Identity& identity, Completion completion);
  void end(std::uint64_t attempt, bool didComplete);

  const std::shared_ptr<platform::DispatchQueue> queue_;
  // On the queue only. Somebody waits as long as an attempt runs.
  std::vector<Completion> waiting_;
  std::uint64_t attempt_ = 0;
};
