// Where the application's own files lie: one folder for each bundle identifier, below the user's data folder or one the host gives.
//
//     <base>/<identifier>/application-support/      the Application Support directory
//     <base>/<identifier>/tmp/                      temporary files, on the same volume
//     <base>/<identifier>/user-defaults.json        the user defaults, with their lock beside them
//
// The base is the host's home directory, else $XDG_DATA_HOME, else .local/share below $HOME or the home of the user database. As
// the XDG Base Directory Specification has it, a variable that holds no absolute path counts as unset.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Process.h"

namespace platform {

class ApplicationFolder {
 public:
  /// Reads the environment; touches no file.
  explicit ApplicationFolder(const SystemOptions& options);

  /// Absolute; absent when the host's home directory is not absolute, or when there is no home at all. Any thread.
  std::optional<std::string> path() const;

 private:
  std::optional<std::string> base_;
  bool askUserDatabase_ = false;
  std::string name_;
};

/// One file name for each bundle identifier: what is not unreserved in RFC 3986 is percent-encoded, and so is a leading dot, so
/// that no identifier leaves the base folder. No identifier, and an empty one, give a name that no identifier encodes to.
std::string folderNameForBundleIdentifier(const std::optional<std::string>& identifier);

/// Makes a directory, mode 0700, with those above it; each new name is on the disk afterwards. Yields 0, also when the directory
/// was there, or the system's error number.
int makeDirectories(const std::string& path);

/// The variable's path without slashes at its end; absent when the variable is unset or holds no absolute path, and in a program
/// with more rights than whoever started it.
std::optional<std::string> absolutePathFromEnvironment(const char* variable);
/// The home directory of this user as the user database has it, without slashes at its end.
std::optional<std::string> homeFromUserDatabase();

}  // namespace platform
