// Taking records from the head of the queue file: what is returned, what stays, and what each failure does to both.
#include "QueueTest.h"

namespace test {
namespace {

constexpr const char* kSkipped = "No events on disk, skipping read";

class Loading : public QueueTest {
 protected:
  std::string loading() const { return "Loading events from file: " + path; }
  static std::string readEvents(std::size_t count) { return "Read " + std::to_string(count) + " events from disk"; }
  static std::string chunk(std::size_t bytes, int carried) {
    return "Read new chunk of " + std::to_string(bytes) + " bytes, reading from " + std::to_string(carried);
  }

  std::vector<int> numbers(const std::optional<Array>& events) {
    std::vector<int> found;
    if (events)
      for (const Value& event : *events) found.push_back(numberOf(event));
    return found;
  }

  const std::string three = line(1) + line(2) + line(3);
};

// What a load takes and leaves.

TEST_F(Loading, AnAbsentFileIsAnEmptyQueue) {
  EXPECT_EQ(inspect.getSavedJsonData(), Array());
  EXPECT_THAT(process.messages(), ElementsAre(kSkipped));
  EXPECT_EQ(process.queueFile(), std::nullopt);
}

TEST_F(Loading, AnEmptyFileIsAnEmptyQueue) {
  process.setQueueFile("");
  EXPECT_EQ(inspect.getSavedJsonData(), Array());
  EXPECT_THAT(process.messages(), ElementsAre(kSkipped));
  EXPECT_EQ(process.queueFile(), "");
}

TEST_F(Loading, ThreeRecordsAreTakenInOrderAndAnEmptyFileStays) {
  process.setQueueFile(three);
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1, 2, 3));
  EXPECT_EQ(process.queueFile(), "");
  EXPECT_THAT(process.messages(), ElementsAre(loading(), chunk(24, 0), readEvents(3)));
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
}

TEST_F(Loading, TheCallsComeInTheirOrder) {
  process.setQueueFile(line(1));
  process.plan().clearCalls();
  inspect.getSavedJsonData();
  const auto calls = process.plan().callNames({"FileManager.attributesOfItem", "FileManager.open", "FileHandle.", "JSON.read",
                                               "FileManager.writeDataWithoutOverwriting", "FileManager.replaceItem"});
  EXPECT_THAT(calls, ElementsAre("FileManager.attributesOfItem", "FileManager.openForUpdating", "FileHandle.readDataOfLength",
                                 "JSON.read", "FileHandle.readDataOfLength", "FileManager.writeDataWithoutOverwriting",
                                 "FileManager.openForWriting", "FileHandle.readDataOfLength", "FileHandle.writeData",
                                 "FileHandle.closeFile", "FileHandle.closeFile", "FileManager.replaceItem"));
}

TEST_F(Loading, AnUnterminatedTailBecomesTheWholeFile) {
  process.setQueueFile(three + "{\"n\":4");
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1, 2, 3));
  EXPECT_EQ(process.queueFile(), "{\"n\":4");
}

TEST_F(Loading, TheTailAndTheNextAppendFormOneLineThatIsDropped) {
  process.setQueueFile(line(1) + "{\"n\":2");
  inspect.getSavedJsonData();
  inspect.saveQueueToFile(records({record(3), record(4)}));
  EXPECT_EQ(process.queueFile(), "{\"n\":2{\"n\":3}\n{\"n\":4}\n");
  process.clearMessages();
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(4));
  EXPECT_THAT(process.messages(),
              ElementsAre(loading(), chunk(22, 0), "Failed to parse JSON in file: {\"n\":2{\"n\":3}", readEvents(1)));
  EXPECT_EQ(process.queueFile(), "");
}

TEST_F(Loading, ARecordAcrossAChunkBoundaryIsTakenWhole) {
  process.setQueueFile(lineOfLength(4000, 1) + lineOfLength(4000, 2) + lineOfLength(200, 3));
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1, 2, 3));
  EXPECT_EQ(process.queueFile(), "");
  EXPECT_THAT(process.messages(), ElementsAre(loading(), chunk(4096, 0), chunk(4096, 96), chunk(8, 192), readEvents(3)));
}

