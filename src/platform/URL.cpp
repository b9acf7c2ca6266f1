// URLs by the grammar of RFC 3986: strict parsing, resolving, appending.
//
// Everything is one pass over the text without recursion, so that text from a server costs time in proportion to its length.
#include "platform/URL.h"

#include <algorithm>

#include "platform/Exception.h"

namespace platform {
namespace {

constexpr std::string_view kSubDelims = "!$&'()*+,;=";

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isOneOf(char c, std::string_view set) { return set.find(c) != std::string_view::npos; }
bool isUnreserved(char c) { return isAlpha(c) || isDigit(c) || isOneOf(c, "-._~"); }
char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

int hexValue(char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/// True when the text is made of unreserved characters, sub-delimiters, whole percent escapes and `extra`.
bool isEncoded(std::string_view text, std::string_view extra) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      if (text.size() - i < 3 || hexValue(text[i + 1]) < 0 || hexValue(text[i + 2]) < 0) return false;
      i += 2;
    } else if (!isUnreserved(text[i]) && !isOneOf(text[i], kSubDelims) && !isOneOf(text[i], extra)) {
      return false;
    }
  }
  return true;
}

/// Of text whose escapes are known to be whole.
std::string percentDecoded(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      decoded += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

/// Bytes as a piece of path; slashes stay, and so do colons unless they would read as the end of a scheme.
std::string percentEncodedPath(std::string_view bytes, bool keepColons) {
  constexpr const char* kHexDigits = "0123456789ABCDEF";
  std::string encoded;
  encoded.reserve(bytes.size());
  for (const char c : bytes) {
    if (isUnreserved(c) || isOneOf(c, kSubDelims) || c == '/' || c == '@' || (c == ':' && keepColons)) {
      encoded += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded += '%';
      encoded += kHexDigits[byte >> 4];
      encoded += kHexDigits[byte & 15];
    }
  }
  return encoded;
}

/// The five components as they stand in the text (RFC 3986 appendix B).
struct Components {
  std::optional<std::string_view> scheme;
  std::optional<std::string_view> authority;
  std::string_view path;
  std::optional<std::string_view> query;
  std::optional<std::string_view> fragment;
};

Components split(std::string_view text) {
  Components parts;
  if (const auto hash = text.find('#'); hash != std::string_view::npos) {
    parts.fragment = text.substr(hash + 1);
    text = text.substr(0, hash);
  }
  if (const auto mark = text.find('?'); mark != std::string_view::npos) {
    parts.query = text.substr(mark + 1);
    text = text.substr(0, mark);
  }
  if (const auto end = text.find_first_of(":/"); end != std::string_view::npos && text[end] == ':') {
    parts.scheme = text.substr(0, end);
    text = text.substr(end + 1);
  }
  if (text.starts_with("//")) {
    const auto end = text.find('/', 2);
    parts.authority = text.substr(2, end == std::string_view::npos ? end : end - 2);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end);
  }
  parts.path = text;
  return parts;
}

std::string joined(const Components& parts) {
  std::string text;
  if (parts.scheme) text.append(*parts.scheme).append(":");
  if (parts.authority) text.append("//").append(*parts.authority);
  text.append(parts.path);
  if (parts.query) text.append("?").append(*parts.query);
  if (parts.fragment) text.append("#").append(*parts.fragment);
  return text;
}

bool isScheme(std::string_view text) {
  if (text.empty() || !isAlpha(text[0])) return false;
  return std::ranges::all_of(text, [](char c) { return isAlpha(c) || isDigit(c) || isOneOf(c, "+-."); });
}

bool isIPv4(std::string_view text) {
  for (int part = 0; part < 4; ++part) {
    std::size_t digits = 0;
    int value = 0;
    while (digits < text.size() && digits < 4 && isDigit(text[digits])) value = value * 10 + (text[digits++] - '0');
    if (digits == 0 || value > 255 || (digits > 1 && text[0] == '0')) return false;
    text.remove_prefix(digits);
    if (part < 3) {
      if (!text.starts_with('.')) return false;
      text.remove_prefix(1);
    }
  }
  return text.empty();
}

