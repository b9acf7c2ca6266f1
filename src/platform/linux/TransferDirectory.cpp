// Choosing, making and checking the transfer service's folder.
#include "platform/linux/TransferDirectory.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/linux/ApplicationFolder.h"
#include "platform/linux/FileErrors.h"

namespace platform {
namespace {

constexpr const char* kName = "/kestrova-transferd";

Error folderError(int error, const std::string& path, const std::string& reason) {
  return Error(kPOSIXErrorDomain, error, "The folder “" + path + "” cannot be used: " + reason + ".");
}

Error systemError(int error, const std::string& path) { return folderError(error, path, systemErrorText(error)); }

/// The folder, when it is a directory that only this user can change; others are kept from reading it as well.
std::expected<FileDescriptor, Error> openOwnFolder(const std::string& path) {
  // That the name is taken is not the trouble, but by what.
  if (const int error = makeDirectories(path)) return std::unexpected(systemError(error == EEXIST ? ENOTDIR : error, path));
  auto folder = FileDescriptor::open(path, O_RDONLY | O_DIRECTORY);
  if (!folder) return std::unexpected(systemError(folder.error(), path));
  struct stat status{};
  if (::fstat(folder->get(), &status) != 0) return std::unexpected(systemError(errno, path));
  if (status.st_uid != ::geteuid()) return std::unexpected(folderError(EPERM, path, "it belongs to another user"));
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return std::unexpected(folderError(EPERM, path, "other users can write to it"));
  if ((status.st_mode & 07777) != 0700 && ::fchmod(folder->get(), 0700) != 0) return std::unexpected(systemError(errno, path));
  return std::move(*folder);
}

}  // namespace

std::optional<std::string> TransferDirectory::pathFromEnvironment() {
  if (auto named = absolutePathFromEnvironment("KESTROVA_TRANSFER_DIR")) return named;
  if (const auto state = absolutePathFromEnvironment("XDG_STATE_HOME")) return *state + kName;
  auto home = absolutePathFromEnvironment("HOME");
  if (!home) home = homeFromUserDatabase();
  if (!home) return std::nullopt;
  return *home + "/.local/state" + kName;
}

std::expected<TransferDirectory, Error> TransferDirectory::open(const std::string& path) {
  auto folder = openOwnFolder(path);
  if (!folder) return std::unexpected(std::move(folder.error()));
  TransferDirectory made(path, std::move(*folder));
  if (const auto spool = openOwnFolder(made.spool()); !spool) return std::unexpected(spool.error());
  return made;
}

sockaddr_un TransferDirectory::socketAddress() const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string name = socket();
  if (name.size() >= sizeof address.sun_path) name = "/proc/self/fd/" + std::to_string(descriptor()) + "/socket";
  std::memcpy(address.sun_path, name.c_str(), name.size() + 1);
  return address;
}

std::expected<FileDescriptor, int> TransferDirectory::connect() const {
  FileDescriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!made.isOpen()) return std::unexpected(errno);
  const sockaddr_un address = socketAddress();
  if (::connect(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return std::unexpected(errno);
  return made;
}

}  // namespace platform
