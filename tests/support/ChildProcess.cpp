// A test's second half in a process of its own.
#include "support/ChildProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "platform/linux/SpawnTexts.h"

namespace test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kChildVariable = "KESTROVA_TEST_CHILD";

int millisecondsUntil(steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
  return static_cast<int>(std::max<milliseconds::rep>(left.count(), 0));
}

bool isReadable(int descriptor, steady_clock::time_point deadline) {
  pollfd entry{descriptor, POLLIN, 0};
  int ready = 0;
  do ready = poll(&entry, 1, millisecondsUntil(deadline));
  while (ready < 0 && errno == EINTR);
  return ready > 0;
}

// Everything up to the end of the file or the deadline.
std::string readAll(int descriptor, steady_clock::time_point deadline) {
  std::string text;
  std::array<char, 4096> buffer;
  while (isReadable(descriptor, deadline)) {
    const ssize_t count = read(descriptor, buffer.data(), buffer.size());
    if (count <= 0) break;
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return text;
}

std::string waitUntil(pid_t process, steady_clock::time_point deadline) {
  const int handle = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
  if (handle < 0) throw std::runtime_error(std::string("pidfd_open: ") + std::strerror(errno));
  const bool ended = isReadable(handle, deadline);
  close(handle);
  if (!ended) kill(process, SIGKILL);
  int status = 0;
  waitpid(process, &status, 0);
  if (!ended) return "still running at the limit";
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "exited with " + std::to_string(WEXITSTATUS(status));
}

std::string leakCheckOff() {
  const char* options = std::getenv("ASAN_OPTIONS");
  return std::string("ASAN_OPTIONS=") + (options ? std::string(options) + ":" : "") + "detect_leaks=0";
}

// This environment without the settings of the test framework, which may name a report file that is the parent's.
std::vector<std::string> environmentOfChild(LeakCheck leakCheck) {
  std::vector<std::string> variables{std::string(kChildVariable) + "=1"};
  if (leakCheck == LeakCheck::kOff) variables.push_back(leakCheckOff());  // the first of a name counts
  for (char** variable = environ; *variable; ++variable)
    if (std::string_view(*variable).rfind("GTEST_", 0) != 0) variables.emplace_back(*variable);
  return variables;
}

std::string nameOfThisTest() {
  const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
  return std::string(test->test_suite_name()) + "." + test->name();
}

pid_t spawnThisProgram(int standardError, LeakCheck leakCheck) {
  std::vector<std::string> arguments{"/proc/self/exe", "--gtest_filter=" + nameOfThisTest(), "--gtest_color=no"};
  std::vector<std::string> environment = environmentOfChild(leakCheck);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, standardError, STDERR_FILENO);
  pid_t process = 0;
  const int error = posix_spawn(&process, "/proc/self/exe", &actions, nullptr, platform::pointersTo(arguments).data(),
                                platform::pointersTo(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  if (error) throw std::runtime_error(std::string("posix_spawn: ") + std::strerror(error));
  return process;
}

}  // namespace

bool isChild() { return std::getenv(kChildVariable) != nullptr; }

ChildResult runThisTestInChild(LeakCheck leakCheck, milliseconds limit) {
  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
  const steady_clock::time_point deadline = steady_clock::now() + limit;
  const pid_t process = spawnThisProgram(ends[1], leakCheck);
  close(ends[1]);
  ChildResult result;
  result.errors = readAll(ends[0], deadline);
  result.status = waitUntil(process, deadline);
  close(ends[0]);
  return result;
}

std::string waitForEnd(int process, milliseconds limit) { return waitUntil(process, steady_clock::now() + limit); }

void say(std::string_view text) {
  if (write(STDERR_FILENO, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
}

}  // namespace test
