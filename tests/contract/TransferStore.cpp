// What every transfer store keeps: one suite over the one on the disk and over its twin in memory, and what only a disk can show.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/Process.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/ForkedChild.h"
#include "support/MemoryTransferStore.h"
#include "support/RecordingSystemLog.h"
#include "support/TemporaryDirectory.h"
#include "support/TransferSamples.h"
#include "transfer/linux/SQLiteStore.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using transfer::Contents;
using transfer::SpoolEntry;
using transfer::Store;

class StoreTest : public testing::Test {
 protected:
  StoreTest() {
    process_.json = platform::makeRapidJSONSerialization();
    process_.systemLog = log_;
    scope_.emplace(process_);
  }

  std::string path() const { return directory_.path() + "/store.sqlite"; }
  std::unique_ptr<Store> openOnDisk(transfer::SQLiteStoreOptions options = {}) const {
    auto store = transfer::SQLiteStore::open(path(), options);
    if (!store) throw std::runtime_error(store.error().localizedDescription());
    return *std::move(store);
  }

  test::TemporaryDirectory directory_;
  std::shared_ptr<test::RecordingSystemLog> log_ = std::make_shared<test::RecordingSystemLog>();
  platform::Process process_;
  std::optional<platform::Process::Scope> scope_;
};

template <class T>
T valueOf(Store::Result<T> result) {
  if (!result) throw std::runtime_error(result.error().localizedDescription());
  return *std::move(result);
}

Contents loaded(Store& store) { return valueOf(store.load()); }

/// Everything in the store as one text, so that two states can be compared.
std::string textOf(const Contents& contents) {
  std::string text;
  for (const auto& each : contents.applications) {
    text += "application " + std::to_string(each.id) + " " + each.identity.identifier + " " + each.identity.folder + " " +
            each.identity.token + " " + std::to_string(each.failedLaunches) + " " + std::to_string(each.nextLaunchAt);
    for (const std::string& argument : each.launchCommand) text += " [" + argument + "]";
    text += "\n";
  }
  for (const auto& each : contents.sessions)
    text += "session " + std::to_string(each.id) + " " + std::to_string(each.application) + " " + each.identifier +
            (each.isInvalidated ? " invalidated\n" : "\n");
  for (const auto& each : contents.tasks)
    text += "task " + std::to_string(each.id) + " " + std::to_string(each.session) + " " + each.spoolName +
            (each.hasLeftSpool ? " left " : " ") + encode(each.entry) +
            encode(transfer::TaskEvent{.session = "s", .event = 0, .task = each.status});
  for (const auto& each : contents.events)
    text += "event " + std::to_string(each.session) + " " +
            encode(transfer::TaskEvent{.session = "s", .event = each.sequence, .task = each.task});
  return text;
}

enum class Kind { kSQLite, kMemory };

class TransferStore : public StoreTest, public testing::WithParamInterface<Kind> {
 protected:
  // What a service that starts now would find.
  std::unique_ptr<Store> open() {
    if (GetParam() == Kind::kMemory) return std::make_unique<test::MemoryTransferStore>(disk_);
    return openOnDisk();
  }
  void reopen() {
    store_.reset();
    store_ = open();
  }
  transfer::ApplicationId addApplication(const std::string& name = "app") {
    return valueOf(store_->saveApplication(test::applicationNamed(name), {"/usr/bin/" + name, "an argument"}));
  }
  std::pair<transfer::SessionId, transfer::TaskId> addTask(transfer::ApplicationId application, const SpoolEntry& entry) {
    const std::string spoolName = entry.session + "-" + std::to_string(entry.task) + "-" + std::to_string(application) + ".task";
    return valueOf(store_->addTask(application, entry, spoolName, test::statusFor(entry)));
  }
  void expectRefused(const Store::Result<>& result, const std::string& before) {
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().domain(), platform::kCocoaErrorDomain);
    EXPECT_EQ(result.error().code(), platform::kFileWriteUnknown);
    EXPECT_EQ(textOf(loaded(*store_)), before);
  }

  std::shared_ptr<test::MemoryTransferStore::Disk> disk_ = std::make_shared<test::MemoryTransferStore::Disk>();
  std::unique_ptr<Store> store_ = open();
};

