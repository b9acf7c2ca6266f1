// Opening an address with xdg-open: what is started and how, what counts as success, and that nobody waits for it. The program is a
// script of the test's own, first on PATH; each test runs in a child process, whose PATH it may change.
#include "platform/linux/XdgBrowserOpener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/linux/ThreadQueues.h"
#include "support/Event.h"
#include "support/ForkedChild.h"
#include "support/RecordingUncaughtException.h"
#include "support/TemporaryDirectory.h"

namespace {

using platform::URL;

// An opener in a process of its own, with the script as its only xdg-open.
class Desktop {
 public:
  explicit Desktop(const std::string& script) {
    if (!script.empty()) {
      const std::string path = folder_.path() + "/xdg-open";
      std::ofstream(path) << "#!/bin/sh\n" << script << "\n";
      chmod(path.c_str(), 0700);
    }
    setenv("PATH", (script.empty() ? folder_.path() : folder_.path() + ":/usr/bin:/bin").c_str(), 1);
    setenv("FOLDER", folder_.path().c_str(), 1);
  }

  std::string open(const std::string& address) {
    test::Event completed;
    bool opened = false;
    opener->openURL(*URL::URLWithString(address), [&](bool didOpen) {
      opened = didOpen;
      completed.happen();
    });
    if (!completed.wait()) return "not completed";
    return opened ? "opened" : "not opened";
  }

  std::string file(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(folder_.path() + "/" + name).rdbuf();
    return text.str();
  }
  const std::string& folder() const { return folder_.path(); }

 private:
  test::TemporaryDirectory folder_;

 public:
  platform::ThreadQueues queues{std::make_shared<test::RecordingUncaughtException>()};
  std::unique_ptr<platform::XdgBrowserOpener> opener = std::make_unique<platform::XdgBrowserOpener>(queues);
};

constexpr const char* kAddress = "https://api.example.com/cookie-match?a=b&c=$(touch%20x);'d'&bewit=e_f-";

TEST(XdgBrowserOpener, HandsTheAddressOverAsOneArgumentThatNoShellReads) {
  EXPECT_EQ(test::runInChild([] {
              Desktop desktop(R"(printf '%s\n' "$#" "$1" > "$FOLDER/arguments")");
              EXPECT_EQ(desktop.open(kAddress), "opened");
              EXPECT_EQ(desktop.file("arguments"), std::string("1\n") + kAddress + "\n");
            }),
            0);
}

TEST(XdgBrowserOpener, TheExitStatusSaysWhetherItWasOpened) {
  EXPECT_EQ(test::runInChild([] {
              Desktop desktop(R"(case "$1" in *good) exit 0;; *killed) kill -9 $$;; *) exit 3;; esac)");
              EXPECT_EQ(desktop.open("https://example.com/good"), "opened");
              EXPECT_EQ(desktop.open("https://example.com/bad"), "not opened");
              EXPECT_EQ(desktop.open("https://example.com/killed"), "not opened");
              EXPECT_EQ(desktop.open("http://example.com/good"), "opened");
            }),
            0);
}

TEST(XdgBrowserOpener, WithoutTheProgramNothingIsOpened) {
  EXPECT_EQ(test::runInChild([] { EXPECT_EQ(Desktop("").open(kAddress), "not opened"); }), 0);
}

TEST(XdgBrowserOpener, AddressesForOtherProgramsAreRefused) {
  EXPECT_EQ(test::runInChild([] {
              Desktop desktop("touch \"$FOLDER/started\"");
              for (const char* address : {"file:///etc/passwd", "mailto:a@example.com", "--help", "/etc/passwd", "example.com"})
                EXPECT_EQ(desktop.open(address), "not opened") << address;
              EXPECT_NE(access((desktop.folder() + "/started").c_str(), F_OK), 0);
            }),
            0);
}

// The shell looks at its own signals without starting anything, as it blocks all of them while it does.
constexpr const char* kDescribeYourself = R"sh(
for n in /proc/$$/fd/*; do echo "${n##*/} $(readlink "$n")"; done > "$FOLDER/descriptors"
while IFS= read -r line; do
  case $line in SigBlk*|SigIgn*) printf '%s\n' "$line" ;; esac
