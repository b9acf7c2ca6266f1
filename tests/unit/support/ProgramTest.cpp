// Programs beside a test: their ends.
#include "support/Program.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <string>

namespace test {
namespace {

// A test that failed at its limit hung for good where the program had started another one.
TEST(ProgramTest, AKilledOneIsNotWaitedForWhileItsChildHoldsTheOutput) {
  Program program("/bin/sh", {"-c", "tail -f /dev/null & echo $!; wait"});
  ASSERT_TRUE(program.waitForLines(1));
  program.signal(SIGKILL);
  EXPECT_EQ(program.waitForEnd(), "killed by signal 9");
  const std::string child = program.output();
  EXPECT_EQ(kill(std::stoi(child), SIGKILL), 0) << "the child " << child << " lives on";
}

}  // namespace
}  // namespace test
