// What every file manager keeps: one suite over the real file system and over the one in memory. Tests carry their platform rows.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <functional>

#include "platform/Exception.h"
#include "platform/Process.h"
#include "platform/linux/PosixFileManager.h"
#include "support/ManualClock.h"
#include "support/MemoryFileManager.h"
#include "support/TemporaryDirectory.h"

namespace {

using platform::Data;
using platform::Date;
using platform::Error;
using platform::FileAttributes;
using platform::FileHandle;
using platform::FileManager;
using platform::URL;

// A file manager with a place to work in.
struct Subject {
  virtual ~Subject() = default;
  virtual void makeSymbolicLink(const std::string& path, const std::string& target) = 0;
  /// The next status change has a later date than those before.
  virtual void letTimePass() = 0;

  std::shared_ptr<FileManager> manager;
  std::string root;
};

struct PosixSubject : Subject {
  PosixSubject() {
    root = directory.path();
    manager = platform::makePosixFileManager({.bundleIdentifier = "com.example.app", .homeDirectory = root + "/home"});
  }
  void makeSymbolicLink(const std::string& path, const std::string& target) override {
    ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0);
  }
  void letTimePass() override {
    const std::string path = root + "/tick";
    const auto give = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    ASSERT_TRUE(Data("").writeToURLWithoutOverwriting(URL::fileURLWithPath(path)));
    struct stat first{};
    struct stat next{};
    ASSERT_EQ(::stat(path.c_str(), &first), 0);
    do {  // the kernel stamps files with a clock that moves in steps of some milliseconds
      ASSERT_LT(std::chrono::steady_clock::now(), give);
      ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
      ASSERT_EQ(::stat(path.c_str(), &next), 0);
    } while (next.st_ctim.tv_sec == first.st_ctim.tv_sec && next.st_ctim.tv_nsec == first.st_ctim.tv_nsec);
    ASSERT_EQ(::unlink(path.c_str()), 0);
  }
  test::TemporaryDirectory directory;
};

struct MemorySubject : Subject {
  explicit MemorySubject(test::ManualClock& itsClock) : clock(itsClock) {
    root = "/work";
    auto memory = std::make_shared<test::MemoryFileManager>(root + "/home/com.example.app");
    files = memory.get();
    manager = memory;
    EXPECT_TRUE(manager->createDirectoryAtURL(URL::fileURLWithPath(root)));
  }
  void makeSymbolicLink(const std::string& path, const std::string& target) override { files->makeSymbolicLink(path, target); }
  void letTimePass() override { clock.advance(1); }
  test::ManualClock& clock;
  test::MemoryFileManager* files;
};

enum class Kind { kPosix, kMemory };

class Files : public ::testing::TestWithParam<Kind> {
 protected:
  Files() : clock_(std::make_shared<test::ManualClock>()) { process_.clock = clock_; }

  void SetUp() override {
    scope_.emplace(process_);
    if (GetParam() == Kind::kPosix) subject_ = std::make_unique<PosixSubject>();
    if (GetParam() == Kind::kMemory) subject_ = std::make_unique<MemorySubject>(*clock_);
    process_.fileManager = subject_->manager;
  }

  FileManager& manager() { return FileManager::defaultManager(); }
  std::string path(const std::string& name) const { return subject_->root + "/" + name; }
  URL url(const std::string& name) const { return URL::fileURLWithPath(path(name)); }
  std::string rootName() const { return subject_->root.substr(subject_->root.rfind('/') + 1); }

  void put(const std::string& name, std::string_view bytes) {
    const auto written = Data(bytes).writeToURLWithoutOverwriting(url(name));
    ASSERT_TRUE(written) << written.error().localizedDescription();
  }
  std::optional<std::string> bytes(const std::string& name) {
    const auto content = Data::dataWithContentsOfURL(url(name));
    return content ? std::optional(std::string(content->bytes())) : std::nullopt;
  }
  bool exists(const std::string& name) { return manager().fileExistsAtPath(path(name)); }
  std::vector<std::string> names(const std::string& directory) {
    auto content = manager().contentsOfDirectoryAtPath(path(directory));
    EXPECT_TRUE(content);
    if (!content) return {};
    std::sort(content->begin(), content->end());
    return *content;
  }
  std::shared_ptr<FileHandle> open(const std::string& name, FileManager::Access access) {
    auto handle = manager().openFileHandle(url(name), access);
    EXPECT_TRUE(handle);
    return handle ? *handle : nullptr;
  }

  std::shared_ptr<test::ManualClock> clock_;
  platform::Process process_;
  std::optional<platform::Process::Scope> scope_;
  std::unique_ptr<Subject> subject_;
};

