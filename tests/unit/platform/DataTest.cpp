// Tests of Data, MutableData and the UTF-8 check.
#include "platform/Data.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "platform/Exception.h"

namespace {

using platform::Data;
using platform::DataService;
using platform::Exception;
using platform::isWellFormedUtf8;
using platform::MutableData;

std::string cut(std::string_view whole, std::uint64_t location, std::uint64_t length) {
  try {
    return std::string(DataService().subdataWithRange(whole, location, length).bytes());
  } catch (const Exception& raise) {
    return raise.what();
  }
}

TEST(Data, CutsRanges) {
  EXPECT_EQ(cut("abcdef", 2, 3), "cde");
  EXPECT_EQ(cut("abcdef", 0, 6), "abcdef");
  EXPECT_EQ(cut("abcdef", 6, 0), "");
  EXPECT_EQ(cut("", 0, 0), "");
}

TEST(Data, CutOutsideRaises) {
  EXPECT_EQ(cut("abc", 2, 2), "NSRangeException: *** -[NSData subdataWithRange:]: range {2, 2} exceeds data length 3");
  EXPECT_EQ(cut("abc", 4, 0), "NSRangeException: *** -[NSData subdataWithRange:]: range {4, 0} exceeds data length 3");
  EXPECT_EQ(cut("abc", 1, UINT64_MAX),
            "NSRangeException: *** -[NSData subdataWithRange:]: range {1, 18446744073709551615} exceeds data length 3");
  EXPECT_EQ(cut("abc", UINT64_MAX, 2),
            "NSRangeException: *** -[NSData subdataWithRange:]: range {18446744073709551615, 2} exceeds data length 3");
  EXPECT_EQ(cut("", 0, 1), "NSRangeException: *** -[NSData subdataWithRange:]: range {0, 1} exceeds data length 0");
}

TEST(Data, ReadsAsUtf8OrNot) {
  EXPECT_EQ(Data("ä€😀").utf8String()->view(), "ä€😀");
  EXPECT_EQ(Data().utf8String()->view(), "");
  EXPECT_EQ(Data("\xC3").utf8String(), std::nullopt);
}

TEST(Data, EncodesBase64) {  // RFC 4648 section 10
  EXPECT_EQ(Data("").base64EncodedString(), "");
  EXPECT_EQ(Data("f").base64EncodedString(), "Zg==");
  EXPECT_EQ(Data("fo").base64EncodedString(), "Zm8=");
  EXPECT_EQ(Data("foo").base64EncodedString(), "Zm9v");
  EXPECT_EQ(Data("foob").base64EncodedString(), "Zm9vYg==");
  EXPECT_EQ(Data("fooba").base64EncodedString(), "Zm9vYmE=");
  EXPECT_EQ(Data("foobar").base64EncodedString(), "Zm9vYmFy");
  EXPECT_EQ(Data("\xFB\xFF\xFE").base64EncodedString(), "+//+");
}

TEST(MutableData, GrowsAndIsReplaced) {
  MutableData data;
  data.appendData(Data("ab"));
  data.appendData(Data());
  data.appendData(Data("cd"));
  EXPECT_EQ(data.bytes(), "abcd");
  EXPECT_EQ(data.length(), 4u);
  data.setData(Data("x"));
  EXPECT_EQ(data.bytes(), "x");
}

TEST(Utf8, AcceptsTheEndsOfEveryRange) {
  for (const char* text : {"", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF",
                           "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"})
    EXPECT_TRUE(isWellFormedUtf8(text)) << Data(std::string_view(text)).base64EncodedString();
  EXPECT_TRUE(isWellFormedUtf8(std::string_view("\0", 1)));
}

TEST(Utf8, RefusesWhatLiesOutside) {
  for (const char* text : {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC2", "\xC2\x41", "\xC2\xC0", "\xE0\x9F\xBF", "\xE0\xA0",
                           "\xED\xA0\x80", "\xED\xBF\xBF", "\xE1\x80", "\xE1\x80\x41", "\xF0\x8F\xBF\xBF", "\xF0\x90\x80",
                           "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFE", "\xFF"})
    EXPECT_FALSE(isWellFormedUtf8(text)) << Data(std::string_view(text)).base64EncodedString();
}

TEST(Utf8, FindsAFaultAtEveryOffset) {
  for (std::size_t length = 1; length < 40; ++length)
    for (std::size_t at = 0; at < length; ++at) {
      std::string text(length, 'a');
      EXPECT_TRUE(isWellFormedUtf8(text));
      text[at] = '\xFF';
      EXPECT_FALSE(isWellFormedUtf8(text)) << length << ' ' << at;
    }
}

/// The straightforward reading of a sequence: decode, then look at the code point and whether it needed that many bytes.
bool decodes(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const auto lead = static_cast<unsigned char>(text[at]);
    const std::size_t length = lead < 0x80 ? 1 : lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
    if (length == 0 || at + length > text.size()) return false;
    unsigned point = length == 1 ? lead : lead & (0x7Fu >> length);
    for (std::size_t index = 1; index < length; ++index) {
      const auto next = static_cast<unsigned char>(text[at + index]);
      if (next >> 6 != 2) return false;
      point = point << 6 | (next & 63u);
    }
    const unsigned least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (point < least[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
    at += length;
  }
  return true;
}

TEST(Utf8, AgreesWithDecodingOnRandomBytes) {
  std::mt19937 random(7);
  const unsigned char likely[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC2,
                                  0xDF, 0xE0, 0xE1, 0xED, 0xEF, 0xF0, 0xF1, 0xF4, 0xF5, 0xFF};
  int wellFormed = 0;
  for (int round = 0; round < 300000; ++round) {
    std::string text(random() % 6, ' ');
    for (char& byte : text) byte = static_cast<char>(likely[random() % std::size(likely)]);
    ASSERT_EQ(isWellFormedUtf8(text), decodes(text)) << Data(text).base64EncodedString();
    if (decodes(text)) ++wellFormed;
  }
  EXPECT_GT(wellFormed, 1000);
}

}  // namespace
