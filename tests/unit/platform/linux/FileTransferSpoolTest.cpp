// The spool on the disk: how a task becomes durable, what happens when it cannot, and numbers that no two tasks share.
#include "platform/linux/FileTransferSpool.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/GetrandomSecureRandom.h"
#include "platform/linux/TransferDirectory.h"
#include "support/ChildProcess.h"
#include "support/Files.h"
#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"
#include "support/TestProcess.h"
#include "support/TransferSamples.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using platform::FileTransferSpool;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr const char* kRootVariable = "KESTROVA_SPOOL_TEST_ROOT";

unsigned modeOf(const fs::path& path) {
  struct stat status{};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777U;
}

std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
  std::ranges::sort(names);
  return names;
}

class FileTransferSpoolTest : public testing::Test {
 protected:
  // A child of a traced test works in its parent's folder.
  std::string root() const {
    const char* given = std::getenv(kRootVariable);
    return given ? given : folder_.path();
  }
  std::string transfers() const { return root() + "/transfers"; }
  std::string spoolFolder() const { return transfers() + "/spool"; }
  std::string home() const { return root() + "/home"; }
  std::string application() const { return home() + "/com.example.app"; }

  FileTransferSpool makeSpool(std::optional<std::string> directory) const {
    platform::SystemOptions options;
    options.bundleIdentifier = "com.example.app";
    options.homeDirectory = home();
    const auto random = std::make_shared<platform::GetrandomSecureRandom>();
    return {std::move(directory), std::make_shared<platform::TransferIdentity>(options, random), {"/bin/app", "--events"}, random};
  }
  FileTransferSpool makeSpool() const { return makeSpool(transfers()); }

  /// Reserves a number and writes a task of it; "written", or why not.
  static std::string writeWith(FileTransferSpool& spool) {
    const auto number = spool.reserveTaskIdentifier();
    if (!number) return number.error().localizedDescription();
    const auto written = spool.write(entryFor("session-1", *number));
    return written ? "written" : written.error().localizedDescription();
  }
  std::string write() const {
    FileTransferSpool spool = makeSpool();
    return writeWith(spool);
  }

  TestProcess process_;
  TemporaryDirectory folder_;
};

TEST_F(FileTransferSpoolTest, ATaskLiesThereWholeUnderARandomNameOfItsOwnersAlone) {
  ASSERT_EQ(write(), "written");
  const auto names = namesIn(spoolFolder());
  ASSERT_THAT(names, SizeIs(1)) << "no unfinished name is left";
  EXPECT_THAT(names.front(), MatchesRegex("[0-9a-f]{32}\\.task"));
  const fs::path path = fs::path(spoolFolder()) / names.front();
  EXPECT_EQ(modeOf(path), 0600U);
  EXPECT_EQ(modeOf(spoolFolder()), 0700U);
  EXPECT_EQ(modeOf(transfers()), 0700U);
  const auto entry = transfer::decodeSpoolEntry(contentOf(path));
  ASSERT_TRUE(entry) << entry.error();
  transfer::SpoolEntry expected = entryFor("session-1", 1);
  expected.application = {"com.example.app", application(), contentOf(application() + "/transfer-token")};
  expected.launchCommand = {"/bin/app", "--events"};
  EXPECT_EQ(*entry, expected);
}

TEST_F(FileTransferSpoolTest, EachTaskHasAFileOfItsOwn) {
  FileTransferSpool spool = makeSpool();
  for (int i = 0; i < 20; ++i) ASSERT_EQ(writeWith(spool), "written");
  EXPECT_THAT(namesIn(spoolFolder()), SizeIs(20));
}

TEST_F(FileTransferSpoolTest, TheUsersMaskDoesNotOpenItToOthers) {
  EXPECT_EQ(runInChild([&] {
              ::umask(0);
              EXPECT_EQ(write(), "written");
            }),
            0);
  ASSERT_THAT(namesIn(spoolFolder()), SizeIs(1));
  EXPECT_EQ(modeOf(fs::path(spoolFolder()) / namesIn(spoolFolder()).front()), 0600U);
  EXPECT_EQ(modeOf(application() + "/transfer-tasks"), 0600U);
}

// Failures.

