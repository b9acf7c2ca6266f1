// Starting the transfer service: which program, what it inherits, and how its end is seen. The program is a script of the test's
// own; a test that changes its environment does so in a child process.
#include "platform/linux/TransferServiceProcess.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/linux/TransferDirectory.h"
#include "support/ChildProcess.h"
#include "support/Event.h"
#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using platform::TransferDirectory;
using platform::TransferServiceProcess;

class TransferServiceProcessTest : public testing::Test {
 protected:
  /// An executable that runs these lines; `$FOLDER` is the test's folder.
  std::string script(const std::string& lines, const std::string& name = "program") const {
    std::string path = folder_.path() + "/" + name;
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << "#!/bin/sh\nFOLDER='" << folder_.path() << "'\n" << lines << "\n";
    EXPECT_EQ(::chmod(path.c_str(), 0700), 0);
    return path;
  }
  static platform::SystemOptions optionsFor(std::optional<std::string> path) {
    platform::SystemOptions options;
    options.transferServicePath = std::move(path);
    return options;
  }
  std::string file(const std::string& name) const {
    std::ifstream stream(folder_.path() + "/" + name);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  /// Waits until the child has ended; says how as reap() does, or "in peace".
  static std::string endOf(TransferServiceProcess& service) {
    pollfd ended{service.descriptor(), POLLIN, 0};
    if (::poll(&ended, 1, static_cast<int>(std::chrono::milliseconds(kLimit).count())) != 1) return "not at all";
    const auto end = service.reap();
    EXPECT_LT(service.descriptor(), 0) << "nothing is left of it";
    return end.value_or("in peace");
  }

  TemporaryDirectory folder_;
};

// Which program.

TEST_F(TransferServiceProcessTest, TheHostsPathCountsMost) {
  EXPECT_EQ(runInChild([] {
              setenv("KESTROVA_TRANSFERD", "/from/the/environment", 1);
              EXPECT_EQ(TransferServiceProcess(optionsFor("/given"), std::nullopt).program(), "/given");
            }),
            0);
}

TEST_F(TransferServiceProcessTest, ThenTheEnvironmentsThenPath) {
  EXPECT_EQ(runInChild([this] {
              setenv("KESTROVA_TRANSFERD", script("echo environment > $FOLDER/started").c_str(), 1);
              TransferServiceProcess named(optionsFor(std::nullopt), std::nullopt);
              EXPECT_EQ(named.start(), 0);
              EXPECT_EQ(endOf(named), "in peace");
              EXPECT_EQ(file("started"), "environment\n");

              setenv("KESTROVA_TRANSFERD", "", 1);
              const std::string onPath = script("echo path > $FOLDER/started", "bin/kestrova-transferd");
              setenv("PATH", fs::path(onPath).parent_path().c_str(), 1);
              TransferServiceProcess found(optionsFor(std::nullopt), std::nullopt);
              EXPECT_EQ(found.program(), "kestrova-transferd") << "nothing lies beside the test program";
              EXPECT_EQ(found.start(), 0);
              EXPECT_EQ(endOf(found), "in peace");
              EXPECT_EQ(file("started"), "path\n");
            }),
            0);
}

TEST_F(TransferServiceProcessTest, AProgramThatIsNotThereOrNoProgramIsAnError) {
  TransferServiceProcess missing(optionsFor(folder_.path() + "/missing"), std::nullopt);
  EXPECT_EQ(missing.start(), ENOENT);
  EXPECT_LT(missing.descriptor(), 0);
  EXPECT_EQ(missing.reap(), std::nullopt);
  std::ofstream(folder_.path() + "/text") << "no program";
  EXPECT_EQ(TransferServiceProcess(optionsFor(folder_.path() + "/text"), std::nullopt).start(), EACCES);
}

TEST_F(TransferServiceProcessTest, WhatCanBeStartedIsAProgramThatIsThere) {
  const auto canBeStarted = [](const std::string& path) {
    return TransferServiceProcess(optionsFor(path), std::nullopt).canBeStarted();
  };
  EXPECT_TRUE(canBeStarted(script("true")));
  EXPECT_FALSE(canBeStarted(folder_.path() + "/missing"));
  EXPECT_FALSE(canBeStarted(folder_.path())) << "a folder";
  std::ofstream(folder_.path() + "/text") << "no program";
  EXPECT_FALSE(canBeStarted(folder_.path() + "/text"));
}

TEST_F(TransferServiceProcessTest, WhatCanBeStartedIsLookedForAsItIsStarted) {
  EXPECT_EQ(runInChild([this] {
              unsetenv("KESTROVA_TRANSFERD");
              const fs::path folder = fs::path(script("true", "bin/kestrova-transferd")).parent_path();
              TransferServiceProcess service(optionsFor(std::nullopt), std::nullopt);
              setenv("PATH", folder_.path().c_str(), 1);
              EXPECT_FALSE(service.canBeStarted());
              EXPECT_EQ(service.start(), ENOENT);
              setenv("PATH", ("/nowhere:" + folder.string()).c_str(), 1);
              EXPECT_TRUE(service.canBeStarted());
              setenv("PATH", folder.relative_path().c_str(), 1);  // it starts in the root, wherever this process is
              EXPECT_TRUE(service.canBeStarted());
              EXPECT_EQ(service.start(), 0);
              EXPECT_EQ(endOf(service), "in peace");
            }),
            0);
}

// What it inherits.

TEST_F(TransferServiceProcessTest, ItBeginsWithNothingOfTheHosts) {
  const std::string program = script(
      "printf '%s\\n' \"$@\" > $FOLDER/arguments; pwd > $FOLDER/place; env > $FOLDER/environment\n"
      "for each in /proc/$$/fd/*; do echo \"${each##*/} $(readlink $each)\"; done > $FOLDER/descriptors\n"
      "awk '{print $1 == $6}' /proc/$$/stat > $FOLDER/leads");
  EXPECT_EQ(runInChild([&] {
              const int inherited = ::fcntl(STDERR_FILENO, F_DUPFD, 100);
              setenv("KESTROVA_BACKGROUND_SESSION", "session-1", 1);
              setenv("KESTROVA_TRANSFER_DIR", "/from/the/environment", 1);
              setenv("KESTROVA_SECRET", "a secret of one", 1);
              TransferServiceProcess service(optionsFor(program), "/the/folder");
              EXPECT_EQ(service.start(), 0);
              EXPECT_EQ(endOf(service), "in peace");
              EXPECT_EQ(file("arguments"), "--background\n");
              EXPECT_EQ(file("place"), "/\n");
              EXPECT_EQ(file("leads"), "1\n") << "a session of its own";
              EXPECT_THAT(file("environment"), testing::HasSubstr("KESTROVA_TRANSFER_DIR=/the/folder\n"));
              EXPECT_THAT(file("environment"), testing::Not(testing::HasSubstr("/from/the/environment")));
              EXPECT_THAT(file("environment"), testing::Not(testing::HasSubstr("KESTROVA_BACKGROUND_SESSION")));
              EXPECT_THAT(file("environment"), testing::Not(testing::HasSubstr("a secret of one")));
              const std::string descriptors = "\n" + file("descriptors");
              EXPECT_THAT(descriptors, testing::HasSubstr("\n0 /dev/null\n"));
              EXPECT_THAT(descriptors, testing::HasSubstr("\n2 /dev/null\n"));
              EXPECT_THAT(descriptors, testing::Not(testing::HasSubstr("\n" + std::to_string(inherited) + " ")));
            }),
            0);
}

// Its end.

TEST_F(TransferServiceProcessTest, ItsEndIsSeenAndSaid) {
  TransferServiceProcess failing(optionsFor(script("exit 3")), std::nullopt);
  ASSERT_EQ(failing.start(), 0);
  EXPECT_EQ(endOf(failing), "ended with status 3");
  TransferServiceProcess dying(optionsFor(script("kill -9 $$")), std::nullopt);
  ASSERT_EQ(dying.start(), 0);
  EXPECT_EQ(endOf(dying), "was ended by signal 9");
  TransferServiceProcess peaceful(optionsFor("/bin/true"), std::nullopt);
  ASSERT_EQ(peaceful.start(), 0);
  EXPECT_EQ(endOf(peaceful), "in peace");
}

TEST_F(TransferServiceProcessTest, AChildThatStillRunsIsNotJoinedByAnother) {
  const std::string pipe = folder_.path() + "/pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  TransferServiceProcess service(optionsFor(script("echo started >> $FOLDER/starts; read line < $FOLDER/pipe")), std::nullopt);
  ASSERT_EQ(service.start(), 0);
  ASSERT_EQ(service.start(), 0);
  EXPECT_EQ(service.reap(), std::nullopt);
  std::ofstream(pipe) << "go\n";
  EXPECT_EQ(endOf(service), "in peace");
  EXPECT_EQ(file("starts"), "started\n");
}

TEST_F(TransferServiceProcessTest, AHostThatWaitsForAllItsChildrenTakesTheEnd) {
  EXPECT_EQ(runInChild([this] {
              TransferServiceProcess service(optionsFor(script("exit 3")), std::nullopt);
              ASSERT_EQ(service.start(), 0);
              EXPECT_GT(::waitpid(-1, nullptr, 0), 0);
              EXPECT_EQ(service.reap(), std::nullopt) << "nobody knows how it ended";
              EXPECT_LT(service.descriptor(), 0);
              ASSERT_EQ(service.start(), 0) << "and it can be started again";
              EXPECT_EQ(endOf(service), "ended with status 3");
            }),
            0);
}

// More rights than whoever started the process: the environment is that one's.

TEST_F(TransferServiceProcessTest, AProcessWithMoreRightsStartsNothingAndDoesNotTrustItsEnvironment) {
  if (isChild()) {
    TransferServiceProcess service(optionsFor(std::nullopt), std::nullopt);
    EXPECT_NE(service.program(), "/bin/true");
    EXPECT_EQ(service.start(), EPERM);
    EXPECT_NE(TransferDirectory::pathFromEnvironment(), "/from/the/environment");
    EXPECT_NE(TransferDirectory::pathFromEnvironment(), "/state/kestrova-transferd");
    return;
  }
  ASSERT_EQ(::geteuid(), 0U) << "only root can give a process rights that differ";
  EXPECT_EQ(runInChild([] {
              setenv("KESTROVA_TEST_CHILD", "1", 1);
              setenv("KESTROVA_TRANSFERD", "/bin/true", 1);
              setenv("KESTROVA_TRANSFER_DIR", "/from/the/environment", 1);
              setenv("XDG_STATE_HOME", "/state", 1);
              ASSERT_EQ(::setresuid(65534, 0, 0), 0);
              const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
              const std::string filter = std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
              ::execl("/proc/self/exe", "test", filter.c_str(), nullptr);
              ADD_FAILURE() << "the program cannot be run again";
            }),
            0);
}

}  // namespace
}  // namespace test