done < /proc/$$/status > "$FOLDER/signals"
cut -d ' ' -f 6 /proc/$$/stat > "$FOLDER/session"
echo $$ > "$FOLDER/process")sh";

TEST(XdgBrowserOpener, TheProgramInheritsNoDescriptorsNoSignalMaskAndNoSession) {
  EXPECT_EQ(test::runInChild([] {
              (void)signal(SIGUSR1, SIG_IGN);
              const int inherited = fcntl(STDERR_FILENO, F_DUPFD, 100);  // without close-on-exec
              EXPECT_GT(inherited, STDERR_FILENO);
              Desktop desktop(kDescribeYourself);
              EXPECT_EQ(desktop.open(kAddress), "opened");
              // Bits of the usual signals; the C library's own two are nobody's business.
              const std::string signals = desktop.file("signals");
              EXPECT_TRUE(signals.starts_with("SigBlk:\t0000000000000000\n")) << signals;
              EXPECT_EQ(std::stoull(signals.substr(signals.rfind('\t')), nullptr, 16) & 0x7FFFFFFFU, 0U) << signals;
              EXPECT_EQ(desktop.file("session"), desktop.file("process"));
              const std::string all = desktop.file("descriptors");
              EXPECT_NE(all.find("0 /dev/null\n"), std::string::npos) << all;
              EXPECT_NE(all.find("2 /dev/null\n"), std::string::npos) << all;
              EXPECT_EQ(all.find("\n" + std::to_string(inherited) + " "), std::string::npos) << all;
            }),
            0);
}

TEST(XdgBrowserOpener, OnlyItsOwnChildIsReaped) {
  EXPECT_EQ(test::runInChild([] {
              Desktop desktop("exit 0");
              const pid_t other = fork();
              if (other == 0) _exit(7);
              EXPECT_EQ(desktop.open(kAddress), "opened");
              int status = 0;
              EXPECT_EQ(waitpid(other, &status, 0), other);
              EXPECT_EQ(WEXITSTATUS(status), 7);
              EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
              EXPECT_EQ(errno, ECHILD);
            }),
            0);
}

TEST(XdgBrowserOpener, AHostThatTakesTheEndsOfItsChildrenLearnsNothing) {
  EXPECT_EQ(test::runInChild([] {
              (void)signal(SIGCHLD, SIG_IGN);
              EXPECT_EQ(Desktop("exit 0").open(kAddress), "not opened");
            }),
            0);
}

TEST(XdgBrowserOpener, ABrowserThatStaysHoldsUpNeitherTheCallerNorTheNextOneNorTheEnd) {
  EXPECT_EQ(test::runInChild([] {
              Desktop desktop(R"(case "$1" in *stay) echo $$ > "$FOLDER/stays.new"; mv "$FOLDER/stays.new" "$FOLDER/stays"
exec sleep 1000;; esac)");
              test::Event completed;
              bool opened = true;
              desktop.opener->openURL(*URL::URLWithString("https://example.com/stay"), [&](bool didOpen) {
                opened = didOpen;
                completed.happen();
              });
              EXPECT_EQ(desktop.open("https://example.com/other"), "opened");
              EXPECT_FALSE(completed.happened());
              desktop.opener.reset();
              EXPECT_TRUE(completed.wait());
              EXPECT_FALSE(opened);
              while (desktop.file("stays").empty()) usleep(1000);
              const pid_t browser = std::stoi(desktop.file("stays"));
              EXPECT_EQ(kill(browser, 0), 0) << "the browser goes on";
              kill(browser, SIGKILL);
            }),
            0);
}

}  // namespace
