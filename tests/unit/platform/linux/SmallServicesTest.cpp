// What only the real small services do: where log lines go, what fork means for random bytes, and that the clock is the machine's.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "platform/linux/GetrandomSecureRandom.h"
#include "platform/linux/SyslogSystemLog.h"
#include "platform/linux/SystemClock.h"
#include "support/ChildProcess.h"

namespace {

using testing::ElementsAre;

TEST(SyslogSystemLogTest, L1EachMessageIsALineOnStandardError) {
  if (test::isChild()) {
    platform::SyslogSystemLog log;
    log.log("first");
    log.log("two\nlines, 100 %s");
    log.log("");
    return;
  }
  const test::ChildResult child = test::runThisTestInChild();
  EXPECT_EQ(child.status, "exited with 0");
  EXPECT_EQ(child.errors, "first\ntwo\nlines, 100 %s\n\n");
}

TEST(SyslogSystemLogTest, L1EachMessageGoesToSyslogToo) {
  if (test::isChild()) {
    openlog("host", LOG_PERROR, LOG_USER);  // makes syslog(3) show on standard error what it is given
    platform::SyslogSystemLog log;
    log.log("two\nlines, 100 %s");
    return;
  }
  EXPECT_EQ(test::runThisTestInChild().errors, "two\nlines, 100 %s\nhost: two\nlines, 100 %s\n");
}

// Puts one end of a pipe in the place of standard error for a scope; the other can be read.
class PipeAsStandardError {
 public:
  explicit PipeAsStandardError(int flags) : before_(dup(STDERR_FILENO)) {
    EXPECT_EQ(pipe2(ends_.data(), flags | O_CLOEXEC), 0) << std::strerror(errno);
    dup2(ends_[1], STDERR_FILENO);
    close(ends_[1]);
  }
  ~PipeAsStandardError() {
    dup2(before_, STDERR_FILENO);
    close(before_);
    closeReader();
  }
  void closeReader() {
    if (ends_[0] >= 0) close(ends_[0]);
    ends_[0] = -1;
  }
  std::string readOnce() const {
    std::array<char, 4096> buffer;
    const ssize_t count = read(ends_[0], buffer.data(), buffer.size());
    return count < 0 ? "nothing" : std::string(buffer.data(), static_cast<std::size_t>(count));
  }

 private:
  std::array<int, 2> ends_;
  int before_;
};

TEST(SyslogSystemLogTest, L1ALineIsOneWrite) {
  platform::SyslogSystemLog log;
  std::vector<std::string> writes;
  {
    const PipeAsStandardError pipe(O_DIRECT | O_NONBLOCK);  // each read of such a pipe gives one write
    log.log("first\nmessage");
    log.log("second");
    for (int i = 0; i < 3; ++i) writes.push_back(pipe.readOnce());
  }
  EXPECT_THAT(writes, ElementsAre("first\nmessage\n", "second\n", "nothing"));
}

TEST(SyslogSystemLogTest, AReaderThatHasGoneDoesNotEndTheHost) {
  ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
  platform::SyslogSystemLog log;
  sigset_t pending;
  {
    PipeAsStandardError pipe(0);
    pipe.closeReader();
    log.log("into the void");
    sigpending(&pending);
  }
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST(SyslogSystemLogTest, AFullStandardErrorThatDoesNotBlockLosesTheLine) {
  platform::SyslogSystemLog log;
  const PipeAsStandardError pipe(O_NONBLOCK);
  const std::string block(4096, 'x');
  while (write(STDERR_FILENO, block.data(), block.size()) > 0) {
  }
  log.log("no room");
  EXPECT_EQ(errno, EAGAIN) << "log changed errno";
}

TEST(GetrandomSecureRandomTest, ParentAndChildOfAForkGetDifferentBytes) {
  using Bytes = std::array<std::byte, 32>;
  platform::GetrandomSecureRandom random;
  Bytes mine;
  random.fill(mine);  // now there are bytes in advance
  std::array<int, 2> ends;
  ASSERT_EQ(pipe(ends.data()), 0);
  const pid_t forked = fork();
  if (forked == 0) {
    Bytes bytes;
    random.fill(bytes);
    _exit(write(ends[1], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) ? 0 : 1);
  }
  random.fill(mine);
  EXPECT_EQ(test::waitForEnd(forked), "exited with 0");
  Bytes theirs;
  ASSERT_EQ(read(ends[0], theirs.data(), theirs.size()), static_cast<ssize_t>(theirs.size()));
  EXPECT_NE(mine, theirs);
  EXPECT_NE(theirs, Bytes{}) << "what the kernel clears is no random bytes";
  close(ends[0]);
  close(ends[1]);
}

TEST(SystemClockTest, IsTheMachinesWallClock) {
  timespec before{};
  timespec after{};
  clock_gettime(CLOCK_REALTIME, &before);
  const double now = platform::SystemClock().now().timeIntervalSince1970();
  clock_gettime(CLOCK_REALTIME, &after);
  constexpr double kRounding = 1e-6;
  EXPECT_GE(now, static_cast<double>(before.tv_sec) + static_cast<double>(before.tv_nsec) / 1e9 - kRounding);
  EXPECT_LE(now, static_cast<double>(after.tv_sec) + static_cast<double>(after.tv_nsec) / 1e9 + kRounding);
}

}  // namespace