INSTANTIATE_TEST_SUITE_P(Stores, TransferStore, testing::Values(Kind::kSQLite, Kind::kMemory),
                         [](const auto& kind) { return kind.param == Kind::kSQLite ? "SQLite" : "Memory"; });

TEST_P(TransferStore, isEmptyAtFirst) { EXPECT_EQ(textOf(loaded(*store_)), ""); }

TEST_P(TransferStore, keepsApplicationsByIdentifierAndFolder) {
  const auto id = addApplication();
  transfer::ApplicationIdentity elsewhere = test::applicationNamed("app");
  elsewhere.folder = "/home/user/elsewhere";
  const auto other = valueOf(store_->saveApplication(elsewhere, {}));
  EXPECT_NE(id, other);
  transfer::ApplicationIdentity anew = test::applicationNamed("app");
  anew.token = std::string(64, 'b');
  EXPECT_EQ(valueOf(store_->saveApplication(anew, {"/usr/bin/new"})), id);
  reopen();
  const Contents contents = loaded(*store_);
  ASSERT_EQ(contents.applications.size(), 2U);
  EXPECT_EQ(contents.applications[0].identity, anew);
  EXPECT_THAT(contents.applications[0].launchCommand, ElementsAre("/usr/bin/new"));
  EXPECT_EQ(contents.applications[1].identity, elsewhere);
  EXPECT_THAT(contents.applications[1].launchCommand, ElementsAre());
}

TEST_P(TransferStore, keepsLaunchesThatFailed) {
  const auto id = addApplication();
  ASSERT_TRUE(store_->saveLaunches(id, 3, 1234.5));
  addApplication();  // the launch command changes, the launches stay
  reopen();
  const Contents contents = loaded(*store_);
  EXPECT_EQ(contents.applications.at(0).failedLaunches, 3U);
  EXPECT_EQ(contents.applications.at(0).nextLaunchAt, 1234.5);
  expectRefused(store_->saveLaunches(id + 1, 1, 1), textOf(contents));
}

TEST_P(TransferStore, keepsATaskWithItsSession) {
  const auto application = addApplication();
  SpoolEntry entry = test::entryFor("one", UINT64_MAX);
  const auto first = addTask(application, entry);
  const auto second = addTask(application, test::entryFor("one", 2));
  const auto other = addTask(addApplication("other"), test::entryFor("one", 2, "other"));
  EXPECT_EQ(first.first, second.first);
  EXPECT_NE(first.first, other.first);
  reopen();
  const Contents contents = loaded(*store_);
  ASSERT_EQ(contents.sessions.size(), 2U);
  EXPECT_EQ(contents.sessions[0].identifier, "one");
  EXPECT_EQ(contents.sessions[0].application, application);
  EXPECT_FALSE(contents.sessions[0].isInvalidated);
  ASSERT_EQ(contents.tasks.size(), 3U);
  EXPECT_EQ(contents.tasks[0].entry, entry);
  EXPECT_EQ(contents.tasks[0].id, first.second);
  EXPECT_EQ(contents.tasks[0].session, first.first);
  EXPECT_EQ(contents.tasks[0].status.identifier, UINT64_MAX);
  EXPECT_FALSE(contents.tasks[0].hasLeftSpool);
}

TEST_P(TransferStore, takesNoTaskTwice) {
  const auto application = addApplication();
  addTask(application, test::entryFor("one"));
  const std::string before = textOf(loaded(*store_));
  const auto refused = [&](const SpoolEntry& entry, const std::string& name, transfer::ApplicationId of) {
    const auto result = store_->addTask(of, entry, name, test::statusFor(entry));
    expectRefused(result ? Store::Result<>() : std::unexpected(result.error()), before);
  };
  refused(test::entryFor("one"), "other-name", application);
  refused(test::entryFor("two"), "one-1-" + std::to_string(application) + ".task", application);  // leaves no empty session
  refused(test::entryFor("three"), "three", application + 77);
}

