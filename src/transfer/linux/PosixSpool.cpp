// Listing, checking and clearing the spool folder.
#include "transfer/linux/PosixSpool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <tuple>

#include "platform/SystemLog.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FileErrors.h"

namespace transfer {
namespace {

using platform::Error;
using platform::FileDescriptor;

constexpr time_t kLeftoverAge = 86400;  // seconds

/// Names in the folder, those with a leading dot included, with when they were last written to; empty when it cannot be read.
std::vector<std::tuple<time_t, long, std::string>> entriesOf(const std::string& folder) {
  struct Close {
    void operator()(DIR* directory) const { closedir(directory); }
  };
  const std::unique_ptr<DIR, Close> directory(opendir(folder.c_str()));
  std::vector<std::tuple<time_t, long, std::string>> entries;
  if (!directory) return entries;
  while (const dirent* entry = readdir(directory.get())) {
    struct stat status{};
    if (fstatat(dirfd(directory.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
    entries.emplace_back(status.st_mtim.tv_sec, status.st_mtim.tv_nsec, entry->d_name);
  }
  std::ranges::sort(entries);
  return entries;
}

/// It will never become readable by waiting, so it is set aside.
Error refusal(const std::string& reason) { return Error(platform::kCocoaErrorDomain, platform::kFileReadNoPermission, reason); }

std::optional<Error> refusalOf(const struct stat& status) {
  if (!S_ISREG(status.st_mode)) return refusal("It is no plain file.");
  if (status.st_uid != geteuid()) return refusal("It belongs to another user.");
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return refusal("Other users can write to it.");
  if (static_cast<std::size_t>(status.st_size) > kMaxMessageBytes) return refusal("It is too long.");
  return std::nullopt;
}

void writeReason(const std::string& path, std::string_view reason) {
  const auto file = FileDescriptor::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW);
  if (!file || file->writeAll(std::string(reason) + "\n") != 0)
    platform::SystemLog::systemLog().log("The reason for a refused task could not be written to " + path);
}

}  // namespace

std::vector<std::string> PosixSpool::names() {
  std::vector<std::string> names;
  for (auto& [seconds, nanoseconds, name] : entriesOf(folder_))
    if (name.ends_with(kSpoolSuffix) && !name.starts_with('.')) names.push_back(std::move(name));
  return names;
}

std::expected<std::string, Error> PosixSpool::read(const std::string& name) {
  const std::string path = pathOf(name);
  // A pipe must not make the service wait for its other end.
  const auto file = FileDescriptor::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  if (!file && file.error() == ELOOP) return std::unexpected(refusal("It is a symbolic link."));
  if (!file && file.error() == ENXIO) return std::unexpected(refusal("It is no plain file."));  // a socket
  if (!file) return std::unexpected(platform::fileReadingError(file.error(), path));
  struct stat status{};
  if (fstat(file->get(), &status) != 0) return std::unexpected(platform::fileReadingError(errno, path));
  if (auto refused = refusalOf(status)) return std::unexpected(std::move(*refused));
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  const auto count = file->readAt(text.data(), text.size(), 0);
  if (!count) return std::unexpected(platform::fileReadingError(count.error(), path));
  text.resize(*count);
  return text;
}

std::expected<void, Error> PosixSpool::remove(const std::string& name) {
  const std::string path = pathOf(name);
  if (unlink(path.c_str()) != 0 && errno != ENOENT) return std::unexpected(platform::fileRemovalError(errno, path));
  return synchronize(folder_);
}

std::expected<void, Error> PosixSpool::synchronize(const std::string& folder) const {
  const auto directory = FileDescriptor::open(folder, O_RDONLY | O_DIRECTORY);
  const int error = directory ? platform::synchronizeDirectory(*directory) : directory.error();
  if (error != 0) return std::unexpected(platform::fileWritingError(error, folder, false));
  return {};
}

void PosixSpool::setAside(const std::string& name, std::string_view reason) {
  const std::string folder = pathOf("refused");
  const std::string aside = folder + "/" + name;
  if (mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST) writeReason(aside + ".reason", reason);
  if (rename(pathOf(name).c_str(), aside.c_str()) != 0) {
    const std::string error = platform::systemErrorText(errno);
    return platform::SystemLog::systemLog().log("The refused task " + name + " could not be put aside: " + error);
  }
  if (!synchronize(folder) || !synchronize(folder_))
    platform::SystemLog::systemLog().log("The spool folder could not be brought to the disk");
  platform::SystemLog::systemLog().log("Refused the task " + name + ": " + std::string(reason));
}

void PosixSpool::removeLeftovers() {
  const time_t now = time(nullptr);
  for (const auto& [seconds, nanoseconds, name] : entriesOf(folder_))
    if (name.starts_with('.') && name != "." && name != ".." && now - seconds > kLeftoverAge)
      (void)unlink(pathOf(name).c_str());  // the next start tries again
}

}  // namespace transfer
