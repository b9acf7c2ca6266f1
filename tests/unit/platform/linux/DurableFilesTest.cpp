// Files that are on the disk when the call returns: what they hold, what they never replace, and what a failed write leaves.
#include "platform/linux/DurableFiles.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "support/Files.h"
#include "support/FixedSecureRandom.h"
#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

namespace fs = std::filesystem;

class DurableFilesTest : public testing::Test {
 protected:
  std::string path() const { return folder_.path() + "/file"; }
  std::string write(const std::string& bytes) const {
    const auto written = platform::writeNewFile(path(), bytes);
    return written ? "written" : written.error().localizedDescription();
  }
  std::string notSaved(const std::string& reason) const {
    return "The file “file” couldn’t be saved in the folder “" + fs::path(folder_.path()).filename().string() + "”" + reason;
  }

  TemporaryDirectory folder_;
};

TEST_F(DurableFilesTest, RandomBytesAreTwoLowerCaseDigitsEach) {
  FixedSecureRandom random;
  random.give({0x00, 0x0f, 0xa9, 0xff});
  EXPECT_EQ(platform::randomHexadecimal(random, 4), "000fa9ff");
  EXPECT_EQ(platform::randomHexadecimal(random, 0), "");
}

TEST_F(DurableFilesTest, ANewFileIsItsUsersAlone) {
  EXPECT_EQ(write(std::string("a\0b", 3)), "written");
  EXPECT_EQ(contentOf(path()), std::string("a\0b", 3));
  struct stat status{};
  ASSERT_EQ(::stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
}

TEST_F(DurableFilesTest, WhatHasTheNameStays) {
  ASSERT_EQ(write("first"), "written");
  EXPECT_EQ(write("second"), notSaved(" because a file with the same name already exists."));
  EXPECT_EQ(contentOf(path()), "first");
  fs::remove(path());
  fs::create_symlink("elsewhere", path());
  EXPECT_EQ(write("second"), notSaved(" because a file with the same name already exists."));
  EXPECT_FALSE(fs::exists(folder_.path() + "/elsewhere")) << "no link leads a new file to another place";
}

TEST_F(DurableFilesTest, AFailedWriteLeavesNothing) {
  EXPECT_EQ(runInChild([this] {
              (void)::signal(SIGXFSZ, SIG_IGN);
              const rlimit three{3, 3};
              ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &three), 0);
              EXPECT_EQ(write("four"), notSaved("."));
              EXPECT_TRUE(fs::is_empty(folder_.path()));
              EXPECT_EQ(write("ton"), "written") << "within the limit it can be written";
            }),
            0);
}

TEST_F(DurableFilesTest, OnlyAFolderThatIsThereCanBeSynchronised) {
  EXPECT_TRUE(platform::synchronizeFolder(folder_.path()));
  const auto missing = platform::synchronizeFolder(folder_.path() + "/missing");
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().localizedDescription(), "The file “missing” doesn’t exist.");
  ASSERT_EQ(write("no folder"), "written");
  const auto file = platform::synchronizeFolder(path());
  ASSERT_FALSE(file);
  EXPECT_EQ(file.error().localizedDescription(), notSaved("."));
}

}  // namespace
}  // namespace test
