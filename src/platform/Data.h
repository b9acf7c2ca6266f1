// Bytes: Data is immutable and its copies share, MutableData grows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/String.h"

namespace platform {

class URL;

class KESTROVA_EXPORT Data {
 public:
  Data() = default;
  explicit Data(std::string_view bytes) : bytes_(bytes) {}
  explicit Data(const char* text) : bytes_(text) {}
  explicit Data(const std::string& bytes) : bytes_(bytes) {}
  explicit Data(String bytes) : bytes_(std::move(bytes)) {}

  std::size_t length() const { return bytes_.length(); }
  bool empty() const { return length() == 0; }
  std::string_view bytes() const { return bytes_.view(); }
  const String& string() const { return bytes_; }

  /// A copy of `length` bytes from `location`; raises NSRangeException when the range lies outside.
  Data subdataWithRange(std::uint64_t location, std::uint64_t length) const;

  /// The bytes as text when they are well-formed UTF-8, else absent.
  std::optional<String> utf8String() const;

  /// Standard base64 with padding and no line breaks (RFC 4648 section 4).
  std::string base64EncodedString() const;

  /// Creates the file, mode 0600, holding exactly these bytes; fails with 516 when the name is taken (never overwrites), else as
  /// platform row F3 has it. Any thread.
  std::expected<void, Error> writeToURLWithoutOverwriting(const std::optional<URL>& url) const;
  /// The whole content of a file. Fails as platform row F3 has it. Any thread.
  static std::expected<Data, Error> dataWithContentsOfURL(const std::optional<URL>& url);

  friend bool operator==(const Data&, const Data&) = default;

 private:
  String bytes_;
};

class KESTROVA_EXPORT MutableData {
 public:
  void appendData(const Data& data) { bytes_.append(data.bytes()); }
  void setData(const Data& data) { bytes_.assign(data.bytes()); }
  std::size_t length() const { return bytes_.size(); }
  std::string_view bytes() const { return bytes_; }
  /// As Data::subdataWithRange.
  Data subdataWithRange(std::uint64_t location, std::uint64_t length) const;

 private:
  std::string bytes_;
};

/// True when the bytes are well-formed UTF-8 (RFC 3629: no surrogates, no overlong forms, nothing above U+10FFFF).
KESTROVA_EXPORT bool isWellFormedUtf8(std::string_view bytes);

/// The service behind subdataWithRange, so that a test can make one cut raise.
class KESTROVA_EXPORT DataService {
 public:
  virtual ~DataService() = default;
  virtual Data subdataWithRange(std::string_view whole, std::uint64_t location, std::uint64_t length);
};

}  // namespace platform
