// A URL, parsed once (RFC 3986).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Export.h"

namespace platform {

class KESTROVA_EXPORT URL {
 public:
  /// Absent for text that is no URL: characters that RFC 3986 does not allow (blanks, controls, quotes, non-ASCII), a bad percent
  /// escape, a bad port. A relative reference is a URL without scheme.
  static std::optional<URL> URLWithString(std::string_view text);
  /// `path` must be absolute; its bytes may be anything but NUL.
  static URL fileURLWithPath(std::string_view path);

  const std::string& absoluteString() const { return text_; }
  const std::optional<std::string>& scheme() const { return scheme_; }
  /// Without port and without the brackets of an IPv6 literal.
  const std::optional<std::string>& host() const { return host_; }
  const std::optional<std::uint16_t>& port() const { return port_; }
  /// Percent-decoded; empty when there is none.
  const std::string& path() const { return path_; }
  /// As it stands in the text, present also when empty (`/a?`).
  const std::optional<std::string>& query() const { return query_; }
  bool isFileURL() const { return scheme_ == "file"; }
  /// The last component of the path, percent-decoded.
  std::string lastPathComponent() const;

  /// With one more path component, percent-encoded where it must be; query and fragment stay.
  URL URLByAppendingPathComponent(std::string_view component) const;
  /// This URL as the base of a reference (RFC 3986 section 5.2), as for a Location header; absent when it is no URL.
  std::optional<URL> URLByResolving(std::string_view reference) const;

  /// The text that %@ prints: the absolute string.
  const std::string& description() const { return text_; }
  friend bool operator==(const URL& a, const URL& b) { return a.text_ == b.text_; }

 private:
  URL() = default;

  std::string text_;
  std::optional<std::string> scheme_;
  std::optional<std::string> host_;
  std::optional<std::uint16_t> port_;
  std::string path_;
  std::optional<std::string> query_;
};

}  // namespace platform