/// Groups of up to four hexadecimal digits with a colon between them, of which the last may be an IPv4 address that counts as two.
/// Yields their number, 0 for none; absent when the text is something else.
std::optional<int> countedIPv6Groups(std::string_view text) {
  int groups = 0;
  while (!text.empty()) {
    const std::size_t digits = std::min(text.find_first_of(":."), text.size());
    if (digits < text.size() && text[digits] == '.') return isIPv4(text) ? std::optional(groups + 2) : std::nullopt;
    if (digits == 0 || digits > 4 || !std::ranges::all_of(text.substr(0, digits), [](char c) { return hexValue(c) >= 0; }))
      return std::nullopt;
    ++groups;
    text.remove_prefix(digits);
    if (text == ":") return std::nullopt;
    if (!text.empty()) text.remove_prefix(1);
  }
  return groups;
}

/// Eight groups; one run of them, of one group at least, may be `::`.
bool isIPv6(std::string_view text) {
  const std::size_t elision = text.find("::");
  if (elision == std::string_view::npos) return countedIPv6Groups(text) == 8;
  const std::string_view head = text.substr(0, elision);
  const auto before = head.contains('.') ? std::nullopt : countedIPv6Groups(head);
  const auto after = countedIPv6Groups(text.substr(elision + 2));
  return before && after && *before + *after <= 7;
}

bool isIPvFuture(std::string_view text) {
  if (text.empty() || lowered(text[0]) != 'v') return false;
  const auto dot = text.find('.');
  if (dot == std::string_view::npos || dot < 2 || dot + 1 == text.size()) return false;
  return std::ranges::all_of(text.substr(1, dot - 1), [](char c) { return hexValue(c) >= 0; }) &&
         std::ranges::all_of(text.substr(dot + 1), [](char c) { return isUnreserved(c) || isOneOf(c, kSubDelims) || c == ':'; });
}

struct Authority {
  std::string_view host;
  std::optional<std::uint16_t> port;
};

/// An empty port counts as none; a number that no port can have is a mistake.
bool readPort(std::string_view digits, std::optional<std::uint16_t>& port) {
  std::uint32_t value = 0;
  for (const char c : digits) {
    if (!isDigit(c)) return false;
    value = value * 10 + static_cast<std::uint32_t>(c - '0');
    if (value > 65535) return false;
  }
  if (!digits.empty()) port = static_cast<std::uint16_t>(value);
  return true;
}

std::optional<Authority> readAuthority(std::string_view text) {
  if (const auto at = text.find('@'); at != std::string_view::npos) {
    if (!isEncoded(text.substr(0, at), ":")) return std::nullopt;
    text = text.substr(at + 1);
  }
  Authority authority;
  std::string_view rest;
  if (text.starts_with('[')) {
    const auto close = text.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    authority.host = text.substr(1, close - 1);
    if (!isIPv6(authority.host) && !isIPvFuture(authority.host)) return std::nullopt;
    rest = text.substr(close + 1);
  } else {
    authority.host = text.substr(0, text.find(':'));
    if (!isEncoded(authority.host, "")) return std::nullopt;
    rest = text.substr(authority.host.size());
  }
  if (rest.empty()) return authority;
  if (rest[0] != ':' || !readPort(rest.substr(1), authority.port)) return std::nullopt;
  return authority;
}

/// RFC 3986 section 5.2.4, on a path that is absolute or was merged with one; each segment is looked at once.
std::string withoutDotSegments(std::string_view path) {
  std::string output;
  output.reserve(path.size());
  const bool absolute = path.starts_with('/');
  std::size_t begin = absolute ? 1 : 0;
  if (absolute) output = "/";
  while (true) {
    const std::size_t end = path.find('/', begin);
    const bool last = end == std::string_view::npos;
    const std::string_view segment = path.substr(begin, last ? end : end - begin);
    if (segment == "..") {
      // The output ends in a slash or is empty: drop the segment before that slash.
      if (output.size() > 1) output.erase(output.find_last_of('/', output.size() - 2) + 1);
      if (output.empty() && absolute) output = "/";
    } else if (segment != ".") {
      output += segment;
      if (!last) output += '/';
    }
    if (last) return output;
    begin = end + 1;
  }
}

