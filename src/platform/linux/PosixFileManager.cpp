// The file manager over the system's calls.
//
// No operation but opening follows a symbolic link in a path's last place.
#include "platform/linux/PosixFileManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/linux/ApplicationFolder.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FileErrors.h"
#include "platform/linux/PosixFileHandle.h"

namespace platform {
namespace {

// A path for the system: absent for a URL that is absent or names no file.
std::optional<std::string> pathOf(const std::optional<URL>& url) {
  if (!url || !url->isFileURL()) return std::nullopt;
  return std::string(withoutTrailingSlashes(url->path()));
}

// The system's calls would stop at a NUL and touch another file than the one that was named.
bool hasNul(std::string_view path) { return path.find('\0') != std::string_view::npos; }

Date dateFrom(const timespec& time) {
  return Date::dateWithTimeIntervalSince1970(static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9);
}

FileAttributes::Type typeFrom(mode_t mode) {
  if (S_ISREG(mode)) return FileAttributes::Type::kRegular;
  if (S_ISDIR(mode)) return FileAttributes::Type::kDirectory;
  if (S_ISLNK(mode)) return FileAttributes::Type::kSymbolicLink;
  return FileAttributes::Type::kOther;
}

std::expected<std::string, int> targetOfSymbolicLink(const std::string& path) {
  std::string target(256, '\0');
  for (;;) {
    const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
    if (length < 0) return std::unexpected(errno);
    if (static_cast<std::size_t>(length) < target.size()) return target.substr(0, static_cast<std::size_t>(length));
    target.resize(target.size() * 2);
  }
}

bool isSameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

bool isSameDirectoryEntry(const std::string& a, const std::string& b) {
  struct stat parentOfA;
  struct stat parentOfB;
  return nameOfPath(a) == nameOfPath(b) && ::stat(parentOfPath(a).c_str(), &parentOfA) == 0 &&
         ::stat(parentOfPath(b).c_str(), &parentOfB) == 0 && isSameFile(parentOfA, parentOfB);
}

// Renaming one hard link of a file over another does nothing and succeeds: the name that should be gone is taken away here.
// `status` is that of the new item before the renaming.
void removeLeftLink(const struct stat& status, const std::string& original, const std::string& newItem) {
  struct stat left;
  if (status.st_nlink < 2 || ::lstat(newItem.c_str(), &left) != 0 || !isSameFile(status, left)) return;
  if (!isSameDirectoryEntry(original, newItem)) ::unlink(newItem.c_str());
}

// Brings the new item to the disk, gives it its name there, and brings the name to the disk. Everything that can be refused comes
// before the renaming. A directory that cannot be synchronised after it is not reported: the new item is in its place for every
// reader, and a power cut leaves either item whole.
int replace(const std::string& original, const std::string& newItem) {
  struct stat status;
  auto file = FileDescriptor::open(newItem, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  if (file) {
    if (::fstat(file->get(), &status) != 0) return errno;
    if (const int error = file->synchronize()) return error;
  } else if (file.error() != ELOOP || ::lstat(newItem.c_str(), &status) != 0) {  // a symbolic link has no content of its own
    return file.error();
  }
  const auto folder = FileDescriptor::open(parentOfPath(original), O_RDONLY | O_DIRECTORY);
  if (!folder) return folder.error();
  if (::rename(newItem.c_str(), original.c_str()) != 0) return errno;
  removeLeftLink(status, original, newItem);
  (void)synchronizeDirectory(*folder);
  return 0;
}

class PosixFileManager final : public FileManager {
 public:
  explicit PosixFileManager(const SystemOptions& options) : folder_(options) {}

  bool fileExistsAtPath(std::string_view path) override {
    struct stat status;
    return !hasNul(path) && ::stat(std::string(path).c_str(), &status) == 0;
  }

  std::expected<FileAttributes, Error> attributesOfItemAtPath(std::string_view path) override {
    struct stat status;
    const std::string name(withoutTrailingSlashes(path));
    if (hasNul(name)) return std::unexpected(fileReadingError(EINVAL, path));
    if (::lstat(name.c_str(), &status) != 0) return std::unexpected(fileReadingError(errno, path));
    return FileAttributes{.fileSize = static_cast<std::uint64_t>(status.st_size),
                          .type = typeFrom(status.st_mode),
                          .modificationDate = dateFrom(status.st_mtim),
                          .attributeModificationDate = dateFrom(status.st_ctim)};
  }

  std::expected<std::vector<std::string>, Error> contentsOfDirectoryAtPath(std::string_view path) override {
    if (hasNul(path)) return std::unexpected(fileReadingError(EINVAL, path));
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(std::string(path).c_str()), &::closedir);
    if (!directory) return std::unexpected(fileReadingError(errno, path));
    std::vector<std::string> names;
    for (;;) {
      errno = 0;
      const dirent* entry = ::readdir(directory.get());
      if (!entry && errno != 0) return std::unexpected(fileReadingError(errno, path));
      if (!entry) return names;
      std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(std::move(name));
    }
  }

  std::expected<void, Error> copyItemAtURLToURL(const std::optional<URL>& source, const std::optional<URL>& target) override {
    const auto from = pathOf(source);
    const auto to = pathOf(target);
    if (!from || !to) return std::unexpected(absentFileURLError());
    if (hasNul(*from)) return std::unexpected(fileReadingError(EINVAL, *from));
    if (hasNul(*to)) return std::unexpected(fileWritingError(EINVAL, *to, true));
    const auto file = FileDescriptor::open(*from, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (!file && file.error() == ELOOP) return copySymbolicLink(*from, *to);
    if (!file) return std::unexpected(fileReadingError(file.error(), *from));
    struct stat status;
    if (::fstat(file->get(), &status) != 0) return std::unexpected(fileReadingError(errno, *from));
    if (!S_ISREG(status.st_mode)) {
      return std::unexpected(fileReadingError(S_ISDIR(status.st_mode) ? EISDIR : EOPNOTSUPP, *from));
    }
    auto copy = FileDescriptor::open(*to, O_WRONLY | O_CREAT | O_EXCL);
    if (!copy) return std::unexpected(copyError(copy.error(), *from, *to));
    int error = file->copyAllTo(*copy);
    if (const int late = copy->close(); error == 0) error = late;
    if (error != 0) return std::unexpected(copyError(error, *from, *to));
    return {};
  }

  std::expected<void, Error> linkItemAtURLToURL(const std::optional<URL>& source, const std::optional<URL>& target) override {
    const auto from = pathOf(source);
    const auto to = pathOf(target);
    if (!from || !to) return std::unexpected(absentFileURLError());
    if (hasNul(*from) || hasNul(*to)) return std::unexpected(fileTransferError("linked", EINVAL, *from, *to));
    if (::link(from->c_str(), to->c_str()) != 0) return std::unexpected(fileTransferError("linked", errno, *from, *to));
    return {};
  }

  std::expected<void, Error> moveItemAtURLToURL(const std::optional<URL>& source, const std::optional<URL>& target) override {
    const auto from = pathOf(source);
    const auto to = pathOf(target);
    if (!from || !to) return std::unexpected(absentFileURLError());
    if (hasNul(*from) || hasNul(*to)) return std::unexpected(fileTransferError("moved", EINVAL, *from, *to));
    if (::renameat2(AT_FDCWD, from->c_str(), AT_FDCWD, to->c_str(), RENAME_NOREPLACE) == 0) return {};
    const int error = errno;
    // Some file systems cannot rename with a refusal: a second link refuses as well.
    if ((error == EINVAL || error == ENOSYS) && isNoDirectory(*from)) {
      if (::link(from->c_str(), to->c_str()) != 0) return std::unexpected(fileTransferError("moved", errno, *from, *to));
      if (::unlink(from->c_str()) != 0) return std::unexpected(fileRemovalError(errno, *from));
      return {};
    }
    return std::unexpected(fileTransferError("moved", error, *from, *to));
  }

  std::expected<void, Error> removeItemAtURL(const std::optional<URL>& url) override {
    const auto path = pathOf(url);
    if (!path) return std::unexpected(absentFileURLError());
    return removeItemAtPath(*path);
  }

  std::expected<void, Error> removeItemAtPath(std::string_view path) override {
    const std::string name(withoutTrailingSlashes(path));
    if (hasNul(name)) return std::unexpected(fileRemovalError(EINVAL, path));
    if (std::remove(name.c_str()) != 0) return std::unexpected(fileRemovalError(errno, path));
    return {};
  }

  std::expected<URL, Error> replaceItemAtURLWithItemAtURL(const std::optional<URL>& original,
                                                          const std::optional<URL>& newItem) override {
    const auto to = pathOf(original);
    const auto from = pathOf(newItem);
    if (!from || !to) return std::unexpected(absentFileURLError());
    if (hasNul(*from) || hasNul(*to)) return std::unexpected(fileWritingError(EINVAL, *to, true));
    if (const int error = replace(*to, *from)) {
      const bool newItemIsMissing = error == ENOENT && !isThere(*from);
      return std::unexpected(fileWritingError(error, newItemIsMissing ? *from : *to, !newItemIsMissing));
    }
    return *original;
  }

  std::expected<void, Error> createDirectoryAtURL(const std::optional<URL>& url) override {
    const auto path = pathOf(url);
    if (!path) return std::unexpected(absentFileURLError());
    if (hasNul(*path)) return std::unexpected(fileWritingError(EINVAL, *path, true));
    if (const int error = makeDirectories(*path)) return std::unexpected(fileWritingError(error, *path, true));
    return {};
  }

  std::expected<URL, Error> applicationSupportDirectory() override { return ownDirectory("/application-support"); }
  std::expected<URL, Error> temporaryDirectory() override { return ownDirectory("/tmp"); }

  std::expected<std::shared_ptr<FileHandle>, Error> openFileHandle(const std::optional<URL>& url, Access access) override {
    const auto path = pathOf(url);
    if (!path) return std::unexpected(absentFileURLError());
    const int flags = access == Access::kReading ? O_RDONLY : access == Access::kWriting ? O_WRONLY : O_RDWR;
    auto file = hasNul(*path) ? std::unexpected(EINVAL) : FileDescriptor::open(*path, flags);
    if (file) return std::make_shared<PosixFileHandle>(std::move(*file));
    return std::unexpected(access == Access::kReading ? fileReadingError(file.error(), *path)
                                                      : fileWritingError(file.error(), *path, false));
  }

  std::expected<void, Error> writeDataWithoutOverwriting(const Data& data, const std::optional<URL>& url) override {
    const auto path = pathOf(url);
    if (!path) return std::unexpected(absentFileURLError());
    if (hasNul(*path)) return std::unexpected(fileWritingError(EINVAL, *path, true));
    auto file = FileDescriptor::open(*path, O_WRONLY | O_CREAT | O_EXCL);
    if (!file) return std::unexpected(fileWritingError(file.error(), *path, true));
    int error = file->writeAll(data.bytes());
    if (const int late = file->close(); error == 0) error = late;
    if (error == 0) return {};
    ::unlink(path->c_str());  // a part of the bytes is no use to anyone, and the space may be what is short
    return std::unexpected(fileWritingError(error, *path, true));
  }

  std::expected<Data, Error> contentsOfURL(const std::optional<URL>& url) override {
    const auto path = pathOf(url);
    if (!path) return std::unexpected(absentFileURLError());
    const auto file = hasNul(*path) ? std::unexpected(EINVAL) : FileDescriptor::open(*path, O_RDONLY);
    if (!file) return std::unexpected(fileReadingError(file.error(), *path));
    const auto content = file->readToEnd(0);
    if (!content) return std::unexpected(fileReadingError(content.error(), *path));
    return Data(std::string_view(*content));
  }

 private:
  static bool isThere(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0;
  }

  static bool isNoDirectory(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode);
  }

  // A name that is taken speaks of the copying; what else goes wrong at the target speaks of saving a file.
  static Error copyError(int error, const std::string& from, const std::string& to) {
    return error == EEXIST ? fileTransferError("copied", error, from, to) : fileWritingError(error, to, true);
  }

  static std::expected<void, Error> copySymbolicLink(const std::string& from, const std::string& to) {
    const auto target = targetOfSymbolicLink(from);
    if (!target) return std::unexpected(fileReadingError(target.error(), from));
    if (::symlink(target->c_str(), to.c_str()) != 0) return std::unexpected(copyError(errno, from, to));
    return {};
  }

  std::expected<URL, Error> ownDirectory(const char* name) {
    const auto folder = folder_.path();
    if (!folder) return std::unexpected(absentFileURLError());
    const std::string path = *folder + name;
    if (const int error = makeDirectories(path)) return std::unexpected(fileWritingError(error, path, true));
    return URL::fileURLWithPath(path);
  }

  const ApplicationFolder folder_;
};

}  // namespace

std::shared_ptr<FileManager> makePosixFileManager(const SystemOptions& options) {
  return std::make_shared<PosixFileManager>(options);
}

}  // namespace platform
