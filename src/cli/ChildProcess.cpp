// Starting of child programs.
#include "cli/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/linux/SpawnTexts.h"

namespace cli {

ChildProcess::ChildProcess(const std::string& path, const std::vector<std::string>& arguments, const Environment& environment,
                           const std::string& outputFile) {
  std::vector<std::string> texts{path};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  // The last of a name counts.
  std::vector<std::string> variables = platform::environmentWith({environment.rbegin(), environment.rend()});

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (!outputFile.empty()) {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  }
  // Signals that this process holds back are no business of the program's.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  const int failure = posix_spawn(&pid_, path.c_str(), &actions, &attributes, platform::pointersTo(texts).data(),
                                  platform::pointersTo(variables).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) throw std::system_error(failure, std::generic_category(), "cannot start " + path);
}

ChildProcess::~ChildProcess() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  wait();
}

void ChildProcess::terminate() const {
  if (pid_ > 0) kill(pid_, SIGTERM);
}

int ChildProcess::wait() {
  int status = 0;
  while (pid_ > 0) {
    if (waitpid(pid_, &status, 0) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    pid_ = -1;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return status_;
}

bool ChildProcess::hasEnded() {
  int status = 0;
  if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
    pid_ = -1;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return pid_ < 0;
}

}  // namespace cli
