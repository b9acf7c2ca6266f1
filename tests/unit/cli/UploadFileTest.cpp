// What the command remembers of uploads.
#include "cli/UploadFile.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/Process.h"
#include "support/TemporaryDirectory.h"

namespace cli {
namespace {

class UploadFileTest : public ::testing::Test {
 protected:
  UploadFileTest() {
    platform::SystemOptions options;
    options.bundleIdentifier = "com.example.app";
    options.homeDirectory = directory_.path();
    process_ = platform::makeSystemProcess(options);
    scope_.emplace(*process_);
  }
  static std::vector<UploadRecord> records() { return UploadFile::open().value().read().value(); }
  static void note(const UploadRecord& record) {
    const auto noted = UploadFile::open().value().note(record);
    EXPECT_EQ(noted ? "" : noted.error(), "");
  }

  test::TemporaryDirectory directory_;
  std::unique_ptr<platform::Process> process_;
  std::optional<platform::Process::Scope> scope_;
};

TEST_F(UploadFileTest, LaysWhatIsSaidOverWhatIsKnown) {
  EXPECT_TRUE(records().empty());
  note({.session = "a", .file = "/cat.gif", .shareId = "s", .bytes = 7, .startedAt = 100.5});
  note({.session = "b", .endedAt = 3.0, .error = platform::Error("NSURLErrorDomain", -999, "cancelled")});
  note({.session = "a", .endedAt = 101.5, .statusCode = 200});
  const auto all = records();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].session, "a");
  EXPECT_EQ(all[0].file, "/cat.gif");
  EXPECT_EQ(all[0].shareId, "s");
  EXPECT_EQ(all[0].bytes, 7U);
  EXPECT_EQ(all[0].startedAt, 100.5);
  EXPECT_EQ(all[0].endedAt, 101.5);
  EXPECT_EQ(all[0].statusCode, 200);
  EXPECT_TRUE(all[0].isDelivered());
  EXPECT_EQ(all[1].error->code(), -999);
  EXPECT_EQ(all[1].error->localizedDescription(), "cancelled");
  EXPECT_FALSE(all[1].isDelivered());
}

TEST_F(UploadFileTest, StartThatIsNotedAfterTheEndLosesNothing) {
  note({.session = "a", .endedAt = 5.0, .statusCode = 404});
  note({.session = "a", .startedAt = 4.0});
  EXPECT_EQ(records().at(0).endedAt, 5.0);
  EXPECT_EQ(records().at(0).statusCode, 404);
  EXPECT_FALSE(records().at(0).isDelivered());
}

TEST_F(UploadFileTest, NotesAtOnceAreAllKept) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back([thread] {
      for (int count = 0; count < 10; ++count) note({.session = std::to_string(thread * 10 + count)});
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(records().size(), 40U);
}

TEST_F(UploadFileTest, FileThatIsNoneIsTold) {
  const std::string path = UploadFile::open().value().path();
  std::ofstream(path) << R"({"uploads":[{"file":"/cat.gif"}]})";
  EXPECT_EQ(UploadFile::open().value().read().error(), path + ": an element of it is no upload with a session");
  std::ofstream(path) << "[]";
  EXPECT_EQ(UploadFile::open().value().note({.session = "a"}).error(), path + ": it is no JSON object with a list of uploads");
}

}  // namespace
}  // namespace cli
