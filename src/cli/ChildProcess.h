// Programs run as children: started without a shell, with their standard output taken.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace cli {

using Environment = std::vector<std::pair<std::string, std::string>>;

class ChildProcess {
 public:
  /// Starts the program at `path`. `environment` is laid over this process's own. Standard output goes to `outputFile` unless that
  /// is empty. Throws std::system_error when it cannot be started.
  ChildProcess(const std::string& path, const std::vector<std::string>& arguments, const Environment& environment,
               const std::string& outputFile);
  /// Kills the program when it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Asks the program to end.
  void terminate() const;
  /// Waits for its end: its exit status, or 128 and the signal that ended it.
  int wait();
  bool hasEnded();

 private:
  pid_t pid_ = -1;
  int status_ = 0;
};

}  // namespace cli
