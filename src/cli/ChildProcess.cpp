// Starting of child programs.
#include "cli/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <system_error>

namespace cli {
namespace {

std::vector<std::string> mergedEnvironment(const Environment& over) {
  std::map<std::string, std::string> merged;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    const auto equals = text.find('=');
    if (equals != std::string::npos) merged[text.substr(0, equals)] = text.substr(equals + 1);
  }
  for (const auto& [name, value] : over) merged[name] = value;
  std::vector<std::string> entries;
  entries.reserve(merged.size());
  for (const auto& [name, value] : merged) entries.push_back(std::string(name).append("=").append(value));
  return entries;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

ChildProcess::ChildProcess(const std::string& path, const std::vector<std::string>& arguments, const Environment& environment,
                           const std::string& outputFile) {
  std::vector<std::string> texts{path};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<std::string> variables = mergedEnvironment(environment);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (!outputFile.empty()) {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  }
  const int failure = posix_spawn(&pid_, path.c_str(), &actions, nullptr, pointers(texts).data(), pointers(variables).data());
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
