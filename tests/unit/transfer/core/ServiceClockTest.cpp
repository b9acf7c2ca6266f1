// The service under a clock that is set back while it runs.
#include "unit/transfer/core/ServiceTest.h"

namespace {

using ServiceClock = ServiceTest;

// Found by the simulation, seed 9: the second in which a running application may come back was counted from a start that then lay
// in the future, and nobody was launched until the clock had caught up with it.
TEST_F(ServiceClock, aClockThatWasSetBackDoesNotKeepApplicationsFromBeingLaunched) {
  options_.reconnectTime = 1;
  put(test::entryFor("one", 1));
  start();
  answerOldest();
  clock_.advance(-9.0 * 86400);
  service_->tick();
  EXPECT_THAT(launchedSessions(), testing::IsEmpty()) << "the application may still come back";
  pass(1);
  EXPECT_THAT(launchedSessions(), testing::ElementsAre("one"));
}

}  // namespace
