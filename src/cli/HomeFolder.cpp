// The application's folder, before the SDK touches it.
#include "cli/HomeFolder.h"

#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "cli/Host.h"
#include "platform/linux/ApplicationFolder.h"

namespace cli {
namespace {

std::optional<std::string> folderOf(const Options& options) { return platform::ApplicationFolder(systemOptionsOf(options)).path(); }

}  // namespace

std::optional<std::string> folderNotYetMade(const Options& options) {
  auto folder = folderOf(options);
  std::error_code error;
  if (!folder || std::filesystem::exists(*folder, error) || error) return std::nullopt;
  std::filesystem::path above = std::filesystem::path(*folder).parent_path();
  while (!std::filesystem::exists(above, error) && above.has_relative_path()) above = above.parent_path();
  const bool canBeMade = std::filesystem::is_directory(above, error) && ::access(above.c_str(), W_OK | X_OK) == 0;
  return canBeMade ? folder : std::nullopt;
}

std::string nothingKeptIn(const std::string& folder) {
  return folder + " is not there: nothing was ever kept under this identifier";
}

std::string folderFault(const Options& options) {
  const auto folder = folderOf(options);
  if (!folder) return "there is no home for the application's folder";
  const int error = platform::makeDirectories(*folder);
  return "cannot make " + *folder + ": " +
         (error ? std::generic_category().message(error) : std::string("its folders cannot be made in it"));
}

}  // namespace cli
