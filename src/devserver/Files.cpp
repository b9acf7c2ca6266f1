// Reading and replacing of files.
#include "devserver/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>

namespace devserver {
namespace {

std::unexpected<std::string> failure(std::string_view action, const std::filesystem::path& file, int error) {
  return std::unexpected(std::string(action) + " " + file.string() + ": " + std::generic_category().message(error));
}

/// True when all bytes were written and are on the disk; errno tells otherwise.
bool writeAll(int descriptor, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = ::write(descriptor, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  return ::fsync(descriptor) == 0;
}

/// False also for what cannot be looked at.
bool isDirectory(const std::filesystem::path& path) {
  std::error_code error;
  return std::filesystem::is_directory(path, error);
}

}  // namespace

std::expected<void, std::string> makePrivateFolder(const std::filesystem::path& folder) {
  std::filesystem::path made;
  for (const auto& part : std::filesystem::absolute(folder)) {
    made /= part;
    if (::mkdir(made.c_str(), S_IRWXU) != 0 && errno != EEXIST && !isDirectory(made))
      return failure("cannot make the folder", made, errno);
  }
  if (!isDirectory(folder)) return failure("cannot make the folder", folder, ENOTDIR);
  return {};
}

std::expected<std::string, std::string> readFile(const std::filesystem::path& file) {
  const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return failure("cannot read", file, errno);
  std::string content;
  std::array<char, 16384> block{};
  ssize_t count = 0;
  while ((count = ::read(descriptor, block.data(), block.size())) > 0 || (count < 0 && errno == EINTR))
    if (count > 0) content.append(block.data(), static_cast<std::size_t>(count));
  const int error = errno;
  ::close(descriptor);
  if (count < 0) return failure("cannot read", file, error);
  return content;
}

std::expected<void, std::string> replaceFile(const std::filesystem::path& file, std::string_view content) {
  std::string temporary = file.string() + ".XXXXXX";
  const int descriptor = ::mkostemp(temporary.data(), O_CLOEXEC);  // made with mode 0600
  if (descriptor < 0) return failure("cannot write", file, errno);
  const bool written = writeAll(descriptor, content);
  int error = errno;
  ::close(descriptor);
  if (written && ::rename(temporary.c_str(), file.c_str()) == 0) return {};
  if (written) error = errno;
  ::unlink(temporary.c_str());
  return failure("cannot write", file, error);
}

}  // namespace devserver