TEST_F(Loading, ALineFeedThatEndsAChunkCarriesNothingOver) {
  process.setQueueFile(lineOfLength(4096, 1) + lineOfLength(20, 2));
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1, 2));
  EXPECT_THAT(process.messages(), ElementsAre(loading(), chunk(4096, 0), chunk(20, 0), readEvents(2)));
}

TEST_F(Loading, ARecordOverManyChunksIsTakenWhole) {
  process.setQueueFile(lineOfLength(20000, 1) + line(2));
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1, 2));
  EXPECT_EQ(process.queueFile(), "");
}

TEST_F(Loading, LinesThatAreNoJSONAreDroppedAndDoNotStopTheOthers) {
  process.setQueueFile(line(1) + "not json\n" + line(2) + "\n" + "\"fragment\"\n" + line(3));
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1, 2, 3));
  EXPECT_EQ(process.queueFile(), "");
  EXPECT_THAT(messagesWithoutChunks(),
              ElementsAre(loading(), "Failed to parse JSON in file: not json",
                          "Failed to parse JSON in file: ", "Failed to parse JSON in file: \"fragment\"", readEvents(3)));
}

TEST_F(Loading, ABadLineThatIsNoUtf8IsShownAsAbsent) {
  process.setQueueFile("\xff\xfe\n" + line(1));
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1));
  EXPECT_THAT(messagesWithoutChunks(), ElementsAre(loading(), "Failed to parse JSON in file: (null)", readEvents(1)));
}

TEST_F(Loading, AnArrayAtTheTopIsKeptAsItIs) {
  process.setQueueFile("[1,2]\n" + line(1));
  const auto events = inspect.getSavedJsonData();
  ASSERT_TRUE(events);
  EXPECT_EQ(*events, (Array{Array{1, 2}, record(1)}));
}

TEST_F(Loading, TextsWithEscapedLineFeedsComeBackAsTheyWere) {
  const Value original = Dictionary{{"t", "a\nb\u2028ü"}, {"x", nullptr}};
  inspect.saveQueueToFile(records({original}));
  EXPECT_EQ(inspect.getSavedJsonData(), records({original}));
}

// The budget.

TEST_F(Loading, AThousandRecordsOfAThousandBytesLoadAs208AndLeave791104Bytes) {
  const std::string all = linesOfLength(1000, 1, 1000);
  process.setQueueFile(all);
  auto events = inspect.getSavedJsonData();
  ASSERT_TRUE(events);
  ASSERT_EQ(events->count(), 208U);
  EXPECT_EQ(numberOf((*events)[0]), 1);
  EXPECT_EQ(numberOf((*events)[207]), 208);
  ASSERT_EQ(process.queueFile()->size(), 791104U);
  EXPECT_EQ(process.queueFile(), all.substr(208896));
  EXPECT_EQ(process.queueFile()->find('\n'), 103U);  // the fragment of record 209
  EXPECT_EQ(process.messages().back(), readEvents(208));
  EXPECT_THAT(process.messages(), SizeIs(2 + 51));

  process.clearMessages();
  const std::string fragment = process.queueFile()->substr(0, 103);
  events = inspect.getSavedJsonData();
  ASSERT_TRUE(events && !events->empty());
  EXPECT_EQ(numberOf((*events)[0]), 210);
  EXPECT_THAT(process.messages(), testing::Contains("Failed to parse JSON in file: " + fragment));
}

TEST_F(Loading, DrainingDeliversEveryRecordButTheStraddlingOnes) {
  process.setQueueFile(linesOfLength(1000, 1, 1000));
  std::vector<int> all;
  while (!process.queueFile()->empty()) {
    for (const int number : numbers(inspect.getSavedJsonData())) all.push_back(number);
  }
  EXPECT_TRUE(std::ranges::is_sorted(all));
  EXPECT_EQ(std::ranges::adjacent_find(all), all.end());
  EXPECT_EQ(all.size(), 996U);  // four loads ended in the middle of a record
}

