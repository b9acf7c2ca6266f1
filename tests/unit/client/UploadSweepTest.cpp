// The sweep of upload files that failed or interrupted uploads have left behind, and the folder where they live.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "platform/URL.h"
#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace test {
namespace {

using platform::URL;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr double kDay = 86400;  // seconds

class UploadSweep : public testing::Test {
 protected:
  /// A hard link, made now, to a GIF of the host.
  void makeUpload(const std::string& name) {
    (void)process.process().fileManager->createDirectoryAtURL(URL::fileURLWithPath(process.supportPath("uploads")));
    const auto linked = process.process().fileManager->linkItemAtURLToURL(gif, uploadUrl(name));
    ASSERT_TRUE(linked) << linked.error().localizedDescription();
  }
  URL uploadUrl(const std::string& name) { return URL::fileURLWithPath(process.supportPath("uploads") + "/" + name); }
  std::vector<std::string> uploads() { return process.namesIn(process.supportPath("uploads")); }
  void makeGif(const std::string& path) {
    gif = URL::fileURLWithPath(path);
    process.setFileBytes(path, "GIF89a");
  }

  TestProcess process;
  URL gif = URL::fileURLWithPath("/");
};

TEST_F(UploadSweep, RemovesAnUploadOfEightDaysAndOneSecondAndLeavesOneOfSevenDays) {
  makeGif(process.supportPath("host.gif"));
  makeUpload("old");
  process.advanceTime(kDay + 1);
  makeGif(process.supportPath("another.gif"));
  makeUpload("new");
  process.advanceTime(7 * kDay);
  process.makeClient();
  process.runAll();
  EXPECT_THAT(uploads(), ElementsAre("new"));
  EXPECT_EQ(process.fileBytes(process.supportPath("host.gif")), "GIF89a") << "the host's own file is not touched";
}

TEST_F(UploadSweep, LeavesAnUploadOfExactlyEightDays) {
  makeGif(process.supportPath("host.gif"));
  makeUpload("upload");
  process.advanceTime(8 * kDay);
  process.makeClient();
  process.runAll();
  EXPECT_THAT(uploads(), ElementsAre("upload"));
}

// Platform row D2: a hard link carries the dates of the host's file, but is as old as the link's making.
TEST_F(UploadSweep, CountsTheAgeOfAnUploadFromTheMakingOfItsLink) {
  makeGif(process.supportPath("host.gif"));
  process.advanceTime(30 * kDay);
  makeUpload("upload");
  process.advanceTime(7 * kDay);
  process.makeClient();
  process.runAll();
  EXPECT_THAT(uploads(), ElementsAre("upload"));
}

TEST_F(UploadSweep, TakesTheCutOffWhenItRuns) {
  makeGif(process.supportPath("host.gif"));
  makeUpload("upload");
  process.advanceTime(7 * kDay);
  process.makeClient();
  process.advanceTime(kDay + 1);
  EXPECT_THAT(uploads(), ElementsAre("upload")) << "start-up does not wait for the sweep";
  process.runAll();
  EXPECT_THAT(uploads(), IsEmpty());
}

TEST_F(UploadSweep, RunsOnTheBackgroundQueueOnly) {
  makeGif(process.supportPath("host.gif"));
  makeUpload("upload");
  process.advanceTime(9 * kDay);
  process.makeClient();
  ASSERT_TRUE(process.runOne(process.backgroundQueue()));
  EXPECT_THAT(uploads(), IsEmpty());
  EXPECT_FALSE(process.runOne(process.backgroundQueue()));
}

TEST_F(UploadSweep, KeepsTheClientAliveUntilItHasRun) {
  std::weak_ptr<KSVData> client = process.makeClient();
  EXPECT_FALSE(client.expired());
  process.runAll();
  EXPECT_TRUE(client.expired());
}

TEST_F(UploadSweep, MakesTheFolderWhenItIsMissing) {
  process.makeClient();
  EXPECT_FALSE(process.process().fileManager->fileExistsAtPath(process.supportPath("uploads")));
  process.runAll();
  EXPECT_TRUE(process.process().fileManager->fileExistsAtPath(process.supportPath("uploads")));
}

TEST_F(UploadSweep, GoesOnAfterAFileThatCannotBeRemovedAndSaysNothing) {
  makeGif(process.supportPath("host.gif"));
  makeUpload("first");
  makeUpload("second");
  process.advanceTime(9 * kDay);
  process.makeClient();
  process.plan().fail("FileManager.removeItem", nth(1), someError());
  process.runAll();
  EXPECT_EQ(uploads().size(), 1u);
  EXPECT_THAT(process.messages(), IsEmpty());
  EXPECT_THAT(process.uncaughtReasons(), IsEmpty());
}

TEST_F(UploadSweep, WithoutAFolderItRemovesNothingAndSaysNothing) {
  makeGif(process.supportPath("host.gif"));
  makeUpload("upload");
  process.advanceTime(9 * kDay);
  process.makeClient();
  process.plan().fail("FileManager.createDirectory", nth(1), someError());
  process.runAll();
  EXPECT_THAT(uploads(), ElementsAre("upload"));
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(UploadSweep, TheFolderIsAskedForAnewOnEveryCall) {
  KSVDataInspector inspect(process.makeClient());
  const auto first = inspect.uploadDirectory();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->path(), process.supportPath("uploads"));
  ASSERT_TRUE(process.process().fileManager->removeItemAtURL(first));
  EXPECT_EQ(inspect.uploadDirectory(), first);
  EXPECT_TRUE(process.process().fileManager->fileExistsAtPath(first->path()));
}

TEST_F(UploadSweep, WithoutAnApplicationSupportDirectoryThereIsNoFolder) {
  KSVDataInspector inspect(process.makeClient());
  process.plan().fail("FileManager.applicationSupportDirectory", nth(1), someError());
  EXPECT_EQ(inspect.uploadDirectory(), std::nullopt);
}

// The same ages on the real file system, whose dates are the machine's: the clock is moved, not the file (platform row D2).
class UploadSweepOnDisk : public testing::Test {
 protected:
  /// Makes the upload and yields the moment of its last status change.
  double makeUpload() {
    process.setFileBytes(process.supportPath("host.gif"), "GIF89a");
    std::filesystem::create_directories(process.supportPath("uploads"));
    // The dates that the content carries lie far back, as those of a host's old GIF do.
    std::filesystem::last_write_time(process.supportPath("host.gif"),
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(24 * 400));
    std::filesystem::create_hard_link(process.supportPath("host.gif"), upload());
    const auto attributes = process.process().fileManager->attributesOfItemAtPath(upload());
    EXPECT_TRUE(attributes);
    EXPECT_LT(attributes->modificationDate, attributes->attributeModificationDate);
    return attributes->attributeModificationDate.timeIntervalSince1970();
  }
  std::string upload() { return process.supportPath("uploads") + "/upload"; }
  bool staysAt(double time) {
    process.setTime(time);
    process.makeClient();
    process.runAll();
    return std::filesystem::exists(upload());
  }
  TestProcess process{{.files = TestProcessOptions::Files::kOnDisk}};
};

TEST_F(UploadSweepOnDisk, AnUploadStaysForSevenDays) { EXPECT_TRUE(staysAt(makeUpload() + 7 * kDay)); }

TEST_F(UploadSweepOnDisk, AnUploadGoesAfterEightDaysAndOneSecond) { EXPECT_FALSE(staysAt(makeUpload() + 8 * kDay + 1)); }

}  // namespace
}  // namespace test
