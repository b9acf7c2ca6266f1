// The live page's feed: numbers, bounds, pages and waiting.
#include "devserver/Feed.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace devserver {
namespace {

using platform::Dictionary;

constexpr std::chrono::milliseconds kNow{0};
constexpr std::chrono::hours kLong{1};

void addNumbered(Feed& feed, int count) {
  for (int at = 0; at < count; ++at) feed.add({Dictionary{{"a", at}}});
}

TEST(FeedTest, EmptyFeedHasNothingAndBeginsAtOne) {
  const Feed feed;
  EXPECT_EQ(feed.next(), 1U);
  EXPECT_EQ(feed.oldest(), 1U);
  const Feed::Chunk before = feed.before(1, 10);
  EXPECT_EQ(before.items, "[]");
  EXPECT_TRUE(before.empty);
  const Feed::Chunk after = feed.after(0, 10, kNow);
  EXPECT_EQ(after.items, "[]");
  EXPECT_EQ(after.last, 0U);
}

TEST(FeedTest, ItemsAreNumberedAndPagedBothWays) {
  Feed feed;
  feed.add({Dictionary{{"a", "one"}}, Dictionary{{"a", "two"}}});
  feed.add({Dictionary{{"a", "three"}}});
  EXPECT_EQ(feed.next(), 4U);
  EXPECT_EQ(feed.before(4, 2).items, R"([{"a":"three","n":3},{"a":"two","n":2}])");
  EXPECT_EQ(feed.before(2, 2).items, R"([{"a":"one","n":1}])");
  EXPECT_EQ(feed.before(99, 1).items, R"([{"a":"three","n":3}])");
  const Feed::Chunk after = feed.after(1, 1, kNow);
  EXPECT_EQ(after.items, R"([{"a":"two","n":2}])");
  EXPECT_EQ(after.last, 2U);
  EXPECT_EQ(feed.after(2, 9, kNow).items, R"([{"a":"three","n":3}])");
  EXPECT_EQ(feed.after(3, 9, kNow).last, 3U);
}

TEST(FeedTest, OldestGoWhenThereAreTooMany) {
  Feed feed({.items = 3, .bytes = 1000});
  addNumbered(feed, 5);
  EXPECT_EQ(feed.oldest(), 3U);
  EXPECT_EQ(feed.before(6, 10).items, R"([{"a":4,"n":5},{"a":3,"n":4},{"a":2,"n":3}])");
  // Who asks for what is gone gets what is left.
  EXPECT_EQ(feed.after(0, 1, kNow).items, R"([{"a":2,"n":3}])");
  EXPECT_EQ(feed.before(2, 10).items, "[]");
}

TEST(FeedTest, OldestGoWhenTheyAreTooLong) {
  Feed feed({.items = 100, .bytes = 30});
  addNumbered(feed, 3);  // 13 bytes each
  EXPECT_EQ(feed.oldest(), 2U);
}

TEST(FeedTest, WaitingEndsWithAnItem) {
  Feed feed;
  std::thread writer([&] { addNumbered(feed, 1); });
  EXPECT_EQ(feed.after(0, 10, kLong).items, R"([{"a":0,"n":1}])");
  writer.join();
}

TEST(FeedTest, WaitingEndsWhenItIsClosed) {
  Feed feed;
  EXPECT_FALSE(feed.isClosed());
  std::thread closer([&] { feed.close(); });
  EXPECT_TRUE(feed.after(0, 10, kLong).empty);
  closer.join();
  EXPECT_TRUE(feed.isClosed());
  EXPECT_TRUE(feed.after(0, 10, kLong).empty);
}

}  // namespace
}  // namespace devserver