TEST_P(TransferStore, keepsWhatATaskHasComeTo) {
  const auto ids = addTask(addApplication(), test::entryFor("one"));
  ASSERT_TRUE(store_->saveLeftSpool(ids.second));
  transfer::TaskStatus status = test::statusFor(test::entryFor("one"));
  status.tries = 4;
  status.bytesSent = 17;
  status.bytesExpected = 99;
  status.nextTryAt = 1'800'000'000.125;
  status.error = platform::urlError(platform::kURLErrorNetworkConnectionLost);
  ASSERT_TRUE(store_->saveTask(ids.second, status));
  reopen();
  const Contents contents = loaded(*store_);
  EXPECT_TRUE(contents.tasks.at(0).hasLeftSpool);
  const transfer::TaskStatus& kept = contents.tasks.at(0).status;
  EXPECT_EQ(kept.tries, 4U);
  EXPECT_EQ(kept.bytesSent, 17U);
  EXPECT_EQ(kept.bytesExpected, 99U);
  EXPECT_EQ(kept.nextTryAt, 1'800'000'000.125);
  EXPECT_EQ(kept.error->code(), -1005);
  EXPECT_EQ(kept.error->localizedDescription(), "The network connection was lost.");
  const std::string before = textOf(contents);
  expectRefused(store_->saveLeftSpool(ids.second + 9), before);
  expectRefused(store_->saveTask(ids.second + 9, status), before);
}

TEST_P(TransferStore, endsATaskOnceTogetherWithItsEvent) {
  const SpoolEntry entry = test::entryFor("one");
  const auto application = addApplication();
  const auto first = addTask(application, entry);
  const auto second = addTask(application, test::entryFor("one", 2));
  ASSERT_TRUE(store_->endTask(second.second, test::endedStatusFor(test::entryFor("one", 2)), 1));
  ASSERT_TRUE(store_->endTask(first.second, test::endedStatusFor(entry), 2));
  reopen();
  const Contents contents = loaded(*store_);
  ASSERT_EQ(contents.events.size(), 2U);
  EXPECT_EQ(contents.events[0].session, first.first);
  EXPECT_EQ(contents.events[0].sequence, 1U);
  EXPECT_EQ(contents.events[0].task.identifier, 2U);
  EXPECT_EQ(contents.events[1].task.identifier, 1U);
  EXPECT_EQ(contents.tasks[0].status.state, transfer::TaskStatus::State::kCompleted);
  const std::string before = textOf(contents);
  expectRefused(store_->endTask(first.second, test::endedStatusFor(entry), 3), before);
  expectRefused(store_->saveTask(first.second, test::statusFor(entry)), before);
  expectRefused(store_->endTask(first.second + 9, test::endedStatusFor(entry), 3), before);
}

TEST_P(TransferStore, endsNoTaskUnderAnEventNumberThatIsTaken) {
  const auto application = addApplication();
  const auto first = addTask(application, test::entryFor("one"));
  const auto second = addTask(application, test::entryFor("one", 2));
  ASSERT_TRUE(store_->endTask(first.second, test::endedStatusFor(test::entryFor("one")), 1));
  const std::string before = textOf(loaded(*store_));
  expectRefused(store_->endTask(second.second, test::endedStatusFor(test::entryFor("one", 2)), 1), before);
}

TEST_P(TransferStore, forgetsEventsAndSessions) {
  const auto application = addApplication();
  const auto first = addTask(application, test::entryFor("one"));
  const auto second = addTask(application, test::entryFor("two"));
  ASSERT_TRUE(store_->endTask(first.second, test::endedStatusFor(test::entryFor("one")), 1));
  ASSERT_TRUE(store_->endTask(second.second, test::endedStatusFor(test::entryFor("two")), 1));
  ASSERT_TRUE(store_->removeEvent(first.first, 1));
  ASSERT_TRUE(store_->removeEvent(first.first, 1)) << "one that is gone";
  EXPECT_EQ(loaded(*store_).events.size(), 1U);
  ASSERT_TRUE(store_->removeSession(second.first));
  ASSERT_TRUE(store_->removeSession(second.first)) << "one that is gone";
  reopen();
  const Contents contents = loaded(*store_);
  EXPECT_EQ(contents.sessions.size(), 1U);
  EXPECT_EQ(contents.tasks.size(), 1U);
  EXPECT_EQ(contents.events.size(), 0U);
  // A number that was used is never another session's, or another task's.
  const auto third = addTask(application, test::entryFor("two"));
  EXPECT_GT(third.first, second.first);
  EXPECT_GT(third.second, second.second);
}

TEST_P(TransferStore, keepsInvalidation) {
  const auto ids = addTask(addApplication(), test::entryFor("one"));
  ASSERT_TRUE(store_->saveInvalidated(ids.first));
  reopen();
  EXPECT_TRUE(loaded(*store_).sessions.at(0).isInvalidated);
  expectRefused(store_->saveInvalidated(ids.first + 9), textOf(loaded(*store_)));
}

// The disk.

TEST_F(StoreTest, theFileIsTheUsersOwn) {
  const mode_t before = ::umask(0);
  const auto store = openOnDisk();
  ASSERT_TRUE(store->saveApplication(test::applicationNamed("app"), {}));
  ::umask(before);
  for (const char* const suffix : {"", "-wal", "-shm"}) {
    struct stat status{};
    ASSERT_EQ(::stat((path() + suffix).c_str(), &status), 0) << suffix;
    EXPECT_EQ(status.st_mode & 07777, 0600U) << suffix;
  }
}

TEST_F(StoreTest, aDamagedFileIsMovedAside) {
  for (int n = 1; n <= 2; ++n) {
    std::ofstream(path(), std::ios::trunc)
        << "this is no database but a text that is longer than its header would be, by a good deal";
    const auto store = openOnDisk();
    EXPECT_EQ(textOf(loaded(*store)), "");
    ASSERT_TRUE(store->saveApplication(test::applicationNamed("app"), {}));
    EXPECT_TRUE(std::filesystem::exists(path() + ".corrupt-" + std::to_string(n)));
    EXPECT_EQ(log_->messages().back(), "The transfer store was damaged. It lies in " + path() + ".corrupt-" + std::to_string(n) +
                                           " now; uploads that only it knew are not made. The service goes on with an empty one.");
  }
}

TEST_F(StoreTest, damageInTheMiddleIsNoCrash) {
  {
    const auto store = openOnDisk();
    const auto application = valueOf(store->saveApplication(test::applicationNamed("app"), {}));
    for (std::uint64_t task = 1; task <= 40; ++task)
      ASSERT_TRUE(store->addTask(application, test::entryFor("one", task), std::to_string(task), {}));
  }
  {
    std::fstream file(path(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4096);
    file << std::string(8 * 4096, '\x5a');
  }
  const auto store = openOnDisk();
  EXPECT_EQ(textOf(loaded(*store)), "");
  EXPECT_TRUE(std::filesystem::exists(path() + ".corrupt-1"));
}

TEST_F(StoreTest, aLaterVersionsFileIsLeftAlone) {
  openOnDisk().reset();
  ASSERT_EQ(std::system(("sqlite3 " + path() + " 'PRAGMA user_version = 2'").c_str()), 0);
  const auto store = transfer::SQLiteStore::open(path());
  ASSERT_FALSE(store);
  EXPECT_EQ(store.error().localizedDescription(),
            "The transfer store “" + path() + "” has version 2, which this service does not know; use the service that wrote it.");
  EXPECT_FALSE(std::filesystem::exists(path() + ".corrupt-1"));
}

TEST_F(StoreTest, aMissingFolderIsAnError) {
  const auto store = transfer::SQLiteStore::open(directory_.path() + "/missing/store.sqlite");
  ASSERT_FALSE(store);
  EXPECT_EQ(store.error().code(), platform::kFileNoSuchFile);
}

TEST_F(StoreTest, aFullDiskChangesNothingAndPasses) {
  {
    const auto roomy = openOnDisk();
    valueOf(roomy->saveApplication(test::applicationNamed("app"), {"/usr/bin/app"}));
  }
  auto store = openOnDisk({.maxPageCount = 16});
  const auto application = loaded(*store).applications.at(0).id;
  std::string before;
  std::optional<platform::Error> error;
  for (std::uint64_t task = 1; task < 1000 && !error; ++task) {
    before = textOf(loaded(*store));
    const auto added = store->addTask(application, test::entryFor("session-" + std::to_string(task)), std::to_string(task), {});
    if (!added) error = added.error();
  }
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), platform::kCocoaErrorDomain);
  EXPECT_EQ(error->code(), platform::kFileWriteOutOfSpace);
  EXPECT_EQ(error->localizedDescription(),
            "The transfer store “" + path() +
                "” couldn’t be used because the volume is out of space; free some, the service goes on "
                "by itself. (database or disk is full)");
  EXPECT_EQ(textOf(loaded(*store)), before);
  store = openOnDisk();
  EXPECT_EQ(textOf(loaded(*store)), before);
  EXPECT_TRUE(store->addTask(application, test::entryFor("after"), "after", {}));
}

