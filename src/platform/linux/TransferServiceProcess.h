// Starting the transfer service: finding its program, and its process as far as it is a child of this one.
//
// The service is started in a session of its own, with no descriptor and no signal setting of the host, and goes on when the host
// ends. Only this child is ever waited for.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/Process.h"
#include "platform/linux/FileDescriptor.h"

namespace platform {

/// Set by the service for an application that it launches: the session whose events wait. It stays in the environment, which a
/// threaded program must not change, so a program that starts others should leave it out of theirs.
inline constexpr const char* kLaunchSessionVariable = "KESTROVA_BACKGROUND_SESSION";
inline constexpr const char* kTransferDirectoryVariable = "KESTROVA_TRANSFER_DIR";

class TransferServiceProcess {
 public:
  /// Copies the environment. `directory` is the folder that the service is to use.
  TransferServiceProcess(const SystemOptions& options, const std::optional<std::string>& directory);
  ~TransferServiceProcess() = default;
  TransferServiceProcess(const TransferServiceProcess&) = delete;
  TransferServiceProcess& operator=(const TransferServiceProcess&) = delete;

  /// Starts the program unless a child of an earlier call still runs. Yields 0 or the system's error number: EPERM in a process
  /// with more rights than whoever started it, whose environment would choose the program that gets them.
  int start();
  /// Whether a child was started and has not been let go of.
  bool isRunning() const { return process_ != 0; }
  /// Lets go of a child that has ended, and says how when that was not in peace: `ended with status 1`. To be called when
  /// descriptor() becomes readable.
  std::optional<std::string> reap();
  /// Becomes readable when the child has ended; negative when there is none.
  int descriptor() const { return child_.get(); }
  /// What is started: a path, or a name that PATH leads to.
  std::string program() const;
  /// Whether start() would find it, and may run it. What is no absolute path is looked for from the root on, where it would start.
  bool canBeStarted() const;

 private:
  const std::optional<std::string> givenPath_;
  const std::vector<std::string> environment_;
  pid_t process_ = 0;  // 0: none
  FileDescriptor child_;
};

}  // namespace platform
