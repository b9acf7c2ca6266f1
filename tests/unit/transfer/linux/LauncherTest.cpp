// Launching: what the process gets, what it does not get, and how its end is seen.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/linux/FileDescriptor.h"
#include "support/Event.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"
#include "transfer/linux/EventLoop.h"
#include "transfer/linux/ProcessLauncher.h"

namespace test {
namespace {

using testing::ElementsAre;

class ProcessLauncherTest : public testing::Test {
 protected:
  void runToEnd(const std::vector<std::string>& command, const std::optional<std::string>& anchors = std::nullopt) {
    ended_.clear();
    const auto launched = launcher_.launch(42, command, "com.example.session", anchors);
    ASSERT_TRUE(launched) << launched.error().localizedDescription();
    EXPECT_TRUE(ended_.empty()) << "nobody may be called back from inside launch()";
    const auto limit = std::chrono::steady_clock::now() + kLimit;
    while (ended_.empty() && std::chrono::steady_clock::now() < limit) loop_.turn(std::chrono::milliseconds(100));
    EXPECT_THAT(ended_, ElementsAre("42 com.example.session"));
  }
  /// What a shell script, here the application, writes into a file.
  std::string outputOf(const std::string& script, const std::optional<std::string>& anchors = std::nullopt) {
    const std::string file = folder_.path() + "/output";
    runToEnd({"/bin/sh", "-c", "{ " + script + "; } > \"$1\"", "application", file}, anchors);
    return contentOf(file);
  }
  std::string errorOf(const std::vector<std::string>& command) {
    const auto launched = launcher_.launch(1, command, "session", std::nullopt);
    return launched ? "launched" : launched.error().localizedDescription();
  }

  TemporaryDirectory folder_;
  transfer::EventLoop loop_;
  std::vector<std::string> ended_;  // application and session
  transfer::ProcessLauncher launcher_{loop_, "/the/folder", [this](transfer::ApplicationId id, const std::string& session) {
                                        ended_.push_back(std::to_string(id) + " " + session);
                                      }};
};

TEST_F(ProcessLauncherTest, TheEnvironmentNamesTheSession) {
  ::setenv("SSL_CERT_FILE", "/of/the/service", 1);
  ::setenv("KESTROVA_TRANSFERD_DIE_AT", "began", 1);
  const std::string script =
      R"(echo "$KESTROVA_BACKGROUND_SESSION $KESTROVA_TRANSFER_DIR ${SSL_CERT_FILE-none} ${KESTROVA_TRANSFERD_DIE_AT-none}")";
  EXPECT_EQ(outputOf(script), "com.example.session /the/folder none none\n");
  EXPECT_EQ(outputOf(script, "/anchors.pem"), "com.example.session /the/folder /anchors.pem none\n");
  ::unsetenv("SSL_CERT_FILE");
  ::unsetenv("KESTROVA_TRANSFERD_DIE_AT");
}

// Whoever starts the service first is one application; what is launched may be another.
TEST_F(ProcessLauncherTest, TheSettingsAndTheSecretOfAnotherApplicationAreNotHandedOn) {
  ::setenv("KESTROVA_SECRET", "a secret of one", 1);
  ::setenv("KESTROVA_BUNDLE_ID", "com.example.one", 1);
  EXPECT_EQ(outputOf(R"(echo "${KESTROVA_SECRET-none} ${KESTROVA_BUNDLE_ID-none}")"), "none none\n");
  ::unsetenv("KESTROVA_SECRET");
  ::unsetenv("KESTROVA_BUNDLE_ID");
}

TEST_F(ProcessLauncherTest, ArgumentsGoThroughNoShell) {
  const std::string file = folder_.path() + "/$(touch x); a b";
  runToEnd({"/usr/bin/touch", file});
  EXPECT_EQ(access(file.c_str(), F_OK), 0);
}

TEST_F(ProcessLauncherTest, ItStartsInASessionOfItsOwnBelowTheRoot) {
  EXPECT_EQ(outputOf("pwd"), "/\n");
  EXPECT_EQ(outputOf(R"(read -r _ _ _ _ _ session _ < /proc/$$/stat; test "$session" = $$ && echo own)"), "own\n");
}

TEST_F(ProcessLauncherTest, ItInheritsNoDescriptorAndNoSignal) {
  const int leaking = fcntl(STDERR_FILENO, F_DUPFD, 50);  // not close-on-exec
  ASSERT_GE(leaking, 50);
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto ignored = signal(SIGHUP, SIG_IGN);
  const std::string numbers = "0 1 2 3 9 " + std::to_string(leaking);
  EXPECT_EQ(outputOf("for fd in " + numbers +
                     "; do test -e /proc/$$/fd/$fd && echo $fd $(readlink /proc/$$/fd/$fd | grep -c /dev/null); done"),
            "0 1\n1 0\n2 1\n");
  // The shell itself reads: while it starts another program it blocks signals of its own accord.
  const auto signalsOf = [](const std::string& name) {
    return "while read -r name value; do test \"$name\" != " + name + ": || echo $value; done < /proc/$$/status";
  };
  EXPECT_EQ(outputOf(signalsOf("SigBlk")), "0000000000000000\n");
  // Signals 32 and 33 are the C library's own, which ignores them here and sets them up anew where it needs them.
  EXPECT_EQ(std::stoull(outputOf(signalsOf("SigIgn")), nullptr, 16) & 0x7fffffffU, 0U);
  (void)signal(SIGHUP, ignored);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  close(leaking);
}

TEST_F(ProcessLauncherTest, AnEndByForceIsAnEnd) { runToEnd({"/bin/sh", "-c", "kill -9 $$"}); }

TEST_F(ProcessLauncherTest, WhatCannotBeStartedFailsAtOnce) {
  EXPECT_EQ(errorOf({"/missing/application"}),
            "The application “/missing/application” could not be launched: No such file or directory.");
  EXPECT_EQ(errorOf({"sh", "-c", "true"}), "The application “sh” could not be launched: Invalid argument.");
  EXPECT_EQ(errorOf({}), "The application “” could not be launched: Invalid argument.");
  EXPECT_EQ(errorOf({"/bin/echo", std::string("a\0b", 3)}), "The application “/bin/echo” could not be launched: Invalid argument.");
  EXPECT_TRUE(ended_.empty());
}

}  // namespace
}  // namespace test
