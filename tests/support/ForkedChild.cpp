// Forking, waiting and tracing.
#include "support/ForkedChild.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <sstream>

#include "support/Files.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

constexpr unsigned kNobody = 65534;

[[noreturn]] void execute(const std::vector<std::string>& arguments, const std::string& outputPath) {
  if (!std::freopen(outputPath.c_str(), "w", stdout)) ::_exit(126);
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  ::execvp(pointers[0], pointers.data());
  ::_exit(127);
}

}  // namespace

int runInChild(const std::function<void()>& body) { return waitForChild(startChild(body)); }

pid_t startChild(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child != 0) return child;
  try {
    body();
  } catch (const std::exception& exception) {
    ADD_FAILURE() << "left the child's body: " << exception.what();
  }
  std::fflush(nullptr);
  ::_exit(::testing::Test::HasFailure() ? 1 : 0);
}

int waitForChild(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

void becomeNobody(const std::string& directory) {
  if (::geteuid() != 0) return;
  ASSERT_EQ(::chown(directory.c_str(), kNobody, kNobody), 0);
  ASSERT_EQ(::setgroups(0, nullptr), 0);
  ASSERT_EQ(::setgid(kNobody), 0);
  ASSERT_EQ(::setuid(kNobody), 0);
}

TracedRun runSelfTraced(const std::vector<std::string>& options, const std::map<std::string, std::string>& environment) {
  const TemporaryDirectory scratch;
  std::vector<std::string> arguments{"strace", "-f", "-qq",         "-a1", "-s",
                                     "200",    "-e", "signal=none", "-o",  scratch.path() + "/calls"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  for (const auto& [name, value] : environment) arguments.insert(arguments.end(), {"-E", name + "=" + value});
  arguments.insert(arguments.end(), {"-E", "ASAN_OPTIONS=detect_leaks=0"});  // the leak check is a tracer itself
  arguments.push_back(std::filesystem::read_symlink("/proc/self/exe").string());
  TracedRun run;
  run.status = runInChild([&] { execute(arguments, scratch.path() + "/output"); });
  run.output = contentOf(scratch.path() + "/output");
  std::istringstream calls(contentOf(scratch.path() + "/calls"));
  for (std::string line; std::getline(calls, line);) {
    const std::size_t afterProcessId = line.find_first_not_of(' ', line.find(' '));
    run.calls.push_back(afterProcessId == std::string::npos ? line : line.substr(afterProcessId));
  }
  return run;
}

bool canTrace() {
  static const bool can = std::system("strace -o /dev/null true >/dev/null 2>&1") == 0;
  return can;
}

}  // namespace test
