// What only the real file system shows: modes, permissions, full and read-only volumes, the order of the calls that a power cut may
// part, and failures of single system calls.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <regex>

#include "platform/Exception.h"
#include "platform/linux/PosixFileManager.h"
#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"

namespace {

using platform::Data;
using platform::Error;
using platform::FileManager;
using platform::URL;

// What a child under strace does: KESTROVA_SCENARIO names it, and its outcome goes to standard output.
std::string runScenario(FileManager& files, const std::string& name, const std::string& folder) {
  const URL a = URL::fileURLWithPath(folder + "/a");
  const URL b = URL::fileURLWithPath(folder + "/b");
  std::expected<void, Error> result;
  if (name == "copy") result = files.copyItemAtURLToURL(a, b);
  if (name == "replace") {
    if (auto replaced = files.replaceItemAtURLWithItemAtURL(b, a); !replaced) result = std::unexpected(replaced.error());
  }
  if (name == "write") result = files.writeDataWithoutOverwriting(Data("some bytes"), b);
  if (name == "append") {
    const auto handle = files.openFileHandle(a, FileManager::Access::kUpdating);
    (*handle)->seekToEndOfFile();
    (*handle)->writeData(Data(" and more"));
    (*handle)->closeFile();
  }
  if (name == "move") result = files.moveItemAtURLToURL(a, b);
  return result ? "done" : std::to_string(result.error().code()) + " " + result.error().localizedDescription();
}

[[maybe_unused]] const bool scenarioHasRun = [] {
  const char* name = std::getenv("KESTROVA_FILES_SCENARIO");
  if (!name) return false;
  std::string outcome;
  try {
    outcome = runScenario(*platform::makePosixFileManager({}), name, std::getenv("KESTROVA_FILES_FOLDER"));
  } catch (const platform::Exception& exception) {
    outcome = exception.reason();
  }
  std::fputs(outcome.c_str(), stdout);
  std::fflush(stdout);
  ::_exit(0);
}();

class PosixFiles : public ::testing::Test {
 protected:
  URL url(const std::string& name) const { return URL::fileURLWithPath(path(name)); }
  std::string path(const std::string& name) const { return directory_.path() + "/" + name; }
  std::string folderName() const { return std::filesystem::path(directory_.path()).filename(); }
  void put(const std::string& name, std::string_view bytes) const {
    const auto written = files_->writeDataWithoutOverwriting(Data(bytes), url(name));
    ASSERT_TRUE(written) << written.error().localizedDescription();
  }
  std::optional<std::string> bytes(const std::string& name) const {
    const auto content = files_->contentsOfURL(url(name));
    return content ? std::optional(std::string(content->bytes())) : std::nullopt;
  }
  unsigned modeOf(const std::string& path) const {
    struct stat status{};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }
  template <class T>
  static void expectError(const std::expected<T, Error>& result, std::int64_t code, const std::string& text) {
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code(), code);
    EXPECT_EQ(result.error().localizedDescription(), text);
  }
  test::TracedRun traced(const std::string& scenario, const std::vector<std::string>& options) const {
    return test::runSelfTraced(options, {{"KESTROVA_FILES_SCENARIO", scenario}, {"KESTROVA_FILES_FOLDER", directory_.path()}});
  }

  const test::TemporaryDirectory directory_;
  const std::shared_ptr<FileManager> files_ =
      platform::makePosixFileManager({.bundleIdentifier = "app", .homeDirectory = directory_.path() + "/home"});
};

// Runs a body in a child whose directory "small" is a volume of 64 KiB that no other process sees.
int onSmallVolume(const std::string& path, const std::function<void()>& body) {
  return test::runInChild([&] {
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(::mount("tmpfs", path.c_str(), "tmpfs", 0, "size=64k"), 0);
    body();
  });
}

