// Bytes: cutting, UTF-8, base64.
#include "platform/Data.h"

#include <cstring>

#include "platform/Exception.h"

namespace platform {

Data DataService::subdataWithRange(std::string_view whole, std::uint64_t location, std::uint64_t length) {
  if (location > whole.size() || length > whole.size() - location)
    throw Exception(kRangeException, "*** -[NSData subdataWithRange:]: range {" + std::to_string(location) + ", " +
                                         std::to_string(length) + "} exceeds data length " + std::to_string(whole.size()));
  return Data(whole.substr(location, length));
}

std::optional<String> Data::utf8String() const {
  if (!isWellFormedUtf8(bytes())) return std::nullopt;
  return bytes_;
}

std::string Data::base64EncodedString() const {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const std::string_view in = bytes();
  std::string out;
  out.reserve((in.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < in.size(); at += 3) {
    const std::size_t left = in.size() - at;
    const auto byte = [&](std::size_t index) { return index < left ? static_cast<unsigned char>(in[at + index]) : 0u; };
    const unsigned group = byte(0) << 16 | byte(1) << 8 | byte(2);
    out += kAlphabet[group >> 18];
    out += kAlphabet[group >> 12 & 63];
    out += left > 1 ? kAlphabet[group >> 6 & 63] : '=';
    out += left > 2 ? kAlphabet[group & 63] : '=';
  }
  return out;
}

namespace {

/// Length of the well-formed multi-byte sequence that starts at `at`, or 0 (The Unicode Standard, table 3-7).
std::size_t sequenceLength(const unsigned char* at, std::size_t left) {
  const unsigned char lead = at[0];
  const auto continues = [&](std::size_t index, unsigned char low = 0x80, unsigned char high = 0xBF) {
    return index < left && at[index] >= low && at[index] <= high;
  };
  if (lead >= 0xC2 && lead <= 0xDF) return continues(1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;   // no overlong forms
    const unsigned char high = lead == 0xED ? 0x9F : 0xBF;  // no surrogates
    return continues(1, low, high) && continues(2) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;  // nothing above U+10FFFF
    return continues(1, low, high) && continues(2) && continues(3) ? 4 : 0;
  }
  return 0;
}

}  // namespace

bool isWellFormedUtf8(std::string_view bytes) {
  const auto* at = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t left = bytes.size();
  while (left > 0) {
    std::uint64_t eight;
    while (left >= sizeof eight && (std::memcpy(&eight, at, sizeof eight), (eight & 0x8080808080808080u) == 0)) {
      at += sizeof eight;
      left -= sizeof eight;
    }
    if (left == 0) break;
    const std::size_t length = *at < 0x80 ? 1 : sequenceLength(at, left);
    if (length == 0) return false;
    at += length;
    left -= length;
  }
  return true;
}

}  // namespace platform
