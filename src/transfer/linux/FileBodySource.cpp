// Reading the file, and noticing that it is not the one it was.
#include "transfer/linux/FileBodySource.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "platform/linux/FileErrors.h"

namespace transfer {

using platform::Error;

std::expected<FileBodySource, Error> FileBodySource::open(const std::string& path) {
  auto file = platform::FileDescriptor::open(path, O_RDONLY | O_NONBLOCK);  // a pipe would make the service wait for a writer
  if (!file) return std::unexpected(platform::fileReadingError(file.error(), path));
  struct stat status{};
  if (fstat(file->get(), &status) != 0) return std::unexpected(platform::fileReadingError(errno, path));
  if (!S_ISREG(status.st_mode)) return std::unexpected(platform::fileReadingError(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, path));
  return FileBodySource(path, std::move(*file), static_cast<std::uint64_t>(status.st_size), status.st_dev, status.st_ino);
}

std::expected<std::size_t, Error> FileBodySource::readAt(char* buffer, std::size_t size, std::uint64_t offset) {
  const auto count = file_.readAt(buffer, size, offset);
  if (!count) return std::unexpected(platform::fileReadingError(count.error(), path_));
  if (*count < size && offset + *count < length_) return std::unexpected(changeError("became shorter"));
  if (offset + *count < length_) return *count;
  if (const auto same = check(); !same) return std::unexpected(same.error());
  return *count;
}

std::expected<void, Error> FileBodySource::check() const {
  struct stat status{};
  if (stat(path_.c_str(), &status) != 0)
    return std::unexpected(errno == ENOENT ? changeError("was removed") : platform::fileReadingError(errno, path_));
  if (status.st_dev != device_ || status.st_ino != inode_) return std::unexpected(changeError("was replaced"));
  const auto length = static_cast<std::uint64_t>(status.st_size);
  if (length == length_) return {};
  return std::unexpected(changeError(length < length_ ? "became shorter" : "became longer"));
}

Error FileBodySource::changeError(const std::string& change) const {
  return Error(platform::kCocoaErrorDomain, platform::kFileReadUnknown,
               "The file “" + platform::nameOfPath(path_) + "” couldn’t be uploaded because it " + change + " while it was sent.");
}

}  // namespace transfer
