// For programs: makes sure that standard input, output and error are there.
//
// A program that was started with one of them closed would get its number for the next file that it opens, and would print into it.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

namespace platform {

/// Opens /dev/null in the place of what is closed, and leaves writing to a reader that has gone to fail by itself instead of by a
/// signal. The first thing that a program does.
inline void holdStandardDescriptors() {
  int descriptor = open("/dev/null", O_RDWR);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = open("/dev/null", O_RDWR);
  if (descriptor > STDERR_FILENO) close(descriptor);
  (void)signal(SIGPIPE, SIG_IGN);
}

}  // namespace platform