TEST_F(Loading, ReadingGoesOnUntilMoreThanTheBudgetWasRead) {
  // 204800 bytes are exactly the budget: one more chunk is read.
  process.setQueueFile(linesOfLength(1024, 1, 204));
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), SizeIs(204));
  EXPECT_EQ(process.queueFile(), "");
}

TEST_F(Loading, ALongRestIsExactlyTheRestOfTheFile) {
  const std::string all = linesOfLength(1000, 1, 300);
  process.setQueueFile(all);
  inspect.getSavedJsonData();
  EXPECT_EQ(process.queueFile(), all.substr(208896));
}

TEST_F(Loading, AShortRestIsFollowedByTheCarriedBytesBeyondIt) {
  // The last record begins before the budget's end and reaches 50 bytes beyond it: 158 bytes are carried over, 50 are the rest.
  const std::string head = linesOfLength(1000, 1, 208) + lineOfLength(738, 209);  // 208738 bytes
  const std::string last = lineOfLength(208, 210);                                // up to 208946
  process.setQueueFile(head + last);
  const auto events = inspect.getSavedJsonData();
  EXPECT_THAT(numbers(events), SizeIs(209));
  const std::string carried = last.substr(0, 158);
  const std::string rest = last.substr(158);
  EXPECT_EQ(process.queueFile(), rest + carried.substr(rest.size()));
}

TEST_F(Loading, ARecordLongerThanTheBudgetStaysAtTheHead) {
  const std::string giant = lineOfLength(300000, 1);
  process.setQueueFile(giant + line(2));
  const auto events = inspect.getSavedJsonData();
  EXPECT_EQ(events, Array());
  // The rest is shorter than what was carried over, and lies over its head.
  const std::string all = giant + line(2);
  const std::string carried = all.substr(0, 208896);
  const std::string rest = all.substr(208896);
  EXPECT_EQ(process.queueFile(), rest + carried.substr(rest.size()));
}

// Failures before anything was read.

TEST_F(Loading, UnreadableAttributesLeaveTheFileAlone) {
  process.setQueueFile(three);
  process.plan().fail("FileManager.attributesOfItem", nth(1), platform::Error(platform::kCocoaErrorDomain, 257, "No permission."));
  EXPECT_EQ(inspect.getSavedJsonData(), Array());
  EXPECT_EQ(process.queueFile(), three);
  EXPECT_THAT(process.messages(),
              ElementsAre("Error occured when checking file size of stored event queue (code 257): No permission."));
}

TEST_F(Loading, TheCodeOfAMissingFileIsAnEmptyQueueWhateverTheDomain) {
  process.setQueueFile(three);
  process.plan().fail("FileManager.attributesOfItem", nth(1), platform::Error("Elsewhere", 260, "Gone."));
  EXPECT_EQ(inspect.getSavedJsonData(), Array());
  EXPECT_THAT(process.messages(), ElementsAre(kSkipped));
}

TEST_F(Loading, AFileThatCannotBeOpenedIsLeftAlone) {
  process.setQueueFile(three);
  process.plan().fail("FileManager.openForUpdating", nth(1), kError);
  EXPECT_EQ(inspect.getSavedJsonData(), Array());
  EXPECT_EQ(process.queueFile(), three);
  EXPECT_THAT(process.messages(), ElementsAre("Event queue seemlingly disappeared on disk, skipping read"));
}

TEST_F(Loading, WithoutAnApplicationSupportDirectoryThereIsNothing) {
  process.plan().fail("FileManager.applicationSupportDirectory", everyCall(), kError);
  EXPECT_EQ(inspect.getSavedJsonData(), Array());
  EXPECT_THAT(process.messages(), ElementsAre(kSkipped));
}

// Failures while the head is read.

TEST_F(Loading, AReadThatRaisesReturnsNoneAndLeavesTheFile) {
  process.setQueueFile(three);
  process.plan().raise("FileHandle.readDataOfLength", nth(1), kRaise);
  EXPECT_EQ(inspect.getSavedJsonData(), std::nullopt);
  EXPECT_EQ(process.queueFile(), three);
  EXPECT_THAT(process.messages(), ElementsAre(loading(), "Error: Couldn't read chunk of stored JSON data: raised on purpose"));
  EXPECT_EQ(process.plan().count("FileHandle.closeFile"), 0U);
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
}