// A child adds and ends tasks as fast as it can and is killed: what it said is done is there, and nothing is half there.
TEST_F(StoreTest, killedInTheMiddleNothingIsHalfDone) {
  std::uint64_t done = 0;
  for (int round = 0; round < 25; ++round) {
    int told[2] = {-1, -1};
    ASSERT_EQ(::pipe2(told, O_CLOEXEC), 0);
    const pid_t child = test::startChild([&] {
      const auto store = openOnDisk();
      const auto application = valueOf(store->saveApplication(test::applicationNamed("app"), {"/usr/bin/app"}));
      for (std::uint64_t n = 0;; ++n) {
        const std::string name = std::to_string(round) + "-" + std::to_string(n);
        const SpoolEntry entry = test::entryFor(name);
        const auto ids = valueOf(store->addTask(application, entry, name, test::statusFor(entry)));
        if (!store->endTask(ids.second, test::endedStatusFor(entry), 1)) ::_exit(3);
        if (::write(told[1], "x", 1) != 1) ::_exit(4);
      }
    });
    ::close(told[1]);
    char byte = 0;
    const std::uint64_t wanted = static_cast<std::uint64_t>(round) % 7 + 1;
    for (std::uint64_t n = 0; n < wanted; ++n) {
      ASSERT_EQ(::read(told[0], &byte, 1), 1);
      ++done;
    }
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    ASSERT_EQ(test::waitForChild(child), 128 + SIGKILL);
    while (::read(told[0], &byte, 1) == 1) ++done;
    ::close(told[0]);
    const Contents contents = loaded(*openOnDisk());
    std::size_t ended = 0;
    for (const auto& task : contents.tasks)
      if (task.status.state == transfer::TaskStatus::State::kCompleted) ++ended;
    ASSERT_EQ(ended, contents.events.size()) << "a task's end and its event are one step";
    ASSERT_EQ(contents.sessions.size(), contents.tasks.size()) << "a task and its session are one step";
    ASSERT_GE(ended, done) << "what was told is done";
    ASSERT_LE(ended, done + 1 + static_cast<std::size_t>(round)) << "at most one more in each round";
  }
  EXPECT_THAT(log_->messages(), ElementsAre()) << "no damage";
}

}  // namespace
