// The journal: whole lines, this run's entries, and a full disk.
#include "devserver/Journal.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>
#include <vector>

#include "devserver/Files.h"
#include "devserver/Json.h"
#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"

namespace devserver {
namespace {

using platform::Dictionary;
using test::runInChild;
using test::TemporaryDirectory;

class JournalTest : public ::testing::Test {
 protected:
  std::string content() const { return readFile(file_).value_or("unreadable"); }

  TemporaryDirectory directory_;
  std::filesystem::path file_ = directory_.path() + "/journal.jsonl";
};

TEST_F(JournalTest, AppendsOneLineForEachEntry) {
  Journal journal;
  ASSERT_TRUE(journal.open(file_).has_value());
  EXPECT_EQ(journal.entriesAsJson(), "[]");
  ASSERT_TRUE(journal.append({{"a", 1}, {"b", "line\nfeed"}}).has_value());
  ASSERT_TRUE(journal.append({{"a", 2}}).has_value());
  EXPECT_EQ(content(), "{\"a\":1,\"b\":\"line\\nfeed\"}\n{\"a\":2}\n");
  EXPECT_EQ(journal.entriesAsJson(), R"([{"a":1,"b":"line\nfeed"},{"a":2}])");
  struct stat status{};
  ASSERT_EQ(::stat(file_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(JournalTest, KeepsEarlierRunsInTheFileAndOutOfTheEntries) {
  std::ofstream(file_) << "{\"before\":true}\n";
  Journal journal;
  ASSERT_TRUE(journal.open(file_).has_value());
  ASSERT_TRUE(journal.append({{"now", true}}).has_value());
  EXPECT_EQ(content(), "{\"before\":true}\n{\"now\":true}\n");
  EXPECT_EQ(journal.entriesAsJson(), R"([{"now":true}])");
}

TEST_F(JournalTest, LinesOfManyThreadsStayWhole) {
  Journal journal;
  ASSERT_TRUE(journal.open(file_).has_value());
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back([&journal, thread] {
      for (int entry = 0; entry < 50; ++entry)
        ASSERT_TRUE(journal.append({{"text", std::string(1000, static_cast<char>('a' + thread))}}).has_value());
    });
  for (std::thread& thread : threads) thread.join();
  const auto entries = readJson(journal.entriesAsJson().value());
  ASSERT_TRUE(entries.has_value());
  EXPECT_EQ(entries->count(), 200U);
}

TEST_F(JournalTest, FullDiskLeavesNoHalfLine) {
  EXPECT_EQ(runInChild([this] {
              ::signal(SIGXFSZ, SIG_IGN);
              const rlimit limit{40, 40};
              ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
              Journal journal;
              ASSERT_TRUE(journal.open(file_).has_value());
              ASSERT_TRUE(journal.append({{"a", 1}}).has_value());
              EXPECT_EQ(journal.append({{"a", std::string(100, 'x')}}).error(),
                        "cannot write to the journal " + file_.string() + ": File too large");
              ASSERT_TRUE(journal.append({{"a", 2}}).has_value());
            }),
            0);
  EXPECT_EQ(content(), "{\"a\":1}\n{\"a\":2}\n");
}

TEST_F(JournalTest, FolderIsNoJournal) {
  Journal journal;
  EXPECT_EQ(journal.open(directory_.path()).error(), "cannot open the journal " + directory_.path() + ": Is a directory");
}

TEST(JournalTime, IsUtcWithMilliseconds) {
  EXPECT_TRUE(std::regex_match(timeText(), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)"))) << timeText();
}

}  // namespace
}  // namespace devserver
