// Tests of cutting between the characters of a text.
#include "platform/UTF8.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using platform::beginningOf;

TEST(UTF8, WhatIsShortEnoughStaysWhole) {
  EXPECT_EQ(beginningOf("", 0), "");
  EXPECT_EQ(beginningOf("abc", 3), "abc");
  EXPECT_EQ(beginningOf("日本", 6), "日本");
  EXPECT_EQ(beginningOf("\x80\x80", 2), "\x80\x80");
}

TEST(UTF8, WhatIsLongerIsCutBetweenTwoCharacters) {
  EXPECT_EQ(beginningOf("abc", 2), "ab");
  EXPECT_EQ(beginningOf("aüb", 3), "aü");
  EXPECT_EQ(beginningOf("aüb", 2), "a");
  EXPECT_EQ(beginningOf("a日b", 3), "a");
  EXPECT_EQ(beginningOf("a日b", 2), "a");
  EXPECT_EQ(beginningOf("a😀b", 5), "a😀");
  for (std::size_t bytes = 1; bytes <= 4; ++bytes) EXPECT_EQ(beginningOf("a😀b", bytes), "a") << bytes;
}

TEST(UTF8, NothingIsLeftWhereNotEvenTheFirstCharacterFits) {
  EXPECT_EQ(beginningOf("😀", 3), "");
  EXPECT_EQ(beginningOf("abc", 0), "");
}

TEST(UTF8, WhatHasNoCharactersToCutBetweenIsCutAnywhere) {
  const std::string none(20, '\x80');
  EXPECT_EQ(beginningOf(none, 10).size(), 10U);
  EXPECT_EQ(beginningOf(none, 2).size(), 2U);
}

TEST(UTF8, TheBeginningIsAViewOfTheSameBytes) {
  const std::string_view text = "grüße";
  EXPECT_EQ(beginningOf(text, 4).data(), text.data());
}

TEST(UTF8, BytesThatContinueACharacter) {
  for (const char byte : {'\x80', '\xBF'}) EXPECT_TRUE(platform::continuesCharacter(byte));
  for (const char byte : {'a', '\0', '\x7F', '\xC3', '\xE6', '\xF0', '\xFF'}) EXPECT_FALSE(platform::continuesCharacter(byte));
}

}  // namespace
