// Where the application's files lie, and that no bundle identifier leads elsewhere.
#include "platform/linux/ApplicationFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <map>

#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"

namespace {

using platform::ApplicationFolder;
using platform::folderNameForBundleIdentifier;

// The folder's path under an environment that holds only what is given.
std::optional<std::string> pathWith(const std::map<std::string, std::string>& environment) {
  const char* const names[] = {"XDG_DATA_HOME", "HOME"};
  std::map<std::string, std::optional<std::string>> before;
  for (const char* name : names) {
    if (const char* value = std::getenv(name)) before[name] = value;
    ::unsetenv(name);
  }
  for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
  const auto path = ApplicationFolder({.bundleIdentifier = "com.example.app", .homeDirectory = std::nullopt}).path();
  for (const char* name : names) {
    ::unsetenv(name);
    if (before[name]) ::setenv(name, before[name]->c_str(), 1);
  }
  return path;
}

TEST(ApplicationFolder, TheHostsFolderComesFirst) {
  EXPECT_EQ(ApplicationFolder({.bundleIdentifier = "a", .homeDirectory = "/elsewhere"}).path(), "/elsewhere/a");
  EXPECT_EQ(ApplicationFolder({.bundleIdentifier = "a", .homeDirectory = "/elsewhere//"}).path(), "/elsewhere/a");
  EXPECT_EQ(ApplicationFolder({.bundleIdentifier = "a", .homeDirectory = "/"}).path(), "/a");
}

TEST(ApplicationFolder, ARelativeFolderOfTheHostIsNoFolder) {
  EXPECT_EQ(ApplicationFolder({.bundleIdentifier = "a", .homeDirectory = "elsewhere"}).path(), std::nullopt);
  EXPECT_EQ(ApplicationFolder({.bundleIdentifier = "a", .homeDirectory = ""}).path(), std::nullopt);
}

TEST(ApplicationFolder, FollowsTheBaseDirectorySpecification) {
  EXPECT_EQ(pathWith({{"XDG_DATA_HOME", "/data"}, {"HOME", "/home/u"}}), "/data/com.example.app");
  EXPECT_EQ(pathWith({{"HOME", "/home/u"}}), "/home/u/.local/share/com.example.app");
  EXPECT_EQ(pathWith({{"XDG_DATA_HOME", ""}, {"HOME", "/home/u/"}}), "/home/u/.local/share/com.example.app");
  EXPECT_EQ(pathWith({{"XDG_DATA_HOME", "relative"}, {"HOME", "/home/u"}}), "/home/u/.local/share/com.example.app");
}

TEST(ApplicationFolder, WithoutHomeTheUserDatabaseSaysIt) {
  if (::geteuid() != 0) GTEST_SKIP() << "knows the home of root only";
  EXPECT_EQ(pathWith({}), "/root/.local/share/com.example.app");
  EXPECT_EQ(pathWith({{"HOME", ""}}), "/root/.local/share/com.example.app");
  EXPECT_EQ(pathWith({{"HOME", "relative"}}), "/root/.local/share/com.example.app");
}

TEST(ApplicationFolder, NoIdentifierLeavesTheBaseFolder) {
  EXPECT_EQ(folderNameForBundleIdentifier("com.example.app-2_x~"), "com.example.app-2_x~");
  EXPECT_EQ(folderNameForBundleIdentifier("."), "%2E");
  EXPECT_EQ(folderNameForBundleIdentifier(".."), "%2E.");
  EXPECT_EQ(folderNameForBundleIdentifier("../../etc"), "%2E.%2F..%2Fetc");
  EXPECT_EQ(folderNameForBundleIdentifier("/abs"), "%2Fabs");
  EXPECT_EQ(folderNameForBundleIdentifier(std::string("a\0b c%ü", 8)), "a%00b%20c%25%C3%BC");
}

TEST(ApplicationFolder, NoIdentifierHasANameThatNoIdentifierEncodesTo) {
  EXPECT_EQ(folderNameForBundleIdentifier(std::nullopt), "@unidentified");
  EXPECT_EQ(folderNameForBundleIdentifier(""), "@unidentified");
  EXPECT_EQ(folderNameForBundleIdentifier("@unidentified"), "%40unidentified");
}

TEST(ApplicationFolder, FoldersAreTheirOwnersAloneWhateverTheMask) {
  const test::TemporaryDirectory directory;
  const std::string path = directory.path() + "/a/b";
  EXPECT_EQ(test::runInChild([&] {
              ::umask(0);
              EXPECT_EQ(platform::makeDirectories(path), 0);
            }),
            0);
  for (const std::string& made : {directory.path() + "/a", path}) {
    struct stat status{};
    ASSERT_EQ(::stat(made.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u) << made;
  }
}

}  // namespace