template <class T>
void expectError(const std::expected<T, Error>& result, std::int64_t code, const std::string& text, int systemError) {
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().domain(), "NSCocoaErrorDomain");
  EXPECT_EQ(result.error().code(), code);
  EXPECT_EQ(result.error().localizedDescription(), text);
  if (systemError == 0) {
    EXPECT_EQ(result.error().underlyingError(), nullptr);
    return;
  }
  ASSERT_NE(result.error().underlyingError(), nullptr);
  EXPECT_EQ(result.error().underlyingError()->domain(), "NSPOSIXErrorDomain");
  EXPECT_EQ(result.error().underlyingError()->code(), systemError);
}

void expectRaise(const std::function<void()>& operation, const std::string& reason) {
  try {
    operation();
    ADD_FAILURE() << "nothing was raised; expected " << reason;
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSFileHandleOperationException");
    EXPECT_EQ(exception.reason(), reason);
  }
}

constexpr const char* kAbsentText = "The operation couldn’t be completed. (NSCocoaErrorDomain error 4.)";

// Handles

TEST_P(Files, F1_WriteOnAReadingHandleRaises) {
  put("a", "abc");
  const auto handle = open("a", FileManager::Access::kReading);
  expectRaise([&] { handle->writeData(Data("x")); }, "*** -[NSConcreteFileHandle writeData:]: Bad file descriptor");
  EXPECT_EQ(bytes("a"), "abc");
}

TEST_P(Files, F1_ReadOnAWritingHandleRaises) {
  put("a", "abc");
  const auto handle = open("a", FileManager::Access::kWriting);
  expectRaise([&] { handle->readDataOfLength(1); }, "*** -[NSConcreteFileHandle readDataOfLength:]: Bad file descriptor");
  expectRaise([&] { handle->readDataToEndOfFile(); }, "*** -[NSConcreteFileHandle readDataToEndOfFile]: Bad file descriptor");
}

TEST_P(Files, F1_ReadOfADirectoryRaises) {
  const auto handle = manager().openFileHandle(URL::fileURLWithPath(subject_->root), FileManager::Access::kReading);
  ASSERT_TRUE(handle);
  expectRaise([&] { (*handle)->readDataOfLength(1); }, "*** -[NSConcreteFileHandle readDataOfLength:]: Is a directory");
}

TEST_P(Files, F1_ReadAtTheEndGivesEmptyData) {
  put("a", "abc");
  const auto handle = open("a", FileManager::Access::kReading);
  EXPECT_EQ(handle->readDataOfLength(2).bytes(), "ab");
  EXPECT_EQ(handle->readDataOfLength(2).bytes(), "c");
  EXPECT_EQ(handle->readDataOfLength(2).bytes(), "");
  EXPECT_EQ(handle->readDataToEndOfFile().bytes(), "");
}

TEST_P(Files, F1_CloseNeverRaisesAndASecondOneIsHarmless) {
  put("a", "abc");
  const auto handle = open("a", FileManager::Access::kUpdating);
  handle->closeFile();
  const auto other = open("a", FileManager::Access::kReading);  // would get the number that a real second close must not close
  handle->closeFile();
  EXPECT_EQ(other->readDataToEndOfFile().bytes(), "abc");
}

TEST_P(Files, F1_EveryOtherOperationOnAClosedHandleRaises) {
  put("a", "abc");
  const auto handle = open("a", FileManager::Access::kUpdating);
  handle->closeFile();
  expectRaise([&] { handle->seekToEndOfFile(); }, "*** -[NSConcreteFileHandle seekToEndOfFile]: Bad file descriptor");
  expectRaise([&] { handle->seekToFileOffset(0); }, "*** -[NSConcreteFileHandle seekToFileOffset:]: Bad file descriptor");
  expectRaise([&] { handle->readDataOfLength(0); }, "*** -[NSConcreteFileHandle readDataOfLength:]: Bad file descriptor");
  expectRaise([&] { handle->readDataToEndOfFile(); }, "*** -[NSConcreteFileHandle readDataToEndOfFile]: Bad file descriptor");
  expectRaise([&] { handle->writeData(Data()); }, "*** -[NSConcreteFileHandle writeData:]: Bad file descriptor");
  expectRaise([&] { handle->synchronizeFile(); }, "*** -[NSConcreteFileHandle synchronizeFile]: Bad file descriptor");
}

TEST_P(Files, F2_OpeningNeitherCreatesNorTruncates) {
  put("a", "abc");
  open("a", FileManager::Access::kWriting)->closeFile();
  open("a", FileManager::Access::kUpdating)->closeFile();
  EXPECT_EQ(bytes("a"), "abc");
  EXPECT_FALSE(FileHandle::fileHandleForWritingToURL(url("b")));
  EXPECT_FALSE(FileHandle::fileHandleForUpdatingURL(url("b")));
  EXPECT_FALSE(exists("b"));
}

