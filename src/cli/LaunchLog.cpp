// Appending to the log of launches.
#include "cli/LaunchLog.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <system_error>
#include <utility>

#include "companions/KSVUtils.h"

namespace cli {

std::expected<LaunchLog, std::string> LaunchLog::open() {
  const auto folder = KSVUtils::applicationSupportDirectory();
  if (!folder) return std::unexpected("the application's folder can be neither found nor made");
  const std::string path = folder->URLByAppendingPathComponent("command-launches.log").path();
  std::error_code error;
  if (std::filesystem::file_size(path, error) > kMaxBytes && !error) std::filesystem::rename(path, path + ".1", error);
  auto file = platform::FileDescriptor::open(path, O_WRONLY | O_CREAT | O_APPEND);
  if (!file) return std::unexpected(path + ": " + std::generic_category().message(file.error()));
  return LaunchLog(*std::move(file));
}

void LaunchLog::write(std::string_view message) const {
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  (void)file_.writeAll(fmt::format("{:%Y-%m-%dT%H:%M:%S}Z {} {}\n", fmt::gmtime(now), getpid(), message));
}

}  // namespace cli