TEST_F(FileTransferSpoolTest, WithoutAHomeThereIsNoPlaceForATask) {
  FileTransferSpool spool = makeSpool(std::nullopt);
  ASSERT_TRUE(spool.reserveTaskIdentifier());
  const auto written = spool.write(entryFor("session-1"));
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().domain(), platform::kCocoaErrorDomain);
  EXPECT_EQ(written.error().code(), platform::kFileNoSuchFile);
}

TEST_F(FileTransferSpoolTest, AFolderThatOthersCanWriteToIsRefused) {
  fs::create_directory(transfers());
  fs::permissions(transfers(), fs::perms::all);
  EXPECT_EQ(write(), "The folder “" + transfers() + "” cannot be used: other users can write to it.");
  EXPECT_THAT(namesIn(transfers()), IsEmpty());
}

TEST_F(FileTransferSpoolTest, AFolderThatIsAFileIsRefused) {
  std::ofstream(transfers()) << "a file";
  EXPECT_EQ(write(), "The folder “" + transfers() + "” cannot be used: Not a directory.");
}

TEST_F(FileTransferSpoolTest, AFolderInAPlaceThatCannotBeWrittenFails) {
  if (::geteuid() != 0) GTEST_SKIP() << "gives its folder to another user";
  fs::create_directory(home());
  EXPECT_EQ(runInChild([&] {
              fs::permissions(root(), fs::perms::others_exec, fs::perm_options::add);
              becomeNobody(home());
              EXPECT_EQ(write(), "The folder “" + transfers() + "” cannot be used: Permission denied.");
            }),
            0);
  EXPECT_FALSE(fs::exists(transfers()));
}

TEST_F(FileTransferSpoolTest, ADamagedTokenWritesNothing) {
  ASSERT_EQ(write(), "written");
  std::ofstream(application() + "/transfer-token") << "no token";
  EXPECT_EQ(write(), "The file “transfer-token” couldn’t be opened.");
  EXPECT_THAT(namesIn(spoolFolder()), SizeIs(1)) << "the first one";
}

// The service would set it aside, or upload another file, and the application would wait for ever.
TEST_F(FileTransferSpoolTest, ATaskThatTheServiceWouldNotTakeAsItIsFailsAtOnce) {
  FileTransferSpool spool = makeSpool();
  const auto failureOf = [&spool](auto change) {
    transfer::SpoolEntry entry = entryFor("session-1");
    change(entry);
    const auto written = spool.write(entry);
    return written ? "written" : written.error().localizedDescription();
  };
  const std::string start = "The upload couldn’t be handed to the transfer service: ";
  ASSERT_EQ(writeWith(spool), "written");
  EXPECT_EQ(failureOf([](auto& entry) { entry.session.clear(); }), start + "“session” is empty.");
  EXPECT_EQ(failureOf([](auto& entry) { entry.url.append(transfer::kMaxURLBytes, 'x'); }),
            start + "“url” is longer than 16384 bytes.");
  EXPECT_EQ(failureOf([](auto& entry) { entry.method = "PO ST"; }), start + "“method” is no name of a method.");
  EXPECT_EQ(failureOf([](auto& entry) { entry.file = "/home/gr\xFC\xDF"; }), start + "a text is not UTF-8.");
  EXPECT_THAT(namesIn(spoolFolder()), SizeIs(1)) << "the first one";
}

TEST_F(FileTransferSpoolTest, AnApplicationWithoutAnIdentifierHandsNothingOver) {
  platform::SystemOptions options;
  options.homeDirectory = home();
  const auto random = std::make_shared<platform::GetrandomSecureRandom>();
  FileTransferSpool spool(transfers(), std::make_shared<platform::TransferIdentity>(options, random), {}, random);
  EXPECT_EQ(writeWith(spool), "The upload couldn’t be handed to the transfer service: “identifier” is empty.");
  EXPECT_THAT(namesIn(spoolFolder()), IsEmpty());
}

TEST_F(FileTransferSpoolTest, AFullDiskIsAnErrorAndLeavesNothing) {
  if (::geteuid() != 0) GTEST_SKIP() << "mounts a small volume";
  const int status = runInChild([&] {
    fs::create_directory(transfers());
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(::mount("tmpfs", transfers().c_str(), "tmpfs", 0, "size=64k,mode=0700"), 0);
    ASSERT_EQ(write(), "written");
    std::ofstream(transfers() + "/filler") << std::string(1'000'000, 'x');
    EXPECT_THAT(write(),
                MatchesRegex("The file “\\.[0-9a-f]{32}” couldn’t be saved in the folder “spool” because the volume is out "
                             "of space\\."));
    EXPECT_THAT(namesIn(spoolFolder()), SizeIs(1)) << "the first one";
    fs::remove(transfers() + "/filler");
    EXPECT_EQ(write(), "written");
  });
  EXPECT_EQ(status, 0);
}

