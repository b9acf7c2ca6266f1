// Cutting the queue file back to its newest records: where the cut falls, and what each failure gives up.
#include "QueueTest.h"

namespace test {
namespace {

class Truncating : public QueueTest {
 protected:
  const std::string three = line(1) + line(2) + line(3);
};

// Where the cut falls.

TEST_F(Truncating, ElevenHundredRecordsOfAThousandBytesTruncateTo943000) {
  const std::string all = linesOfLength(1000, 1, 1100);
  process.setQueueFile(all);
  inspect.truncateQueueOnDisk();
  ASSERT_EQ(process.queueFile()->size(), 943000U);
  EXPECT_EQ(process.queueFile(), all.substr(157000));
  EXPECT_THAT(process.messages(), IsEmpty());
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
  const auto seeks = process.callTexts({"FileHandle.seekToFileOffset"});
  EXPECT_THAT(seeks, ElementsAre("FileHandle.seekToFileOffset event-queue.json 156282",
                                 "FileHandle.seekToFileOffset event-queue.json 157000"));
}

TEST_F(Truncating, NinetyPercentOfTheLimitAreTruncatedTowardZero) {
  process.setQueueFile(linesOfLength(1000, 1, 944));  // 944000 bytes, of which 943718 may stay
  inspect.truncateQueueOnDisk();
  const auto seeks = process.callTexts({"FileHandle.seekToFileOffset"});
  ASSERT_FALSE(seeks.empty());
  EXPECT_EQ(seeks[0], "FileHandle.seekToFileOffset event-queue.json 282");
  EXPECT_EQ(process.queueFile()->size(), 943000U);
}

TEST_F(Truncating, ALineFeedAtTheStartPositionCutsRightBehindIt) {
  inspect.maxQueueSizeOnDiskInBytes() = 20;                           // 18 may stay
  const std::string all = lineOfLength(20, 1) + lineOfLength(17, 2);  // 37 bytes: the search starts at 19, the first line feed
  process.setQueueFile(all);
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), lineOfLength(17, 2));
  EXPECT_EQ(process.queueFile()->size(), 17U);
}

TEST_F(Truncating, AFileOfExactlyTheKeptSizeIsLeftAlone) {
  inspect.maxQueueSizeOnDiskInBytes() = 20;
  process.setQueueFile(lineOfLength(18, 1));
  process.plan().clearCalls();
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), lineOfLength(18, 1));
  EXPECT_EQ(process.plan().count("FileHandle.readDataOfLength"), 0U);
  EXPECT_EQ(process.plan().count("FileHandle.closeFile"), 0U);
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(Truncating, ALastRecordLongerThanTheKeptSizeLeavesAnEmptyFile) {
  inspect.maxQueueSizeOnDiskInBytes() = 20;
  process.setQueueFile(line(1) + lineOfLength(40, 2));
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), "");
}

TEST_F(Truncating, WithoutALineFeedTheWholeFileLessItsFirstByteStays) {
  inspect.maxQueueSizeOnDiskInBytes() = 20;
  const std::string all = line(1) + std::string(40, 'x');
  process.setQueueFile(all);
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), all.substr(1));
}

TEST_F(Truncating, AFileSmallerThanTheKeptSizeLosesItsFirstByte) {
  process.setQueueFile(three);
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), three.substr(1));
  const auto seeks = process.callTexts({"FileHandle.seekToFileOffset"});
  EXPECT_THAT(seeks, ElementsAre("FileHandle.seekToFileOffset event-queue.json " + std::to_string(std::uint64_t{24} - 943718),
                                 "FileHandle.seekToFileOffset event-queue.json 1"));
}

TEST_F(Truncating, TheSearchGoesOnOverChunks) {
  inspect.maxQueueSizeOnDiskInBytes() = 20000;                                                     // 18000 may stay
  const std::string all = lineOfLength(5000, 1) + lineOfLength(12000, 2) + lineOfLength(6000, 3);  // 23000: starts at 5000
  process.setQueueFile(all);
  process.plan().clearCalls();
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), lineOfLength(6000, 3));
  EXPECT_EQ(process.plan().count("FileHandle.readDataOfLength"), 3U);
}

TEST_F(Truncating, ANegativeLimitWidensWithItsSign) {
  inspect.maxQueueSizeOnDiskInBytes() = -10;  // -9 may stay: the search starts 9 bytes beyond the end
  process.setQueueFile(three);
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), three.substr(1));
}

TEST_F(Truncating, TheQueueIsClosedBeforeTheKeptPartIsWritten) {
  inspect.maxQueueSizeOnDiskInBytes() = 10;
  process.setQueueFile(three);
  process.plan().clearCalls();
  inspect.truncateQueueOnDisk();
  EXPECT_THAT(process.plan().callNames(
                  {"FileManager.open", "FileHandle.", "FileManager.writeDataWithoutOverwriting", "FileManager.replaceItem"}),
              ElementsAre("FileManager.openForUpdating", "FileHandle.seekToEndOfFile", "FileHandle.seekToFileOffset",
                          "FileHandle.readDataOfLength", "FileHandle.seekToFileOffset", "FileHandle.readDataToEndOfFile",
                          "FileHandle.closeFile", "FileManager.writeDataWithoutOverwriting", "FileManager.replaceItem"));
}

// Failures.

constexpr const char* kNoHandle = "Could not get a file handle to to event queue on disk, will try to delete it entirely";