TEST_F(PosixFiles, FilesAreTheirOwnersAloneWhateverTheMask) {
  EXPECT_EQ(test::runInChild([&] {
              ::umask(0);
              put("a", "abc");
              ASSERT_EQ(::chmod(path("a").c_str(), 0666), 0);
              EXPECT_TRUE(files_->copyItemAtURLToURL(url("a"), url("b")));
              put("c", "abc");
              EXPECT_TRUE(files_->applicationSupportDirectory());
              EXPECT_TRUE(files_->temporaryDirectory());
            }),
            0);
  EXPECT_EQ(modeOf(path("b")), 0600u);
  EXPECT_EQ(modeOf(path("c")), 0600u);
  for (const char* made : {"home", "home/app", "home/app/application-support", "home/app/tmp"})
    EXPECT_EQ(modeOf(path(made)), 0700u);
}

TEST_F(PosixFiles, NoDescriptorReachesAProgramThatIsStarted) {
  put("a", "abc");
  const auto handle = files_->openFileHandle(url("a"), FileManager::Access::kUpdating);
  ASSERT_TRUE(handle);
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const auto target = std::filesystem::read_symlink(entry.path(), gone);
    if (target != path("a")) continue;
    ++found;
    EXPECT_EQ(::fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  }
  EXPECT_EQ(found, 1);
}

TEST_F(PosixFiles, ADroppedHandleClosesItself) {
  put("a", "abc");
  const int next = ::dup(0);
  ASSERT_GE(next, 0);
  ::close(next);
  ASSERT_TRUE(files_->openFileHandle(url("a"), FileManager::Access::kReading));
  const int again = ::dup(0);
  EXPECT_EQ(again, next);
  ::close(again);
}

TEST_F(PosixFiles, F1_AWriteToAFullVolumeRaises) {
  const auto handle = files_->openFileHandle(URL::fileURLWithPath("/dev/full"), FileManager::Access::kWriting);
  ASSERT_TRUE(handle);
  try {
    (*handle)->writeData(Data("x"));
    ADD_FAILURE() << "nothing was raised";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSFileHandleOperationException");
    EXPECT_EQ(exception.reason(), "*** -[NSConcreteFileHandle writeData:]: No space left on device");
  }
}

TEST_F(PosixFiles, F1_AWriteBeyondTheFileSizeLimitRaises) {
  put("a", "abc");
  EXPECT_EQ(test::runInChild([&] {
              std::signal(SIGXFSZ, SIG_IGN);
              const rlimit limit{4096, 4096};
              ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
              const auto handle = files_->openFileHandle(url("a"), FileManager::Access::kWriting);
              ASSERT_TRUE(handle);
              try {
                (*handle)->writeData(Data(std::string(5000, 'x')));
                ADD_FAILURE() << "nothing was raised";
              } catch (const platform::Exception& exception) {
                EXPECT_EQ(exception.reason(), "*** -[NSConcreteFileHandle writeData:]: File too large");
              }
              expectError(files_->writeDataWithoutOverwriting(Data(std::string(5000, 'x')), url("b")), 512,
                          "The file “b” couldn’t be saved in the folder “" + folderName() + "”.");
              EXPECT_EQ(bytes("b"), std::nullopt);
            }),
            0);
}

