// Starting a program that goes on without this process.
#include "platform/linux/DetachedProgram.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/SpawnTexts.h"

namespace platform {
namespace {

class Attributes {
 public:
  Attributes() {
    posix_spawnattr_init(&attributes_);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes_, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~Attributes() { posix_spawnattr_destroy(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;

  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

class FileActions {
 public:
  explicit FileActions(StartFolder folder) {
    posix_spawn_file_actions_init(&actions_);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
      posix_spawn_file_actions_addopen(&actions_, standard, "/dev/null", O_RDWR, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    if (folder == StartFolder::kRoot) posix_spawn_file_actions_addchdir_np(&actions_, "/");
  }
  ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;

  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

}  // namespace

std::expected<pid_t, int> startDetachedProgram(std::vector<std::string> arguments, std::vector<std::string> environment,
                                               StartFolder folder) {
  const FileActions actions(folder);
  const Attributes attributes;
  pid_t process = 0;
  const int error = ::posix_spawnp(&process, arguments.front().c_str(), actions.get(), attributes.get(),
                                   pointersTo(arguments).data(), pointersTo(environment).data());
  if (error != 0) return std::unexpected(error);
  return process;
}

std::expected<FileDescriptor, int> descriptorOfProcess(pid_t process) {
  FileDescriptor descriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
  if (!descriptor.isOpen()) return std::unexpected(errno);
  return descriptor;
}

}  // namespace platform
