// A detached program: found by path or by PATH, free of everything that its starter has set, and seen when it ends.
#include "platform/linux/DetachedProgram.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <expected>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/Event.h"
#include "support/Files.h"
#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

using platform::StartFolder;

class DetachedProgramTest : public testing::Test {
 protected:
  /// Waits as long as tests do for the end that the descriptor shows; the exit status, or -1 and what went wrong in a failure.
  static int statusOf(const std::expected<pid_t, int>& process) {
    EXPECT_TRUE(process.has_value()) << process.error();
    if (!process) return -1;
    const auto descriptor = platform::descriptorOfProcess(*process);
    EXPECT_TRUE(descriptor.has_value()) << descriptor.error();
    pollfd ended{descriptor ? descriptor->get() : -1, POLLIN, 0};
    EXPECT_EQ(::poll(&ended, 1, static_cast<int>(std::chrono::milliseconds(kLimit).count())), 1) << "it does not end";
    int status = 0;
    EXPECT_EQ(::waitpid(*process, &status, WNOHANG), *process) << "it is this process's child, and has ended";
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  /// What a shell script writes into the file that is its first argument.
  std::string outputOf(const std::string& script, StartFolder folder = StartFolder::kRoot) const {
    const std::string file = folder_.path() + "/output";
    EXPECT_EQ(
        statusOf(platform::startDetachedProgram({"/bin/sh", "-c", "{ " + script + "; } > \"$1\"", "sh", file}, {"A=b"}, folder)),
        0);
    return contentOf(file);
  }

  TemporaryDirectory folder_;
};

TEST_F(DetachedProgramTest, ItHasTheEnvironmentThatItIsGivenAndNoOther) {
  EXPECT_EQ(outputOf("tr '\\0' '\\n' < /proc/$$/environ"), "A=b\n");
}

TEST_F(DetachedProgramTest, ItStartsBelowTheRootOrWhereItsStarterIs) {
  EXPECT_EQ(runInChild([this] {
              ASSERT_EQ(::chdir(folder_.path().c_str()), 0);
              EXPECT_EQ(outputOf("pwd -P"), "/\n");
              EXPECT_EQ(outputOf("pwd -P", StartFolder::kCallers), std::filesystem::canonical(folder_.path()).string() + "\n");
            }),
            0);
}

TEST_F(DetachedProgramTest, ItLeadsASessionOfItsOwn) {
  EXPECT_EQ(outputOf(R"(read -r _ _ _ _ _ session _ < /proc/$$/stat; test "$session" = $$ && echo own)"), "own\n");
}

TEST_F(DetachedProgramTest, ItInheritsNoDescriptor) {
  EXPECT_EQ(runInChild([this] {
              EXPECT_EQ(::fcntl(STDERR_FILENO, F_DUPFD, 100), 100) << "it is open, and not close-on-exec";
              // Of the numbers, 1 is the script's file.
              EXPECT_EQ(
                  outputOf("for n in 0 1 2 3 4 100; do test -e /proc/$$/fd/$n && echo $n $(readlink /proc/$$/fd/$n); done; :"),
                  "0 /dev/null\n1 " + folder_.path() + "/output\n2 /dev/null\n");
            }),
            0);
}

TEST_F(DetachedProgramTest, NoSignalIsBlockedOrIgnored) {
  EXPECT_EQ(runInChild([this] {
              (void)::signal(SIGHUP, SIG_IGN);
              sigset_t blocked;
              sigemptyset(&blocked);
              sigaddset(&blocked, SIGTERM);
              ASSERT_EQ(::sigprocmask(SIG_BLOCK, &blocked, nullptr), 0);
              const std::string signals = outputOf(
                  "while read -r name value; do case $name in SigBlk:|SigIgn:) echo $value;; esac; done < /proc/$$/status");
              ASSERT_EQ(signals.size(), 2 * 17U) << signals;
              EXPECT_EQ(signals.substr(0, 17), "0000000000000000\n");
              // Signals 32 and 33 are the C library's own, which sets them up anew where it needs them.
              EXPECT_EQ(std::stoull(signals.substr(17), nullptr, 16) & 0x7fffffffU, 0U) << signals;
            }),
            0);
}

TEST_F(DetachedProgramTest, ANameIsFoundByTheStartersPath) {
  EXPECT_EQ(runInChild([this] {
              const std::string program = folder_.path() + "/a-program-of-the-test";
              std::ofstream(program) << "#!/bin/sh\nexit 7\n";
              ASSERT_EQ(::chmod(program.c_str(), 0700), 0);
              EXPECT_EQ(platform::startDetachedProgram({"a-program-of-the-test"}, {}), std::unexpected(ENOENT));
              ::setenv("PATH", folder_.path().c_str(), 1);
              EXPECT_EQ(statusOf(platform::startDetachedProgram({"a-program-of-the-test"}, {})), 7);
            }),
            0);
}

TEST_F(DetachedProgramTest, WhatCannotBeStartedFailsAtOnceAndLeavesNoChild) {
  EXPECT_EQ(runInChild([this] {
              EXPECT_EQ(platform::startDetachedProgram({folder_.path() + "/missing"}, {}), std::unexpected(ENOENT));
              const std::string text = folder_.path() + "/text";
              std::ofstream(text) << "no program";
              EXPECT_EQ(platform::startDetachedProgram({text}, {}), std::unexpected(EACCES));
              ASSERT_EQ(::chmod(text.c_str(), 0700), 0);
              EXPECT_EQ(platform::startDetachedProgram({text}, {}), std::unexpected(ENOEXEC)) << "no shell reads it";
              EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
              EXPECT_EQ(errno, ECHILD);
            }),
            0);
}

TEST_F(DetachedProgramTest, AProcessThatIsNoMoreHasNoDescriptor) {
  const auto process = platform::startDetachedProgram({"/bin/true"}, {});
  EXPECT_EQ(statusOf(process), 0);
  const auto descriptor = platform::descriptorOfProcess(*process);
  ASSERT_FALSE(descriptor);
  EXPECT_EQ(descriptor.error(), ESRCH);
}

}  // namespace
}  // namespace test