TEST_F(Loading, ALaterReadThatRaisesDropsTheRecordsParsedSoFarFromTheResultOnly) {
  process.setQueueFile(linesOfLength(1000, 1, 20));
  process.plan().raise("FileHandle.readDataOfLength", nth(3), kRaise);
  EXPECT_EQ(inspect.getSavedJsonData(), std::nullopt);
  EXPECT_EQ(process.queueFile(), linesOfLength(1000, 1, 20));
}

TEST_F(Loading, AStandardExceptionFromAReadPassesToTheCaller) {
  process.setQueueFile(three);
  process.plan().throwStandard("FileHandle.readDataOfLength", nth(1));
  EXPECT_THROW(inspect.getSavedJsonData(), std::runtime_error);
  EXPECT_EQ(process.queueFile(), three);
}

TEST_F(Loading, ARecordThatCannotBeCutOutIsGone) {
  process.setQueueFile(three);
  process.plan().raise("Data.subdata", nth(2), kRaise);
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1, 3));
  EXPECT_EQ(process.queueFile(), "");
  EXPECT_THAT(messagesWithoutChunks(),
              ElementsAre(loading(), "Error: Invalid range when reading bytes from JSON data: raised on purpose", readEvents(2)));
}

TEST_F(Loading, ARecordWhoseParsingRaisesIsGone) {
  process.setQueueFile(three);
  process.plan().raise("JSON.read", nth(2), kRaise);
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1, 3));
  EXPECT_EQ(process.queueFile(), "");
  EXPECT_THAT(messagesWithoutChunks(),
              ElementsAre(loading(), "Error: Failed to parse json and add to return value: raised on purpose", readEvents(2)));
}

TEST_F(Loading, ARecordWhoseParsingFailsIsGone) {
  process.setQueueFile(three);
  process.plan().fail("JSON.read", nth(1), kError);
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(2, 3));
  EXPECT_EQ(process.queueFile(), "");
  EXPECT_THAT(messagesWithoutChunks(), ElementsAre(loading(), "Failed to parse JSON in file: {\"n\":1}", readEvents(2)));
}

TEST_F(Loading, CarriedBytesThatCannotBeCutOutKeepWhatWasConsumed) {
  process.setQueueFile(three);
  process.plan().raise("Data.subdata", nth(4), kRaise);  // after the three records
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1, 2, 3));
  EXPECT_EQ(process.queueFile(), three);  // carried whole, with nothing behind it
  EXPECT_THAT(messagesWithoutChunks(),
              ElementsAre(loading(), "Error: Invalid range when extracting unparsed bytes: raised on purpose", readEvents(3)));
}

TEST_F(Loading, AfterAFailedCutTheScanGoesOnFromTheReducedIndex) {
  // Two chunks: of the first, 4 records of 1000 bytes are taken and 96 bytes of the fifth should be carried.
  const std::string all = linesOfLength(1000, 1, 5);
  process.setQueueFile(all);
  process.plan().raise("Data.subdata", nth(5), kRaise);
  const auto events = inspect.getSavedJsonData();
  // The buffer still begins with record 1, and the scan goes on at index 96: records 1 to 4 are found once more, and record 5.
  EXPECT_THAT(numbers(events), ElementsAre(1, 2, 3, 4, 1, 2, 3, 4, 5));
  EXPECT_EQ(process.queueFile(), "");
  EXPECT_THAT(process.messages(),
              ElementsAre(loading(), chunk(4096, 0), "Error: Invalid range when extracting unparsed bytes: raised on purpose",
                          chunk(904, 96), readEvents(9)));
}

TEST_F(Loading, StandardExceptionsFromCuttingAndParsingPassToTheCaller) {
  process.setQueueFile(three);
  for (const char* operation : {"Data.subdata", "JSON.read"}) {
    process.plan().throwStandard(operation, nth(1));
    EXPECT_THROW(inspect.getSavedJsonData(), std::runtime_error) << operation;
    EXPECT_EQ(process.queueFile(), three);
  }
}

