// UTF-8 by its bytes: where characters begin, and how a text is cut between two of them.
//
// Any thread. Nothing here fails; bytes that are no UTF-8 are treated as if they were.
#pragma once

#include <cstddef>
#include <string_view>

namespace platform {

/// True for a byte that goes on with a character that another byte has begun.
constexpr bool continuesCharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

/// The text when it has no more than so many bytes, else its beginning: of as many, or of up to three fewer where a character would
/// be cut in two. What has no character to cut between is no UTF-8, and is cut where the bytes end.
constexpr std::string_view beginningOf(std::string_view text, std::size_t bytes) {
  if (text.size() <= bytes) return text;
  for (std::size_t back = 0; back <= 3 && back <= bytes; ++back)
    if (!continuesCharacter(text[bytes - back])) return text.substr(0, bytes - back);
  return text.substr(0, bytes);
}

}  // namespace platform
