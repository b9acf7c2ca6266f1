// The trace's socket: the application's end and the watcher's.
#include "platform/linux/TraceSocket.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "support/Event.h"
#include "support/TemporaryDirectory.h"

namespace {

using platform::TraceListener;
using platform::TraceSocket;
using testing::ElementsAre;
using testing::IsEmpty;

/// A watcher on a thread of its own.
class Watcher {
 public:
  explicit Watcher(TraceListener listener) : listener_(std::move(listener)) {
    if (::pipe2(stop_.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2() failed");
    thread_ = std::jthread([this] {
      (void)listener_.follow(
          [this](pid_t process, std::string_view line) {
            const std::lock_guard lock(mutex_);
            lines_.emplace_back(line);
            process_ = process;
          },
          stop_[0]);
    });
  }
  ~Watcher() {
    (void)::write(stop_[1], "x", 1);
    thread_.join();
    for (const int descriptor : stop_) ::close(descriptor);
  }
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  std::vector<std::string> lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }
  bool waitForLines(std::size_t count) {
    return test::becomes([&] { return lines().size() >= count; });
  }
  pid_t process() {
    const std::lock_guard lock(mutex_);
    return process_;
  }

 private:
  TraceListener listener_;
  std::array<int, 2> stop_{};
  std::mutex mutex_;
  std::vector<std::string> lines_;
  pid_t process_ = 0;
  std::jthread thread_;
};

class TraceSocketTest : public testing::Test {
 protected:
  platform::SystemOptions options() const {
    platform::SystemOptions made;
    made.bundleIdentifier = "com.example.app";
    made.homeDirectory = home_.path() + subfolder_;
    return made;
  }
  TraceListener listener() const {
    auto opened = TraceListener::open(options());
    if (!opened) throw std::runtime_error(opened.error().localizedDescription());
    return *std::move(opened);
  }
  /// The socket of a watcher that was killed.
  void leaveDeadSocket() const {
    {
      const TraceListener killed = listener();
      std::filesystem::rename(socketPath(), socketPath() + ".dead");
    }
    std::filesystem::rename(socketPath() + ".dead", socketPath());
  }
  std::string socketPath() const { return home_.path() + subfolder_ + "/com.example.app/trace.socket"; }

