// The folder of uploaded GIFs: whole files or none, its bounds, and what an earlier run has left.
#include "devserver/Gifs.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "devserver/Files.h"
#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"

namespace devserver {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class GifsTest : public ::testing::Test {
 protected:
  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(folder_)) found.push_back(entry.path().filename().string());
    std::ranges::sort(found);
    return found;
  }
  std::unique_ptr<Gifs> open(Gifs::Limits limits = {}) const {
    auto gifs = Gifs::open(folder_, limits);
    EXPECT_EQ(gifs ? "" : gifs.error(), "");
    return std::move(gifs).value();
  }
  /// What becomes of a GIF that is kept.
  static std::string keep(Gifs& gifs, std::string_view content) {
    const auto intake = gifs.begin().value();
    if (const auto added = intake->add(content); !added) return added.error();
    const auto name = intake->keep();
    return name ? *name : name.error();
  }

  test::TemporaryDirectory directory_;
  const fs::path folder_ = fs::path(directory_.path()) / "gifs";
};

TEST_F(GifsTest, KeepsWhatCameByteForByteWithItsHash) {
  const auto gifs = open();
  const auto intake = gifs->begin().value();
  ASSERT_TRUE(intake->add("GIF8").has_value());
  EXPECT_THAT(names(), ElementsAre(".000001.part"));
  ASSERT_TRUE(intake->add("9a").has_value());
  // printf GIF89a | sha256sum
  EXPECT_EQ(intake->hash(), "610f5ae4d76e332636a17bd357fd6ce99029316a99d320280d4d77a746bf29e8");
  EXPECT_EQ(intake->keep(), "000001.gif");
  EXPECT_THAT(names(), ElementsAre("000001.gif"));
  EXPECT_EQ(readFile(folder_ / "000001.gif"), "GIF89a");
  EXPECT_EQ(fs::status(folder_ / "000001.gif").permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(keep(*gifs, "another"), "000002.gif");
}

TEST_F(GifsTest, WhatIsNotKeptLeavesNoFile) {
  const auto gifs = open();
  {
    const auto intake = gifs->begin().value();
    ASSERT_TRUE(intake->add("GIF8").has_value());
  }
  EXPECT_THAT(names(), IsEmpty());
  const auto intake = gifs->begin().value();
  ASSERT_TRUE(intake->keep().has_value());
  intake->discard();
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(GifsTest, OldestGoWhenThereAreTooMany) {
  const auto gifs = open({.files = 2, .bytes = 1000});
  for (int count = 0; count < 4; ++count) keep(*gifs, "x");
  EXPECT_THAT(names(), ElementsAre("000003.gif", "000004.gif"));
}

TEST_F(GifsTest, OldestGoWhenThereAreTooManyBytes) {
  const auto gifs = open({.files = 100, .bytes = 10});
  EXPECT_EQ(keep(*gifs, "aaaa"), "000001.gif");
  EXPECT_EQ(keep(*gifs, "bbbb"), "000002.gif");
  EXPECT_EQ(keep(*gifs, "cc"), "000003.gif");
  EXPECT_THAT(names(), ElementsAre("000001.gif", "000002.gif", "000003.gif"));
  EXPECT_EQ(keep(*gifs, "d"), "000004.gif");
  EXPECT_THAT(names(), ElementsAre("000002.gif", "000003.gif", "000004.gif"));
}

TEST_F(GifsTest, WhatIsOnItsWayTakesRoomToo) {
  const auto gifs = open({.files = 100, .bytes = 10});
  const auto first = gifs->begin().value();
  ASSERT_TRUE(first->add("123456").has_value());
  EXPECT_EQ(keep(*gifs, "12345"), "No room for the GIF");
  EXPECT_EQ(keep(*gifs, "1234"), "000003.gif");
  ASSERT_TRUE(first->keep().has_value());
  EXPECT_EQ(keep(*gifs, "abcd"), "000004.gif");  // the one that has been there the longest has gone for it
  EXPECT_THAT(names(), ElementsAre("000001.gif", "000004.gif"));
}

TEST_F(GifsTest, LaterRunKeepsTheFilesAndRemovesTheParts) {
  keep(*open(), "one");
  keep(*open(), "two");
  std::ofstream(folder_ / ".000007.part") << "half";
  std::ofstream(folder_ / "notes.txt") << "somebody's";
  const auto gifs = open({.files = 2, .bytes = 1000});
  EXPECT_THAT(names(), ElementsAre("000001.gif", "000002.gif", "notes.txt"));
  EXPECT_EQ(keep(*gifs, "three"), "000003.gif");
  EXPECT_THAT(names(), ElementsAre("000002.gif", "000003.gif", "notes.txt"));
}

TEST_F(GifsTest, TemporaryFolderGoesInTheEnd) {
  fs::path folder;
  {
    const auto gifs = Gifs::open(std::nullopt).value();
    folder = gifs->folder();
    keep(*gifs, "one");
    EXPECT_TRUE(fs::exists(folder / "000001.gif"));
    EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all);
  }
  EXPECT_FALSE(fs::exists(folder));
}

TEST_F(GifsTest, FolderThatCannotBeMade) {
  std::ofstream(folder_.string()) << "a file";
  const auto gifs = Gifs::open(folder_);
  ASSERT_FALSE(gifs.has_value());
  EXPECT_EQ(gifs.error(), "cannot make the folder " + folder_.string() + ": Not a directory");
}

TEST_F(GifsTest, FullDiskIsTold) {
  const auto gifs = open();
  EXPECT_EQ(test::runInChild([&] {
              ::signal(SIGXFSZ, SIG_IGN);
              const rlimit limit{4, 4};
              ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
              EXPECT_EQ(keep(*gifs, "12345"), "The GIF cannot be written: File too large");
            }),
            0);
  EXPECT_THAT(names(), IsEmpty());
}

}  // namespace
}  // namespace devserver
