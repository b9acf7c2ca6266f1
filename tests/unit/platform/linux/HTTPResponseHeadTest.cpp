// The head of an answer, line by line (platform row U7).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/HTTPResponseHead.h"

namespace {

using platform::HTTPResponseHead;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

HTTPResponseHead headOf(std::initializer_list<std::string_view> lines) {
  HTTPResponseHead head;
  for (const std::string_view line : lines) EXPECT_TRUE(head.addLine(line));
  return head;
}

std::vector<platform::HTTPHeaderFields::Field> fieldsOf(const HTTPResponseHead& head) {
  return {head.fields().begin(), head.fields().end()};
}

TEST(HTTPResponseHead, StatusAndFields) {
  const auto head = headOf({"HTTP/1.1 404 Not Found\r\n", "A: 1\r\n", "b:\t2 \r\n", "Empty:\r\n", "\r\n"});
  EXPECT_TRUE(head.isComplete());
  EXPECT_EQ(head.statusCode(), 404);
  EXPECT_THAT(fieldsOf(head), ElementsAre(Pair("A", "1"), Pair("b", "2"), Pair("Empty", "")));
}

TEST(HTTPResponseHead, EqualNamesAreJoined) {
  EXPECT_THAT(fieldsOf(headOf({"HTTP/1.1 200 OK\r\n", "A: 1\r\n", "B: x\r\n", "a: 2\r\n", "\r\n"})),
              ElementsAre(Pair("A", "1, 2"), Pair("B", "x")));
}

TEST(HTTPResponseHead, AFoldedLineGoesOnWithTheValue) {
  EXPECT_THAT(fieldsOf(headOf({"HTTP/1.1 200 OK\r\n", "A: 1\r\n", "  2\r\n", "\t3\r\n", "\r\n"})), ElementsAre(Pair("A", "1 2 3")));
  EXPECT_THAT(fieldsOf(headOf({"HTTP/1.1 200 OK\r\n", " 2\r\n", "\r\n"})), IsEmpty());
}

TEST(HTTPResponseHead, InterimAnswersAndTrailersDoNotCount) {
  const auto head = headOf({"HTTP/1.1 100 Continue\r\n", "A: early\r\n", "\r\n", "HTTP/1.1 200 OK\r\n", "B: 1\r\n", "\r\n",
                            "C: trailer\r\n", "HTTP/1.1 500 Forged\r\n", "\r\n"});
  EXPECT_EQ(head.statusCode(), 200);
  EXPECT_THAT(fieldsOf(head), ElementsAre(Pair("B", "1")));
}

TEST(HTTPResponseHead, NotCompleteBeforeTheEmptyLineOfTheFinalAnswer) {
  EXPECT_FALSE(headOf({"HTTP/1.1 200 OK\r\n", "A: 1\r\n"}).isComplete());
  EXPECT_FALSE(headOf({"HTTP/1.1 103 Early Hints\r\n", "\r\n"}).isComplete());
}

TEST(HTTPResponseHead, LinesThatAreNoFieldsAreDropped) {
  const auto head =
      headOf({"HTTP/1.1 200 OK\r\n", "no colon\r\n", ": no name\r\n", "bad name: 1\r\n", "A: a\rb\r\n", "B: 1\r\n", "\r\n"});
  EXPECT_THAT(fieldsOf(head), ElementsAre(Pair("B", "1")));
}

TEST(HTTPResponseHead, AStatusLineThatCannotBeReadHasNoStatus) {
  EXPECT_EQ(headOf({"HTTP/1.1\r\n"}).statusCode(), 0);
  EXPECT_EQ(headOf({"HTTP/1.1 xyz\r\n"}).statusCode(), 0);
}

TEST(HTTPResponseHead, BytesAreBounded) {
  HTTPResponseHead head;
  const std::string line = "A: " + std::string(HTTPResponseHead::kMaxBytes - 5, 'x') + "\r\n";
  ASSERT_EQ(line.size(), HTTPResponseHead::kMaxBytes);
  EXPECT_TRUE(head.addLine(line));
  EXPECT_FALSE(head.addLine("\r\n"));
}

TEST(HTTPResponseHead, LinesAreBounded) {
  HTTPResponseHead head;
  for (std::size_t i = 0; i < HTTPResponseHead::kMaxFields; ++i) ASSERT_TRUE(head.addLine("A: 1\r\n"));
  EXPECT_FALSE(head.addLine("A: 1\r\n"));
}

}  // namespace
