// A signer for one request, or one link, of the Hawk HTTP authentication scheme, version 1 (github.com/mozilla/hawk, API.md).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "companions/KSVHawkCredentials.h"
#include "platform/Date.h"
#include "platform/String.h"

/// Used by one thread; a fresh one for every request and every challenge. Never raises.
class KSVHawkAuth {
 public:
  void setCredentials(std::shared_ptr<const KSVHawkCredentials> credentials) { credentials_ = std::move(credentials); }
  void setMethod(std::string method) { method_ = std::move(method); }
  /// Path and query as they stand in the request line.
  void setRequestUri(std::string requestUri) { requestUri_ = std::move(requestUri); }
  void setHost(std::string host) { host_ = std::move(host); }
  void setPort(std::uint64_t port) { port_ = port; }
  void setTimestamp(platform::Date timestamp) { timestamp_ = timestamp; }
  void setNonce(std::string nonce) { nonce_ = std::move(nonce); }
  void setExt(std::optional<std::string> ext) { ext_ = std::move(ext); }
  void setApp(std::optional<std::string> app) { app_ = std::move(app); }
  void setDlg(std::optional<std::string> dlg) { dlg_ = std::move(dlg); }
  /// The body's text; absent signs without a payload hash, which differs from an empty body.
  void setPayload(std::optional<platform::String> payload) { payload_ = std::move(payload); }
  void setContentType(std::string contentType) { contentType_ = std::move(contentType); }

  const std::shared_ptr<const KSVHawkCredentials>& credentials() const { return credentials_; }
  const std::string& method() const { return method_; }
  const std::string& requestUri() const { return requestUri_; }
  const std::string& host() const { return host_; }
  std::uint64_t port() const { return port_; }
  platform::Date timestamp() const { return timestamp_; }
  const std::string& nonce() const { return nonce_; }
  const std::optional<std::string>& ext() const { return ext_; }
  const std::optional<std::string>& app() const { return app_; }
  const std::optional<std::string>& dlg() const { return dlg_; }
  const std::optional<platform::String>& payload() const { return payload_; }
  const std::string& contentType() const { return contentType_; }

  /// The payload hash in base64, by the credentials' algorithm (SHA-256 before there are any); absent without a payload.
  std::optional<std::string> digest() const;
  /// The MAC over the normalised request string in base64; absent without a key. An empty key is none, here and below.
  std::optional<std::string> hmac() const;

  /// The complete value of "Authorization". Absent when there is no key, when id or nonce is absent, empty or holds a character
  /// that the header cannot carry, or when ext (or app or dlg) holds a control or non-ASCII character.
  std::optional<std::string> requestHeader() const;

  /// The value of the query parameter `bewit` that signs a link, for a GET that somebody else makes: of requestUri, host, port and
  /// ext, with timestamp as the time at which the link dies. The parameter goes last into the query. It holds no secret, and no
  /// character that a query would have to escape. Absent when there is no key, or when id or ext holds a character that a header
  /// could not carry either, or the id is empty.
  std::optional<std::string> bewit() const;

  /// The server's time in a "www-authenticate" challenge. Absent unless it is one well-formed Hawk challenge whose ts is plain
  /// decimal digits between 1 and 253402300799 and whose tsm is this key's MAC over it (compared in constant time).
  std::optional<platform::Date> getTimestampSkew(std::string_view wwwAuthenticateHeader) const;

 private:
  std::shared_ptr<const KSVHawkCredentials> credentials_;
  std::string method_;
  std::string requestUri_;
  std::string host_;
  std::uint64_t port_ = 0;
  platform::Date timestamp_;
  std::string nonce_;
  std::optional<std::string> ext_;
  std::optional<std::string> app_;
  std::optional<std::string> dlg_;
  std::optional<platform::String> payload_;
  std::string contentType_;
};
