// The demo when it is stopped: by Ctrl-C, which every process of the terminal hears, and by a signal to it alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "support/Program.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

namespace fs = std::filesystem;

/// The processes in whose environment the text stands; each of the demo has its temporary folder there.
std::vector<std::string> processesWith(const std::string& text) {
  std::vector<std::string> found;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc", gone)) {
    const std::string name = entry.path().filename().string();
    if (!std::isdigit(static_cast<unsigned char>(name[0]))) continue;
    std::ifstream file(entry.path() / "environ", std::ios::binary);
    const std::string environment((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (environment.find(text) != std::string::npos) found.push_back(name);
  }
  return found;
}

class StoppedDemo : public testing::Test {
 protected:
  void expectNothingLeft(Program& program) {
    EXPECT_EQ(program.waitForEnd(), "exited with 1");
    EXPECT_THAT(program.errors(), testing::EndsWith("kestrova: the demo was stopped; nothing of it is left\n"));
    EXPECT_TRUE(fs::is_empty(folder_.path()));
    EXPECT_THAT(processesWith(folder_.path()), testing::IsEmpty());
  }
  /// Waits for lines that hold the texts, each of which may take its time.
  static void waitForLines(Program& program, const std::vector<std::string>& texts) {
    for (const std::string& text : texts) ASSERT_TRUE(program.waitForLine(text)) << text << "\n" << program.errors();
  }
  void stopAt(const std::vector<std::string>& texts, int signal) {
    Program program(binary("kestrova"), {"demo"}, {{"TMPDIR", folder_.path()}});
    ASSERT_NO_FATAL_FAILURE(waitForLines(program, texts));
    program.signal(signal);
    expectNothingLeft(program);
  }

  TemporaryDirectory folder_;
};

TEST_F(StoppedDemo, LeavesNoFolderAndNoProcess) {
  for (const int signal : {SIGINT, SIGTERM}) stopAt({"A development server is up"}, signal);
}

TEST_F(StoppedDemo, EndsTheCommandThatItWaitsFor) { stopAt({"The server is away: everything is kept"}, SIGINT); }

TEST_F(StoppedDemo, EndsTheTransferServiceThatUploads) {
  stopAt({"The server is away", "an hour ahead", "answers with directives", "A share is submitted", "A GIF goes up",
          "killed with kill -9"},
         SIGINT);
}

// The service that was just being started was there a moment after the demo had looked for it, and stayed.
TEST_F(StoppedDemo, EndsTheTransferServiceThatIsBeingStarted) {
  stopAt({"The server is away", "an hour ahead", "answers with directives", "A share is submitted", "$ kestrova upload cat.gif"},
         SIGINT);
}

// The application that was launched for the outcome started another service when it saw its own end.
TEST_F(StoppedDemo, LeavesNoServiceAfterTheUploadEither) {
  stopAt({"The server is away", "an hour ahead", "answers with directives", "A share is submitted", "A GIF goes up",
          "grows past its limit"},
         SIGINT);
}

TEST_F(StoppedDemo, LeavesNothingAlsoWhenItIsNotStopped) {
  Program program(binary("kestrova"), {"demo"}, {{"TMPDIR", folder_.path()}});
  ASSERT_NO_FATAL_FAILURE(
      waitForLines(program, {"The server is away", "an hour ahead", "answers with directives", "A share is submitted",
                             "A GIF goes up", "grows past its limit", "1400 reported"}));
  EXPECT_EQ(program.waitForEnd(), "exited with 0") << program.errors();
  EXPECT_TRUE(fs::is_empty(folder_.path()));
  EXPECT_THAT(processesWith(folder_.path()), testing::IsEmpty());
}

TEST_F(StoppedDemo, TakesTheEndOfItsCommandsForItsOwn) {
  // A session of its own stands for a terminal: the signal goes to all processes in it.
  Program program("/usr/bin/setsid", {"--wait", binary("kestrova"), "demo"}, {{"TMPDIR", folder_.path()}});
  ASSERT_TRUE(program.waitForLine("The server is up: everything arrives.")) << program.errors();
  const std::vector<std::string> processes = processesWith(folder_.path());
  for (const std::string& process : processes)
    if (const pid_t id = std::stoi(process); getpgid(id) != getpgrp()) (void)kill(id, SIGINT);
  expectNothingLeft(program);
}

}  // namespace
}  // namespace test
