// The transfer service's decisions, one by one (platform row B3 among them).
#include "unit/transfer/core/ServiceTest.h"

namespace {

using testing::ElementsAre;
using transfer::Cancel;
using transfer::GetTasks;
using transfer::Handed;
using transfer::Hold;
using transfer::Invalidate;
using transfer::List;
using transfer::Wake;

std::vector<std::string> steps;
void noteStep(std::string_view step) { steps.emplace_back(step); }

TEST_F(ServiceTest, aTaskGoesFromTheSpoolFolderToItsEnd) {
  steps.clear();
  options_.stepHook = noteStep;
  start();
  const auto app = connect();
  put(test::entryFor("one"));
  say(app, Wake{});
  EXPECT_THAT(runningSessions(), ElementsAre("one"));
  EXPECT_THAT(spool_.names(), ElementsAre());
  say(app, Hold{.session = "one"});
  EXPECT_EQ(take(app), "sessionTasks 0 one (task 1 running)");
  answerOldest(404);
  EXPECT_EQ(take(app), "taskEvent one 1 task 1 completed status 404");
  say(app, Handed{.session = "one", .event = 1});
  EXPECT_EQ(take(app), "") << "nothing had come up before the session was held";
  disconnect(app);
  EXPECT_THAT(store_.contents().sessions, testing::IsEmpty());
  EXPECT_THAT(steps, ElementsAre("imported", "spool-removed", "left-spool", "began", "try-ended", "ended", "event-sent", "handed",
                                 "forgotten"));
}

TEST_F(ServiceTest, atMostSoManyUploadsRunAndTheRestFollowInOrder) {
  options_.maxUploadsAtOnce = 2;
  start();
  for (const char* const session : {"d", "c", "b", "a"}) put(test::entryFor(session));
  service_->tick();
  EXPECT_THAT(runningSessions(), ElementsAre("d", "c"));
  answerOldest();
  EXPECT_THAT(runningSessions(), ElementsAre("c", "b"));
  start();
  EXPECT_THAT(runningSessions(), ElementsAre("c", "b")) << "the order stays over a restart";
}

TEST_F(ServiceTest, aFailedTryIsTriedAgainAfterGrowingJitteredWaits) {
  start();
  put(test::entryFor("one"));
  service_->tick();
  double full = options_.firstRetryWait;
  for (int n = 1; n <= 14; ++n) {
    failOldest(platform::kURLErrorNetworkConnectionLost, true);
    const double wait = untilDeadline();
    EXPECT_GE(wait, full / 2) << n;
    EXPECT_LE(wait, full) << n;
    EXPECT_EQ(store_.contents().tasks.at(0).status.tries, static_cast<std::uint64_t>(n));
    pass(wait - 0.01);
    EXPECT_THAT(runningSessions(), ElementsAre());
    if (n % 3 == 0) start();
    pass(0.02);
    EXPECT_THAT(runningSessions(), ElementsAre("one"));
    full = std::min(full * 2, options_.longestRetryWait);
  }
}

TEST_F(ServiceTest, whatCannotGetBetterEndsAtOnce) {
  start();
  put(test::entryFor("one"));
  service_->tick();
  failOldest(platform::kURLErrorServerCertificateUntrusted, false);
  const auto app = connect();
  say(app, Hold{.session = "one"});
  EXPECT_EQ(take(app), "sessionTasks 0 one (task 1 completed error -1202); taskEvent one 1 task 1 completed error -1202");
  say(app, Handed{.session = "one", .event = 1});
  EXPECT_EQ(take(app), "eventsDelivered one");
  say(app, Handed{.session = "one", .event = 1});
  EXPECT_EQ(take(app), "") << "said twice, done once";
}

TEST_F(ServiceTest, afterSevenDaysARunningTaskAndAWaitingOneTimeOut) {
  start();
  put(test::entryFor("one"));
  put(test::entryFor("two"));
  service_->tick();
  failOldest(platform::kURLErrorCannotFindHost, true);
  pass(7 * 86400 - 1);
  ASSERT_EQ(uploads_->running().size(), 2U);
  EXPECT_EQ(untilDeadline(), 1);
  pass(1);
  EXPECT_EQ(uploads_->stopped().size(), 2U);
  const auto app = connect();
  say(app, Hold{.session = "two"});
  EXPECT_EQ(take(app), "sessionTasks 0 two (task 1 completed error -1001); taskEvent two 1 task 1 completed error -1001");
}

TEST_F(ServiceTest, aClockThatGoesBackMakesNoWaitLonger) {
  start();
  put(test::entryFor("one"));
  service_->tick();
  failOldest(platform::kURLErrorCannotFindHost, true);
  clock_.advance(-30.0 * 86400);
  EXPECT_LE(untilDeadline(), options_.firstRetryWait);
  service_->tick();
  pass(options_.firstRetryWait);
  EXPECT_THAT(runningSessions(), ElementsAre("one"));
  EXPECT_LE(untilDeadline(), options_.resourceTimeout);
}

TEST_F(ServiceTest, eventsComeInOrderAndAllAgainToTheNextHolder) {
  start();
  for (std::uint64_t task = 1; task <= 3; ++task) put(test::entryFor("one", task));
  const auto first = connect();
  const auto second = connect();
  say(second, Hold{.session = "one"});
  say(first, Hold{.session = "one"});
  EXPECT_EQ(take(first), "sessionTasks 0 one (task 1 running) (task 2 running) (task 3 running)");
  for (int n = 0; n < 3; ++n) answerOldest();
  EXPECT_EQ(take(first), "") << "the second process held it first";
  EXPECT_EQ(take(second),
            "sessionTasks 0 one (task 1 waiting) (task 2 waiting) (task 3 waiting); taskEvent one 1 task 1 completed status 200; "
            "taskEvent one 2 task 2 completed status 200; taskEvent one 3 task 3 completed status 200");
  say(second, Handed{.session = "one", .event = 1});
  disconnect(second);
  EXPECT_EQ(take(first), "taskEvent one 2 task 2 completed status 200; taskEvent one 3 task 3 completed status 200");
  say(first, Handed{.session = "one", .event = 2});
  EXPECT_EQ(take(first), "");
  say(first, Handed{.session = "one", .event = 3});
  EXPECT_EQ(take(first), "eventsDelivered one");
}

TEST_F(ServiceTest, eventNumbersGrowOverARestart) {
  start();
  put(test::entryFor("one", 1));
  put(test::entryFor("one", 2));
  const auto app = connect();
  say(app, Hold{.session = "one"});
  answerOldest();
  say(app, Handed{.session = "one", .event = 1});
  start();
  const auto again = connect();
  say(again, Hold{.session = "one"});
  answerOldest();
  EXPECT_EQ(take(again),
            "sessionTasks 0 one (task 1 completed status 200) (task 2 running); taskEvent one 2 task 2 completed status 200");
}

TEST_F(ServiceTest, anotherApplicationNeitherSeesNorTouchesASession) {
  start();
  put(test::entryFor("one"));
  put(test::entryFor("one", 1, "other"));
  service_->tick();
  ASSERT_EQ(uploads_->running().size(), 1U) << "both entries have the same spool name here";
  spool_.put("second.task", encode(test::entryFor("one", 5)));
  service_->tick();
  const auto other = connect("other");
  say(other, Hold{.session = "one"});
  say(other, List{.request = 4});
  EXPECT_EQ(take(other), "sessionTasks 0 one (task 1 running); sessionTasks 4 one (task 1 running); listed 4");
  const auto app = connect();
  say(app, GetTasks{.request = 9, .session = "one"});
  EXPECT_EQ(take(app), "sessionTasks 9 one (task 5 running)");
  answerOldest();
  say(app, Handed{.session = "one", .event = 1});
  say(app, Cancel{.session = "one"});
  EXPECT_EQ(take(other), "taskEvent one 1 task 1 completed status 200");
  EXPECT_EQ(store_.contents().events.size(), 2U) << "the other's answer and the cancelled one";
}

TEST_F(ServiceTest, invalidationEndsTasksThenTheSession) {
  start();
  put(test::entryFor("one", 1));
  put(test::entryFor("one", 2));
  const auto app = connect();
  say(app, Hold{.session = "one"});
  answerOldest();
  take(app);
  say(app, Invalidate{.session = "one"});
  EXPECT_EQ(take(app), "taskEvent one 2 task 2 completed error -999");
  say(app, Invalidate{.session = "one"});
  say(app, Handed{.session = "one", .event = 1});
  EXPECT_EQ(take(app), "");
  say(app, Handed{.session = "one", .event = 2});
  EXPECT_EQ(take(app), "invalidated one");
  EXPECT_THAT(store_.contents().sessions, testing::IsEmpty());
  say(app, Invalidate{.session = "unknown"});
  EXPECT_EQ(take(app), "invalidated unknown");
}

TEST_F(ServiceTest, aServiceThatDiedInAnInvalidationFinishesIt) {
  start();
  put(test::entryFor("one"));
  const auto app = connect();
  service_->tick();
  store_.fail = [](std::string_view operation) { return operation == "endTask"; };
  say(app, Invalidate{.session = "one"});
  EXPECT_TRUE(store_.contents().sessions.at(0).isInvalidated);
  EXPECT_EQ(take(app), "");
  store_.fail = nullptr;
  start();
  const auto again = connect();
  say(again, Hold{.session = "one"});
  EXPECT_EQ(take(again), "sessionTasks 0 one (task 1 completed error -999); taskEvent one 1 task 1 completed error -999");
  say(again, Handed{.session = "one", .event = 1});
  EXPECT_EQ(take(again), "eventsDelivered one; invalidated one");
}

TEST_F(ServiceTest, aProcessThatMakesAnEndingSessionAgainHoldsTheNext) {
  start();
  put(test::entryFor("one"));
  const auto app = connect();
  say(app, Hold{.session = "one"});
  say(app, Invalidate{.session = "one"});
  say(app, Hold{.session = "one"});
  take(app);
  say(app, Handed{.session = "one", .event = 1});
  EXPECT_EQ(take(app), "invalidated one");
  put(test::entryFor("one", 2));
  say(app, Wake{});
  answerOldest();
  EXPECT_EQ(take(app), "taskEvent one 1 task 2 completed status 200");
}

TEST_F(ServiceTest, aLaunchForAnEndingSessionIsToldOfItsDeliveryOnce) {
  start();
  put(test::entryFor("one"));
  const auto first = connect();
  say(first, Hold{.session = "one"});
  say(first, Invalidate{.session = "one"});
  disconnect(first);
  ASSERT_THAT(launchedSessions(), ElementsAre("one")) << "it died before it had handed its event over";
  const auto app = connect();
  say(app, Hold{.session = "one", .wasLaunchedForIt = true});
  say(app, Handed{.session = "one", .event = 1});
  EXPECT_EQ(take(app),
            "sessionTasks 0 one (task 1 completed error -999); taskEvent one 1 task 1 completed error -999; eventsDelivered one; "
            "invalidated one");
}

TEST_F(ServiceTest, cancelLeavesTheSession) {
  start();
  put(test::entryFor("one"));
  const auto app = connect();
  say(app, Hold{.session = "one"});
  take(app);
  say(app, Cancel{.session = "one"});
  EXPECT_EQ(take(app), "taskEvent one 1 task 1 completed error -999");
  EXPECT_EQ(uploads_->stopped().size(), 1U);
  say(app, Handed{.session = "one", .event = 1});
  EXPECT_EQ(store_.contents().sessions.size(), 1U);
  EXPECT_EQ(take(app), "");
}

TEST_F(ServiceTest, connectionsThatBreakTheRulesAreRefused) {
  start();
  const auto refusal = [&](const auto& act) {
    const transfer::ConnectionId connection = ++lastConnection_;
    service_->connectionOpened(connection);
    act(connection);
    EXPECT_TRUE(wire_->isClosed(connection));
    return take(connection);
  };
  const transfer::Hello hello{.application = test::applicationNamed("app"), .launchCommand = {}};
  EXPECT_EQ(refusal([&](auto connection) { say(connection, Wake{}); }), "refused: the first message must be hello");
  EXPECT_EQ(refusal([&](auto connection) { service_->garbageArrived(connection, "not JSON"); }), "refused: not JSON");
  EXPECT_EQ(refusal([&](auto connection) { say(connection, hello), say(connection, hello); }),
            "welcome; refused: hello came twice");
  EXPECT_EQ(
      refusal([&](auto connection) { say(connection, hello), say(connection, transfer::Welcome{}), say(connection, List{}); }),
      "welcome; refused: this message is the service's own");
  transfer::Hello later = hello;
  later.version = 2;
  EXPECT_EQ(refusal([&](auto connection) { say(connection, later); }), "refused: the service speaks version 1, not version 2");
  transfer::Hello stranger = hello;
  stranger.application.token = std::string(64, 'b');
  EXPECT_EQ(refusal([&](auto connection) { say(connection, stranger); }),
            "refused: the application “com.example.app” in “/home/user/app” is known with another token");
  transfer::SpoolEntry entry = test::entryFor("one");
  entry.application = stranger.application;
  put(entry);
  service_->tick();
  EXPECT_EQ(spool_.asides().at(0).reason, "the application “com.example.app” in “/home/user/app” is known with another token");
}

TEST_F(ServiceTest, anApplicationOfWhichNothingIsKeptMayComeWithANewToken) {
  start();
  disconnect(connect());
  service_->connectionOpened(77);
  transfer::Hello anew{.application = test::applicationNamed("app"), .launchCommand = {}};
  anew.application.token = std::string(64, 'b');
  say(77, anew);
  EXPECT_EQ(take(77), "welcome");
  EXPECT_EQ(store_.contents().applications.at(0).identity.token, anew.application.token);
}

TEST_F(ServiceTest, whoOnlyLooksLeavesTheCommandThatLaunchesTheApplication) {
  start();
  disconnect(connect());
  const auto command = store_.contents().applications.at(0).launchCommand;
  ASSERT_FALSE(command.empty());
  service_->connectionOpened(78);
  transfer::Hello looking{.application = test::applicationNamed("app"), .launchCommand = {}};
  looking.leavesLaunchCommand = true;
  say(78, looking);
  EXPECT_EQ(take(78), "welcome");
  service_->tick();
  EXPECT_EQ(store_.contents().applications.at(0).launchCommand, command);
}

TEST_F(ServiceTest, entriesThatAreNoTasksAreSetAside) {
  start();
  put(test::entryFor("one"));
  spool_.put("again.task", encode(test::entryFor("one")));
  spool_.put("garbage.task", "{");
  service_->tick();
  ASSERT_EQ(spool_.asides().size(), 2U);
  EXPECT_EQ(spool_.asides()[0].reason, "the session has a task 1 already");
  EXPECT_EQ(spool_.asides()[1].reason, "not JSON");
  EXPECT_THAT(log_->messages(), ElementsAre("The transfer service set again.task aside: the session has a task 1 already",
                                            "The transfer service set garbage.task aside: not JSON"));
}

TEST_F(ServiceTest, aTaskBeginsOnlyWhenItsFileIsGoneAndIsNeverTakenTwice) {
  start();
  put(test::entryFor("one"));
  spool_.fail = [](std::string_view operation, const std::string&) {
    return operation == "remove" ? std::optional(test::MemoryTransferStore::fullDisk()) : std::nullopt;
  };
  service_->tick();
  EXPECT_EQ(store_.contents().tasks.size(), 1U);
  EXPECT_THAT(runningSessions(), ElementsAre());
  EXPECT_EQ(untilDeadline(), 1);
  const auto app = connect();
  say(app, Hold{.session = "one"});
  say(app, Cancel{.session = "one"});
  say(app, Handed{.session = "one", .event = 1});
  disconnect(app);
  EXPECT_EQ(store_.contents().sessions.size(), 1U) << "forgotten now, its file would be taken for a new task";
  spool_.fail = nullptr;
  start();
  EXPECT_THAT(store_.contents().sessions, testing::IsEmpty());
  EXPECT_THAT(uploads_->begun(), testing::IsEmpty());
}

TEST_F(ServiceTest, nothingIsToldWhileTheStoreTakesNothing) {
  start();
  put(test::entryFor("one"));
  const auto app = connect();
  say(app, Hold{.session = "one"});
  take(app);
  store_.fail = [](std::string_view) { return true; };
  answerOldest();
  EXPECT_EQ(take(app), "");
  EXPECT_EQ(untilDeadline(), 1);
  put(test::entryFor("two"));
  say(app, Wake{});
  say(app, GetTasks{.request = 1, .session = "one"});
  EXPECT_EQ(take(app), "sessionTasks 1 one (task 1 waiting status 200)");
  EXPECT_THAT(spool_.names(), ElementsAre("two-1.task"));
  for (const double wait : {1.0, 2.0, 4.0, 8.0, 16.0, 32.0, 60.0}) {
    EXPECT_EQ(untilDeadline(), wait);
    pass(wait);
  }
  EXPECT_FALSE(service_->mayEnd());
  store_.fail = nullptr;
  pass(60);
  EXPECT_EQ(take(app), "taskEvent one 1 task 1 completed status 200");
  EXPECT_THAT(runningSessions(), ElementsAre("two"));
  store_.fail = [](std::string_view) { return true; };
  say(app, Handed{.session = "one", .event = 1});
  EXPECT_EQ(untilDeadline(), 1) << "the waits begin anew";
  disconnect(app);
  store_.fail = nullptr;
  pass(1);
  EXPECT_EQ(store_.contents().sessions.size(), 1U) << "the handed event is forgotten with its session";
  EXPECT_THAT(launchedSessions(), ElementsAre());
}

// A refusal would have it wait for a minute, though the disk may have room again sooner.
TEST_F(ServiceTest, anUnknownApplicationIsTurnedAwayWithoutAWordWhileTheStoreTakesNothing) {
  start();
  store_.fail = [](std::string_view) { return true; };
  service_->connectionOpened(5);
  say(5, transfer::Hello{.application = test::applicationNamed("app"), .launchCommand = {}});
  EXPECT_EQ(take(5), "");
  EXPECT_TRUE(wire_->isClosed(5));
}

TEST_F(ServiceTest, anApplicationIsLaunchedForOneSessionAtATime) {
  start();
  put(test::entryFor("one"));
  put(test::entryFor("two"));
  service_->tick();
  answerOldest();
  answerOldest();
  ASSERT_THAT(launchedSessions(), ElementsAre("one"));
  EXPECT_THAT(launcher_.launches[0].command, ElementsAre("/usr/bin/app", "--for-events"));
  EXPECT_EQ(launcher_.launches[0].trustAnchors, "/etc/anchors.pem");
  const auto app = connect();
  say(app, Hold{.session = "one", .wasLaunchedForIt = true});
  say(app, Handed{.session = "one", .event = 1});
  EXPECT_EQ(take(app),
            "sessionTasks 0 one (task 1 completed status 200); taskEvent one 1 task 1 completed status 200; eventsDelivered one");
  EXPECT_THAT(launchedSessions(), ElementsAre("one")) << "it is running";
  disconnect(app);
  EXPECT_THAT(launchedSessions(), ElementsAre("one", "two"));
  service_->launchEnded(applicationId());
  EXPECT_THAT(launchedSessions(), ElementsAre("one", "two")) << "that was the first process";
  EXPECT_EQ(store_.contents().applications.at(0).failedLaunches, 1U) << "the second launch is not over";
}

// The service that an application has started may end its upload before the application has come back to hear of it.
TEST_F(ServiceTest, anApplicationThatIsRunningHasTimeToComeBackToANewService) {
  options_.reconnectTime = 1;
  put(test::entryFor("one"));
  put(test::entryFor("two", 1, "other"));
  start();
  failOldest(platform::kURLErrorServerCertificateUntrusted, false);
  failOldest(platform::kURLErrorServerCertificateUntrusted, false);
  EXPECT_EQ(untilDeadline(), 1);
  pass(0.9);
  EXPECT_THAT(launchedSessions(), ElementsAre());
  (void)connect();
  pass(0.1);
  EXPECT_THAT(launchedSessions(), ElementsAre("two")) << "the one that did not come back";
}

TEST_F(ServiceTest, aLaunchThatHandsNothingOverIsTriedAgainAfterGrowingWaits) {
  start();
  put(test::entryFor("one"));
  service_->tick();
  answerOldest();
  double wait = options_.firstLaunchWait;
  for (std::size_t n = 1; n <= 12; ++n) {
    ASSERT_EQ(launcher_.launches.size(), n);
    EXPECT_EQ(untilDeadline(), -1) << "nothing is due while the process runs";
    service_->launchEnded(applicationId(), "one");
    EXPECT_EQ(untilDeadline(), wait);
    pass(wait - 0.5);
    if (n % 2 == 0) start();
    EXPECT_EQ(launcher_.launches.size(), n);
    pass(0.5);
    wait = std::min(wait * 2, options_.longestLaunchWait);
  }
  launcher_.failure = platform::Error(platform::kPOSIXErrorDomain, 2, "No such file or directory");
  service_->launchEnded(applicationId(), "one");
  pass(wait);
  EXPECT_EQ(log_->messages().back(), "The transfer service could not launch /usr/bin/app: No such file or directory");
  EXPECT_EQ(untilDeadline(), wait);
  const auto app = connect();
  EXPECT_EQ(untilDeadline(), -1);
  say(app, Hold{.session = "one"});
  say(app, Handed{.session = "one", .event = 1});
  EXPECT_EQ(store_.contents().applications.at(0).failedLaunches, 0U);
}

TEST_F(ServiceTest, withoutACommandItWaitsForTheApplication) {
  start();
  transfer::SpoolEntry entry = test::entryFor("one");
  entry.launchCommand.clear();
  put(entry);
  service_->tick();
  answerOldest();
  EXPECT_THAT(launchedSessions(), ElementsAre());
  EXPECT_EQ(untilDeadline(), options_.idleTime);
  pass(options_.idleTime);
  EXPECT_TRUE(service_->mayEnd()) << "the application starts the service again when it comes";
  EXPECT_EQ(untilDeadline(), -1);
}

TEST_F(ServiceTest, itMayEndWhenNothingIsLeftForAWhile) {
  start();
  EXPECT_FALSE(service_->mayEnd());
  pass(options_.idleTime - 1);
  const auto app = connect();
  pass(1000);
  EXPECT_FALSE(service_->mayEnd());
  disconnect(app);
  pass(options_.idleTime - 1);
  EXPECT_FALSE(service_->mayEnd());
  pass(1);
  EXPECT_TRUE(service_->mayEnd());
}

TEST_F(ServiceTest, progressIsSeenAndNotStored) {
  start();
  put(test::entryFor("one"));
  const auto app = connect();
  say(app, Wake{});
  service_->uploadProgressed(uploads_->running().at(0).task, 40, 100);
  service_->uploadProgressed(4711, 1);
  say(app, GetTasks{.request = 1, .session = "one"});
  const auto messages = wire_->take(app);
  const auto& task = std::get<transfer::SessionTasks>(messages.at(0)).tasks.at(0);
  EXPECT_EQ(task.bytesSent, 40U);
  EXPECT_EQ(task.bytesExpected, 100U);
  EXPECT_EQ(store_.contents().tasks.at(0).status.bytesSent, 0U);
}

TEST_F(ServiceTest, theSizeOfAnUploadIsStoredWithItsEnd) {
  start();
  put(test::entryFor("one"));
  service_->tick();
  transfer::UploadOutcome cut = outcome(platform::urlError(platform::kURLErrorNetworkConnectionLost), true, 0);
  cut.bytesSent = 40;
  cut.bytesExpected = 100;
  service_->uploadEnded(uploads_->takeOldest(), cut);
  EXPECT_EQ(store_.contents().tasks.at(0).status.bytesExpected, 100U) << "a restart does not forget it";
  pass(options_.firstRetryWait);
  transfer::UploadOutcome whole = outcome(std::nullopt, false, 200);
  whole.bytesSent = whole.bytesExpected = 120;
  service_->uploadEnded(uploads_->takeOldest(), whole);
  EXPECT_EQ(store_.contents().tasks.at(0).status.bytesExpected, 120U) << "the file may have changed";
  EXPECT_EQ(store_.contents().events.at(0).task.bytesExpected, 120U);
}

TEST_F(ServiceTest, aConnectionThatDoesNotSayHelloIsRefusedAfterTenSeconds) {
  start();
  service_->connectionOpened(41);
  pass(4);
  service_->connectionOpened(42);
  const auto app = connect();
  EXPECT_EQ(untilDeadline(), 6);
  pass(5);
  EXPECT_EQ(take(41), "");
  pass(1);
  EXPECT_EQ(take(41), "refused: hello did not come in time");
  EXPECT_TRUE(wire_->isClosed(41));
  EXPECT_FALSE(wire_->isClosed(42));
  EXPECT_EQ(untilDeadline(), 4);
  service_->garbageArrived(42, "not JSON");
  EXPECT_EQ(take(42), "refused: not JSON");
  pass(1000);
  EXPECT_EQ(take(41) + take(42), "") << "each is refused once";
  EXPECT_FALSE(wire_->isClosed(app)) << "who has said hello may be silent";
  EXPECT_EQ(untilDeadline(), -1);
  service_->connectionClosed(41);
  service_->connectionClosed(42);
  disconnect(app);
  EXPECT_EQ(untilDeadline(), options_.idleTime);
}

TEST_F(ServiceTest, aClockThatGoesBackGivesASilentConnectionNoMoreThanItsTime) {
  start();
  service_->connectionOpened(41);
  clock_.advance(-86400);
  EXPECT_EQ(untilDeadline(), 10);
  service_->tick();
  pass(10);
  EXPECT_EQ(take(41), "refused: hello did not come in time");
}

TEST_F(ServiceTest, anEntryThatMayNeverBeTakenIsSetAsideAndOneThatCannotBeReadNowIsTriedAgain) {
  start();
  put(test::entryFor("one"));
  put(test::entryFor("two"));
  spool_.fail = [](std::string_view operation, const std::string& name) -> std::optional<platform::Error> {
    if (operation != "read") return std::nullopt;
    if (name == "one-1.task")
      return platform::Error(platform::kCocoaErrorDomain, platform::kFileReadNoPermission, "It is no plain file.");
    return platform::Error(platform::kCocoaErrorDomain, platform::kFileReadUnknown, "The disk hiccups.");
  };
  service_->tick();
  ASSERT_EQ(spool_.asides().size(), 1U);
  EXPECT_EQ(spool_.asides()[0].name, "one-1.task");
  EXPECT_EQ(spool_.asides()[0].reason, "It is no plain file.");
  EXPECT_THAT(log_->messages(), ElementsAre("The transfer service set one-1.task aside: It is no plain file."));
  EXPECT_THAT(spool_.names(), ElementsAre("two-1.task"));
  EXPECT_EQ(untilDeadline(), 1);
  pass(1);
  EXPECT_EQ(untilDeadline(), 2) << "the waits grow";
  spool_.fail = nullptr;
  pass(2);
  EXPECT_THAT(runningSessions(), ElementsAre("two"));
}

TEST_F(ServiceTest, aLaunchThatCannotBeRecordedIsNotMadeUntilItCan) {
  start();
  put(test::entryFor("one"));
  service_->tick();
  store_.fail = [](std::string_view operation) { return operation == "saveLaunches"; };
  answerOldest();
  EXPECT_THAT(launchedSessions(), ElementsAre());
  EXPECT_EQ(store_.contents().applications.at(0).failedLaunches, 0U);
  EXPECT_THAT(log_->messages(), ElementsAre("The transfer service could not write its store and tries again: The transfer store "
                                            "couldn’t be written because the volume is out of space."));
  EXPECT_EQ(untilDeadline(), 1) << "when the store may take it";
  store_.fail = nullptr;
  pass(1);
  EXPECT_THAT(launchedSessions(), ElementsAre("one"));
  EXPECT_EQ(store_.contents().applications.at(0).failedLaunches, 1U) << "it was never made, so the wait is that of a first one";
}

TEST_F(ServiceTest, theEndOfALaunchThatCannotBeRecordedIsRecordedLater) {
  start();
  put(test::entryFor("one"));
  service_->tick();
  answerOldest();
  ASSERT_THAT(launchedSessions(), ElementsAre("one"));
  store_.fail = [](std::string_view operation) { return operation == "saveLaunches"; };
  const double before = store_.contents().applications.at(0).nextLaunchAt;
  pass(100);
  service_->launchEnded(applicationId(), "one");
  EXPECT_EQ(store_.contents().applications.at(0).nextLaunchAt, before);
  store_.fail = nullptr;
  pass(1);
  EXPECT_EQ(store_.contents().applications.at(0).nextLaunchAt - before, 100) << "the wait counts from the end of the process";
  EXPECT_THAT(launchedSessions(), ElementsAre("one"));
  EXPECT_EQ(untilDeadline(), options_.firstLaunchWait - 1);
  const auto app = connect();
  say(app, Hold{.session = "one", .wasLaunchedForIt = true});
  store_.fail = [](std::string_view operation) { return operation == "saveLaunches"; };
  say(app, Handed{.session = "one", .event = 1});
  EXPECT_EQ(store_.contents().applications.at(0).failedLaunches, 1U);
  store_.fail = nullptr;
  pass(2);
  EXPECT_EQ(store_.contents().applications.at(0).failedLaunches, 0U) << "a success is not forgotten either";
}

}  // namespace
