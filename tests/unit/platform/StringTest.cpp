// Tests of String and StringBuilder.
#include "platform/String.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

using platform::String;
using platform::StringBuilder;

TEST(String, HoldsAnyBytes) {
  const std::string bytes("a\0\xff\xC3", 4);
  EXPECT_EQ(String(bytes).view(), bytes);
  EXPECT_EQ(String(bytes).length(), 4u);
}

TEST(String, EmptyOnesAreEqualHoweverMade) {
  EXPECT_EQ(String(), String(""));
  EXPECT_EQ(String().view(), "");
  EXPECT_EQ(String().length(), 0u);
}

TEST(String, CopiesShareTheirBytes) {
  const String original("shared");
  const String copy = original;
  EXPECT_EQ(copy.view().data(), original.view().data());
  EXPECT_EQ(copy, original);
}

TEST(String, CopySurvivesTheOriginal) {
  String copy;
  {
    const String original("outlived");
    copy = original;
  }
  EXPECT_EQ(copy.view(), "outlived");
}

TEST(String, AssignmentToItselfKeepsTheText) {
  String text("same");
  const String& alias = text;
  text = alias;
  EXPECT_EQ(text.view(), "same");
}

TEST(String, MovingLeavesNothing) {
  String from("moved");
  const String to = std::move(from);
  EXPECT_EQ(to.view(), "moved");
  EXPECT_EQ(from.length(), 0u);  // NOLINT(bugprone-use-after-move): the state is what is tested
}

TEST(String, OrdersByUnsignedBytes) {
  EXPECT_LT(String("a"), String("b"));
  EXPECT_LT(String("a"), String("aa"));
  EXPECT_LT(String("z"), String("\xC3\xA4"));
  EXPECT_LT(String(), String("a"));
}

TEST(String, ThreadsCopyAndDropTheSameOne) {
  const String shared("counted by many");
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back([&shared] {
      for (int round = 0; round < 10000; ++round) {
        String copy = shared;
        ASSERT_EQ(copy.view(), "counted by many");
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(shared.view(), "counted by many");
}

TEST(StringBuilder, PutsTextTogether) {
  StringBuilder builder;
  builder.append("ab");
  builder.push('c');
  builder.append("");
  std::memcpy(builder.room(3), "def", 3);
  builder.grown(3);
  EXPECT_EQ(builder.length(), 6u);
  EXPECT_EQ(builder.take().view(), "abcdef");
}

TEST(StringBuilder, NothingBecomesTheEmptyString) { EXPECT_EQ(StringBuilder().take(), String()); }

TEST(StringBuilder, StartsAnewAfterATake) {
  StringBuilder builder;
  builder.append("first");
  const String first = builder.take();
  EXPECT_EQ(builder.length(), 0u);
  builder.append("second");
  EXPECT_EQ(builder.take().view(), "second");
  EXPECT_EQ(first.view(), "first");
}

TEST(StringBuilder, GrowsThroughManySizes) {
  for (const std::size_t size : {1u, 511u, 512u, 513u, 5000u, 100000u}) {
    StringBuilder builder;
    std::string expected;
    for (std::size_t at = 0; at < size; ++at) {
      builder.push(static_cast<char>('a' + at % 26));
      expected += static_cast<char>('a' + at % 26);
    }
    const String built = builder.take();
    const String copy = built;
    EXPECT_EQ(copy.view(), expected);
  }
}

TEST(StringBuilder, DropsWhatIsNeverTaken) {
  StringBuilder builder;
  builder.append(std::string(3000, 'x'));
  EXPECT_EQ(builder.length(), 3000u);  // the leak checker says the rest
}

}  // namespace