TEST_P(Files, F2_WritingStartsAtTheHeadAndGoesOverWhatIsThere) {
  put("a", "abcdef");
  const auto handle = open("a", FileManager::Access::kWriting);
  handle->writeData(Data("XY"));
  handle->writeData(Data("Z"));
  handle->writeData(Data());
  EXPECT_EQ(bytes("a"), "XYZdef");
}

TEST_P(Files, F2_SeekToTheEndGivesTheSizeAndAppends) {
  put("a", "abc");
  const auto handle = open("a", FileManager::Access::kUpdating);
  EXPECT_EQ(handle->seekToEndOfFile(), 3u);
  handle->writeData(Data(std::string_view("d\0e", 3)));
  EXPECT_EQ(handle->seekToEndOfFile(), 6u);
  handle->seekToFileOffset(2);
  EXPECT_EQ(handle->readDataToEndOfFile().bytes(), std::string_view("cd\0e", 4));
  handle->synchronizeFile();
}

TEST_P(Files, F2_MissingFile) {
  expectError(FileHandle::fileHandleForReadingFromURL(url("b")), 260,
              "The file “b” couldn’t be opened because there is no such file.", ENOENT);
  expectError(FileHandle::fileHandleForWritingToURL(url("b")), 4, "The file “b” doesn’t exist.", ENOENT);
  expectError(FileHandle::fileHandleForUpdatingURL(url("b")), 4, "The file “b” doesn’t exist.", ENOENT);
  expectError(Data::dataWithContentsOfURL(url("b")), 260, "The file “b” couldn’t be opened because there is no such file.", ENOENT);
}

TEST_P(Files, F2_OpeningADirectoryForWritingFails) {
  ASSERT_TRUE(manager().createDirectoryAtURL(url("d")));
  expectError(FileHandle::fileHandleForWritingToURL(url("d")), 512,
              "The file “d” couldn’t be saved in the folder “" + rootName() + "”.", EISDIR);
}

TEST_P(Files, F2_OpeningFollowsASymbolicLink) {
  put("a", "abc");
  subject_->makeSymbolicLink(path("l"), "a");
  open("l", FileManager::Access::kWriting)->writeData(Data("X"));
  EXPECT_EQ(bytes("a"), "Xbc");
  EXPECT_EQ(bytes("l"), "Xbc");
}

TEST_P(Files, F8_AnyOffsetIsTakenAndReadsBeyondTheEndGiveNothing) {
  put("a", "abc");
  const auto handle = open("a", FileManager::Access::kUpdating);
  for (const std::uint64_t offset : {std::uint64_t{3}, std::uint64_t{4}, std::uint64_t{1} << 40, std::uint64_t{INT64_MAX} - 1,
                                     std::uint64_t{INT64_MAX}, std::uint64_t{INT64_MAX} + 1, UINT64_MAX}) {
    handle->seekToFileOffset(offset);
    EXPECT_EQ(handle->readDataOfLength(10).bytes(), "") << offset;
    EXPECT_EQ(handle->readDataToEndOfFile().bytes(), "") << offset;
  }
  handle->seekToFileOffset(1);
  EXPECT_EQ(handle->readDataOfLength(UINT64_MAX).bytes(), "bc");
}

TEST_P(Files, F8_AWriteBeyondTheEndLeavesZerosAndOneTooFarRaises) {
  put("a", "abc");
  const auto handle = open("a", FileManager::Access::kUpdating);
  handle->seekToFileOffset(5);
  handle->writeData(Data("x"));
  EXPECT_EQ(bytes("a"), std::string("abc\0\0x", 6));
  for (const std::uint64_t offset : {std::uint64_t{INT64_MAX}, std::uint64_t{INT64_MAX} + 1, UINT64_MAX}) {
    handle->seekToFileOffset(offset);
    expectRaise([&] { handle->writeData(Data("xy")); }, "*** -[NSConcreteFileHandle writeData:]: File too large");
  }
  EXPECT_EQ(bytes("a"), std::string("abc\0\0x", 6));
}