/// RFC 3986 section 5.2.3.
std::string merged(const Components& base, std::string_view path) {
  if (base.authority && base.path.empty()) return "/" + std::string(path);
  const auto slash = base.path.rfind('/');
  return std::string(base.path.substr(0, slash == std::string_view::npos ? 0 : slash + 1)).append(path);
}

/// Keeps a path from reading as an authority or a scheme where the text has none before it.
std::string guardedPath(std::string path, bool hasScheme, bool hasAuthority) {
  if (!hasAuthority && path.starts_with("//")) return "/." + path;
  if (hasScheme || hasAuthority) return path;
  const auto mark = path.find_first_of(":/");
  return mark != std::string::npos && path[mark] == ':' ? "./" + path : path;
}

}  // namespace

std::optional<URL> URL::URLWithString(std::string_view text) {
  const Components parts = split(text);
  if (parts.scheme && !isScheme(*parts.scheme)) return std::nullopt;
  if (!isEncoded(parts.path, ":@/")) return std::nullopt;
  if (parts.query && !isEncoded(*parts.query, ":@/?")) return std::nullopt;
  if (parts.fragment && !isEncoded(*parts.fragment, ":@/?")) return std::nullopt;
  URL url;
  if (parts.authority) {
    const std::optional<Authority> authority = readAuthority(*parts.authority);
    if (!authority) return std::nullopt;
    url.host_ = std::string(authority->host);
    url.port_ = authority->port;
  }
  if (parts.scheme) {
    url.scheme_.emplace();
    for (const char c : *parts.scheme) *url.scheme_ += lowered(c);
  }
  url.text_ = text;
  url.path_ = percentDecoded(parts.path);
  if (parts.query) url.query_ = std::string(*parts.query);
  return url;
}

URL URL::fileURLWithPath(std::string_view path) {
  if (!path.starts_with('/')) throw Exception(kInvalidArgumentException, "A file URL needs an absolute path");
  return *URLWithString("file://" + percentEncodedPath(path, true));
}

std::string URL::lastPathComponent() const {
  const auto last = path_.find_last_not_of('/');
  if (last == std::string::npos) return path_.empty() ? "" : "/";
  const auto slash = path_.rfind('/', last);
  const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
  return path_.substr(begin, last + 1 - begin);
}

URL URL::URLByAppendingPathComponent(std::string_view component) const {
  Components parts = split(text_);
  while (component.starts_with('/')) component.remove_prefix(1);
  std::string path(parts.path);
  if (!path.ends_with('/') && (parts.authority || !path.empty())) path += '/';
  path += percentEncodedPath(component, parts.scheme || parts.authority || !path.empty());
  parts.path = path;
  return *URLWithString(joined(parts));
}

std::optional<URL> URL::URLByResolving(std::string_view reference) const {
  const std::optional<URL> checked = URLWithString(reference);
  if (!checked) return std::nullopt;
  const Components base = split(text_);
  const Components relative = split(reference);
  Components target = relative;
  std::string path;
  if (relative.scheme || relative.authority) {
    path = withoutDotSegments(relative.path);
  } else if (relative.path.empty()) {
    path = base.path;
    if (!relative.query) target.query = base.query;
  } else {
    path = withoutDotSegments(relative.path.starts_with('/') ? std::string(relative.path) : merged(base, relative.path));
  }
  if (!relative.scheme) {
    target.scheme = base.scheme;
    if (!relative.authority) target.authority = base.authority;
  }
  path = guardedPath(std::move(path), target.scheme.has_value(), target.authority.has_value());
  target.path = path;
  return URLWithString(joined(target));
}

}  // namespace platform
