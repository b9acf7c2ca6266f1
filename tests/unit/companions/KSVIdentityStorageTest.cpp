// The device identifier: kept across launches, one for processes that start at once, and never a failure.
#include "companions/KSVIdentityStorage.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <barrier>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

#include "CompanionsTest.h"
#include "platform/linux/PosixFileManager.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

using platform::Data;
using platform::UUID;

class IdentityTest : public CompanionsTest {
 protected:
  std::string path() { return files->applicationSupportDirectory()->path() + "/device-identifier"; }
  static UUID ask() { return KSVIdentityStorage().identifier(); }
  void expectOnlyTheFile() { EXPECT_EQ(files->allFiles(), std::vector<std::string>{path()}); }
};

TEST_F(IdentityTest, TheFirstLaunchMakesAFileWithARandomIdentifier) {
  const UUID identifier = ask();
  const std::string text = identifier.UUIDString();
  EXPECT_EQ(text[14], '4');  // version 4: random
  EXPECT_EQ(files->bytesAtPath(path()), text + "\n");
  expectOnlyTheFile();
}

TEST_F(IdentityTest, LaterLaunchesReadIt) {
  const UUID identifier = ask();
  EXPECT_EQ(ask(), identifier);
  plan->clearCalls();
  EXPECT_EQ(ask(), identifier);
  EXPECT_EQ(plan->callNames({"File"}),
            (std::vector<std::string>{"FileManager.applicationSupportDirectory", "FileManager.contentsOfURL"}));
}

TEST_F(IdentityTest, TheBytesAreOnTheDiskBeforeTheNameIsGiven) {
  plan->clearCalls();
  ask();
  const std::vector<std::string> calls = plan->callNames({"FileManager.linkItem", "FileHandle."});
  EXPECT_EQ(calls, (std::vector<std::string>{"FileHandle.synchronizeFile", "FileHandle.closeFile", "FileManager.linkItem"}));
}

TEST_F(IdentityTest, AFileOfAnotherMakerIsReadInEitherCaseAndWithoutLineFeed) {
  for (const char* text : {"3f2504e0-4f89-41d3-9a0c-0305e82c3301", "3F2504E0-4F89-41D3-9A0C-0305E82C3301\n"}) {
    files->setBytesAtPath(path(), text);
    EXPECT_EQ(ask().UUIDString(), "3F2504E0-4F89-41D3-9A0C-0305E82C3301");
    EXPECT_EQ(files->bytesAtPath(path()), text);
  }
}

TEST_F(IdentityTest, AnInvalidFileIsReplaced) {
  for (const std::string_view text : {"", "\n", "3F2504E0-4F89-41D3-9A0C-0305E82C330", "3F2504E0-4F89-41D3-9A0C-0305E82C3301\n\n",
                                      "{3F2504E0-4F89-41D3-9A0C-0305E82C3301}", "no identifier"}) {
    files->setBytesAtPath(path(), text);
    plan->clearCalls();
    const UUID identifier = ask();
    EXPECT_EQ(files->bytesAtPath(path()), identifier.UUIDString() + "\n") << text;
    EXPECT_EQ(plan->count("FileManager.replaceItem"), 1u);
    EXPECT_EQ(ask(), identifier);
    expectOnlyTheFile();
  }
}

TEST_F(IdentityTest, WhatCannotBeReadIsLeftAlone) {
  files->setBytesAtPath(path(), "3F2504E0-4F89-41D3-9A0C-0305E82C3301\n");
  plan->fail("FileManager.contentsOfURL", nth(1), platform::Error(platform::kCocoaErrorDomain, platform::kFileReadNoPermission));
  EXPECT_NE(ask().UUIDString(), "3F2504E0-4F89-41D3-9A0C-0305E82C3301");
  EXPECT_EQ(ask().UUIDString(), "3F2504E0-4F89-41D3-9A0C-0305E82C3301");
  expectOnlyTheFile();
}

TEST_F(IdentityTest, AnotherProcessThatIsFasterWins) {
  plan->before("FileManager.linkItem", nth(1), [this] { files->setBytesAtPath(path(), "3F2504E0-4F89-41D3-9A0C-0305E82C3301\n"); });
  EXPECT_EQ(ask().UUIDString(), "3F2504E0-4F89-41D3-9A0C-0305E82C3301");
  expectOnlyTheFile();
}

TEST_F(IdentityTest, WhereNothingCanBeKeptEachAskingMakesANewOne) {
  for (const char* operation : {"FileManager.applicationSupportDirectory", "FileManager.temporaryDirectory",
                                "FileManager.writeDataWithoutOverwriting", "FileManager.openForWriting", "FileManager.linkItem"}) {
    plan->fail(operation, everyCall(), someError());
    EXPECT_NE(ask(), ask()) << operation;
    plan->clear();
    EXPECT_EQ(files->allFiles(), std::vector<std::string>{}) << operation;
  }
  plan->raise("FileHandle.synchronizeFile", everyCall(), someException());
  EXPECT_NE(ask(), ask());
  plan->clear();
  EXPECT_EQ(files->allFiles(), std::vector<std::string>{});

  files->setBytesAtPath(path(), "invalid");
  plan->fail("FileManager.replaceItem", everyCall(), someError());
  EXPECT_NE(ask(), ask());
  EXPECT_EQ(files->bytesAtPath(path()), "invalid");
  expectOnlyTheFile();
}