// What reaches the disk, and in which order. The test runs its second half once more under a tracer.
class FileTransferSpoolTraced : public FileTransferSpoolTest {
 protected:
  void SetUp() override {
    // A process that is traced cannot trace in turn.
    if (!isChild() && !canTrace()) GTEST_SKIP() << "needs strace and the right to trace";
  }
  TracedRun trace(std::vector<std::string> options) const {
    const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
    options.insert(options.begin(), {"-y", "-P", spoolFolder(), "-P", application() + "/transfer-tasks"});
    return runSelfTraced(options, {{"GTEST_FILTER", std::string(test->test_suite_name()) + "." + test->name()},
                                   {"KESTROVA_TEST_CHILD", "1"},
                                   {kRootVariable, folder_.path()}});
  }
};

TEST_F(FileTransferSpoolTraced, TheNumberAndTheBytesAreOnTheDiskBeforeTheNameAndTheFolderAfter) {
  if (isChild()) {
    EXPECT_EQ(write(), "written");
    return;
  }
  ASSERT_EQ(write(), "written");  // the folders are there
  const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
  TracedRun run = runSelfTraced({"-y", "-e", "trace=fsync,rename"},
                                {{"GTEST_FILTER", std::string(test->test_suite_name()) + "." + test->name()},
                                 {"KESTROVA_TEST_CHILD", "1"},
                                 {kRootVariable, folder_.path()}});
  EXPECT_EQ(run.status, 0) << run.output;
  for (std::string& call : run.calls) {
    call = std::regex_replace(call, std::regex("^fsync\\([0-9]+"), "fsync(");
    call = std::regex_replace(call, std::regex("[0-9a-f]{32}"), "NAME");
  }
  EXPECT_THAT(run.calls,
              ElementsAre("fsync(<" + application() + "/transfer-tasks>) = 0", "fsync(<" + spoolFolder() + "/.NAME>) = 0",
                          "rename(\"" + spoolFolder() + "/.NAME\", \"" + spoolFolder() + "/NAME.task\") = 0",
                          "fsync(<" + spoolFolder() + ">) = 0"));
}

