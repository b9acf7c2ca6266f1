// Tests that need a process of their own for a moment: another user, another limit, an end by force, a system call that fails.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace test {

/// Runs `body` in a forked child, expectations included (their messages go where the parent's go). Returns the child's exit status:
/// 0 when no expectation failed; 128 + n when signal n ended it.
int runInChild(const std::function<void()>& body);

/// Starts a forked child and returns its process id; it ends with `body`.
pid_t startChild(const std::function<void()>& body);
/// Waits for its end; as runInChild.
int waitForChild(pid_t child);

/// In a child: goes on as the user nobody, whom permissions bind, when this is root. `directory` becomes the new user's.
void becomeNobody(const std::string& directory);

struct TracedRun {
  int status = 0;                  // as of runInChild
  std::string output;              // what the program wrote to standard output
  std::vector<std::string> calls;  // the system calls that were traced, one a line, with arguments and result
};

/// Runs this very program again under strace, with `environment` added. `options` are strace's own, such as
/// {"-e", "trace=fsync,rename", "-e", "inject=fsync:error=EIO:when=2"}.
TracedRun runSelfTraced(const std::vector<std::string>& options, const std::map<std::string, std::string>& environment);
/// Whether strace is there and may trace.
bool canTrace();

}  // namespace test