TEST_F(IdentityTest, WhicheverCallGoesWrongTheAnswerIsAnIdentifierAndTheFileIsWhole) {
  for (const bool startsInvalid : {false, true}) {
    for (std::uint64_t k = 1;; ++k) {
      (void)files->removeItemAtPath(path());
      if (startsInvalid) files->setBytesAtPath(path(), "invalid");
      plan->clear();
      plan->breakCall(k);
      const UUID identifier = ask();
      const bool isOver = !plan->brokenCall();
      plan->clear();
      EXPECT_EQ(identifier.UUIDString().size(), 36u);
      const std::optional<std::string> bytes = files->bytesAtPath(path());
      if (bytes && bytes != "invalid") {
        EXPECT_EQ(bytes, ask().UUIDString() + "\n");
      }
      if (isOver) {
        EXPECT_EQ(bytes, identifier.UUIDString() + "\n");
        EXPECT_GT(k, 5u);
        break;
      }
    }
  }
}

TEST_F(IdentityTest, APowerCutLeavesAWholeFileOrNone) {
  ask();
  files->powerCut();
  const std::optional<std::string> bytes = files->bytesAtPath(path());
  if (bytes) {
    EXPECT_EQ(*bytes, ask().UUIDString() + "\n");
  }
  const UUID identifier = ask();
  EXPECT_EQ(ask(), identifier);
}

// --- Real files.

/// A process record of its own over the files below one folder.
class RealProcess {
 public:
  explicit RealProcess(const std::string& home) {
    platform::SystemOptions options;
    options.bundleIdentifier = "com.example.app";
    options.homeDirectory = home;
    record.secureRandom = std::make_shared<platform::GetrandomSecureRandom>();
    record.fileManager = platform::makePosixFileManager(options);
  }
  platform::Process record;
};

std::vector<std::filesystem::path> allFilesBelow(const std::string& folder) {
  std::vector<std::filesystem::path> found;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
    if (!entry.is_directory()) found.push_back(entry.path());
  return found;
}

void expectOneFileWith(const TemporaryDirectory& home, const std::string& identifier) {
  const auto files = allFilesBelow(home.path());
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0].filename(), "device-identifier");
  std::ifstream stream(files[0], std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stream), {}), identifier + "\n");
  struct stat status{};
  ASSERT_EQ(stat(files[0].c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

std::string askIn(const std::string& home) {
  RealProcess process(home);
  const platform::Process::Scope scope(process.record);
  return KSVIdentityStorage().identifier().UUIDString();
}

TEST(IdentityOnDisk, IsKeptAcrossLaunches) {
  const TemporaryDirectory home;
  const std::string identifier = askIn(home.path());
  EXPECT_EQ(askIn(home.path()), identifier);
  expectOneFileWith(home, identifier);
}

// A child process that waits at the starting line, asks, and sends its answer.
class Child {
 public:
  Child(const std::string& home, const std::array<int, 2>& start) {
    std::array<int, 2> answer{};
    if (pipe2(answer.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    process_ = fork();
    if (process_ == 0) {
      close(start[1]);
      char nothing;
      (void)!read(start[0], &nothing, 1);  // ends when the parent lets go of its end
      const std::string identifier = askIn(home);
      _exit(write(answer[1], identifier.data(), identifier.size()) == 36 ? 0 : 1);
    }
    close(answer[1]);
    answer_ = answer[0];
  }
  ~Child() {
    close(answer_);
    int status = 0;
    EXPECT_EQ(waitpid(process_, &status, 0), process_);
    EXPECT_EQ(status, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  std::string answer() const {
    pollfd readable{answer_, POLLIN, 0};
    if (poll(&readable, 1, 20'000) != 1) {
      kill(process_, SIGKILL);
      return "no answer in time";
    }
    std::array<char, 64> buffer;
    const ssize_t length = read(answer_, buffer.data(), buffer.size());
    return {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
  }

 private:
  pid_t process_ = -1;
  int answer_ = -1;
};

TEST(IdentityOnDisk, ProcessesThatStartAtOnceGetTheSame) {
  for (int round = 0; round < 15; ++round) {
    const TemporaryDirectory home;
    std::array<int, 2> start{};
    ASSERT_EQ(pipe2(start.data(), O_CLOEXEC), 0);
    std::vector<std::unique_ptr<Child>> children;
    for (int child = 0; child < 4; ++child) children.push_back(std::make_unique<Child>(home.path(), start));
    close(start[0]);
    close(start[1]);
    std::set<std::string> answers;
    for (const auto& child : children) answers.insert(child->answer());
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_TRUE(UUID::fromString(*answers.begin()));
    children.clear();
    expectOneFileWith(home, *answers.begin());
  }
}

TEST(IdentityOnDisk, ThreadsThatAskAtOnceGetTheSame) {
  for (int round = 0; round < 20; ++round) {
    const TemporaryDirectory home;
    RealProcess process(home.path());
    const platform::Process::Scope scope(process.record);
    constexpr int kThreads = 4;
    std::barrier start(kThreads);
    std::array<std::string, kThreads> answers;
    std::vector<std::thread> threads;
    for (std::string& answer : answers)
      threads.emplace_back([&start, &answer] {
        start.arrive_and_wait();
        answer = KSVIdentityStorage().identifier().UUIDString();
      });
    for (std::thread& thread : threads) thread.join();
    for (const std::string& answer : answers) EXPECT_EQ(answer, answers[0]);
    expectOneFileWith(home, answers[0]);
  }
}

}  // namespace
}  // namespace test
