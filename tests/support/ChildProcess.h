// A test's second half in a process of its own, for what ends a process or depends on how one ends.
//
//     TEST(Suite, Name) {
//       if (test::isChild()) {
//         ... what is to happen in the child; it may return, exit or abort
//       }
//       const test::ChildResult child = test::runThisTestInChild();
//       EXPECT_EQ(child.status, "exited with 0");
//     }
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "support/Event.h"

namespace test {

struct ChildResult {
  /// "exited with 3", "killed by signal 6" or "still running at the limit", after which it was killed.
  std::string status;
  /// All that it wrote to standard error.
  std::string errors;
};

/// Whether this process was started by runThisTestInChild.
bool isChild();

/// A leak checker looks at a process as it exits. In one that was made by fork it cannot: the threads whose stacks it would search
/// are not there, and it says so.
enum class LeakCheck { kOn, kOff };

/// Runs the program again with the running test alone, and waits for its end.
ChildResult runThisTestInChild(LeakCheck leakCheck = LeakCheck::kOn, std::chrono::milliseconds limit = kLimit);

/// Waits for a child made by fork, and says how it ended as ChildResult::status does.
std::string waitForEnd(int process, std::chrono::milliseconds limit = kLimit);

/// Writes to standard error at once, also while the process exits.
void say(std::string_view text);

}  // namespace test
