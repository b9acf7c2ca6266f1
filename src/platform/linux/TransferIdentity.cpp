// The application's identity and its token file.
#include "platform/linux/TransferIdentity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "platform/linux/DurableFiles.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FileErrors.h"

namespace platform {
namespace {

constexpr std::size_t kTokenBytes = 32;
constexpr std::string_view kHexadecimalDigits = "0123456789abcdef";

bool isToken(std::string_view text) {
  return text.size() == 2 * kTokenBytes && text.find_first_not_of(kHexadecimalDigits) == std::string_view::npos;
}

// What proves who an application is must be its user's alone; a mode that lets others in is tightened.
int makeOwn(const FileDescriptor& file) {
  struct stat status{};
  if (::fstat(file.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EBADMSG;
  if (status.st_uid != ::geteuid()) return EPERM;
  return (status.st_mode & 077) == 0 || ::fchmod(file.get(), 0600) == 0 ? 0 : errno;
}

}  // namespace

TransferIdentity::TransferIdentity(const SystemOptions& options, std::shared_ptr<SecureRandom> random)
    : identifier_(options.bundleIdentifier.value_or("")), folder_(options), random_(std::move(random)) {}

std::expected<transfer::ApplicationIdentity, Error> TransferIdentity::identity() {
  const std::lock_guard lock(mutex_);
  if (identity_) return *identity_;
  const std::optional<std::string> folder = folder_.path();
  if (!folder) return std::unexpected(absentFileURLError());
  const std::string path = *folder + "/transfer-token";
  auto token = readToken(path);
  if (!token && token.error().code() == kFileReadNoSuchFile) {
    if (const auto made = makeToken(*folder, path); !made) return std::unexpected(made.error());
    token = readToken(path);  // perhaps another process's, which was faster
  }
  if (!token) return std::unexpected(token.error());
  identity_ = {identifier_, *folder, *token};
  return *identity_;
}

std::expected<std::string, Error> TransferIdentity::readToken(const std::string& path) const {
  const auto file = FileDescriptor::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);  // a pipe must not keep anybody waiting
  if (!file) return std::unexpected(fileReadingError(file.error(), path));
  if (const int error = makeOwn(*file)) return std::unexpected(fileReadingError(error, path));
  auto token = file->readToEnd(0);
  if (!token) return std::unexpected(fileReadingError(token.error(), path));
  if (!isToken(*token)) return std::unexpected(fileReadingError(EBADMSG, path));
  return *std::move(token);
}

// The file gets its name only when it is whole, and only if nobody has been faster.
std::expected<void, Error> TransferIdentity::makeToken(const std::string& folder, const std::string& path) const {
  if (const int error = makeDirectories(folder)) return std::unexpected(fileWritingError(error, path, true));
  const std::string unnamed = folder + "/.transfer-token." + randomHexadecimal(*random_, 8);
  if (const auto written = writeNewFile(unnamed, randomHexadecimal(*random_, kTokenBytes)); !written)
    return std::unexpected(written.error());
  const int error = ::link(unnamed.c_str(), path.c_str()) == 0 || errno == EEXIST ? 0 : errno;
  ::unlink(unnamed.c_str());
  if (error != 0) return std::unexpected(fileWritingError(error, path, true));
  return synchronizeFolder(folder);
}

}  // namespace platform
