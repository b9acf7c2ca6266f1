// The command's file of shares: what it remembers, what it refuses to read, and that it stays bounded.
#include "cli/ShareFile.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/TestProcess.h"

namespace cli {
namespace {

class ShareFileTest : public testing::Test {
 protected:
  static KSVShare share(const std::string& id, KSVShareState state = KSVShareStateSent) {
    KSVShare one;
    one.referralCode = std::make_shared<const KSVReferralCode>(KSVReferralCode{"abcdefgh", id});
    one.state = state;
    return one;
  }
  static ShareFile read() {
    auto file = ShareFile::read();
    EXPECT_TRUE(file.has_value()) << file.error();
    return file.value_or(ShareFile());
  }
  std::string fault() {
    const auto file = ShareFile::read();
    return file ? "none" : file.error().substr(path().size());
  }
  std::string path() { return process.supportPath("command-shares.json"); }

  test::TestProcess process;
};

TEST_F(ShareFileTest, NoFileHoldsNothing) {
  const ShareFile file = read();
  EXPECT_TRUE(file.shares().empty());
  EXPECT_EQ(file.path(), path());
}

TEST_F(ShareFileTest, WhatIsRememberedIsReadAgainAndReplacedInItsPlace) {
  ShareFile file = read();
  file.remember(share("1"));
  file.remember(share("2"));
  file.remember(share("1", KSVShareStateOpened));
  ASSERT_TRUE(file.write().has_value());
  EXPECT_EQ(process.fileBytes(path()),
            R"({"shares":[{"isFallback":false,"referralCode":{"shareId":"1","userId":"abcdefgh"},"state":2},)"
            R"({"isFallback":false,"referralCode":{"shareId":"2","userId":"abcdefgh"},"state":0}]})");
  EXPECT_TRUE(process.temporaryFiles().empty());
  const ShareFile again = read();
  ASSERT_EQ(again.shares().size(), 2U);
  EXPECT_EQ(again.shares()[0].state, KSVShareStateOpened);
  EXPECT_EQ(again.shares()[1].referralCode->description(), "abcdefgh2");
}

TEST_F(ShareFileTest, OldestSharesGoFirst) {
  ShareFile file = read();
  for (std::size_t id = 0; id <= ShareFile::kMaxShares; ++id) file.remember(share(std::to_string(id)));
  ASSERT_EQ(file.shares().size(), ShareFile::kMaxShares);
  EXPECT_EQ(file.shares().front().referralCode->shareId, "1");
  EXPECT_EQ(file.shares().back().referralCode->shareId, "1000");
}

TEST_F(ShareFileTest, DamagedFileIsToldAndNotTakenForAnEmptyOne) {
  for (const char* text : {"", "{", "[]", "{}", R"({"shares": {}})"}) {
    process.setFileBytes(path(), text);
    EXPECT_EQ(fault(), ": it is no JSON object with a list of shares") << text;
  }
  for (const char* text : {R"({"shares": [1]})", R"({"shares": [{}]})", R"({"shares": [{"state": 9}]})"}) {
    process.setFileBytes(path(), text);
    EXPECT_EQ(fault(), ": an element of it is no share with a referral code") << text;
  }
}

TEST_F(ShareFileTest, FailedReplacementLeavesTheOldFileAndNoTemporaryOne) {
  ShareFile file = read();
  file.remember(share("1"));
  ASSERT_TRUE(file.write().has_value());
  const auto before = process.fileBytes(path());
  file.remember(share("2"));
  process.plan().fail("FileManager.replaceItem", test::nth(1), test::someError());
  const auto written = file.write();
  ASSERT_FALSE(written.has_value());
  EXPECT_EQ(written.error(), path() + ": " + test::someError().localizedDescription());
  EXPECT_EQ(process.fileBytes(path()), before);
  EXPECT_TRUE(process.temporaryFiles().empty());
}

}  // namespace
}  // namespace cli