TEST_P(Files, F8_LargeReadsAreWhole) {
  std::string content(300'000, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 31 + i / 251);
  put("a", content);
  const auto handle = open("a", FileManager::Access::kReading);
  EXPECT_EQ(handle->readDataOfLength(4096).bytes(), content.substr(0, 4096));
  EXPECT_EQ(handle->readDataOfLength(200'000).bytes(), content.substr(4096, 200'000));
  EXPECT_EQ(handle->readDataToEndOfFile().bytes(), content.substr(204'096));
}

TEST_P(Files, F8_AHandleKeepsItsFileWhenTheNameGoesAway) {
  put("a", "abc");
  put("b", "new");
  const auto handle = open("a", FileManager::Access::kReading);
  ASSERT_TRUE(manager().replaceItemAtURLWithItemAtURL(url("a"), url("b")));
  EXPECT_EQ(handle->readDataToEndOfFile().bytes(), "abc");
  EXPECT_EQ(bytes("a"), "new");
}

// Creating

TEST_P(Files, F5_WritingANewFileRefusesToOverwrite) {
  put("a", "abc");
  expectError(Data("x").writeToURLWithoutOverwriting(url("a")), 516,
              "The file “a” couldn’t be saved in the folder “" + rootName() + "” because a file with the same name already exists.",
              EEXIST);
  EXPECT_EQ(bytes("a"), "abc");
}

TEST_P(Files, F5_WritingANewFileDoesNotFollowASymbolicLink) {
  subject_->makeSymbolicLink(path("l"), "b");
  expectError(Data("x").writeToURLWithoutOverwriting(url("l")), 516,
              "The file “l” couldn’t be saved in the folder “" + rootName() + "” because a file with the same name already exists.",
              EEXIST);
  EXPECT_FALSE(exists("b"));
}

TEST_P(Files, F3_WritingANewFileIntoAMissingFolderFails) {
  expectError(Data("x").writeToURLWithoutOverwriting(url("d/a")), 4, "The folder “d” doesn’t exist.", ENOENT);
}

TEST_P(Files, F3_ANameBelowAFileFails) {
  put("a", "abc");
  expectError(Data("x").writeToURLWithoutOverwriting(url("a/b")), 512, "The file “b” couldn’t be saved in the folder “a”.",
              ENOTDIR);
  expectError(Data::dataWithContentsOfURL(url("a/b")), 256, "The file “b” couldn’t be opened.", ENOTDIR);
}

TEST_P(Files, F3_APathWithANulTouchesNoOtherFile) {
  put("a", "abc");
  const URL bad = *URL::URLWithString(url("a").absoluteString() + "%00b");
  expectError(Data::dataWithContentsOfURL(bad), 256, std::string("The file “a") + '\0' + "b” couldn’t be opened.", EINVAL);
  EXPECT_FALSE(manager().fileExistsAtPath(bad.path()));
  EXPECT_FALSE(manager().removeItemAtURL(bad));
  EXPECT_FALSE(manager().copyItemAtURLToURL(bad, url("c")));
  EXPECT_FALSE(manager().linkItemAtURLToURL(bad, url("c")));
  EXPECT_FALSE(manager().moveItemAtURLToURL(bad, url("c")));
  EXPECT_FALSE(manager().replaceItemAtURLWithItemAtURL(url("c"), bad));
  EXPECT_FALSE(manager().replaceItemAtURLWithItemAtURL(bad, url("a")));
  EXPECT_FALSE(manager().createDirectoryAtURL(bad));
  EXPECT_FALSE(manager().attributesOfItemAtPath(bad.path()));
  EXPECT_FALSE(manager().contentsOfDirectoryAtPath(bad.path()));
  EXPECT_FALSE(Data("x").writeToURLWithoutOverwriting(bad));
  EXPECT_FALSE(FileHandle::fileHandleForWritingToURL(bad));
  EXPECT_EQ(names(""), std::vector<std::string>{"a"});
  EXPECT_EQ(bytes("a"), "abc");
}

// Copy, link, move

TEST_P(Files, F5_CopyMakesAFileOfItsOwn) {
  std::string content(200'000, 'x');
  content += "end";
  put("a", content);
  ASSERT_TRUE(manager().copyItemAtURLToURL(url("a"), url("b")));
  open("a", FileManager::Access::kWriting)->writeData(Data("changed"));
  EXPECT_EQ(bytes("b"), content);
}

TEST_P(Files, F5_CopyOfAnEmptyFile) {
  put("a", "");
  ASSERT_TRUE(manager().copyItemAtURLToURL(url("a"), url("b")));
  EXPECT_EQ(bytes("b"), "");
}

TEST_P(Files, F5_CopyRefusesToOverwrite) {
  put("a", "abc");
  put("b", "def");
  expectError(manager().copyItemAtURLToURL(url("a"), url("b")), 516,
              "“a” couldn’t be copied to “" + rootName() + "” because an item with the same name already exists.", EEXIST);
  EXPECT_EQ(bytes("b"), "def");
}

TEST_P(Files, F3_CopyOfAMissingFileOrIntoAMissingFolderFails) {
  expectError(manager().copyItemAtURLToURL(url("a"), url("b")), 260,
              "The file “a” couldn’t be opened because there is no such file.", ENOENT);
  EXPECT_FALSE(exists("b"));
  put("a", "abc");
  expectError(manager().copyItemAtURLToURL(url("a"), url("d/b")), 4, "The folder “d” doesn’t exist.", ENOENT);
}

TEST_P(Files, F5_CopyOfADirectoryIsRefused) {
  ASSERT_TRUE(manager().createDirectoryAtURL(url("d")));
  expectError(manager().copyItemAtURLToURL(url("d"), url("e")), 256, "The file “d” couldn’t be opened.", EISDIR);
  EXPECT_FALSE(exists("e"));
}

TEST_P(Files, F5_ASymbolicLinkIsCopiedLinkedMovedAndRemovedAsItself) {
  put("a", "abc");
  subject_->makeSymbolicLink(path("l"), "a");
  ASSERT_TRUE(manager().copyItemAtURLToURL(url("l"), url("copy")));
  ASSERT_TRUE(manager().linkItemAtURLToURL(url("l"), url("link")));
  ASSERT_TRUE(manager().moveItemAtURLToURL(url("l"), url("moved")));
  for (const char* name : {"copy", "link", "moved"}) {
    EXPECT_EQ(manager().attributesOfItemAtPath(path(name))->type, FileAttributes::Type::kSymbolicLink) << name;
    EXPECT_EQ(bytes(name), "abc") << name;
    ASSERT_TRUE(manager().removeItemAtPath(path(name) + "/")) << name;
  }
  EXPECT_EQ(names(""), std::vector<std::string>{"a"});
}

TEST_P(Files, F5_LinkIsAHardLink) {
  put("a", "abc");
  ASSERT_TRUE(manager().linkItemAtURLToURL(url("a"), url("b")));
  open("a", FileManager::Access::kWriting)->writeData(Data("X"));
  EXPECT_EQ(bytes("b"), "Xbc");
  ASSERT_TRUE(manager().removeItemAtURL(url("a")));
  EXPECT_EQ(bytes("b"), "Xbc");
}

TEST_P(Files, F5_LinkRefusesToOverwrite) {
  ASSERT_TRUE(manager().createDirectoryAtURL(url("d")));
  put("source", "abc");
  put("d/b", "def");
  expectError(manager().linkItemAtURLToURL(url("source"), url("d/b")), 516,
              "“source” couldn’t be linked to “d” because an item with the same name already exists.", EEXIST);
  EXPECT_EQ(bytes("d/b"), "def");
}

TEST_P(Files, F3_LinkOfAMissingFileFails) {
  expectError(manager().linkItemAtURLToURL(url("a"), url("b")), 4,
              "“a” couldn’t be linked to “" + rootName() +
                  "” because either the former doesn’t exist, or the folder containing the latter doesn’t exist.",
              ENOENT);
}

TEST_P(Files, F3_LinkOfADirectoryIsNotPermitted) {
  ASSERT_TRUE(manager().createDirectoryAtURL(url("d")));
  expectError(manager().linkItemAtURLToURL(url("d"), url("e")), 513,
              "You don’t have permission to save the file “e” in the folder “" + rootName() + "”.", EPERM);
}

TEST_P(Files, F5_MoveTakesTheFileAway) {
  put("a", "abc");
  ASSERT_TRUE(manager().moveItemAtURLToURL(url("a"), url("b")));
  EXPECT_EQ(names(""), std::vector<std::string>{"b"});
  EXPECT_EQ(bytes("b"), "abc");
}

TEST_P(Files, F5_MoveRefusesToOverwrite) {
  put("a", "abc");
  put("b", "def");
  expectError(manager().moveItemAtURLToURL(url("a"), url("b")), 516,
              "“a” couldn’t be moved to “" + rootName() + "” because an item with the same name already exists.", EEXIST);
  EXPECT_EQ(bytes("a"), "abc");
  EXPECT_EQ(bytes("b"), "def");
}

TEST_P(Files, F3_MoveOfAMissingFileFails) {
  expectError(manager().moveItemAtURLToURL(url("a"), url("b")), 4,
              "“a” couldn’t be moved to “" + rootName() +
                  "” because either the former doesn’t exist, or the folder containing the latter doesn’t exist.",
              ENOENT);
}

// Replacing

TEST_P(Files, F6_ReplaceTakesTheOriginalsPlace) {
  put("original", "old");
  put("new", "fresh");
  const auto result = manager().replaceItemAtURLWithItemAtURL(url("original"), url("new"));
  ASSERT_TRUE(result);
  EXPECT_EQ(*result, url("original"));
  EXPECT_EQ(bytes("original"), "fresh");
  EXPECT_EQ(names(""), std::vector<std::string>{"original"});
}

TEST_P(Files, F6_ReplaceTakesTheNameWhenThereIsNoOriginal) {
  put("new", "fresh");
  ASSERT_TRUE(manager().replaceItemAtURLWithItemAtURL(url("original"), url("new")));
  EXPECT_EQ(bytes("original"), "fresh");
  EXPECT_EQ(names(""), std::vector<std::string>{"original"});
}

TEST_P(Files, F6_ReplaceWithAMissingItemLeavesTheOriginal) {
  put("original", "old");
  expectError(manager().replaceItemAtURLWithItemAtURL(url("original"), url("new")), 4, "The file “new” doesn’t exist.", ENOENT);
  EXPECT_EQ(bytes("original"), "old");
}

TEST_P(Files, F6_ReplaceIntoAMissingFolderLeavesTheNewItem) {
  put("new", "fresh");
  expectError(manager().replaceItemAtURLWithItemAtURL(url("d/original"), url("new")), 4, "The folder “d” doesn’t exist.", ENOENT);
  EXPECT_EQ(bytes("new"), "fresh");
}

TEST_P(Files, F6_ReplaceOfADirectoryByAFileLeavesBoth) {
  ASSERT_TRUE(manager().createDirectoryAtURL(url("original")));
  put("new", "fresh");
  expectError(manager().replaceItemAtURLWithItemAtURL(url("original"), url("new")), 512,
              "The file “original” couldn’t be saved in the folder “" + rootName() + "”.", EISDIR);
  EXPECT_EQ(names(""), (std::vector<std::string>{"new", "original"}));
}

TEST_P(Files, F6_ReplaceTakesTheOldNameAwayAlsoWhenBothAreLinksOfOneFile) {
  put("original", "same");
  ASSERT_TRUE(manager().linkItemAtURLToURL(url("original"), url("new")));
  ASSERT_TRUE(manager().replaceItemAtURLWithItemAtURL(url("original"), url("new")));
  EXPECT_EQ(names(""), std::vector<std::string>{"original"});
  EXPECT_EQ(bytes("original"), "same");
}

TEST_P(Files, F6_ReplaceOfAFileByItselfKeepsIt) {
  put("original", "same");
  ASSERT_TRUE(manager().linkItemAtURLToURL(url("original"), url("other")));
  ASSERT_TRUE(manager().replaceItemAtURLWithItemAtURL(url("original"), url("./original")));
  EXPECT_EQ(bytes("original"), "same");
  EXPECT_EQ(names(""), (std::vector<std::string>{"original", "other"}));
}

TEST_P(Files, F6_ReplacePutsASymbolicLinkAside) {
  put("target", "target");
  put("new", "fresh");
  subject_->makeSymbolicLink(path("original"), "target");
  ASSERT_TRUE(manager().replaceItemAtURLWithItemAtURL(url("original"), url("new")));
  EXPECT_EQ(manager().attributesOfItemAtPath(path("original"))->type, FileAttributes::Type::kRegular);
  EXPECT_EQ(bytes("target"), "target");
}

TEST_P(Files, F6_ReplaceBySymbolicLinkTakesTheLinkItself) {
  put("target", "target");
  put("original", "old");
  subject_->makeSymbolicLink(path("new"), "target");
  ASSERT_TRUE(manager().replaceItemAtURLWithItemAtURL(url("original"), url("new")));
  EXPECT_EQ(manager().attributesOfItemAtPath(path("original"))->type, FileAttributes::Type::kSymbolicLink);
  EXPECT_EQ(bytes("original"), "target");
  EXPECT_EQ(names(""), (std::vector<std::string>{"original", "target"}));
}

// Removing, directories

TEST_P(Files, F7_RemovingSomethingThatIsNotThereFails) {
  expectError(manager().removeItemAtURL(url("a")), 4, "“a” couldn’t be removed.", ENOENT);
  expectError(manager().removeItemAtPath(path("d/a")), 4, "“a” couldn’t be removed.", ENOENT);
}

TEST_P(Files, F7_RemovingTakesFilesAndEmptyDirectories) {
  put("a", "abc");
  ASSERT_TRUE(manager().createDirectoryAtURL(url("d")));
  put("d/b", "abc");
  EXPECT_TRUE(manager().removeItemAtURL(url("a")));
  expectError(manager().removeItemAtURL(url("d")), 512, "“d” couldn’t be removed.", ENOTEMPTY);
  EXPECT_TRUE(manager().removeItemAtPath(path("d/b")));
  EXPECT_TRUE(manager().removeItemAtURL(url("d")));
  EXPECT_EQ(names(""), std::vector<std::string>{});
}

TEST_P(Files, F7_MakingADirectoryWithIntermediatesAlsoWhenItExists) {
  ASSERT_TRUE(manager().createDirectoryAtURL(url("d/e/f")));
  ASSERT_TRUE(manager().createDirectoryAtURL(url("d/e/f/")));
  EXPECT_EQ(names("d/e"), std::vector<std::string>{"f"});
  EXPECT_EQ(manager().attributesOfItemAtPath(path("d/e/f"))->type, FileAttributes::Type::kDirectory);
}

TEST_P(Files, F7_MakingADirectoryWhereAFileIsFails) {
  put("a", "abc");
  expectError(manager().createDirectoryAtURL(url("a")), 516,
              "The file “a” couldn’t be saved in the folder “" + rootName() + "” because a file with the same name already exists.",
              EEXIST);
  expectError(manager().createDirectoryAtURL(url("a/b")), 512, "The file “b” couldn’t be saved in the folder “a”.", ENOTDIR);
}

TEST_P(Files, F7_ListingGivesNamesOnly) {
  put("b", "");
  put("ü %", "");
  ASSERT_TRUE(manager().createDirectoryAtURL(url("d")));
  put("d/inside", "");
  EXPECT_EQ(names(""), (std::vector<std::string>{"b", "d", "ü %"}));
  expectError(manager().contentsOfDirectoryAtPath(path("x")), 260, "The file “x” couldn’t be opened because there is no such file.",
              ENOENT);
  expectError(manager().contentsOfDirectoryAtPath(path("b")), 256, "The file “b” couldn’t be opened.", ENOTDIR);
}

TEST_P(Files, F7_ExistenceFollowsSymbolicLinks) {
  put("a", "");
  subject_->makeSymbolicLink(path("good"), "a");
  subject_->makeSymbolicLink(path("dangling"), "b");
  subject_->makeSymbolicLink(path("loop"), "loop");
  EXPECT_TRUE(exists("a"));
  EXPECT_TRUE(exists("good"));
  EXPECT_FALSE(exists("dangling"));
  EXPECT_FALSE(exists("loop"));
  EXPECT_FALSE(exists("b"));
  EXPECT_FALSE(manager().fileExistsAtPath(""));
  EXPECT_TRUE(manager().fileExistsAtPath(subject_->root));
  expectError(Data::dataWithContentsOfURL(url("loop")), 256, "The file “loop” couldn’t be opened.", ELOOP);
}

// Absent URLs

TEST_P(Files, F9_AnAbsentURLIsLikeAMissingFile) {
  put("a", "abc");
  const URL elsewhere = *URL::URLWithString("https://example.com" + path("a"));
  for (const std::optional<URL>& absent : {std::optional<URL>(), std::optional<URL>(elsewhere)}) {
    expectError(FileHandle::fileHandleForWritingToURL(absent), 4, kAbsentText, 0);
    expectError(FileHandle::fileHandleForUpdatingURL(absent), 4, kAbsentText, 0);
    expectError(FileHandle::fileHandleForReadingFromURL(absent), 4, kAbsentText, 0);
    expectError(manager().removeItemAtURL(absent), 4, kAbsentText, 0);
    expectError(manager().copyItemAtURLToURL(absent, url("b")), 4, kAbsentText, 0);
    expectError(manager().copyItemAtURLToURL(url("a"), absent), 4, kAbsentText, 0);
    expectError(manager().linkItemAtURLToURL(absent, url("b")), 4, kAbsentText, 0);
    expectError(manager().linkItemAtURLToURL(url("a"), absent), 4, kAbsentText, 0);
    expectError(manager().moveItemAtURLToURL(absent, url("b")), 4, kAbsentText, 0);
    expectError(manager().moveItemAtURLToURL(url("a"), absent), 4, kAbsentText, 0);
    expectError(manager().replaceItemAtURLWithItemAtURL(absent, url("a")), 4, kAbsentText, 0);
    expectError(manager().replaceItemAtURLWithItemAtURL(url("a"), absent), 4, kAbsentText, 0);
    expectError(manager().createDirectoryAtURL(absent), 4, kAbsentText, 0);
    expectError(Data("x").writeToURLWithoutOverwriting(absent), 4, kAbsentText, 0);
    expectError(Data::dataWithContentsOfURL(absent), 4, kAbsentText, 0);
  }
  EXPECT_EQ(names(""), std::vector<std::string>{"a"});
  EXPECT_EQ(bytes("a"), "abc");
}

// The application's directories, attributes

TEST_P(Files, D1_TheApplicationsDirectoriesAreMadeWheneverTheyAreMissing) {
  EXPECT_FALSE(exists("home"));
  const auto support = manager().applicationSupportDirectory();
  const auto temporary = manager().temporaryDirectory();
  ASSERT_TRUE(support);
  ASSERT_TRUE(temporary);
  EXPECT_EQ(support->path(), path("home/com.example.app/application-support"));
  EXPECT_EQ(temporary->path(), path("home/com.example.app/tmp"));
  EXPECT_TRUE(manager().fileExistsAtPath(support->path()));
  EXPECT_TRUE(manager().fileExistsAtPath(temporary->path()));
  ASSERT_TRUE(manager().removeItemAtURL(*support));
  EXPECT_EQ(manager().applicationSupportDirectory(), *support);
  EXPECT_TRUE(manager().fileExistsAtPath(support->path()));
}

TEST_P(Files, D1_TheApplicationsDirectoriesShareAVolume) {
  const URL temporary = manager().temporaryDirectory()->URLByAppendingPathComponent("t");
  const URL saved = manager().applicationSupportDirectory()->URLByAppendingPathComponent("s");
  ASSERT_TRUE(Data("x").writeToURLWithoutOverwriting(temporary));
  EXPECT_TRUE(manager().replaceItemAtURLWithItemAtURL(saved, temporary));
}

TEST_P(Files, D1_ADirectoryThatCannotBeMadeIsAnError) {
  put("home", "in the way");
  expectError(manager().applicationSupportDirectory(), 512,
              "The file “application-support” couldn’t be saved in the folder “com.example.app”.", ENOTDIR);
}

TEST_P(Files, D2_Attributes) {
  put("a", "abc");
  const auto file = manager().attributesOfItemAtPath(path("a"));
  ASSERT_TRUE(file);
  EXPECT_EQ(file->fileSize, 3u);
  EXPECT_EQ(file->type, FileAttributes::Type::kRegular);
  EXPECT_EQ(manager().attributesOfItemAtPath(subject_->root)->type, FileAttributes::Type::kDirectory);
  subject_->makeSymbolicLink(path("l"), "somewhere");
  EXPECT_EQ(manager().attributesOfItemAtPath(path("l"))->type, FileAttributes::Type::kSymbolicLink);
  EXPECT_EQ(manager().attributesOfItemAtPath(path("l"))->fileSize, 9u);
  expectError(manager().attributesOfItemAtPath(path("b")), 260, "The file “b” couldn’t be opened because there is no such file.",
              ENOENT);
}

TEST_P(Files, D2_MakingALinkRenewsTheStatusChangeAndNotTheModification) {
  put("a", "abc");
  const FileAttributes before = *manager().attributesOfItemAtPath(path("a"));
  subject_->letTimePass();
  ASSERT_TRUE(manager().linkItemAtURLToURL(url("a"), url("b")));
  const FileAttributes after = *manager().attributesOfItemAtPath(path("b"));
  EXPECT_EQ(after.modificationDate, before.modificationDate);
  EXPECT_GT(after.attributeModificationDate, before.attributeModificationDate);
}

TEST_P(Files, D2_WritingRenewsBothDates) {
  put("a", "abc");
  const FileAttributes before = *manager().attributesOfItemAtPath(path("a"));
  subject_->letTimePass();
  open("a", FileManager::Access::kWriting)->writeData(Data("x"));
  const FileAttributes after = *manager().attributesOfItemAtPath(path("a"));
  EXPECT_GT(after.modificationDate, before.modificationDate);
  EXPECT_GT(after.attributeModificationDate, before.attributeModificationDate);
}

INSTANTIATE_TEST_SUITE_P(Over, Files, ::testing::Values(Kind::kPosix, Kind::kMemory),
                         [](const auto& instance) { return instance.param == Kind::kPosix ? "Posix" : "Memory"; });

// What only the twin has

TEST(MemoryFiles, PowerCutLeavesWhatReplaceBroughtToTheDisk) {
  test::MemoryFileManager files;
  const URL queue = files.applicationSupportDirectory()->URLByAppendingPathComponent("queue");
  const URL first = files.temporaryDirectory()->URLByAppendingPathComponent("first");
  const URL second = files.temporaryDirectory()->URLByAppendingPathComponent("second");
  ASSERT_TRUE(files.writeDataWithoutOverwriting(Data("one"), first));
  ASSERT_TRUE(files.replaceItemAtURLWithItemAtURL(queue, first));
  ASSERT_TRUE(files.writeDataWithoutOverwriting(Data("two"), second));
  auto handle = files.openFileHandle(queue, FileManager::Access::kWriting);
  ASSERT_TRUE(handle);
  (*handle)->writeData(Data("not synchronised"));
  files.powerCut();
  EXPECT_EQ(files.bytesAtPath(queue.path()), "one");
  EXPECT_EQ(files.allFiles(), std::vector<std::string>{"/application/application-support/queue"});
}

TEST(MemoryFiles, PowerCutKeepsSynchronisedBytesAndEverythingAfterSynchronizeAll) {
  test::MemoryFileManager files;
  files.setBytesAtPath("/d/a", "one");
  files.synchronizeAll();
  files.setBytesAtPath("/d/b", "new");
  auto handle = files.openFileHandle(URL::fileURLWithPath("/d/a"), FileManager::Access::kWriting);
  ASSERT_TRUE(handle);
  (*handle)->writeData(Data("two"));
  (*handle)->synchronizeFile();
  files.powerCut();
  EXPECT_EQ(files.allFiles(), std::vector<std::string>{"/d/a"});
  EXPECT_EQ(files.bytesAtPath("/d/a"), "two");
}

}  // namespace
