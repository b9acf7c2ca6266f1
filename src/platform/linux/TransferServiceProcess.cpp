// Starting the transfer service.
#include "platform/linux/TransferServiceProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/auxv.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "platform/linux/Environment.h"
#include "platform/linux/FileErrors.h"

namespace platform {
namespace {

constexpr const char* kProgramName = "kestrova-transferd";

std::optional<std::string> programBesideThisOne() {
  std::array<char, 4096> path{};
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0 || static_cast<std::size_t>(length) == path.size()) return std::nullopt;
  std::string beside = parentOfPath(std::string(path.data(), static_cast<std::size_t>(length))) + "/" + kProgramName;
  return ::access(beside.c_str(), X_OK) == 0 ? std::optional(std::move(beside)) : std::nullopt;
}

std::vector<std::string> environmentForService(const std::optional<std::string>& directory) {
  std::vector<std::string> kept;
  const auto isVariable = [](std::string_view entry, std::string_view name) {
    return entry.starts_with(name) && entry.substr(name.size()).starts_with('=');
  };
  for (char** entry = environ; entry && *entry; ++entry)
    if (!isVariable(*entry, kLaunchSessionVariable) && !isVariable(*entry, kTransferDirectoryVariable)) kept.emplace_back(*entry);
  if (directory) kept.push_back(std::string(kTransferDirectoryVariable) + "=" + *directory);
  return kept;
}

// How the child begins: nothing of the host's but its rights.
class SpawnSettings {
 public:
  SpawnSettings() {
    posix_spawnattr_init(&attributes_);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes_, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    posix_spawn_file_actions_addchdir_np(&actions_, "/");
  }
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  const posix_spawnattr_t* attributes() const { return &attributes_; }
  const posix_spawn_file_actions_t* actions() const { return &actions_; }

 private:
  posix_spawnattr_t attributes_;
  posix_spawn_file_actions_t actions_;
};

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> made;
  for (std::string& text : texts) made.push_back(text.data());
  made.push_back(nullptr);
  return made;
}

}  // namespace

TransferServiceProcess::TransferServiceProcess(const SystemOptions& options, std::optional<std::string> directory)
    : givenPath_(options.transferServicePath), environment_(environmentForService(directory)) {}

std::string TransferServiceProcess::program() const {
  if (givenPath_) return *givenPath_;
  if (auto named = environmentText("KESTROVA_TRANSFERD")) return *std::move(named);
  return programBesideThisOne().value_or(kProgramName);
}

int TransferServiceProcess::start() {
  (void)reap();
  if (process_ != 0) return 0;
  if (::getauxval(AT_SECURE) != 0) return EPERM;
  std::vector<std::string> arguments{program(), "--background"};
  const SpawnSettings settings;
  const int error = ::posix_spawnp(&process_, arguments.front().c_str(), settings.actions(), settings.attributes(),
                                   pointers(arguments).data(), pointers(environment_).data());
  if (error != 0) {
    process_ = 0;
    return error;
  }
  child_ = FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, process_, 0)));
  return 0;
}

// The host may have waited for all its children; then this one is gone as well.
std::optional<std::string> TransferServiceProcess::reap() {
  if (process_ == 0) return std::nullopt;
  int status = 0;
  const pid_t ended = ::waitpid(process_, &status, WNOHANG);
  if (ended == 0 || (ended < 0 && errno != ECHILD)) return std::nullopt;
  process_ = 0;
  child_ = FileDescriptor();
  if (ended < 0) return std::nullopt;
  if (WIFSIGNALED(status)) return "was ended by signal " + std::to_string(WTERMSIG(status));
  return WEXITSTATUS(status) == 0 ? std::nullopt : std::optional("ended with status " + std::to_string(WEXITSTATUS(status)));
}

}  // namespace platform