TEST_F(PosixFiles, F4_AFullVolume) {
  if (::geteuid() != 0) GTEST_SKIP() << "mounting needs root";
  EXPECT_EQ(onSmallVolume(path("small"),
                          [&] {
                            put("small/a", std::string(40'000, 'a'));
                            const std::string text =
                                "The file “b” couldn’t be saved in the folder “small” because the volume is out of space.";
                            expectError(files_->copyItemAtURLToURL(url("small/a"), url("small/b")), 640, text);
                            EXPECT_TRUE(files_->fileExistsAtPath(path("small/b"))) << "a failed copy stays as it is";
                            EXPECT_TRUE(files_->removeItemAtURL(url("small/b")));
                            expectError(files_->writeDataWithoutOverwriting(Data(std::string(40'000, 'b')), url("small/b")), 640,
                                        text);
                            EXPECT_FALSE(files_->fileExistsAtPath(path("small/b"))) << "the space is given back";
                          }),
            0);
}

TEST_F(PosixFiles, F3_AReadOnlyVolume) {
  if (::geteuid() != 0) GTEST_SKIP() << "mounting needs root";
  EXPECT_EQ(
      onSmallVolume(
          path("small"),
          [&] {
            put("small/a", "abc");
            put("small/n", "new");
            ASSERT_EQ(::mount("tmpfs", path("small").c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr), 0);
            const std::string notSaved = " couldn’t be saved in the folder “small” because the volume is read only.";
            expectError(files_->copyItemAtURLToURL(url("small/a"), url("small/b")), 642, "The file “b”" + notSaved);
            expectError(files_->linkItemAtURLToURL(url("small/a"), url("small/b")), 642, "The file “b”" + notSaved);
            expectError(files_->moveItemAtURLToURL(url("small/a"), url("small/b")), 642, "The file “b”" + notSaved);
            expectError(files_->writeDataWithoutOverwriting(Data("x"), url("small/b")), 642, "The file “b”" + notSaved);
            expectError(files_->openFileHandle(url("small/a"), FileManager::Access::kWriting), 642, "The file “a”" + notSaved);
            expectError(files_->replaceItemAtURLWithItemAtURL(url("small/a"), url("small/n")), 642, "The file “a”" + notSaved);
            expectError(files_->createDirectoryAtURL(url("small/d")), 642, "The file “d”" + notSaved);
            expectError(files_->removeItemAtURL(url("small/a")), 642, "“a” couldn’t be removed because the volume is read only.");
            EXPECT_EQ(bytes("small/a"), "abc");
          }),
      0);
}

TEST_F(PosixFiles, F4_Permissions) {
  EXPECT_EQ(test::runInChild([&] {
              test::becomeNobody(directory_.path());
              put("secret", "abc");
              ASSERT_EQ(::mkdir(path("d").c_str(), 0700), 0);
              put("d/a", "abc");
              put("n", "new");
              ASSERT_EQ(::chmod(path("secret").c_str(), 0), 0);
              ASSERT_EQ(::chmod(path("d").c_str(), 0500), 0);
              const std::string view = "The file “secret” couldn’t be opened because you don’t have permission to view it.";
              expectError(files_->contentsOfURL(url("secret")), 257, view);
              expectError(files_->openFileHandle(url("secret"), FileManager::Access::kReading), 257, view);
              expectError(files_->copyItemAtURLToURL(url("secret"), url("b")), 257, view);
              EXPECT_FALSE(files_->fileExistsAtPath(path("b")));
              expectError(files_->openFileHandle(url("secret"), FileManager::Access::kWriting), 513,
                          "You don’t have permission to save the file “secret” in the folder “" + folderName() + "”.");
              const std::string save = "You don’t have permission to save the file “b” in the folder “d”.";
              expectError(files_->writeDataWithoutOverwriting(Data("x"), url("d/b")), 513, save);
              expectError(files_->copyItemAtURLToURL(url("n"), url("d/b")), 513, save);
              expectError(files_->linkItemAtURLToURL(url("n"), url("d/b")), 513, save);
              expectError(files_->moveItemAtURLToURL(url("n"), url("d/b")), 513, save);
              expectError(files_->createDirectoryAtURL(url("d/b")), 513, save);
              expectError(files_->replaceItemAtURLWithItemAtURL(url("d/a"), url("n")), 513,
                          "You don’t have permission to save the file “a” in the folder “d”.");
              expectError(files_->removeItemAtURL(url("d/a")), 513,
                          "“a” couldn’t be removed because you don’t have permission to access it.");
              EXPECT_EQ(bytes("d/a"), "abc");
              EXPECT_EQ(bytes("n"), "new");
              ASSERT_EQ(::chmod(path("d").c_str(), 0), 0);
              EXPECT_FALSE(files_->fileExistsAtPath(path("d/a")));
              expectError(files_->attributesOfItemAtPath(path("d/a")), 257,
                          "The file “a” couldn’t be opened because you don’t have permission to view it.");
              expectError(files_->contentsOfDirectoryAtPath(path("d")), 257,
                          "The file “d” couldn’t be opened because you don’t have permission to view it.");
            }),
            0);
}

TEST_F(PosixFiles, ACopyTakesWhatTheKernelMakesUpOnTheFly) {
  ASSERT_TRUE(files_->copyItemAtURLToURL(URL::fileURLWithPath("/proc/version"), url("b")));
  EXPECT_EQ(bytes("b"), std::string(files_->contentsOfURL(URL::fileURLWithPath("/proc/version"))->bytes()));
  EXPECT_NE(bytes("b"), "");
}

TEST_F(PosixFiles, ACopyOfWhatIsNoFileDoesNotHang) {
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  expectError(files_->copyItemAtURLToURL(url("pipe"), url("b")), 256, "The file “pipe” couldn’t be opened.");
  EXPECT_FALSE(files_->fileExistsAtPath(path("b")));
}

// Single calls, watched and made to fail

class PosixFilesTraced : public PosixFiles {
 protected:
  void SetUp() override {
    if (!test::canTrace()) GTEST_SKIP() << "needs strace and the right to trace";
  }
};

TEST_F(PosixFilesTraced, F6_TheBytesAreOnTheDiskBeforeTheNameAndTheFolderAfter) {
  put("a", "new");
  put("b", "old");
  test::TracedRun run = traced("replace", {"-y", "-e", "trace=fsync,rename"});
  EXPECT_EQ(run.output, "done");
  // The numbers of the descriptors depend on what this process inherited.
  for (std::string& call : run.calls) call = std::regex_replace(call, std::regex("^fsync\\([0-9]+"), "fsync(");
  const std::vector<std::string> expected = {"fsync(<" + path("a") + ">) = 0",
                                             "rename(\"" + path("a") + "\", \"" + path("b") + "\") = 0",
                                             "fsync(<" + directory_.path() + ">) = 0"};
  EXPECT_EQ(run.calls, expected);
  EXPECT_EQ(bytes("b"), "new");
}

TEST_F(PosixFilesTraced, F6_AFailureBeforeTheNameChangesHandsLeavesBothItems) {
  put("a", "new");
  put("b", "old");
  for (const char* failure : {"fsync:error=EIO:when=1", "rename:error=EIO"}) {
    const test::TracedRun run = traced("replace", {"-e", "trace=fsync,rename", "-e", std::string("inject=") + failure});
    EXPECT_EQ(run.output, "512 The file “b” couldn’t be saved in the folder “" + folderName() + "”.") << failure;
    EXPECT_EQ(bytes("a"), "new");
    EXPECT_EQ(bytes("b"), "old");
  }
  const test::TracedRun full = traced("replace", {"-e", "trace=fsync", "-e", "inject=fsync:error=ENOSPC:when=1"});
  EXPECT_EQ(full.output,
            "640 The file “b” couldn’t be saved in the folder “" + folderName() + "” because the volume is out of space.");
}

TEST_F(PosixFilesTraced, F6_AFolderThatCannotBeSynchronisedIsNoFailureAsTheNameHasChangedHands) {
  put("a", "new");
  put("b", "old");
  const test::TracedRun run = traced("replace", {"-e", "trace=fsync", "-e", "inject=fsync:error=EIO:when=2"});
  EXPECT_EQ(run.calls.size(), 2u);
  EXPECT_EQ(run.output, "done");
  EXPECT_EQ(bytes("b"), "new");
}

TEST_F(PosixFilesTraced, F5_ACopyIsMadeInTheKernel) {
  const std::string content(200'000, 'x');
  put("a", content);
  const test::TracedRun run = traced("copy", {"-P", path("a"), "-e", "trace=read,pread64,mmap,copy_file_range,sendfile"});
  EXPECT_EQ(run.output, "done");
  ASSERT_FALSE(run.calls.empty());
  for (const std::string& call : run.calls) EXPECT_TRUE(call.starts_with("copy_file_range(")) << call;
  EXPECT_EQ(bytes("b"), content);
}

TEST_F(PosixFilesTraced, F5_ACopyFallsBackWhereTheKernelCannot) {
  const std::string content(200'000, 'x');
  put("a", content);
  const std::vector<std::vector<std::string>> ways = {
      {"-e", "trace=copy_file_range", "-e", "inject=copy_file_range:error=EXDEV"},
      {"-e", "trace=copy_file_range,sendfile", "-e", "inject=copy_file_range:error=ENOSYS", "-e", "inject=sendfile:error=EINVAL"},
      {"-e", "trace=copy_file_range", "-e", "inject=copy_file_range:error=EINTR:when=1"}};
  for (const auto& options : ways) {
    EXPECT_EQ(traced("copy", options).output, "done") << options.back();
    EXPECT_EQ(bytes("b"), content) << options.back();
    ASSERT_TRUE(files_->removeItemAtURL(url("b")));
  }
}

TEST_F(PosixFilesTraced, F5_AFailedCopyStaysAsItIs) {
  put("a", "abc");
  const test::TracedRun run = traced("copy", {"-e", "trace=copy_file_range", "-e", "inject=copy_file_range:error=ENOSPC"});
  EXPECT_EQ(run.output,
            "640 The file “b” couldn’t be saved in the folder “" + folderName() + "” because the volume is out of space.");
  EXPECT_EQ(bytes("b"), "");
}

TEST_F(PosixFilesTraced, AnErrorThatOnlyClosingShowsIsAnError) {
  put("a", "abc");
  const std::string text = "512 The file “b” couldn’t be saved in the folder “" + folderName() + "”.";
  const std::vector<std::string> options = {"-P", path("b"), "-e", "trace=close", "-e", "inject=close:error=EIO"};
  EXPECT_EQ(traced("copy", options).output, text);
  ASSERT_TRUE(files_->removeItemAtURL(url("b")));
  EXPECT_EQ(traced("write", options).output, text);
  EXPECT_EQ(bytes("b"), std::nullopt);
}

TEST_F(PosixFilesTraced, F1_InterruptedCallsGoOnAndOthersRaise) {
  put("a", "abc");
  EXPECT_EQ(traced("append", {"-e", "trace=pwrite64", "-e", "inject=pwrite64:error=EINTR:when=1"}).output, "done");
  EXPECT_EQ(bytes("a"), "abc and more");
  EXPECT_EQ(traced("append", {"-e", "trace=pwrite64", "-e", "inject=pwrite64:error=EIO"}).output,
            "*** -[NSConcreteFileHandle writeData:]: Input/output error");
  EXPECT_EQ(traced("append", {"-P", path("a"), "-e", "trace=fstat,newfstatat", "-e", "inject=fstat,newfstatat:error=EIO"}).output,
            "*** -[NSConcreteFileHandle seekToEndOfFile]: Input/output error");
  EXPECT_EQ(traced("append", {"-P", path("a"), "-e", "trace=close", "-e", "inject=close:error=EIO"}).output, "done");
}

TEST_F(PosixFilesTraced, F5_AMoveNeedsNoRenamingThatRefuses) {
  put("a", "abc");
  const std::vector<std::string> options = {"-e", "trace=renameat2", "-e", "inject=renameat2:error=EINVAL"};
  EXPECT_EQ(traced("move", options).output, "done");
  EXPECT_EQ(bytes("a"), std::nullopt);
  EXPECT_EQ(bytes("b"), "abc");
  put("a", "other");
  EXPECT_EQ(traced("move", options).output,
            "516 “a” couldn’t be moved to “" + folderName() + "” because an item with the same name already exists.");
  EXPECT_EQ(bytes("a"), "other");
}

}  // namespace
