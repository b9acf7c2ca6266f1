// What the kernel says a thread of this process is doing, for tests that must know that it waits.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <string>

namespace test {

/// The number of the calling thread.
inline long numberOfThisThread() { return syscall(SYS_gettid); }

/// 'R' when it runs, 'S' when it waits for something; '?' for a thread that there is not.
inline char stateOf(long thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string line;
  std::getline(file, line);
  const std::size_t name = line.rfind(')');
  return name == std::string::npos ? '?' : line.at(name + 2);
}

}  // namespace test