// No temporary file.

constexpr const char* kNoTempfile =
    "Failed to create temp file, will try to delete the queue first and see if that frees up enough space/file handles to continue";

TEST_F(Loading, WithoutATemporaryFileAndWithAQueueThatStaysTheRecordsAreReturnedAndKept) {
  process.setQueueFile(three);
  process.plan().fail("FileManager.writeDataWithoutOverwriting", nth(1), kError);
  process.plan().fail("FileManager.removeItem", nth(1).on(kQueue), someError("It stays."));
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1, 2, 3));
  EXPECT_EQ(process.queueFile(), three);
  EXPECT_THAT(
      messagesWithoutChunks(),
      ElementsAre(loading(), kNoTempfile, "Failed to remove queue, return events parsed and re-attempt this later: It stays."));
  process.clearMessages();
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1, 2, 3)) << "the next load returns them again";
}

TEST_F(Loading, WithoutATemporaryFileAlsoAfterRemovingTheQueueTheRestIsLost) {
  process.setQueueFile(linesOfLength(1000, 1, 300));
  process.plan().fail("FileManager.writeDataWithoutOverwriting", everyCall(), kError);
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), SizeIs(208));
  EXPECT_EQ(process.queueFile(), std::nullopt);
  EXPECT_THAT(messagesWithoutChunks(),
              ElementsAre(loading(), kNoTempfile, "Failed to create temp file also after deleting the queue"));
}

TEST_F(Loading, ATemporaryFileAfterRemovingTheQueueHoldsTheCarriedBytesOnly) {
  const std::string all = linesOfLength(1000, 1, 300);
  process.setQueueFile(all);
  process.plan().fail("FileManager.writeDataWithoutOverwriting", nth(1), kError);
  process.plan().clearCalls();
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), SizeIs(208));
  EXPECT_EQ(process.queueFile(), all.substr(208000, 896));
  EXPECT_THAT(messagesWithoutChunks(),
              ElementsAre(loading(), kNoTempfile,
                          "Reading event queue or writing to temp file failed, will replace queue with whatever we "
                          "managed to read"));
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
}

// No handle on the temporary file.

TEST_F(Loading, WithoutAHandleOnTheTemporaryFileTheQueueBecomesTheCarriedBytes) {
  const std::string all = linesOfLength(1000, 1, 300);
  process.setQueueFile(all);
  process.plan().fail("FileManager.openForWriting", nth(1), kError);
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), SizeIs(208));
  EXPECT_EQ(process.queueFile(), all.substr(208000, 896));
  EXPECT_THAT(messagesWithoutChunks(),
              ElementsAre(loading(), "Failed to get file handle for temp file for event queue: It went wrong on purpose.",
                          readEvents(208)));
}

TEST_F(Loading, WithoutAHandleAndWithAQueueThatStaysTheQueueBecomesTheCarriedBytesToo) {
  const std::string all = linesOfLength(1000, 1, 300);
  process.setQueueFile(all);
  process.plan().fail("FileManager.openForWriting", nth(1), kError);
  process.plan().fail("FileManager.removeItem", nth(1).on(kQueue), someError("It stays."));
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), SizeIs(208));
  EXPECT_EQ(process.queueFile(), all.substr(208000, 896));
  EXPECT_THAT(messagesWithoutChunks(),
              ElementsAre(loading(), "Failed to get file handle for temp file for event queue: It went wrong on purpose.",
                          "Failed to remove event queue after failing to get file handle for temp file: It stays."));
}

// Failures of the copy.

