// Writing files so that they outlive a power cut.
#include "platform/linux/DurableFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FileErrors.h"

namespace platform {

std::string randomHexadecimal(SecureRandom& random, std::size_t bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::vector<std::byte> drawn(bytes);
  random.fill(drawn);
  std::string text;
  text.reserve(2 * bytes);
  for (const std::byte byte : drawn) {
    const auto number = std::to_integer<unsigned>(byte);
    text += {kDigits[number >> 4], kDigits[number & 15]};
  }
  return text;
}

std::expected<void, Error> writeNewFile(const std::string& path, std::string_view bytes) {
  auto file = FileDescriptor::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW);
  if (!file) return std::unexpected(fileWritingError(file.error(), path, true));
  int error = file->writeAll(bytes);
  if (error == 0) error = file->synchronize();
  if (const int closing = file->close(); error == 0) error = closing;
  if (error == 0) return {};
  ::unlink(path.c_str());
  return std::unexpected(fileWritingError(error, path, true));
}

std::expected<void, Error> synchronizeFolder(const std::string& path) {
  const auto folder = FileDescriptor::open(path, O_RDONLY | O_DIRECTORY);
  const int error = folder ? synchronizeDirectory(*folder) : folder.error();
  if (error != 0) return std::unexpected(fileWritingError(error, path, false));
  return {};
}

}  // namespace platform
