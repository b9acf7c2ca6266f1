// What only the user defaults on disk show: several processes, ends by force, failures of single system calls, files that are no
// defaults files, and that reading enters no kernel.
#include "platform/linux/FileUserDefaults.h"

#include <gtest/gtest.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/linux/RapidJSONSerialization.h"
#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"

namespace {

using platform::Value;
using test::runInChild;

std::shared_ptr<platform::UserDefaults> defaultsBelow(const std::string& home, platform::CoarseClock clock = nullptr) {
  return platform::makeFileUserDefaults({.bundleIdentifier = "app", .homeDirectory = home}, platform::makeRapidJSONSerialization(),
                                        clock);
}

// What a child under strace does: it sets one value and says what it then reads.
[[maybe_unused]] const bool scenarioHasRun = [] {
  const char* home = std::getenv("KESTROVA_DEFAULTS_SCENARIO");
  if (!home) return false;
  const auto defaults = defaultsBelow(home);
  defaults->setObjectForKey("new", "key");
  const auto value = defaults->objectForKey("key");
  std::fputs(value ? std::string(value->string().view()).c_str() : "absent", stdout);
  std::fflush(stdout);
  ::_exit(0);
}();

std::atomic<std::int64_t> handClock{1000};

class FileDefaults : public ::testing::Test {
 protected:
  std::shared_ptr<platform::UserDefaults> defaults(platform::CoarseClock clock = nullptr) const {
    return defaultsBelow(directory_.path(), clock);
  }
  std::string path(const std::string& name = "user-defaults.json") const { return directory_.path() + "/app/" + name; }
  std::optional<std::string> bytes(const std::string& path) const {
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
  }
  void put(const std::string& bytes) const {
    std::filesystem::create_directories(directory_.path() + "/app");
    std::ofstream(path(), std::ios::binary) << bytes;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path() + "/app"))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  test::TracedRun traced(const std::vector<std::string>& options) const {
    return test::runSelfTraced(options, {{"KESTROVA_DEFAULTS_SCENARIO", directory_.path()}});
  }

  const test::TemporaryDirectory directory_;
};

const std::vector<std::string> kNamesAfterAWrite = {"user-defaults.json", "user-defaults.lock"};

TEST_F(FileDefaults, TheFileIsAsItsFormatSays) {
  defaults()->setObjectForKey(-12, "kHawkLocalTimeSkew");
  defaults()->setObjectForKey(platform::Date::dateWithTimeIntervalSince1970(1763673579.25), "launched");
  EXPECT_EQ(bytes(path()), R"({"values":{"kHawkLocalTimeSkew":-12,"launched":{"$date":1763673579.25}},"version":1})");
  defaults()->removeObjectForKey("launched");
  defaults()->setObjectForKey(platform::Data("hi"), "$d");
  EXPECT_EQ(bytes(path()), R"({"values":{"$object":[["$d",{"$data":"aGk="}],["kHawkLocalTimeSkew",-12]]},"version":1})");
  EXPECT_EQ(names(), kNamesAfterAWrite);
}

TEST_F(FileDefaults, ReadingMakesNothing) {
  EXPECT_EQ(defaults()->integerForKey("key"), 0);
  defaults()->synchronize();
  EXPECT_FALSE(std::filesystem::exists(directory_.path() + "/app"));
}

TEST_F(FileDefaults, FilesAndFolderAreTheirOwnersAloneWhateverTheMask) {
  EXPECT_EQ(runInChild([&] {
              ::umask(0);
              defaults()->setObjectForKey(1, "key");
            }),
            0);
  const auto modeOf = [](const std::string& path) {
    struct stat status{};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  };
  EXPECT_EQ(modeOf(path()), 0600u);
  EXPECT_EQ(modeOf(path("user-defaults.lock")), 0600u);
  EXPECT_EQ(modeOf(directory_.path() + "/app"), 0700u);
}

TEST_F(FileDefaults, AnotherProcesssChangeIsSeenWithinASecond) {
  const platform::CoarseClock clock = [] { return handClock.load(); };
  const auto mine = defaults(clock);
  EXPECT_EQ(mine->integerForKey("key"), 0);
  defaults()->setObjectForKey(1, "key");
  handClock += 499;
  EXPECT_EQ(mine->integerForKey("key"), 0);
  handClock += 1;
  EXPECT_EQ(mine->integerForKey("key"), 1);
  defaults()->setObjectForKey(2, "key");
  handClock += 500;
  EXPECT_EQ(mine->integerForKey("key"), 2);
  std::filesystem::remove(path());
  handClock += 500;
  EXPECT_EQ(mine->integerForKey("key"), 0);
}

