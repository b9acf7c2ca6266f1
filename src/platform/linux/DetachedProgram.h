// Starting a program that has nothing of this process's but its rights, and goes on without it.
//
// It leads a session of its own, with every signal at its default and none blocked, whatever this process or the starting thread
// has set; its three standard descriptors are /dev/null, and it inherits no other.
#pragma once

#include <sys/types.h>

#include <expected>
#include <string>
#include <vector>

#include "platform/linux/FileDescriptor.h"

namespace platform {

/// Where it starts: in / it keeps no file system from being unmounted.
enum class StartFolder { kRoot, kCallers };

/// Starts a program without a shell; its first argument is a path, or a name that this process's PATH leads to. It is a child of
/// this process, which has to wait for its end. Fails with the system's error number. Any thread.
std::expected<pid_t, int> startDetachedProgram(std::vector<std::string> arguments, std::vector<std::string> environment,
                                               StartFolder folder = StartFolder::kRoot);

/// Becomes readable when that child has ended. Fails with the system's error number, on systems before Linux 5.3 with ENOSYS. Any
/// thread.
std::expected<FileDescriptor, int> descriptorOfProcess(pid_t process);

}  // namespace platform
