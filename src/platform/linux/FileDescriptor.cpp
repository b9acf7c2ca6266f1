// The system's file calls with their interruptions and partial transfers.
#include "platform/linux/FileDescriptor.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace platform {
namespace {

constexpr std::size_t kLongestTransfer = std::size_t{1} << 30;  // the kernel stops a little short of 2 GiB anyway
constexpr std::size_t kBlock = 65536;

template <class Call>
auto untilUninterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

enum class Outcome { kDone, kUnsupported, kFailed };

// One way of copying, until the source ends. `step` moves some bytes from position to position. A way that is refused after it has
// moved bytes has failed only for the rest, which the next way can take over, as the positions have moved along.
template <class Step>
Outcome copyBy(Step step, int& error) {
  for (bool moved = false;; moved = true) {
    const ssize_t count = untilUninterrupted(step);
    if (count > 0) continue;
    // Files that the kernel makes up on the fly have no size and give nothing to a kernel copy: let the next way look.
    if (count == 0) return moved ? Outcome::kDone : Outcome::kUnsupported;
    error = errno;
    const bool refused = error == EINVAL || error == ENOSYS || error == EXDEV || error == EOPNOTSUPP;
    return refused ? Outcome::kUnsupported : Outcome::kFailed;
  }
}

}  // namespace

std::expected<FileDescriptor, int> FileDescriptor::open(const std::string& path, int flags) {
  const int descriptor = untilUninterrupted([&] { return ::open(path.c_str(), flags | O_CLOEXEC, 0600); });
  if (descriptor < 0) return std::unexpected(errno);
  return FileDescriptor(descriptor);
}

int FileDescriptor::close() noexcept {
  const int descriptor = std::exchange(descriptor_, -1);
  if (descriptor < 0) return 0;
  // Linux has let go of the descriptor even when it reports an interruption; closing again could hit another thread's file.
  return ::close(descriptor) == 0 || errno == EINTR ? 0 : errno;
}

int FileDescriptor::writeAll(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t count =
        untilUninterrupted([&] { return ::write(descriptor_, bytes.data(), std::min(bytes.size(), kLongestTransfer)); });
    if (count < 0) return errno;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return 0;
}

int FileDescriptor::writeAllAt(std::string_view bytes, std::uint64_t offset) const {
  while (!bytes.empty()) {
    if (offset > std::uint64_t{std::numeric_limits<off_t>::max()}) return EFBIG;
    const ssize_t count = untilUninterrupted(
        [&] { return ::pwrite(descriptor_, bytes.data(), std::min(bytes.size(), kLongestTransfer), static_cast<off_t>(offset)); });
    if (count < 0) return offset > std::uint64_t{std::numeric_limits<off_t>::max()} - bytes.size() ? EFBIG : errno;
    bytes.remove_prefix(static_cast<std::size_t>(count));
    offset += static_cast<std::uint64_t>(count);
  }
  return 0;
}

std::expected<std::size_t, int> FileDescriptor::readAt(char* buffer, std::size_t length, std::uint64_t offset) const {
  std::size_t filled = 0;
  while (filled < length) {
    const std::uint64_t from = offset + filled;
    const std::uint64_t room =
        from > std::uint64_t{std::numeric_limits<off_t>::max()} ? 0 : std::numeric_limits<off_t>::max() - from;
    const std::size_t want = std::min({length - filled, kLongestTransfer, static_cast<std::size_t>(room)});
    if (want == 0) break;  // no file reaches so far
    const ssize_t count = untilUninterrupted([&] { return ::pread(descriptor_, buffer + filled, want, static_cast<off_t>(from)); });
    if (count < 0) return std::unexpected(errno);
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  return filled;
}

std::expected<std::string, int> FileDescriptor::readToEnd(std::uint64_t offset) const {
  struct stat status;
  if (::fstat(descriptor_, &status) != 0) return std::unexpected(errno);
  const auto size = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
  std::string content;
  std::size_t block = size > offset ? static_cast<std::size_t>(size - offset) + 1 : kBlock;  // one more byte shows the end
  for (;;) {
    const std::size_t before = content.size();
    content.resize(before + block);
    const auto count = readAt(content.data() + before, block, offset + before);
    if (!count) return std::unexpected(count.error());
    content.resize(before + *count);
    if (*count < block) return content;
    block = kBlock;
  }
}

int FileDescriptor::copyAllTo(const FileDescriptor& target) const {
  int error = 0;
  Outcome outcome =
      copyBy([&] { return ::copy_file_range(descriptor_, nullptr, target.get(), nullptr, kLongestTransfer, 0); }, error);
  if (outcome == Outcome::kUnsupported) {
    outcome = copyBy([&] { return ::sendfile(target.get(), descriptor_, nullptr, kLongestTransfer); }, error);
  }
  if (outcome == Outcome::kDone) return 0;
  if (outcome == Outcome::kFailed) return error;
  char buffer[kBlock];
  for (;;) {
    const ssize_t count = untilUninterrupted([&] { return ::read(descriptor_, buffer, sizeof buffer); });
    if (count < 0) return errno;
    if (count == 0) return 0;
    if (const int failure = target.writeAll({buffer, static_cast<std::size_t>(count)})) return failure;
  }
}

int FileDescriptor::synchronize() const {
  return untilUninterrupted([&] { return ::fsync(descriptor_); }) == 0 ? 0 : errno;
}

int synchronizeDirectory(const FileDescriptor& directory) {
  const int error = directory.synchronize();
  return error == EINVAL || error == EROFS ? 0 : error;
}

}  // namespace platform
