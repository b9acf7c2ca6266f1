// The choice of the application's folder and the making of directories.
#include "platform/linux/ApplicationFolder.h"

#include <fcntl.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FileErrors.h"

namespace platform {
namespace {

constexpr const char* kFolderWithoutIdentifier = "@unidentified";  // '@' is never left as it is by the encoding
constexpr const char* kDataFolder = "/.local/share";

bool isAbsolute(std::string_view path) { return path.starts_with('/') && path.find('\0') == std::string_view::npos; }

std::string below(std::string_view folder, std::string_view rest) { return std::string(folder == "/" ? "" : folder).append(rest); }

bool isUnreserved(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~';
}

// Makes one directory whose parent exists. Someone else may make it at the same time.
int makeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) != 0) {
    const int error = errno;
    struct stat status;
    return error == EEXIST && ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) ? 0 : error;
  }
  // Without this a power cut could take the new folder with everything that is saved in it later.
  if (const auto parent = FileDescriptor::open(parentOfPath(path), O_RDONLY | O_DIRECTORY)) (void)synchronizeDirectory(*parent);
  return 0;
}

}  // namespace

std::optional<std::string> absolutePathFromEnvironment(const char* variable) {
  const char* value = secure_getenv(variable);
  if (!value || !isAbsolute(value)) return std::nullopt;
  return std::string(withoutTrailingSlashes(value));
}

std::optional<std::string> homeFromUserDatabase() {
  std::vector<char> buffer(1024);
  passwd entry;
  passwd* found = nullptr;
  int error = 0;
  while ((error = ::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE)
    buffer.resize(buffer.size() * 2);
  if (error != 0 || !found || !found->pw_dir || !isAbsolute(found->pw_dir)) return std::nullopt;
  return std::string(withoutTrailingSlashes(found->pw_dir));
}

ApplicationFolder::ApplicationFolder(const SystemOptions& options)
    : name_(folderNameForBundleIdentifier(options.bundleIdentifier)) {
  if (options.homeDirectory) {
    if (isAbsolute(*options.homeDirectory)) base_ = withoutTrailingSlashes(*options.homeDirectory);
  } else if (const auto data = absolutePathFromEnvironment("XDG_DATA_HOME")) {
    base_ = data;
  } else if (const auto home = absolutePathFromEnvironment("HOME")) {
    base_ = below(*home, kDataFolder);
  } else {
    askUserDatabase_ = true;
  }
}

std::optional<std::string> ApplicationFolder::path() const {
  if (base_) return below(*base_, "/" + name_);
  if (!askUserDatabase_) return std::nullopt;
  const auto home = homeFromUserDatabase();
  if (!home) return std::nullopt;
  return below(*home, kDataFolder) + "/" + name_;
}

std::string folderNameForBundleIdentifier(const std::optional<std::string>& identifier) {
  if (!identifier || identifier->empty()) return kFolderWithoutIdentifier;
  constexpr const char* kDigits = "0123456789ABCDEF";
  std::string name;
  for (const char c : *identifier) {
    if (isUnreserved(c) && !(name.empty() && c == '.')) {
      name += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      name += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return name;
}

int makeDirectories(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) == 0) return S_ISDIR(status.st_mode) ? 0 : EEXIST;
  if (errno != ENOENT) return errno;
  const std::string parent = parentOfPath(path);
  if (parent != path && parent != ".") {
    if (const int error = makeDirectories(parent)) return error;
  }
  return makeDirectory(path);
}

}  // namespace platform
