// Lines of an input: where they end, how long they may be, and what a request to stop leaves of them.
#include "cli/LineReader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <string>

#include "support/TemporaryDirectory.h"

namespace cli {
namespace {

class LineReaderTest : public testing::Test {
 protected:
  LineReader readerOf(std::string_view text) {
    const std::string path = folder.path() + "/input";
    std::ofstream(path, std::ios::binary) << text;
    return *LineReader::open(path);
  }

  test::TemporaryDirectory folder;
};

TEST_F(LineReaderTest, TheLastLineNeedsNoLineFeed) {
  LineReader reader = readerOf("one\n\nthree");
  EXPECT_EQ(reader.next()->text, "one");
  EXPECT_EQ(reader.next()->text, "");
  EXPECT_EQ(reader.next()->text, "three");
  EXPECT_FALSE(reader.next());
  EXPECT_FALSE(reader.next());
  EXPECT_EQ(reader.error(), "");
}

TEST_F(LineReaderTest, ALineOfTheLimitIsTakenAndALongerOneIsLeftOut) {
  LineReader fine = readerOf(std::string(LineReader::kMaxLine, 'x') + "\nnext");
  const auto longest = fine.next();
  EXPECT_FALSE(longest->isTooLong);
  EXPECT_EQ(longest->text.size(), LineReader::kMaxLine);
  EXPECT_EQ(fine.next()->text, "next");

  const std::string oneMore(LineReader::kMaxLine + 1, 'x');
  LineReader byOne = readerOf(oneMore + "\n" + oneMore);
  EXPECT_TRUE(byOne.next()->isTooLong);
  EXPECT_TRUE(byOne.next()->isTooLong);
  EXPECT_FALSE(byOne.next());

  LineReader longer =
      readerOf(std::string(3 * LineReader::kMaxLine, 'x') + "\nnext\n" + std::string(2 * LineReader::kMaxLine, 'y'));
  EXPECT_TRUE(longer.next()->isTooLong);
  const auto next = longer.next();
  EXPECT_FALSE(next->isTooLong);
  EXPECT_EQ(next->text, "next");
  EXPECT_TRUE(longer.next()->isTooLong);
  EXPECT_FALSE(longer.next());
}

// It was taken for a whole line, and told as a bad one.
TEST_F(LineReaderTest, HalfALineIsDroppedWhenAStopEndsTheWaitForItsRest) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  ASSERT_EQ(write(ends[1], "one\nhal", 7), 7);
  LineReader reader = *LineReader::open("/proc/self/fd/" + std::to_string(ends[0]));
  EXPECT_EQ(reader.next()->text, "one");
  reader.stop();
  EXPECT_FALSE(reader.next());
  EXPECT_FALSE(reader.next());
  close(ends[0]);
  close(ends[1]);
}

}  // namespace
}  // namespace cli
