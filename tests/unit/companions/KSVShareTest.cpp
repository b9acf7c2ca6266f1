// Shares and their JSON form.
#include "companions/KSVShare.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "platform/linux/RapidJSONSerialization.h"

namespace {

using platform::Array;
using platform::Date;
using platform::Dictionary;
using platform::Value;

KSVShare fullShare() {
  KSVShare share;
  share.referralCode = std::make_shared<const KSVReferralCode>(KSVReferralCode{"abcdefgh", "1234"});
  share.isFallback = true;
  share.state = KSVShareStateOpened;
  share.createdAt = Date::dateWithTimeIntervalSince1970(1795205979.123456);
  share.updatedAt = Date::dateWithTimeIntervalSince1970(-1);
  share.data = Dictionary{{"gif", "g1"}, {"nested", Array{1, nullptr}}};
  share.URL = platform::URL::URLWithString("https://share.example.com/a?b=c");
  return share;
}

void expectEqual(const KSVShare& a, const KSVShare& b) {
  EXPECT_EQ(a.referralCode != nullptr, b.referralCode != nullptr);
  if (a.referralCode && b.referralCode) {
    EXPECT_EQ(*a.referralCode, *b.referralCode);
  }
  EXPECT_EQ(a.isFallback, b.isFallback);
  EXPECT_EQ(a.state, b.state);
  EXPECT_EQ(a.createdAt, b.createdAt);
  EXPECT_EQ(a.updatedAt, b.updatedAt);
  EXPECT_EQ(a.data, b.data);
  EXPECT_EQ(a.URL, b.URL);
}

TEST(KSVShare, TheStatesHaveTheirNumbers) {
  EXPECT_EQ(KSVShareStateSent, 0);
  EXPECT_EQ(KSVShareStateClicked, 1);
  EXPECT_EQ(KSVShareStateOpened, 2);
  EXPECT_EQ(KSVShareStateInstalled, 3);
}

TEST(KSVShare, EveryFieldComesBack) {
  const auto back = KSVShare::deserialize(fullShare().serialize());
  ASSERT_TRUE(back);
  expectEqual(*back, fullShare());
}

TEST(KSVShare, AnEmptyShareComesBackAndLeavesOutWhatIsAbsent) {
  const KSVShare empty;
  EXPECT_EQ(empty.serialize(), (Dictionary{{"isFallback", false}, {"state", 0}}));
  const auto back = KSVShare::deserialize(empty.serialize());
  ASSERT_TRUE(back);
  expectEqual(*back, empty);
}

TEST(KSVShare, AReferralCodeMayHaveOnePart) {
  KSVShare share;
  share.referralCode = std::make_shared<const KSVReferralCode>(KSVReferralCode{std::nullopt, "1234"});
  const auto back = KSVShare::deserialize(share.serialize());
  ASSERT_TRUE(back);
  EXPECT_EQ(back->referralCode->userId, std::nullopt);
  EXPECT_EQ(back->referralCode->description(), "1234");
}

TEST(KSVShare, TheTextOfAReferralCodeIsItsTwoParts) {
  EXPECT_EQ((KSVReferralCode{"abcdefgh", "1234"}.description()), "abcdefgh1234");
  EXPECT_EQ((KSVReferralCode{"abcdefgh", std::nullopt}.description()), "abcdefgh");
  EXPECT_EQ(KSVReferralCode{}.description(), "");
}

TEST(KSVShare, NullIsAbsentAndUnknownMembersArePassedOver) {
  const auto share = KSVShare::deserialize(
      Dictionary{{"referralCode", nullptr}, {"state", nullptr}, {"createdAt", nullptr}, {"data", nullptr}, {"more", Array{1}}});
  ASSERT_TRUE(share);
  expectEqual(*share, KSVShare());
}

TEST(KSVShare, WholeSecondsMayBeIntegers) {
  const auto share = KSVShare::deserialize(Dictionary{{"createdAt", 5}});
  ASSERT_TRUE(share);
  EXPECT_EQ(share->createdAt, Date::dateWithTimeIntervalSince1970(5));
}

/// Such a date is written as an integer that only an unsigned one holds; its share used to be none when it was read back.
TEST(KSVShare, ADateBeyondSigned64BitsComesBack) {
  KSVShare share;
  share.createdAt = Date::dateWithTimeIntervalSince1970(0x1p63);
  const auto text = platform::makeRapidJSONSerialization()->write(share.serialize());
  ASSERT_TRUE(text);
  EXPECT_EQ(text->bytes(), R"({"createdAt":9223372036854775808,"isFallback":false,"state":0})");
  const auto read = KSVShare::deserialize(platform::makeRapidJSONSerialization()->read(*text).value());
  ASSERT_TRUE(read);
  expectEqual(*read, share);
}

TEST(KSVShare, WhatIsMalformedIsNoShare) {
  for (const Value& value : std::vector<Value>{Value(), Value("text"), Value(5), Value(Array{1})})
    EXPECT_FALSE(KSVShare::deserialize(value));
  for (const auto& [key, value] : std::vector<std::pair<const char*, Value>>{{"referralCode", "abc"},
                                                                             {"referralCode", Dictionary{{"userId", 5}}},
                                                                             {"isFallback", 1},
                                                                             {"state", 4},
                                                                             {"state", -1},
                                                                             {"state", 1.5},
                                                                             {"createdAt", "yesterday"},
                                                                             {"updatedAt", true},
                                                                             {"data", Array{}},
                                                                             {"URL", 5},
                                                                             {"URL", "no url at all"}}) {
    Dictionary object = fullShare().serialize();
    object.setObjectForKey(value, key);
    EXPECT_FALSE(KSVShare::deserialize(object)) << key << " " << value.description();
  }
}

}  // namespace
