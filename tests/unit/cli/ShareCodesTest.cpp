// Referral codes as people type them: where they are parted, and what is none.
#include "cli/ShareCodes.h"

#include <gtest/gtest.h>

#include <string>

namespace cli {
namespace {

/// `user|share`, or what is wrong.
std::string parted(std::string_view text) {
  const auto code = parseReferralCode(text);
  return code ? code->userId.value_or("(absent)") + "|" + code->shareId.value_or("(absent)") : code.error();
}

TEST(ShareCodes, EightCharactersAreTheUser) {
  EXPECT_EQ(parted("abcdefgh1234"), "abcdefgh|1234");
  EXPECT_EQ(parted("abcdefgh1"), "abcdefgh|1");
}

TEST(ShareCodes, CharactersAreCodePoints) {
  EXPECT_EQ(parted("grüßedef日本😀"), "grüßedef|日本😀");
  EXPECT_EQ(parted("😀😀😀😀😀😀😀😀x"), "😀😀😀😀😀😀😀😀|x");
}

TEST(ShareCodes, TooShortIsNone) {
  const std::string wrong = "it has eight characters for the user and then the share's own";
  EXPECT_EQ(parted(""), wrong);
  EXPECT_EQ(parted("abcdefg"), wrong);
  EXPECT_EQ(parted("abcdefgh"), wrong);
  EXPECT_EQ(parted("grüßedef"), wrong);
}

TEST(ShareCodes, WhatWouldEndACodeIsRefused) {
  const std::string wrong = "no comma, ampersand, number sign or blank may stand in it";
  for (const char* text : {"abcdefgh,1", "abcdefgh&1", "abcdefgh#1", "abcdefgh 1", "abcdefgh1\n", "abcdefgh\x7f"})
    EXPECT_EQ(parted(text), wrong) << text;
  EXPECT_EQ(parted("abcdefgh\xff"), "not UTF-8");
}

}  // namespace
}  // namespace cli
