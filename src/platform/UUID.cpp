// Universally unique identifiers: making version 4, reading and printing.
#include "platform/UUID.h"

#include <span>

#include "platform/SecureRandom.h"

namespace platform {
namespace {

constexpr std::size_t kTextLength = 36;

constexpr bool isDashPosition(std::size_t position) { return position == 8 || position == 13 || position == 18 || position == 23; }

std::optional<std::uint8_t> hexadecimalDigit(char character) {
  if (character >= '0' && character <= '9') return static_cast<std::uint8_t>(character - '0');
  if (character >= 'A' && character <= 'F') return static_cast<std::uint8_t>(character - 'A' + 10);
  if (character >= 'a' && character <= 'f') return static_cast<std::uint8_t>(character - 'a' + 10);
  return std::nullopt;
}

}  // namespace

UUID UUID::randomUUID() {
  UUID uuid;
  SecureRandom::source().fill(std::as_writable_bytes(std::span(uuid.bytes_)));
  uuid.bytes_[6] = static_cast<std::uint8_t>((uuid.bytes_[6] & 0x0f) | 0x40);  // version 4
  uuid.bytes_[8] = static_cast<std::uint8_t>((uuid.bytes_[8] & 0x3f) | 0x80);  // the variant of RFC 9562
  return uuid;
}

std::optional<UUID> UUID::fromString(std::string_view text) {
  if (text.size() != kTextLength) return std::nullopt;
  UUID uuid;
  std::size_t digits = 0;
  for (std::size_t position = 0; position < kTextLength; ++position) {
    if (isDashPosition(position)) {
      if (text[position] != '-') return std::nullopt;
      continue;
    }
    const std::optional<std::uint8_t> digit = hexadecimalDigit(text[position]);
    if (!digit) return std::nullopt;
    std::uint8_t& byte = uuid.bytes_[digits++ / 2];
    byte = static_cast<std::uint8_t>(byte << 4 | *digit);
  }
  return uuid;
}

std::string UUID::UUIDString() const {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(kTextLength);
  for (const std::uint8_t byte : bytes_) {
    if (isDashPosition(text.size())) text += '-';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0x0f];
  }
  return text;
}

}  // namespace platform
