// The folder that applications and the user's transfer service share; docs/transfer-service.md has what lies in it.
//
// It is the one that KESTROVA_TRANSFER_DIR names, else kestrova-transferd below $XDG_STATE_HOME, else below .local/state of $HOME
// or of the home of the user database. A variable that holds no absolute path counts as unset. Whoever may write into it can hand
// the service uploads and commands, so it is refused unless it is this user's own and nobody else can write to it.
#pragma once

#include <sys/un.h>

#include <expected>
#include <optional>
#include <string>

#include "platform/Error.h"
#include "platform/linux/FileDescriptor.h"

namespace platform {

class TransferDirectory {
 public:
  /// By the environment. Absent when there is no home at all. Touches no file; any thread.
  static std::optional<std::string> pathFromEnvironment();

  /// Opens the folder of that absolute path, making what is missing of it and of its spool folder, mode 0700; a mode that lets
  /// others read is tightened. Fails with an error of kPOSIXErrorDomain whose text names the path: when it cannot be made or
  /// opened, is another user's, or can be written by others (EPERM). Any thread.
  static std::expected<TransferDirectory, Error> open(const std::string& path);

  const std::string& path() const { return path_; }
  /// Of the folder itself, for operations relative to it; open as long as this object lives.
  int descriptor() const { return descriptor_.get(); }
  std::string spool() const { return path_ + "/spool"; }
  std::string refused() const { return path_ + "/spool/refused"; }
  std::string store() const { return path_ + "/store.sqlite"; }
  std::string socket() const { return path_ + "/socket"; }
  std::string lock() const { return path_ + "/lock"; }

  /// What bind and connect take for the socket. A path that is too long for an address goes by way of this folder's descriptor, so
  /// the address is of use only while this object lives, and only in this process.
  sockaddr_un socketAddress() const;
  /// A new connection to the socket; it blocks in no call. Fails with the system's error number: ENOENT where no service runs,
  /// ECONNREFUSED where one has ended suddenly. Any thread.
  std::expected<FileDescriptor, int> connect() const;

 private:
  TransferDirectory(std::string path, FileDescriptor descriptor) : path_(std::move(path)), descriptor_(std::move(descriptor)) {}

  std::string path_;
  FileDescriptor descriptor_;
};

}  // namespace platform
