// Starting an application's process and seeing it end.
#include "transfer/linux/ProcessLauncher.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/FileErrors.h"

namespace transfer {
namespace {

using platform::Error;

constexpr short kFlags = POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;

class Attributes {
 public:
  Attributes() {
    posix_spawnattr_init(&attributes_);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes_, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    posix_spawnattr_setflags(&attributes_, kFlags);
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
  FileActions() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    posix_spawn_file_actions_addchdir_np(&actions_, "/");
  }
  ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

/// This process's environment with the variables given set, and those without a value left out.
std::vector<std::string> environmentWith(const std::vector<std::pair<std::string, std::optional<std::string>>>& variables) {
  std::vector<std::string> made;
  for (char** variable = environ; *variable; ++variable) {
    const std::string_view text(*variable);
    bool isReplaced = false;
    for (const auto& [name, value] : variables) isReplaced |= text.starts_with(name + "=");
    if (!isReplaced) made.emplace_back(text);
  }
  for (const auto& [name, value] : variables)
    if (value) made.push_back(name + "=" + *value);
  return made;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

Error launchError(int error, const std::string& program) {
  return Error(platform::kPOSIXErrorDomain, error,
               "The application “" + program + "” could not be launched: " + platform::systemErrorText(error) + ".");
}

bool holdsNul(const std::vector<std::string>& texts) {
  for (const std::string& text : texts)
    if (text.find('\0') != std::string::npos) return true;
  return false;
}

}  // namespace

ProcessLauncher::~ProcessLauncher() {
  for (const auto& [descriptor, running] : running_) loop_.unwatch(descriptor);
}

std::expected<void, Error> ProcessLauncher::launch(ApplicationId application, const std::vector<std::string>& command,
                                                   const std::string& session, const std::optional<std::string>& trustAnchors) {
  std::vector<std::string> arguments = command;
  std::vector<std::string> environment = environmentWith({{"KESTROVA_BACKGROUND_SESSION", session},
                                                          {"KESTROVA_TRANSFER_DIR", transferFolder_},
                                                          {"KESTROVA_TRANSFERD_DIE_AT", std::nullopt},
                                                          {"SSL_CERT_FILE", trustAnchors}});
  // A relative path would be looked up below /, and a text that ends early would say something else than what was registered.
  if (command.empty() || !command.front().starts_with('/') || holdsNul(arguments) || holdsNul(environment))
    return std::unexpected(launchError(EINVAL, command.empty() ? "" : command.front()));
  pid_t process = 0;
  const FileActions actions;
  const Attributes attributes;
  const int error = posix_spawn(&process, command.front().c_str(), actions.get(), attributes.get(), pointersTo(arguments).data(),
                                pointersTo(environment).data());
  if (error != 0) return std::unexpected(launchError(error, command.front()));
  platform::FileDescriptor descriptor(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  if (!descriptor.isOpen()) {  // its end would never be seen
    const int cause = errno;
    (void)kill(process, SIGKILL);
    (void)waitpid(process, nullptr, 0);
    return std::unexpected(launchError(cause, command.front()));
  }
  const int number = descriptor.get();
  running_.emplace(number, Running{application, session, std::move(descriptor)});
  loop_.watch(number, EPOLLIN, [this, number](std::uint32_t) { processEnded(number); });
  return {};
}

void ProcessLauncher::processEnded(int descriptor) {
  siginfo_t ignored{};
  (void)waitid(P_PIDFD, static_cast<id_t>(descriptor), &ignored, WEXITED | WNOHANG);
  loop_.unwatch(descriptor);
  const auto ended = running_.extract(descriptor);
  ended_(ended.mapped().application, ended.mapped().session);
}

}  // namespace transfer
