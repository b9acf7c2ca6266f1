// The power cut of the in-memory file system, and fates that a simulation draws.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "support/FaultPlan.h"
#include "support/ManualClock.h"
#include "support/MemoryFileManager.h"

namespace {

using platform::Data;
using platform::URL;
using test::MemoryFileManager;

/// A lot that draws these in turn.
auto drawing(std::vector<std::size_t> lots) {
  return [lots = std::move(lots), at = std::size_t{0}](std::size_t bound) mutable {
    const std::size_t lot = lots.at(at++);
    EXPECT_LT(lot, bound);
    return lot;
  };
}

class PowerCut : public testing::Test {
 protected:
  PowerCut() {
    files_.setBytesAtPath("/a/file", "old text");
    files_.synchronizeAll();
    files_.setBytesAtPath("/a/file", "NEW TEXT, longer");
  }
  std::shared_ptr<test::ManualClock> clock_ = std::make_shared<test::ManualClock>();
  MemoryFileManager files_{"/application", clock_};
};

TEST_F(PowerCut, leavesTheOldBytesTheNewOnesOrSomeOfThem) {
  files_.powerCut(drawing({0}));
  EXPECT_EQ(files_.bytesAtPath("/a/file"), "old text");
  files_.setBytesAtPath("/a/file", "NEW TEXT, longer");
  files_.powerCut(drawing({2, 3}));
  EXPECT_EQ(files_.bytesAtPath("/a/file"), "NEW text");
  files_.setBytesAtPath("/a/file", "NEW TEXT, longer");
  files_.powerCut(drawing({1}));
  EXPECT_EQ(files_.bytesAtPath("/a/file"), "NEW TEXT, longer");
}

TEST_F(PowerCut, leavesEachUnsynchronisedNameByLot) {
  files_.synchronizeAll();
  files_.setBytesAtPath("/a/second", "2");
  files_.powerCut(drawing({0}));
  EXPECT_EQ(files_.bytesAtPath("/a/second"), std::nullopt);
  ASSERT_TRUE(files_.removeItemAtPath("/a/file"));
  files_.powerCut(drawing({0}));
  EXPECT_EQ(files_.bytesAtPath("/a/file"), "NEW TEXT, longer") << "the removal came undone";
  ASSERT_TRUE(files_.removeItemAtPath("/a/file"));
  files_.powerCut(drawing({1}));
  EXPECT_EQ(files_.bytesAtPath("/a/file"), std::nullopt);
}

TEST_F(PowerCut, asksForNoLotWhereAllIsSynchronised) {
  files_.synchronizeAll();
  files_.powerCut(drawing({}));
  EXPECT_EQ(files_.bytesAtPath("/a/file"), "NEW TEXT, longer");
}

TEST(DrawnFates, standInThePlaceOfRulesAndLog) {
  test::FaultPlan plan;
  plan.fail("FileManager.copyItem", test::everyCall(), test::someError());
  std::vector<std::string> seen;
  plan.decideBy([&seen](const test::Operation& called, const std::string& argument) {
    seen.push_back(std::string(called.name) + " " + argument);
    test::FaultPlan::Fate fate;
    fate.shortBytes = 7;
    return fate;
  });
  const auto fate = plan.begin("FileManager.copyItem", "a to b");
  EXPECT_EQ(fate.shortBytes, 7U);
  EXPECT_FALSE(fate.error);
  EXPECT_THAT(seen, testing::ElementsAre("FileManager.copyItem a to b"));
  EXPECT_THAT(plan.calls(), testing::IsEmpty());
}

}  // namespace
