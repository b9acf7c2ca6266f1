// Appending a batch to the queue file: what is in the file afterwards, what is said, and what is left behind by each failure.
#include "QueueTest.h"

namespace test {
namespace {

class Appending : public QueueTest {
 protected:
  std::string writing(int count) const { return "Writing " + std::to_string(count) + " events to " + url; }

  /// The state that every failure leaves: the old queue and no new one.
  void expectQueueUnchanged() { EXPECT_EQ(process.queueFile(), old); }

  const std::string old = line(1) + line(2);
};

TEST_F(Appending, MakesTheFileWhenThereIsNone) {
  inspect.saveQueueToFile(records({record(1), record(2)}));
  EXPECT_EQ(process.queueFile(), "{\"n\":1}\n{\"n\":2}\n");
  EXPECT_THAT(process.messages(), ElementsAre(writing(2)));
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
}

TEST_F(Appending, PutsNewRecordsBehindTheOldOnes) {
  process.setQueueFile(old);
  inspect.saveQueueToFile(records({record(3), record(4)}));
  EXPECT_EQ(process.queueFile(), old + line(3) + line(4));
  EXPECT_THAT(process.messages(), ElementsAre(writing(2)));
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
}

TEST_F(Appending, WritesEachRecordAndItsLineFeedToThePrivateCopyInTurn) {
  process.setQueueFile(old);
  process.plan().clearCalls();
  inspect.saveQueueToFile(records({record(3), record(4)}));
  const auto calls = process.plan().callNames({"FileManager.fileExists", "FileManager.copyItem", "FileManager.openForWriting",
                                               "FileHandle.", "JSON.", "FileManager.replaceItem"});
  EXPECT_THAT(calls, ElementsAre("FileManager.fileExists",  // of the queue
                                 "FileManager.fileExists",  // of the name for its copy
                                 "FileManager.copyItem", "FileManager.openForWriting", "FileHandle.seekToEndOfFile", "JSON.write",
                                 "FileHandle.writeData", "FileHandle.writeData", "JSON.write", "FileHandle.writeData",
                                 "FileHandle.writeData", "FileHandle.closeFile", "FileManager.replaceItem"));
  const auto writes = process.callTexts({"FileHandle.writeData"});
  ASSERT_THAT(writes, SizeIs(4));
  EXPECT_THAT(writes[0], testing::EndsWith(" 7"));  // the record's bytes
  EXPECT_THAT(writes[1], testing::EndsWith(" 1"));  // its line feed
  EXPECT_EQ(process.plan().count("FileManager.openForUpdating"), 0U) << "the queue itself is never opened";
}

TEST_F(Appending, LineFeedsInsideTextsAreEscaped) {
  inspect.saveQueueToFile(records({Dictionary{{"t", "a\nb"}}}));
  EXPECT_EQ(process.queueFile(), "{\"t\":\"a\\nb\"}\n");
}

TEST_F(Appending, AnUnterminatedTailGrowsIntoTheFirstNewLine) {
  process.setQueueFile("{\"n\":1}\n{\"n\":");
  inspect.saveQueueToFile(records({record(2)}));
  EXPECT_EQ(process.queueFile(), "{\"n\":1}\n{\"n\":{\"n\":2}\n");
}

TEST_F(Appending, AnEmptyBatchRewritesTheSameContent) {
  process.setQueueFile(old);
  process.plan().clearCalls();
  inspect.saveQueueToFile({});
  expectQueueUnchanged();
  EXPECT_EQ(process.plan().count("FileManager.copyItem"), 1U);
  EXPECT_EQ(process.plan().count("FileManager.replaceItem"), 1U);
  EXPECT_THAT(process.messages(), ElementsAre(writing(0)));
}

TEST_F(Appending, AnEmptyBatchMayTruncate) {
  inspect.maxQueueSizeOnDiskInBytes() = 10;
  process.setQueueFile(old);  // 16 bytes
  inspect.saveQueueToFile({});
  EXPECT_EQ(process.queueFile(), line(2));  // 9 bytes may stay: the first line feed at or after offset 7 is there
}

// Records that cannot be written.

TEST_F(Appending, ARecordThatIsNotSerialisableIsDroppedAndTheOthersAreStoredInOrder) {
  process.setQueueFile(old);
  inspect.saveQueueToFile(records({record(3), Dictionary{{"d", platform::Date()}}, record(4)}));
  EXPECT_EQ(process.queueFile(), old + line(3) + line(4));
  EXPECT_THAT(process.messages(),
              ElementsAre(writing(3),
                          "Programming error occured while serializing event as json, ignoring this event: Invalid type in "
                          "JSON write (NSDate)"));
}

TEST_F(Appending, ARecordWithIllFormedTextIsDroppedWithTheErrorsDescription) {
  process.plan().fail("JSON.write", nth(2), kError);
  inspect.saveQueueToFile(records({record(1), record(2), record(3)}));
  EXPECT_EQ(process.queueFile(), line(1) + line(3));
  EXPECT_THAT(process.messages(), ElementsAre(writing(3),
                                              "Internal error occured while serializing event as json, ignoring this event: "
                                              "It went wrong on purpose."));
}

TEST_F(Appending, IllFormedUtf8IsTheInternalError) {
  inspect.saveQueueToFile(records({Dictionary{{"t", "\xff"}}, record(2)}));
  EXPECT_EQ(process.queueFile(), line(2));
  ASSERT_THAT(process.messages(), SizeIs(2));
  EXPECT_THAT(process.messages()[1], StartsWith("Internal error occured while serializing event as json, ignoring this event: "));
}

TEST_F(Appending, AnExceptionOfAnotherKindWhileSerialisingPassesToTheCaller) {
  process.setQueueFile(old);
  process.plan().throwStandard("JSON.write", nth(1));
  EXPECT_THROW(inspect.saveQueueToFile(records({record(3)})), std::runtime_error);
  expectQueueUnchanged();
}

// Failures of the copy.

TEST_F(Appending, AFailedCopyLosesTheBatchAndLeavesThePartialCopy) {
  process.setQueueFile(old);
  process.plan().writeShort("FileManager.copyItem", nth(1), 5);
  inspect.saveQueueToFile(records({record(3)}));
  expectQueueUnchanged();
  EXPECT_THAT(process.messages(),
              ElementsAre(writing(1), "Copying existing event queue to temp borked: " + outOfSpaceError().localizedDescription()));
  ASSERT_THAT(process.temporaryFiles(), SizeIs(1));
  EXPECT_EQ(process.fileBytes(process.temporaryFolder() + "/" + process.temporaryFiles()[0]), old.substr(0, 5));
  EXPECT_EQ(process.plan().count("FileManager.removeItem"), 0U);
}

TEST_F(Appending, AQueueThatVanishesBeforeTheCopyLosesTheBatch) {
  process.setQueueFile(old);
  process.plan().before("FileManager.copyItem", nth(1),
                        [&] { (void)platform::FileManager::defaultManager().removeItemAtPath(path); });
  inspect.saveQueueToFile(records({record(3)}));
  EXPECT_EQ(process.queueFile(), std::nullopt);
  ASSERT_THAT(process.messages(), SizeIs(2));
  EXPECT_THAT(process.messages()[1], StartsWith("Copying existing event queue to temp borked: "));
}

// Failures of the handle.

TEST_F(Appending, WithoutAHandleTheBatchIsLostAndTheCopyRemoved) {
  process.setQueueFile(old);
  process.plan().fail("FileManager.openForWriting", nth(1), kError);
  inspect.saveQueueToFile(records({record(3)}));
  expectQueueUnchanged();
  EXPECT_THAT(process.messages(), ElementsAre(writing(1),
                                              "Borked while getting filehandle to tempfile, will discard current queue: It went "
                                              "wrong on purpose."));
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
}

TEST_F(Appending, WithoutATemporaryFileTheHandleFailsAndSoDoesTheRemoval) {
  process.plan().fail("FileManager.writeDataWithoutOverwriting", nth(1), kError);
  inspect.saveQueueToFile(records({record(1)}));
  EXPECT_EQ(process.queueFile(), std::nullopt);
  const std::string generic = "The operation couldn’t be completed. (NSCocoaErrorDomain error 4.)";
  EXPECT_THAT(process.messages(),
              ElementsAre(writing(1), "Borked while getting filehandle to tempfile, will discard current queue: " + generic,
                          "system log: Could not delete file '(null)', error was: " + generic,
                          "Could not delete file '(null)', error was: " + generic));
}

TEST_F(Appending, ARandomSourceThatRaisesIsATemporaryFileThatCannotBeMade) {
  process.plan().raise("SecureRandom.fill", everyCall(), kRaise);
  EXPECT_EQ(KSVUtils::randomStringWithLength(8), "");
  EXPECT_EQ(KSVUtils::getNewTempfileUrl(), std::nullopt);
  inspect.saveQueueToFile(records({record(1)}));
  EXPECT_EQ(process.queueFile(), std::nullopt);
  ASSERT_THAT(process.messages(), SizeIs(4));
  EXPECT_THAT(process.messages()[1], StartsWith("Borked while getting filehandle to tempfile, will discard current queue: "));
}

TEST_F(Appending, WhenTheCopyCannotBeRemovedTheSystemLogIsTold) {
  process.setQueueFile(old);
  process.plan().fail("FileManager.openForWriting", nth(1), kError);
  process.plan().fail("FileManager.removeItem", nth(1), someError("It stays."));
  inspect.saveQueueToFile(records({record(3)}));
  expectQueueUnchanged();
  ASSERT_THAT(process.temporaryFiles(), SizeIs(1));
  const std::string copy = process.temporaryFolder() + "/" + process.temporaryFiles()[0];
  EXPECT_THAT(process.messages(), ElementsAre(writing(1), HasSubstr("will discard current queue"),
                                              "system log: Could not delete file '" + copy + "', error was: It stays.",
                                              "Could not delete file '" + copy + "', error was: It stays."));
}

// Failures of the seek.

TEST_F(Appending, ASeekThatRaisesLosesTheBatchAndRemovesTheCopy) {
  process.setQueueFile(old);
  process.plan().raise("FileHandle.seekToEndOfFile", nth(1), kRaise);
  inspect.saveQueueToFile(records({record(3)}));
  expectQueueUnchanged();
  EXPECT_THAT(process.messages(), ElementsAre(writing(1), "Failed while seeking in tempfile, discarding queue."));
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
}

TEST_F(Appending, AStandardExceptionFromTheSeekPassesToTheCaller) {
  process.setQueueFile(old);
  process.plan().throwStandard("FileHandle.seekToEndOfFile", nth(1));
  EXPECT_THROW(inspect.saveQueueToFile(records({record(3)})), std::runtime_error);
  expectQueueUnchanged();
}

// Failures of a write: of the record, of its line feed, of a later record.

class AppendingWrites : public Appending, public testing::WithParamInterface<int> {};

TEST_P(AppendingWrites, AWriteThatRaisesLosesTheWholeBatchAndRemovesTheCopy) {
  process.setQueueFile(old);
  process.plan().writeShort("FileHandle.writeData", nth(static_cast<std::uint64_t>(GetParam())), 0);
  process.plan().clearCalls();
  inspect.saveQueueToFile(records({record(3), record(4)}));
  expectQueueUnchanged();
  EXPECT_THAT(process.messages(),
              ElementsAre(writing(2), "Failed to write data to temporary event queue, probably full file system: " +
                                          outOfSpaceException().reason()));
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
  EXPECT_EQ(process.plan().count("FileManager.replaceItem"), 0U);
  const auto calls = process.plan().callNames({"FileHandle.closeFile", "FileManager.removeItem"});
  EXPECT_THAT(calls, ElementsAre("FileHandle.closeFile", "FileManager.removeItem"));
}

INSTANTIATE_TEST_SUITE_P(AnyWrite, AppendingWrites, testing::Values(1, 2, 3, 4));

TEST_F(Appending, AFullDiskInTheMiddleOfARecordKeepsTheQueueByteForByte) {
  process.setQueueFile(old);
  process.plan().writeShort("FileHandle.writeData", nth(3), 4);
  inspect.saveQueueToFile(records({record(3), record(4)}));
  expectQueueUnchanged();
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
}

TEST_F(Appending, ACopyThatCannotBeRemovedAfterAFailedWriteIsTold) {
  process.setQueueFile(old);
  process.plan().raise("FileHandle.writeData", nth(1), kRaise);
  process.plan().fail("FileManager.removeItem", nth(1), kError);
  inspect.saveQueueToFile(records({record(3)}));
  expectQueueUnchanged();
  EXPECT_THAT(process.messages(),
              ElementsAre(writing(1), "Failed to write data to temporary event queue, probably full file system: raised on purpose",
                          "Another error occured while cleaning up after the writing error: It went wrong on purpose."));
  EXPECT_THAT(process.systemLog(), IsEmpty());
}

TEST_F(Appending, AStandardExceptionFromAWritePassesToTheCallerAndTheHandleCloses) {
  process.setQueueFile(old);
  process.plan().throwStandard("FileHandle.writeData", nth(1));
  EXPECT_THROW(inspect.saveQueueToFile(records({record(3)})), std::runtime_error);
  expectQueueUnchanged();
}

// Failures of the replacement.

TEST_F(Appending, AFailedReplacementLosesTheBatchAndLeavesTheNewFileWhereItIs) {
  process.setQueueFile(old);
  process.plan().fail("FileManager.replaceItem", nth(1), kError);
  inspect.saveQueueToFile(records({record(3)}));
  expectQueueUnchanged();
  EXPECT_THAT(process.messages(),
              ElementsAre(writing(1), "Replacing event queue with new queue BORKED with error: It went wrong on purpose."));
  ASSERT_THAT(process.temporaryFiles(), SizeIs(1));
  EXPECT_EQ(process.fileBytes(process.temporaryFolder() + "/" + process.temporaryFiles()[0]), old + line(3));
}

TEST_F(Appending, AFailedReplacementDoesNotTruncate) {
  inspect.maxQueueSizeOnDiskInBytes() = 10;
  process.setQueueFile(old);
  process.plan().fail("FileManager.replaceItem", nth(1), kError);
  inspect.saveQueueToFile(records({record(3)}));
  expectQueueUnchanged();
  EXPECT_EQ(process.plan().count("FileManager.openForUpdating"), 0U);
}

// The limit.

TEST_F(Appending, AQueueOfExactlyTheLimitIsNotTruncated) {
  inspect.maxQueueSizeOnDiskInBytes() = 16;
  process.setQueueFile(old);
  inspect.saveQueueToFile(records({record(3)}));
  EXPECT_EQ(process.queueFile(), old + line(3));
  EXPECT_THAT(process.messages(), ElementsAre(writing(1)));
}

TEST_F(Appending, OneByteMoreIsTruncatedAfterTheAppend) {
  inspect.maxQueueSizeOnDiskInBytes() = 15;
  process.setQueueFile(old);
  inspect.saveQueueToFile(records({record(3)}));
  // 24 bytes, 13 may stay: the first line feed at or after offset 11 is at 15.
  EXPECT_EQ(process.queueFile(), line(3));
  EXPECT_THAT(process.messages(), ElementsAre(writing(1), "Truncating file on disk"));
}

TEST_F(Appending, TheSizeBeforeTheAppendDecides) {
  inspect.maxQueueSizeOnDiskInBytes() = 20;
  process.setQueueFile(old);
  inspect.saveQueueToFile(records({record(3), record(4)}));  // 32 bytes now
  EXPECT_EQ(process.queueFile(), old + line(3) + line(4));
  EXPECT_THAT(process.messages(), ElementsAre(writing(2)));
}

TEST_F(Appending, AFirstBatchOverTheLimitIsNotTruncated) {
  inspect.maxQueueSizeOnDiskInBytes() = 1;
  inspect.saveQueueToFile(records({record(1)}));
  EXPECT_EQ(process.queueFile(), line(1));
}

TEST_F(Appending, ANegativeLimitNeverTruncates) {
  inspect.maxQueueSizeOnDiskInBytes() = -1;
  process.setQueueFile(old);
  inspect.saveQueueToFile(records({record(3)}));
  EXPECT_EQ(process.queueFile(), old + line(3));
  EXPECT_THAT(process.messages(), ElementsAre(writing(1)));
}

TEST_F(Appending, AnUnguardedSeekOfTheTruncatorPassesThroughTheAppend) {
  inspect.maxQueueSizeOnDiskInBytes() = 10;
  process.setQueueFile(old);
  process.plan().raise("FileHandle.seekToEndOfFile", nth(1).on(kQueue), kRaise);
  EXPECT_THROW(inspect.saveQueueToFile(records({record(3)})), platform::Exception);
  EXPECT_EQ(process.queueFile(), old + line(3));
}

TEST_F(Appending, WithDebugOffNothingIsFormattedOrStored) {
  process.process().debug = false;
  process.setQueueFile(old);
  process.plan().fail("FileManager.copyItem", nth(1), kError);
  inspect.saveQueueToFile(records({record(3)}));
  EXPECT_THAT(process.messages(), IsEmpty());
}

// Where the file is.

TEST_F(Appending, TheFileLiesInTheApplicationSupportDirectoryAndIsAskedForAnew) {
  process.plan().clearCalls();
  EXPECT_EQ(inspect.jsonFileURL()->path(), process.supportPath("event-queue.json"));
  EXPECT_EQ(inspect.jsonFileURL()->lastPathComponent(), "event-queue.json");
  EXPECT_EQ(process.plan().count("FileManager.applicationSupportDirectory"), 2U);
}

TEST_F(Appending, WithoutAnApplicationSupportDirectoryTheBatchIsLost) {
  process.plan().fail("FileManager.applicationSupportDirectory", everyCall(), kError);
  inspect.saveQueueToFile(records({record(1)}));
  ASSERT_THAT(process.messages(), SizeIs(testing::Ge(2U)));
  EXPECT_EQ(process.messages()[0], "Writing 1 events to (null)");
}

// The shared steps.

TEST_F(Appending, ReplacingTellsItsFailureAndRemovesTheTemporaryFile) {
  process.setQueueFile(old);
  const auto tempfile = KSVUtils::createTempfileWithContents(platform::Data("new\n"));
  process.plan().fail("FileManager.replaceItem", nth(1), kError);
  EXPECT_FALSE(inspect.replaceEventQueueFromTempfile(tempfile));
  expectQueueUnchanged();
  EXPECT_THAT(process.messages(), ElementsAre("Replacing event queue with temp queue failed: It went wrong on purpose."));
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
}

TEST_F(Appending, ReplacingTellsWhenTheTemporaryFileCannotBeRemovedEither) {
  process.setQueueFile(old);
  const auto tempfile = KSVUtils::createTempfileWithContents(platform::Data("new\n"));
  process.plan().fail("FileManager.replaceItem", nth(1), kError);
  process.plan().fail("FileManager.removeItem", nth(1), someError("It stays."));
  EXPECT_FALSE(inspect.replaceEventQueueFromTempfile(tempfile));
  expectQueueUnchanged();
  EXPECT_THAT(
      process.messages(),
      ElementsAre("Replacing event queue with temp queue failed: It went wrong on purpose.",
                  "Failed while recovering from event queue replacement failure, could not delete the tempfile: It stays."));
}

TEST_F(Appending, ReplacingPutsTheNewContentInPlace) {
  process.setQueueFile(old);
  EXPECT_TRUE(inspect.replaceEventQueueFromTempfile(KSVUtils::createTempfileWithContents(platform::Data("new\n"))));
  EXPECT_EQ(process.queueFile(), "new\n");
  EXPECT_THAT(process.messages(), IsEmpty());
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
}

TEST_F(Appending, DeletingWhatIsThereIsSilent) {
  process.setQueueFile(old);
  EXPECT_TRUE(inspect.deleteFileAndLogAndIgnoreErrors(inspect.jsonFileURL()));
  EXPECT_EQ(process.queueFile(), std::nullopt);
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(Appending, DeletingWhatIsNotThereReachesTheSystemLogAlsoWithDebugOff) {
  process.process().debug = false;
  EXPECT_FALSE(inspect.deleteFileAndLogAndIgnoreErrors(inspect.jsonFileURL()));
  EXPECT_THAT(process.messages(),
              ElementsAre("system log: Could not delete file '" + path + "', error was: “event-queue.json” couldn’t be removed."));
}

TEST_F(Appending, DeletingWhatIsNotThereReachesBothLogsWithDebugOn) {
  EXPECT_FALSE(inspect.deleteFileAndLogAndIgnoreErrors(inspect.jsonFileURL()));
  const std::string message = "Could not delete file '" + path + "', error was: “event-queue.json” couldn’t be removed.";
  EXPECT_THAT(process.messages(), ElementsAre("system log: " + message, message));
}

}  // namespace
}  // namespace test
