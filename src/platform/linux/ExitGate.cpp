// The gate that closes when the process exits.
#include "platform/linux/ExitGate.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>

namespace platform {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPatience{200};

struct State {
  std::atomic<bool> closed{false};
  std::atomic<bool> installed{false};
  std::atomic<int> running{0};    // workers between enter and leave
  std::atomic<pid_t> process{0};  // whose workers these are: a child made by fork has none of them
};
constinit State state;
constinit thread_local bool isRunningBlocks = false;

// Waits while `running` has the value given, for a limited time.
void waitWhileRunning(int value, std::chrono::nanoseconds limit) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
  const timespec timeout{seconds.count(), (limit - seconds).count()};
  syscall(SYS_futex, &state.running, FUTEX_WAIT_PRIVATE, value, &timeout, nullptr, 0);
}

}  // namespace

void ExitGate::install() {
  if (state.installed.exchange(true)) return;
  state.process = getpid();
  (void)std::atexit(&ExitGate::close);  // there is nobody to tell of a failure
  (void)std::at_quick_exit(&ExitGate::close);
}

// Entering counts before it looks and closing closes before it counts, in one total order: either the worker sees the gate closed
// or the exiting thread sees the worker.
void ExitGate::enter() {
  isRunningBlocks = true;
  state.running.fetch_add(1);
  pass();
}

void ExitGate::leave() {
  isRunningBlocks = false;
  state.running.fetch_sub(1);
  if (isClosed()) syscall(SYS_futex, &state.running, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

void ExitGate::pass() {
  if (isClosed()) park();
}

bool ExitGate::isClosed() { return state.closed.load(); }

void ExitGate::close() {
  state.closed = true;
  if (getpid() != state.process) return;
  const int own = isRunningBlocks ? 1 : 0;  // a block that calls exit() does not wait for itself
  const auto deadline = steady_clock::now() + kPatience;
  for (int running = state.running; running > own; running = state.running) {
    const auto remaining = deadline - steady_clock::now();
    if (remaining <= steady_clock::duration::zero()) return;
    waitWhileRunning(running, remaining);
  }
}

void ExitGate::park() {
  leave();
  for (;;) pause();
}

}  // namespace platform
