// The gate that closes when the process exits: no block of any queue starts after it.
//
// exit() destroys the host's static objects while other threads still run. So the first thing that exit() does, before objects made
// earlier than the first queue's thread are destroyed, is to close the gate and to wait, for a limited time, until the blocks that
// are running have ended. What is still running then can only be left alone: freezing a thread that may hold the allocator's lock
// would hang the exit, and so would waiting for a block that waits for a network.
#pragma once

namespace platform {

/// Static, as the exit of a process knows no objects.
class ExitGate {
 public:
  ExitGate() = delete;

  /// Before the process's first worker is started.
  static void install();
  /// By a worker that is about to run blocks; does not return once the gate is closed.
  static void enter();
  /// By a worker that has no more blocks to run for now.
  static void leave();
  /// By a worker between two blocks: does not return once the gate is closed.
  static void pass();
  static bool isClosed();

 private:
  static void close();
  [[noreturn]] static void park();
};

}  // namespace platform