class TruncatingFailures : public Truncating {
 protected:
  TruncatingFailures() {
    inspect.maxQueueSizeOnDiskInBytes() = 10;
    process.setQueueFile(three);
    process.plan().clearCalls();
  }
  std::string couldNotDelete(const std::string& why) const { return "Could not delete file '" + path + "', error was: " + why; }
};

TEST_F(TruncatingFailures, WithoutAHandleTheQueueIsRemoved) {
  process.plan().fail("FileManager.openForUpdating", nth(1), kError);
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), std::nullopt);
  EXPECT_THAT(process.messages(), ElementsAre(kNoHandle, "Event queue emptied."));
}

TEST_F(TruncatingFailures, AVanishedQueueIsToldAndSaidToBeEmptied) {
  (void)platform::FileManager::defaultManager().removeItemAtPath(path);
  inspect.truncateQueueOnDisk();
  const std::string why = couldNotDelete("“event-queue.json” couldn’t be removed.");
  EXPECT_THAT(process.messages(), ElementsAre(kNoHandle, "system log: " + why, why, "Event queue emptied."));
}

TEST_F(TruncatingFailures, ASearchThatRaisesGivesUpTheQueue) {
  process.plan().raise("FileHandle.readDataOfLength", nth(1), kRaise);
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), std::nullopt);
  EXPECT_THAT(process.messages(),
              ElementsAre("Failed while reading event queue from disk, truncating all events.", "Event queue emptied."));
  EXPECT_THAT(process.plan().callNames({"FileHandle.closeFile", "FileManager.removeItem"}),
              ElementsAre("FileHandle.closeFile", "FileManager.removeItem"));
}

TEST_F(TruncatingFailures, ASearchThatRaisesOverAQueueThatStays) {
  process.plan().raise("FileHandle.readDataOfLength", nth(1), kRaise);
  process.plan().fail("FileManager.removeItem", nth(1), someError("It stays."));
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), three);
  EXPECT_THAT(process.messages(),
              ElementsAre("Failed while reading event queue from disk, truncating all events.",
                          "system log: " + couldNotDelete("It stays."), couldNotDelete("It stays."), "Event queue emptied."));
}

constexpr const char* kKeepFailed = "Failed while reading events to keep into memory. Will try to truncate the entire queue.";

TEST_F(TruncatingFailures, ReadingTheKeptPartThatRaisesGivesUpTheQueue) {
  process.plan().raise("FileHandle.readDataToEndOfFile", nth(1), kRaise);
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), std::nullopt);
  EXPECT_THAT(process.messages(), ElementsAre(kKeepFailed, "Entire queue emptied."));
  EXPECT_EQ(process.plan().count("FileHandle.closeFile"), 1U);
}

TEST_F(TruncatingFailures, ASeekToTheKeptPartThatRaisesGivesUpTheQueueToo) {
  process.plan().raise("FileHandle.seekToFileOffset", nth(2), kRaise);
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), std::nullopt);
  EXPECT_THAT(process.messages(), ElementsAre(kKeepFailed, "Entire queue emptied."));
  EXPECT_EQ(process.plan().count("FileHandle.closeFile"), 1U);
}

TEST_F(TruncatingFailures, AStandardExceptionWhileKeepingPassesToTheCallerAfterTheClose) {
  process.plan().throwStandard("FileHandle.readDataToEndOfFile", nth(1));
  EXPECT_THROW(inspect.truncateQueueOnDisk(), std::runtime_error);
  EXPECT_EQ(process.queueFile(), three);
  EXPECT_EQ(process.plan().count("FileHandle.closeFile"), 1U);
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(TruncatingFailures, AStandardExceptionWhileSearchingPassesToTheCaller) {
  process.plan().throwStandard("FileHandle.readDataOfLength", nth(1));
  EXPECT_THROW(inspect.truncateQueueOnDisk(), std::runtime_error);
  EXPECT_EQ(process.queueFile(), three);
}

TEST_F(TruncatingFailures, WithoutATemporaryFileTheQueueIsRemovedWithoutAWordOfIt) {
  process.plan().fail("FileManager.writeDataWithoutOverwriting", nth(1), kError);
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), std::nullopt);
  EXPECT_THAT(process.messages(),
              ElementsAre("Failed to create new tempfile, possibly full filesystem. Will truncate all events."));
}

TEST_F(TruncatingFailures, AFailedReplacementLeavesTheQueueOverItsLimit) {
  process.plan().fail("FileManager.replaceItem", nth(1), kError);
  inspect.truncateQueueOnDisk();
  EXPECT_EQ(process.queueFile(), three);
  EXPECT_THAT(process.messages(), ElementsAre("Replacing event queue with temp queue failed: It went wrong on purpose."));
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
}

TEST_F(TruncatingFailures, TheSeeksBeforeTheSearchAreNotGuarded) {
  process.plan().raise("FileHandle.seekToEndOfFile", nth(1), kRaise);
  EXPECT_THROW(inspect.truncateQueueOnDisk(), platform::Exception);
  process.plan().raise("FileHandle.seekToFileOffset", nth(1), kRaise);
  EXPECT_THROW(inspect.truncateQueueOnDisk(), platform::Exception);
  EXPECT_EQ(process.queueFile(), three);
  EXPECT_THAT(process.messages(), IsEmpty());
}

}  // namespace
}  // namespace test