// Reads in a process whose thread may only read, write and exit, and writes one byte when it got through.
bool readsWithoutTheKernel(platform::UserDefaults& defaults) {
  int ends[2];
  if (::pipe(ends) != 0) return false;
  const pid_t child = test::startChild([&] {
    defaults.synchronize();
    std::int64_t sum = defaults.integerForKey("key");
    if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0) ::_exit(1);
    for (int i = 0; i < 1000; ++i) sum += defaults.integerForKey("key") + (defaults.objectForKey("absent") ? 1 : 0);
    if (sum == 7007) ::syscall(SYS_write, ends[1], "y", 1);
    ::syscall(SYS_exit, 0);
  });
  ::close(ends[1]);
  pollfd end{ends[0], POLLIN, 0};
  char answer = 'n';
  const bool isThrough = ::poll(&end, 1, 20'000) == 1 && ::read(ends[0], &answer, 1) == 1 && answer == 'y';
  ::close(ends[0]);
  ::kill(child, SIGKILL);  // a sanitizer's own thread outlives the one that was bound
  (void)test::waitForChild(child);
  return isThrough;
}

TEST_F(FileDefaults, ReadingEntersNoKernel) {
  const auto mine = defaults();
  mine->setObjectForKey(7, "key");
  // Within half a second of a look at the file no other is due. A busy machine may hold a child up for longer, so a few may try.
  bool isThrough = false;
  for (int attempt = 0; attempt < 5 && !isThrough; ++attempt) isThrough = readsWithoutTheKernel(*mine);
  EXPECT_TRUE(isThrough);
}

