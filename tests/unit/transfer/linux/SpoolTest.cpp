// The spool folder: what is taken, what is refused, what goes away.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"
#include "support/TestProcess.h"
#include "transfer/linux/PosixSpool.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

class PosixSpoolTest : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return folder_.path() + "/" + name; }
  void write(const std::string& name, const std::string& text, int age = 0) const {
    std::ofstream(path(name)) << text;
    fs::permissions(path(name), fs::perms::owner_read | fs::perms::owner_write);
    fs::last_write_time(path(name), fs::file_time_type::clock::now() - std::chrono::seconds(age));
  }
  std::string textOf(const std::string& name) const {
    std::ifstream file(path(name));
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::string reasonOf(const std::string& name) {
    const auto text = spool_.read(name);
    return text ? "taken: " + *text : text.error().localizedDescription();
  }

  TestProcess process_;
  TemporaryDirectory folder_;
  transfer::PosixSpool spool_{folder_.path()};
};

TEST_F(PosixSpoolTest, NamesAreThoseOfWholeTasksOldestFirst) {
  write("b.task", "2", 20);
  write("a.task", "3", 10);
  write("c.task", "1", 30);
  write(".d.task", "unfinished");
  write("e", "no task");
  EXPECT_THAT(spool_.names(), ElementsAre("c.task", "b.task", "a.task"));
}

TEST_F(PosixSpoolTest, AMissingFolderHasNoNames) { EXPECT_THAT(transfer::PosixSpool(path("missing")).names(), IsEmpty()); }

TEST_F(PosixSpoolTest, ReadsAndRemoves) {
  write("a.task", "text");
  EXPECT_EQ(reasonOf("a.task"), "taken: text");
  EXPECT_TRUE(spool_.remove("a.task"));
  EXPECT_FALSE(fs::exists(path("a.task")));
  EXPECT_TRUE(spool_.remove("a.task")) << "it is gone already";
  EXPECT_EQ(reasonOf("a.task"), "The file “a.task” couldn’t be opened because there is no such file.");
}

TEST_F(PosixSpoolTest, OnlyPlainFilesAreTaken) {
  write("target", "secret");
  fs::create_symlink(path("target"), path("link.task"));
  fs::create_directory(path("folder.task"));
  ASSERT_EQ(mkfifo(path("pipe.task").c_str(), 0600), 0);
  EXPECT_EQ(reasonOf("link.task"), "It is a symbolic link.");
  EXPECT_EQ(reasonOf("folder.task"), "It is no plain file.");
  EXPECT_EQ(reasonOf("pipe.task"), "It is no plain file.");
  ASSERT_EQ(mknod(path("socket.task").c_str(), S_IFSOCK | 0600, 0), 0);
  EXPECT_EQ(reasonOf("socket.task"), "It is no plain file.");
}

// Waiting makes none of them a task, and as long as one lies there the service would neither end nor rest.
TEST_F(PosixSpoolTest, WhatIsNoTaskIsRefusedForGoodAndCanBeSetAside) {
  ASSERT_EQ(geteuid(), 0U) << "only root can give a file to another user";
  write("target", "secret");
  fs::create_symlink(path("target"), path("link.task"));
  fs::create_directories(path("folder.task/with/more"));
  ASSERT_EQ(mkfifo(path("pipe.task").c_str(), 0600), 0);
  write("theirs.task", "text");
  ASSERT_EQ(chown(path("theirs.task").c_str(), 65534, 65534), 0);
  for (const std::string name : {"link.task", "folder.task", "pipe.task", "theirs.task"}) {
    const auto text = spool_.read(name);
    ASSERT_FALSE(text) << name;
    EXPECT_EQ(text.error().code(), platform::kFileReadNoPermission) << name;
    spool_.setAside(name, text.error().localizedDescription());
    EXPECT_TRUE(fs::exists(fs::symlink_status(path("refused/" + name)))) << name;
    EXPECT_EQ(textOf("refused/" + name + ".reason"), text.error().localizedDescription() + "\n");
  }
  EXPECT_THAT(spool_.names(), IsEmpty());
  EXPECT_EQ(textOf("target"), "secret");
}

TEST_F(PosixSpoolTest, AFileThatOthersCanWriteToIsRefused) {
  write("a.task", "text");
  fs::permissions(path("a.task"), fs::perms::others_write, fs::perm_options::add);
  EXPECT_EQ(reasonOf("a.task"), "Other users can write to it.");
}

TEST_F(PosixSpoolTest, AFileOfAnotherUserIsRefused) {
  ASSERT_EQ(geteuid(), 0U) << "only root can give a file to another user";
  write("a.task", "text");
  ASSERT_EQ(chown(path("a.task").c_str(), 65534, 65534), 0);
  EXPECT_EQ(reasonOf("a.task"), "It belongs to another user.");
}

TEST_F(PosixSpoolTest, AFileThatIsTooLongIsRefused) {
  write("a.task", std::string(transfer::kMaxMessageBytes + 1, 'x'));
  EXPECT_EQ(reasonOf("a.task"), "It is too long.");
}

TEST_F(PosixSpoolTest, WhatIsSetAsideLiesBesideItsReason) {
  write("a.task", "garbage");
  spool_.setAside("a.task", "no JSON");
  EXPECT_EQ(textOf("refused/a.task"), "garbage");
  EXPECT_EQ(textOf("refused/a.task.reason"), "no JSON\n");
  EXPECT_THAT(spool_.names(), IsEmpty());
  EXPECT_THAT(process_.systemLog(), ElementsAre("Refused the task a.task: no JSON"));
}

TEST_F(PosixSpoolTest, UnfinishedFilesGoAfterADay) {
  write(".old.task", "", 86500);
  write(".new.task", "", 80000);
  write("old.task", "", 90000);
  spool_.removeLeftovers();
  EXPECT_FALSE(fs::exists(path(".old.task")));
  EXPECT_TRUE(fs::exists(path(".new.task")));
  EXPECT_TRUE(fs::exists(path("old.task")));
}

}  // namespace
}  // namespace test