TEST_F(FileTransferSpoolTraced, AFolderThatCannotBeSyncedGivesTheTaskBack) {
  if (isChild()) {
    EXPECT_EQ(write(), "The file “spool” couldn’t be saved in the folder “transfers”.");
    return;
  }
  ASSERT_EQ(write(), "written");
  const auto before = namesIn(spoolFolder());
  const TracedRun run = trace({"-e", "trace=fsync", "-e", "inject=fsync:error=EIO:when=2"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(namesIn(spoolFolder()), before);
}

TEST_F(FileTransferSpoolTraced, ANumberThatCannotBeSyncedWritesNoTask) {
  if (isChild()) {
    EXPECT_EQ(write(), "The file “transfer-tasks” couldn’t be saved in the folder “com.example.app”.");
    return;
  }
  ASSERT_EQ(write(), "written");
  const auto before = namesIn(spoolFolder());
  const TracedRun run = trace({"-e", "trace=fsync", "-e", "inject=fsync:error=EIO:when=1"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(namesIn(spoolFolder()), before);
}

// Numbers.

TEST_F(FileTransferSpoolTest, B7_NumbersBeginAtOneAndGoOnInTheNextLife) {
  for (const std::uint64_t expected : {1U, 2U, 3U}) EXPECT_EQ(makeSpool().reserveTaskIdentifier(), expected);
  EXPECT_EQ(contentOf(application() + "/transfer-tasks"), "00000000000000000003");
  EXPECT_FALSE(fs::exists(transfers())) << "a number needs no spool";
}

TEST_F(FileTransferSpoolTest, B7_NoNumberIsGivenTwiceToThreadsAndProcesses) {
  constexpr int kWorkers = 4;
  constexpr std::uint64_t kEach = 100;
  std::vector<std::vector<std::uint64_t>> taken(kWorkers);
  std::vector<pid_t> children;
  for (int i = 0; i < kWorkers; ++i) {
    children.push_back(startChild([&, i] {
      std::ofstream file(folder_.path() + "/numbers-" + std::to_string(i));
      FileTransferSpool spool = makeSpool();
      for (std::uint64_t n = 0; n < kEach; ++n) file << spool.reserveTaskIdentifier().value_or(0) << "\n";
    }));
  }
  std::vector<std::thread> threads;
  FileTransferSpool shared = makeSpool();
  for (auto& numbers : taken)
    threads.emplace_back([&] {
      for (std::uint64_t n = 0; n < kEach; ++n) numbers.push_back(shared.reserveTaskIdentifier().value_or(0));
    });
  for (std::thread& thread : threads) thread.join();
  std::vector<std::uint64_t> all;
  for (const auto& numbers : taken) all.insert(all.end(), numbers.begin(), numbers.end());
  for (int i = 0; i < kWorkers; ++i) {
    EXPECT_EQ(waitForChild(children[static_cast<std::size_t>(i)]), 0);
    std::ifstream file(folder_.path() + "/numbers-" + std::to_string(i));
    all.insert(all.end(), std::istream_iterator<std::uint64_t>(file), {});
  }
  std::ranges::sort(all);
  ASSERT_THAT(all, SizeIs(2 * kWorkers * kEach));
  for (std::size_t i = 0; i < all.size(); ++i) ASSERT_EQ(all[i], i + 1);
}

TEST_F(FileTransferSpoolTest, ADamagedCounterGivesNoNumberAndStaysAsItIs) {
  ASSERT_TRUE(makeSpool().reserveTaskIdentifier());
  for (const std::string damaged :
       {"7", "not a number at all.", "0000000000000000000x", "000000000000000000017", "99999999999999999999",
        "                   1", "-0000000000000000001", "18446744073709551615"}) {
    std::ofstream(application() + "/transfer-tasks") << damaged;
    const auto number = makeSpool().reserveTaskIdentifier();
    ASSERT_FALSE(number) << damaged << " gave " << *number;
    EXPECT_EQ(number.error().localizedDescription(),
              "The file “transfer-tasks” couldn’t be saved in the folder “com.example.app”.");
    EXPECT_EQ(contentOf(application() + "/transfer-tasks"), damaged);
  }
}

TEST_F(FileTransferSpoolTest, ACounterThatIsALinkGivesNoNumber) {
  fs::create_directories(application());
  std::ofstream(root() + "/elsewhere") << "00000000000000000007";
  fs::create_symlink(root() + "/elsewhere", application() + "/transfer-tasks");
  EXPECT_FALSE(makeSpool().reserveTaskIdentifier());
  EXPECT_EQ(contentOf(root() + "/elsewhere"), "00000000000000000007");
}

// What lies there from before.

TEST_F(FileTransferSpoolTest, ALookForInterruptedTransfersMakesNoFolder) {
  EXPECT_FALSE(makeSpool().hasInterruptedTransfers());
  EXPECT_FALSE(makeSpool(std::nullopt).hasInterruptedTransfers());
  EXPECT_FALSE(fs::exists(transfers()));
}

TEST_F(FileTransferSpoolTest, OnlyAWholeTaskIsOneThatWaits) {
  fs::create_directories(spoolFolder());
  fs::create_directories(spoolFolder() + "/refused");
  for (const char* name : {"/.0123.task", "/0123", "/refused/0123.task"}) std::ofstream(spoolFolder() + name) << "{}";
  EXPECT_FALSE(makeSpool().hasInterruptedTransfers());
  ASSERT_EQ(write(), "written");
  EXPECT_TRUE(makeSpool().hasInterruptedTransfers());
}

TEST_F(FileTransferSpoolTest, ASocketThatNobodyListensAtTellsOfASuddenEnd) {
  const auto directory = platform::TransferDirectory::open(transfers());
  ASSERT_TRUE(directory);
  const sockaddr_un address = directory->socketAddress();
  {
    const platform::FileDescriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener.get(), 4), 0);
    EXPECT_FALSE(makeSpool().hasInterruptedTransfers()) << "somebody is there";
  }
  EXPECT_TRUE(makeSpool().hasInterruptedTransfers());
  fs::remove(directory->socket());
  std::ofstream(directory->socket()) << "no socket";
  EXPECT_FALSE(makeSpool().hasInterruptedTransfers());
}

}  // namespace
}  // namespace test