TEST_F(FileDefaults, ProcessesThatWriteAtTheSameTimeLoseNothing) {
  constexpr int kProcesses = 4;
  constexpr int kKeys = 25;
  std::vector<pid_t> children;
  for (int process = 0; process < kProcesses; ++process) {
    children.push_back(test::startChild([&] {
      const auto mine = defaults();
      for (int key = 0; key < kKeys; ++key) mine->setObjectForKey(key, std::to_string(process) + "." + std::to_string(key));
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(test::waitForChild(child), 0);
  const auto mine = defaults();
  for (int process = 0; process < kProcesses; ++process) {
    for (int key = 0; key < kKeys; ++key) {
      EXPECT_EQ(mine->objectForKey(std::to_string(process) + "." + std::to_string(key)), Value(key)) << process << "." << key;
    }
  }
  EXPECT_EQ(names(), kNamesAfterAWrite);
}

TEST_F(FileDefaults, ThreadsThatReadAndWriteAtTheSameTimeLoseNothing) {
  constexpr int kKeys = 30;
  const auto mine = defaults();
  std::atomic<bool> isDone{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      while (!isDone) {
        const auto value = mine->objectForKey("0.0");
        if (value) {
          EXPECT_EQ(*value, Value("value"));
        }
      }
    });
  }
  std::vector<std::thread> writers;
  for (int writer = 0; writer < 2; ++writer) {
    writers.emplace_back([&, writer] {
      for (int key = 0; key < kKeys; ++key) mine->setObjectForKey("value", std::to_string(writer) + "." + std::to_string(key));
    });
  }
  for (std::thread& writer : writers) writer.join();
  isDone = true;
  for (std::thread& reader : readers) reader.join();
  const auto again = defaults();
  for (int writer = 0; writer < 2; ++writer) {
    for (int key = 0; key < kKeys; ++key) {
      EXPECT_EQ(again->objectForKey(std::to_string(writer) + "." + std::to_string(key)), Value("value"));
    }
  }
}

TEST_F(FileDefaults, WhatWasSetSurvivesAnEndByForce) {
  defaults()->setObjectForKey("kept", "other");
  for (int round = 1; round <= 20; ++round) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t child = test::startChild([&] {
      const auto mine = defaults();
      for (std::int32_t i = 1;; ++i) {
        mine->setObjectForKey(i, "count");
        if (::write(ends[1], &i, sizeof i) != sizeof i) break;
      }
    });
    std::int32_t confirmed = 0;
    for (int i = 0; i < round; ++i) ASSERT_EQ(::read(ends[0], &confirmed, sizeof confirmed), ssize_t{sizeof confirmed});
    ::kill(child, SIGKILL);
    EXPECT_EQ(test::waitForChild(child), 128 + SIGKILL);
    ::close(ends[1]);
    while (::read(ends[0], &confirmed, sizeof confirmed) == ssize_t{sizeof confirmed}) {
    }
    ::close(ends[0]);
    const auto mine = defaults();
    EXPECT_GE(mine->integerForKey("count"), confirmed);
    EXPECT_LE(mine->integerForKey("count"), confirmed + 1);
    EXPECT_EQ(mine->objectForKey("other"), Value("kept"));
  }
  defaults()->setObjectForKey("kept", "other");
  EXPECT_EQ(names(), kNamesAfterAWrite) << "nothing set aside, nothing left lying";
}

// Files that are no defaults files

TEST_F(FileDefaults, ACorruptFileIsSetAsideAndCountsAsEmpty) {
  const std::vector<std::string> corrupt = {"",
                                            "garbage",
                                            "[]",
                                            "{}",
                                            R"({"values":{},"version":2})",
                                            R"({"values":{"a":null},"version":1})",
                                            R"({"values":[],"version":1})",
                                            R"({"values":{"$date":1},"version":1})",
                                            R"({"values":{"a":{"$data":"x"}},"version":1})",
                                            R"({"values":{"a":1},"version":1)"};
  for (std::size_t i = 0; i < corrupt.size(); ++i) {
    put(corrupt[i]);
    const auto mine = defaults();
    EXPECT_EQ(mine->objectForKey("a"), std::nullopt) << corrupt[i];
    EXPECT_EQ(bytes(path()), std::nullopt) << corrupt[i];
    EXPECT_EQ(bytes(path("user-defaults.json.corrupt-" + std::to_string(i + 1))), corrupt[i]);
  }
  const auto mine = defaults();
  mine->setObjectForKey(1, "a");
  EXPECT_EQ(defaults()->objectForKey("a"), Value(1));
}

TEST_F(FileDefaults, AFileThatBecomesCorruptIsSetAsideByTheNextWriter) {
  const auto mine = defaults();
  mine->setObjectForKey(1, "a");
  put("garbage");
  mine->setObjectForKey(2, "b");
  EXPECT_EQ(bytes(path("user-defaults.json.corrupt-1")), "garbage");
  EXPECT_EQ(bytes(path()), R"({"values":{"b":2},"version":1})");
}

TEST_F(FileDefaults, WhatCannotBeSetAsideIsNotDestroyed) {
  EXPECT_EQ(runInChild([&] {
              put("garbage");
              test::becomeNobody(directory_.path());
              if (::geteuid() != 65534) {
                ASSERT_EQ(::chmod((directory_.path() + "/app").c_str(), 0500), 0);
              }
              const auto mine = defaults();
              EXPECT_EQ(mine->objectForKey("a"), std::nullopt);
              mine->setObjectForKey(1, "a");
              EXPECT_EQ(mine->objectForKey("a"), Value(1)) << "lives as long as the process";
            }),
            0);
  EXPECT_EQ(names(), std::vector<std::string>{"user-defaults.json"});
  EXPECT_EQ(bytes(path()), "garbage");
}

TEST_F(FileDefaults, AnUnreadableFileIsNotReplaced) {
  const std::string content = R"({"values":{"a":1},"version":1})";
  put(content);
  EXPECT_EQ(runInChild([&] {
              ASSERT_EQ(::chmod(path().c_str(), 0), 0);
              test::becomeNobody(directory_.path() + "/app");
              const auto mine = defaults();
              EXPECT_EQ(mine->objectForKey("a"), std::nullopt);
              mine->setObjectForKey(2, "b");
              EXPECT_EQ(mine->objectForKey("b"), Value(2));
            }),
            0);
  std::filesystem::permissions(path(), std::filesystem::perms::owner_read);
  EXPECT_EQ(bytes(path()), content);
}

// Failing to write

TEST_F(FileDefaults, AChangeThatCannotBeWrittenLivesInTheProcessAndIsTriedAgain) {
  std::ofstream(directory_.path() + "/app") << "in the way";
  const auto mine = defaults();
  mine->setObjectForKey(1, "a");
  mine->setObjectForKey(2, "b");
  mine->removeObjectForKey("b");
  EXPECT_EQ(mine->objectForKey("a"), Value(1));
  EXPECT_EQ(mine->objectForKey("b"), std::nullopt);
  std::filesystem::remove(directory_.path() + "/app");
  put(R"({"values":{"b":3,"c":4},"version":1})");
  mine->synchronize();
  EXPECT_EQ(bytes(path()), R"({"values":{"a":1,"c":4},"version":1})");
  EXPECT_EQ(mine->objectForKey("c"), Value(4));
}

TEST_F(FileDefaults, AChangeThatIsNotWrittenLiesOverWhatOthersWrite) {
  const platform::CoarseClock clock = [] { return handClock.load(); };
  std::ofstream(directory_.path() + "/app") << "in the way";
  const auto mine = defaults(clock);
  mine->setObjectForKey(1, "a");
  std::filesystem::remove(directory_.path() + "/app");
  defaults()->setObjectForKey(5, "b");
  handClock += 500;
  EXPECT_EQ(mine->objectForKey("a"), Value(1));
  EXPECT_EQ(mine->objectForKey("b"), Value(5));
}

TEST_F(FileDefaults, WithoutAPlaceValuesLiveInTheProcess) {
  const auto mine = defaultsBelow("relative");
  mine->setObjectForKey(1, "a");
  EXPECT_EQ(mine->objectForKey("a"), Value(1));
  mine->synchronize();
  EXPECT_EQ(mine->objectForKey("a"), Value(1));
  EXPECT_FALSE(std::filesystem::exists("relative"));
}

TEST_F(FileDefaults, AFullVolumeLeavesTheFileAndNothingElse) {
  defaults()->setObjectForKey("old", "key");
  const auto before = bytes(path());
  EXPECT_EQ(runInChild([&] {
              std::signal(SIGXFSZ, SIG_IGN);
              const rlimit limit{100, 100};
              ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
              const auto mine = defaults();
              mine->setObjectForKey(std::string(200, 'x'), "key");
              EXPECT_EQ(mine->objectForKey("key"), Value(std::string(200, 'x')));
            }),
            0);
  EXPECT_EQ(bytes(path()), before);
  EXPECT_EQ(names(), kNamesAfterAWrite);
}

// Single calls, watched and made to fail

class FileDefaultsTraced : public FileDefaults {
 protected:
  void SetUp() override {
    if (!test::canTrace()) GTEST_SKIP() << "needs strace and the right to trace";
    defaults()->setObjectForKey("old", "key");
    defaults()->setObjectForKey("kept", "other");
  }
};

TEST_F(FileDefaultsTraced, TheFileIsReplacedUnderTheLockAndSynchronised) {
  const test::TracedRun run = traced({"-y", "-e", "trace=flock,fsync,rename"});
  EXPECT_EQ(run.output, "new");
  ASSERT_EQ(run.calls.size(), 4u);
  EXPECT_EQ(run.calls[0].substr(run.calls[0].find('<')), "<" + path("user-defaults.lock") + ">, LOCK_EX) = 0");
  EXPECT_EQ(run.calls[1].substr(run.calls[1].find('<')), "<" + path("user-defaults.json.new") + ">) = 0");
  EXPECT_EQ(run.calls[2], "rename(\"" + path("user-defaults.json.new") + "\", \"" + path() + "\") = 0");
  EXPECT_EQ(run.calls[3].substr(run.calls[3].find('<')), "<" + directory_.path() + "/app>) = 0");
}

// The Nth use of each call, for every N until there is none left.
TEST_F(FileDefaultsTraced, AnEndByForceAtAnyCallLeavesTheOldFileOrTheNew) {
  for (const std::string call : {"openat", "flock", "unlink", "write", "fsync", "rename", "close"}) {
    int kills = 0;
    for (bool isOver = false; !isOver; ++kills) {
      ASSERT_LT(kills, 200) << call;
      defaults()->setObjectForKey("old", "key");
      const std::string nth = std::to_string(kills + 1);
      const test::TracedRun run = traced({"-e", "trace=" + call, "-e", "inject=" + call + ":signal=KILL:when=" + nth});
      isOver = run.status == 0;
      EXPECT_TRUE(isOver || run.status == 128 + SIGKILL) << call << " " << nth << ": " << run.status;
      const auto value = defaults()->objectForKey("key");
      EXPECT_TRUE(value == Value("old") || value == Value("new")) << call << " " << nth;
      EXPECT_EQ(defaults()->objectForKey("other"), Value("kept")) << call << " " << nth;
      EXPECT_EQ(bytes(path("user-defaults.json.corrupt-1")), std::nullopt) << call << " " << nth;
    }
    EXPECT_GT(kills, call == "write" || call == "fsync" ? 2 : 1) << call;
  }
}

TEST_F(FileDefaultsTraced, AnErrorOfAnyCallLeavesTheOldFileOrTheNewAndTheValueInTheProcess) {
  const std::pair<std::string, const char*> failures[] = {{"flock:error=ENOLCK", "old"},       {"write:error=ENOSPC:when=1", "old"},
                                                          {"fsync:error=EIO:when=1", "old"},   {"rename:error=EIO", "old"},
                                                          {"fsync:error=EIO:when=2", "new"},   {"unlink:error=EIO:when=1", "new"},
                                                          {"flock:error=EINTR:when=1", "new"}, {"write:error=EINTR:when=1", "new"}};
  for (const auto& [failure, left] : failures) {
    defaults()->setObjectForKey("old", "key");
    std::vector<std::string> options = {"-e", "trace=" + failure.substr(0, failure.find(':')), "-e", "inject=" + failure};
    if (failure.starts_with("write")) options.insert(options.end(), {"-P", path("user-defaults.json.new")});
    const test::TracedRun run = traced(options);
    EXPECT_EQ(run.output, "new") << failure;
    EXPECT_EQ(defaults()->objectForKey("key"), Value(left)) << failure;
    EXPECT_EQ(names(), kNamesAfterAWrite) << failure;
  }
}

}  // namespace
