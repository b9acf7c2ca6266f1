// The demo's GIF, read back by what the format says: screen, frames, and a decoder of its own for the pixels.
#include "cli/DemoGif.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace cli {
namespace {

unsigned byteAt(std::string_view text, std::size_t at) { return static_cast<unsigned char>(text.at(at)); }
unsigned shortAt(std::string_view text, std::size_t at) { return byteAt(text, at) | byteAt(text, at + 1) << 8U; }

/// Takes a chain of sub-blocks off the front and gives what they hold.
std::string takeBlocks(std::string_view& rest) {
  std::string bytes;
  while (const unsigned size = byteAt(rest, 0)) {
    bytes += rest.substr(1, size);
    rest.remove_prefix(size + 1);
  }
  rest.remove_prefix(1);
  return bytes;
}

/// How many pixels the codes stand for. The codes here are never of more than nine bits, which holds while the table of a decoder,
/// which grows by one with each code after the first, stays below 512; -1 when it does not, or when the end is missing.
int pixelsIn(std::string_view bytes) {
  int pixels = 0;
  unsigned table = 258;
  bool isFirst = true;
  for (std::size_t bit = 0; bit + 9 <= bytes.size() * 8; bit += 9) {
    const unsigned code = (shortAt(bytes, bit / 8) >> bit % 8) & 0x1FFU;
    if (code == 257) return pixels;
    if (code == 256) {
      table = 258;
      isFirst = true;
      continue;
    }
    if (code > 257) return -1;  // a code of the table, which this writer does not use
    ++pixels;
    if (!isFirst && ++table > 511) return -1;
    isFirst = false;
  }
  return -1;
}

TEST(DemoGif, IsAnAnimatedGifOfWholeFrames) {
  const std::string gif = makeAnimatedGif(37, 23, 3);
  EXPECT_EQ(gif.substr(0, 6), "GIF89a");
  EXPECT_EQ(shortAt(gif, 6), 37U);
  EXPECT_EQ(shortAt(gif, 8), 23U);
  EXPECT_EQ(byteAt(gif, 10), 0xF7U);
  std::string_view rest = std::string_view(gif).substr(13 + 768);
  ASSERT_EQ(rest.substr(0, 14), "\x21\xFF\x0BNETSCAPE2.0");
  rest.remove_prefix(2);
  EXPECT_EQ(takeBlocks(rest), std::string("NETSCAPE2.0\x01\0\0", 14));
  for (int frame = 0; frame < 3; ++frame) {
    ASSERT_EQ(rest.substr(0, 2), "\x21\xF9") << frame;
    rest.remove_prefix(2);
    EXPECT_EQ(takeBlocks(rest), std::string("\0\x0A\0\0", 4));
    ASSERT_EQ(byteAt(rest, 0), 0x2CU);
    EXPECT_EQ(shortAt(rest, 5), 37U);
    EXPECT_EQ(shortAt(rest, 7), 23U);
    EXPECT_EQ(byteAt(rest, 10), 8U);
    rest.remove_prefix(11);
    EXPECT_EQ(pixelsIn(takeBlocks(rest)), 37 * 23);
  }
  EXPECT_EQ(rest, "\x3B");
}

}  // namespace
}  // namespace cli
