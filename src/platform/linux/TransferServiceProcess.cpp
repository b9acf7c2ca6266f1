// Starting the transfer service.
#include "platform/linux/TransferServiceProcess.h"

#include <sys/auxv.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <sstream>
#include <utility>

#include "platform/linux/DetachedProgram.h"
#include "platform/linux/Environment.h"
#include "platform/linux/FileErrors.h"
#include "platform/linux/SpawnTexts.h"

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

/// In a process with more rights than whoever started it the environment would choose the program that gets them.
bool mustNotStart() { return ::getauxval(AT_SECURE) != 0; }

bool isProgram(const std::string& path) {
  const std::string absolute = path.starts_with('/') ? path : "/" + path;
  struct stat file{};
  return ::stat(absolute.c_str(), &file) == 0 && S_ISREG(file.st_mode) && ::access(absolute.c_str(), X_OK) == 0;
}

std::vector<std::string> environmentForService(const std::optional<std::string>& directory) {
  return environmentForOthersWith({{kLaunchSessionVariable, std::nullopt}, {kTransferDirectoryVariable, directory}});
}

}  // namespace

TransferServiceProcess::TransferServiceProcess(const SystemOptions& options, const std::optional<std::string>& directory)
    : givenPath_(options.transferServicePath), environment_(environmentForService(directory)) {}

std::string TransferServiceProcess::program() const {
  if (givenPath_) return *givenPath_;
  if (auto named = environmentText("KESTROVA_TRANSFERD")) return *std::move(named);
  return programBesideThisOne().value_or(kProgramName);
}

bool TransferServiceProcess::canBeStarted() const {
  if (mustNotStart()) return false;
  const std::string name = program();
  if (name.find('/') != std::string::npos) return isProgram(name);
  // Without a PATH the C library has this one.
  std::istringstream folders(environmentText("PATH").value_or("/bin:/usr/bin"));
  for (std::string folder; std::getline(folders, folder, ':');)
    if (isProgram(folder.append("/").append(name))) return true;
  return false;
}

int TransferServiceProcess::start() {
  (void)reap();
  if (process_ != 0) return 0;
  if (mustNotStart()) return EPERM;
  const auto started = startDetachedProgram({program(), "--background"}, environment_);
  if (!started) return started.error();
  process_ = *started;
  child_ = descriptorOfProcess(process_).value_or(FileDescriptor());
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