class LoadingCopies : public Loading {
 protected:
  /// Chunks of the rest that are copied before the failure, over the carried bytes.
  void expectCopied(std::size_t chunks) {
    const std::string carried = all.substr(208000, 896);
    std::string expected = all.substr(208896, chunks * 4096);
    if (expected.size() < carried.size()) expected += carried.substr(expected.size());
    EXPECT_EQ(process.queueFile(), expected);
    EXPECT_THAT(messagesWithoutChunks(), ElementsAre(loading(),
                                                     "Reading event queue or writing to temp file failed, will replace queue with "
                                                     "whatever we managed to read"));
    EXPECT_THAT(process.temporaryFiles(), IsEmpty());
    const auto closes = process.callTexts({"FileHandle.closeFile", "FileManager.replaceItem"});
    ASSERT_THAT(closes, SizeIs(4));
    EXPECT_THAT(closes[0], HasSubstr(kTempfile));  // before it takes the queue's place
    EXPECT_THAT(closes[1], StartsWith("FileManager.replaceItem"));
    EXPECT_THAT(closes[2], HasSubstr(kQueue));
    EXPECT_THAT(closes[3], HasSubstr(kTempfile)) << "a second close is harmless";
  }

  const std::string all = linesOfLength(1000, 1, 300);
};

TEST_F(LoadingCopies, AReadThatRaisesKeepsWhatWasCopied) {
  process.setQueueFile(all);
  process.plan().clearCalls();
  process.plan().raise("FileHandle.readDataOfLength", nth(51 + 3), kRaise);
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), SizeIs(208));
  expectCopied(2);
}

TEST_F(LoadingCopies, TheFirstReadThatRaisesLeavesTheCarriedBytes) {
  process.setQueueFile(all);
  process.plan().clearCalls();
  process.plan().raise("FileHandle.readDataOfLength", nth(51 + 1), kRaise);
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), SizeIs(208));
  expectCopied(0);
}

TEST_F(LoadingCopies, AWriteThatRaisesKeepsWhatWasWritten) {
  process.setQueueFile(all);
  process.plan().clearCalls();
  process.plan().raise("FileHandle.writeData", nth(2), kRaise);
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), SizeIs(208));
  expectCopied(1);
}

TEST_F(LoadingCopies, AShortWriteLiesOverTheCarriedBytes) {
  process.setQueueFile(all);
  process.plan().writeShort("FileHandle.writeData", nth(1), 100);
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), SizeIs(208));
  EXPECT_EQ(process.queueFile(), all.substr(208896, 100) + all.substr(208100, 796));
}

TEST_F(LoadingCopies, AStandardExceptionPassesToTheCallerAfterBothHandlesAreClosed) {
  process.setQueueFile(all);
  process.plan().clearCalls();
  process.plan().throwStandard("FileHandle.writeData", nth(2));
  EXPECT_THROW(inspect.getSavedJsonData(), std::runtime_error);
  EXPECT_EQ(process.queueFile(), all);
  EXPECT_EQ(process.plan().count("FileHandle.closeFile"), 2U);
}

TEST_F(LoadingCopies, AStandardExceptionFromAClosePassesToTheCallerAfterTheOtherHandleIsClosedToo) {
  process.setQueueFile(all);
  process.plan().clearCalls();
  process.plan().throwStandard("FileHandle.closeFile", nth(1));
  EXPECT_THROW(inspect.getSavedJsonData(), std::runtime_error);
  EXPECT_EQ(process.plan().count("FileHandle.closeFile"), 2U);
  EXPECT_EQ(process.queueFile(), all);
}

TEST_F(LoadingCopies, TheFinalEmptyChunkIsWrittenToo) {
  process.setQueueFile(all);
  process.plan().clearCalls();
  inspect.getSavedJsonData();
  const auto writes = process.callTexts({"FileHandle.writeData"});
  EXPECT_THAT(writes.back(), testing::EndsWith(" 0"));
}

// Failure of the replacement.

TEST_F(Loading, AFailedReplacementReturnsTheRecordsAndKeepsThem) {
  process.setQueueFile(three);
  process.plan().fail("FileManager.replaceItem", nth(1), kError);
  EXPECT_THAT(numbers(inspect.getSavedJsonData()), ElementsAre(1, 2, 3));
  EXPECT_EQ(process.queueFile(), three);
  EXPECT_THAT(messagesWithoutChunks(),
              ElementsAre(loading(), "Replacing event queue with temp queue failed: It went wrong on purpose.", readEvents(3)));
  EXPECT_THAT(process.temporaryFiles(), IsEmpty());
}

}  // namespace
}  // namespace test
