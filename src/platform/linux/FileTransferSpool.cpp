// The spool on the disk.
#include "platform/linux/FileTransferSpool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <limits>
#include <utility>

#include "platform/linux/ApplicationFolder.h"
#include "platform/linux/DurableFiles.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FileErrors.h"
#include "platform/linux/TransferDirectory.h"

namespace platform {
namespace {

constexpr std::size_t kCounterDigits = 20;

std::string counterPath(const std::string& folder) { return folder + "/transfer-tasks"; }

// A new file is empty, and counts as 0.
std::expected<std::uint64_t, int> readCounter(const FileDescriptor& file) {
  const auto text = file.readToEnd(0);
  if (!text) return std::unexpected(text.error());
  std::uint64_t number = 0;
  if (text->empty()) return number;
  const char* end = text->data() + text->size();
  const auto [stop, error] = std::from_chars(text->data(), end, number);
  if (error != std::errc() || stop != end || text->size() != kCounterDigits) return std::unexpected(EBADMSG);
  if (number == std::numeric_limits<std::uint64_t>::max()) return std::unexpected(EBADMSG);  // nobody has made so many tasks
  return number;
}

// One write of one length: another process, or a power cut, leaves the old number or the new one.
int writeCounter(const FileDescriptor& file, std::uint64_t number) {
  const std::string digits = std::to_string(number);
  return file.writeAllAt(std::string(kCounterDigits - digits.size(), '0') + digits, 0);
}

std::expected<std::uint64_t, int> nextNumber(const std::string& path) {
  const auto file = FileDescriptor::open(path, O_RDWR | O_CREAT | O_NOFOLLOW);
  if (!file) return std::unexpected(file.error());
  while (::flock(file->get(), LOCK_EX) != 0)  // given back with the descriptor
    if (errno != EINTR) return std::unexpected(errno);
  const auto last = readCounter(*file);
  if (!last) return std::unexpected(last.error());
  if (const int error = writeCounter(*file, *last + 1)) return std::unexpected(error);
  return *last + 1;
}

int synchronizeFile(const std::string& path) {
  const auto file = FileDescriptor::open(path, O_RDWR | O_NOFOLLOW);
  return file ? file->synchronize() : file.error();
}

bool holdsTasks(const std::string& spool) {
  DIR* folder = ::opendir(spool.c_str());
  if (!folder) return false;
  bool found = false;
  while (const dirent* entry = ::readdir(folder)) {
    const std::string_view name = entry->d_name;
    found = found || (!name.starts_with('.') && name.ends_with(transfer::kSpoolSuffix));
  }
  ::closedir(folder);
  return found;
}

/// What the service would not take, or would take for something else, would never end: nobody could tell the application.
std::expected<void, Error> checkThatServiceTakes(const transfer::SpoolEntry& entry, const std::string& text) {
  const auto taken = transfer::decodeSpoolEntry(text);
  if (taken && *taken == entry) return {};
  const std::string reason = taken ? "a text is not UTF-8" : taken.error();
  return std::unexpected(
      Error(kCocoaErrorDomain, kFileWriteUnknown, "The upload couldn’t be handed to the transfer service: " + reason + "."));
}

// A service that ends in peace takes its socket away, so a socket that nobody listens at is what a sudden end has left.
bool isSocketAbandoned(const TransferDirectory& directory) {
  struct stat status;
  if (::lstat(directory.socket().c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return false;
  const auto connection = directory.connect();
  return !connection && connection.error() == ECONNREFUSED;
}

}  // namespace

FileTransferSpool::FileTransferSpool(std::optional<std::string> directory, std::shared_ptr<TransferIdentity> identity,
                                     std::vector<std::string> launchCommand, std::shared_ptr<SecureRandom> random)
    : directory_(std::move(directory)),
      identity_(std::move(identity)),
      launchCommand_(std::move(launchCommand)),
      random_(std::move(random)) {}

std::expected<std::uint64_t, Error> FileTransferSpool::reserveTaskIdentifier() {
  const std::optional<std::string> folder = identity_->folder();
  if (!folder) return std::unexpected(absentFileURLError());
  const std::string path = counterPath(*folder);
  const int error = makeDirectories(*folder);
  const auto number = error == 0 ? nextNumber(path) : std::unexpected(error);
  if (!number) return std::unexpected(fileWritingError(number.error(), path, true));
  return *number;
}

std::expected<void, Error> FileTransferSpool::write(transfer::SpoolEntry entry) {
  auto identity = identity_->identity();
  if (!identity) return std::unexpected(identity.error());
  if (!directory_) return std::unexpected(absentFileURLError());
  const auto directory = TransferDirectory::open(*directory_);
  if (!directory) return std::unexpected(directory.error());
  const std::string counter = counterPath(identity->folder);
  entry.application = *std::move(identity);
  entry.launchCommand = launchCommand_;
  const std::string text = encode(entry);
  if (auto taken = checkThatServiceTakes(entry, text); !taken) return taken;
  if (const int error = synchronizeFile(counter)) return std::unexpected(fileWritingError(error, counter, false));

  const std::string name = randomHexadecimal(*random_, 16);
  const std::string unseen = directory->spool() + "/." + name;
  if (const auto written = writeNewFile(unseen, text); !written) return written;
  const std::string path = directory->spool() + "/" + name + std::string(transfer::kSpoolSuffix);
  if (::rename(unseen.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(unseen.c_str());
    return std::unexpected(fileWritingError(error, path, true));
  }
  auto synchronized = synchronizeFolder(directory->spool());
  if (synchronized || ::unlink(path.c_str()) != 0) return {};  // when it cannot be taken back the service has it
  return synchronized;
}

bool FileTransferSpool::hasInterruptedTransfers() {
  if (!directory_ || ::access(directory_->c_str(), F_OK) != 0) return false;
  const auto directory = TransferDirectory::open(*directory_);
  return directory && (holdsTasks(directory->spool()) || isSocketAbandoned(*directory));
}

}  // namespace platform