  test::TemporaryDirectory home_;
  std::string subfolder_;
};

TEST_F(TraceSocketTest, LinesArriveWholeAndInOrderWithTheProcessTheyComeFrom) {
  Watcher watcher(listener());
  TraceSocket socket(options());
  for (const char* line : {"one", "", "two\nof two", "grüße"}) socket.take(line);
  ASSERT_TRUE(watcher.waitForLines(4));
  EXPECT_THAT(watcher.lines(), ElementsAre("one", "", "two\nof two", "grüße"));
  EXPECT_EQ(watcher.process(), ::getpid());
}

TEST_F(TraceSocketTest, WithoutAWatcherNothingIsMadeAndErrnoStays) {
  TraceSocket socket(options());
  errno = EDOM;
  socket.take("nobody hears this");
  EXPECT_EQ(errno, EDOM);
  EXPECT_TRUE(std::filesystem::is_empty(home_.path()));
}

TEST_F(TraceSocketTest, WatchersComeAndGo) {
  TraceSocket socket(options());
  socket.take("before");
  for (const char* line : {"first", "second"}) {
    Watcher watcher(listener());
    // The first line after a watcher has gone may find that out, and be lost with it.
    ASSERT_TRUE(test::becomes([&] {
      socket.take(line);
      return !watcher.lines().empty();
    }));
    EXPECT_EQ(watcher.lines().front(), line);
  }
  EXPECT_FALSE(std::filesystem::exists(socketPath())) << "the watcher takes its socket away";
}

TEST_F(TraceSocketTest, OneWatcherAtATimeAndADeadOnesSocketIsTakenOver) {
  {
    const TraceListener first = listener();
    const auto second = TraceListener::open(options());
    ASSERT_FALSE(second);
    EXPECT_EQ(second.error().code(), EADDRINUSE);
    EXPECT_TRUE(std::filesystem::exists(socketPath())) << "that of the first stays";
  }
  leaveDeadSocket();
  Watcher watcher(listener());
  TraceSocket socket(options());
  socket.take("heard");
  EXPECT_TRUE(watcher.waitForLines(1));
}

TEST_F(TraceSocketTest, OfWatchersThatBeginInTheSameMomentOneDoes) {
  constexpr int kWatchers = 4;
  for (int round = 0; round < 300; ++round) {
    if (round % 2 == 1) leaveDeadSocket();  // which each of them finds, and would put its own in the place of
    std::barrier together(kWatchers);
    std::atomic<int> begun = 0;
    std::atomic<int> refused = 0;
    std::vector<std::jthread> threads;
    for (int count = 0; count < kWatchers; ++count)
      threads.emplace_back([&] {
        together.arrive_and_wait();
        const auto opened = TraceListener::open(options());
        if (opened) ++begun;
        if (!opened && opened.error().code() == EADDRINUSE) ++refused;
        together.arrive_and_wait();  // nobody ends before all have tried
      });
    threads.clear();
    ASSERT_EQ(begun, 1) << "in round " << round;
    ASSERT_EQ(refused, kWatchers - 1) << "in round " << round;
  }
}

TEST_F(TraceSocketTest, TheFolderIsHeldOpenAndLeftForOneThatTakesItsPlace) {
  const std::string folder = home_.path() + "/com.example.app";
  const auto held = [&](const std::string& path) {
    return std::ranges::count_if(std::filesystem::directory_iterator("/proc/self/fd"), [&](const auto& descriptor) {
      std::error_code gone;  // that of the listing itself
      return std::filesystem::read_symlink(descriptor.path(), gone) == path;
    });
  };
  TraceSocket socket(options());
  socket.take("there is no folder yet");
  std::filesystem::create_directories(folder);
  for (int line = 0; line < 3; ++line) {
    socket.take("nobody hears this");
    EXPECT_EQ(held(folder), 1);
  }
  std::filesystem::rename(folder, folder + ".old");
  Watcher watcher(listener());
  socket.take("heard");
  EXPECT_TRUE(watcher.waitForLines(1));
  EXPECT_EQ(held(folder + ".old"), 0);
}

TEST_F(TraceSocketTest, AFolderThatIsGoneIsNotHeld) {
  const std::string folder = home_.path() + "/com.example.app";
  std::filesystem::create_directories(folder);
  TraceSocket socket(options());
  socket.take("nobody hears this");
  std::filesystem::remove_all(folder);
  socket.take("nor this");
  std::filesystem::create_directories(folder);
  Watcher watcher(listener());
  socket.take("heard");
  EXPECT_TRUE(watcher.waitForLines(1));
}

TEST_F(TraceSocketTest, AWatcherThatDoesNotReadHoldsNobodyUpAndIsToldWhatItMissed) {
  TraceListener slow = listener();
  TraceSocket socket(options());
  const std::string line(1000, 'x');
  constexpr int kMany = 20'000;  // far more than any socket's buffer
  for (int i = 0; i < kMany; ++i) socket.take(line);
  Watcher watcher(std::move(slow));
  ASSERT_TRUE(watcher.waitForLines(1));
  ASSERT_TRUE(test::becomes([&] {
    socket.take("after");
    return watcher.lines().back() == "after";
  }));
  std::size_t whole = 0;
  std::string told;
  for (const std::string& heard : watcher.lines()) {
    if (heard == line) ++whole;
    if (heard.ends_with(" lines were left out") && told.empty()) told = heard;
  }
  EXPECT_GT(whole, 0U);
  EXPECT_LT(whole, kMany);
  EXPECT_NE(told, "") << whole << " of " << kMany << " lines came";
}

TEST_F(TraceSocketTest, OfALongLineTheBeginningIsPassedOn) {
  Watcher watcher(listener());
  TraceSocket socket(options());
  socket.take(std::string(TraceSocket::kMaxBytes + 1, 'y'));
  ASSERT_TRUE(watcher.waitForLines(1));
  EXPECT_EQ(watcher.lines()[0].size(), TraceSocket::kMaxBytes);
  socket.take(std::string(TraceSocket::kMaxBytes - 1, 'y') + "ü");
  ASSERT_TRUE(watcher.waitForLines(2));
  EXPECT_EQ(watcher.lines()[1], std::string(TraceSocket::kMaxBytes - 1, 'y')) << "cut between two characters";
}

TEST_F(TraceSocketTest, AFolderWhosePathIsTooLongForAnAddressIsNoMatter) {
  subfolder_ = "/" + std::string(200, 'd');
  Watcher watcher(listener());
  TraceSocket socket(options());
  socket.take("heard");
  EXPECT_TRUE(watcher.waitForLines(1));
}

TEST_F(TraceSocketTest, AHomeThatIsAFileIsRefusedByNameAndHoldsNobodyUp) {
  subfolder_ = "/file";
  ::close(::open((home_.path() + subfolder_).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  const auto refused = TraceListener::open(options());
  ASSERT_FALSE(refused);
  EXPECT_THAT(refused.error().localizedDescription(), testing::HasSubstr(home_.path() + "/file/com.example.app: "));
  TraceSocket(options()).take("nobody hears this");
}

}  // namespace
