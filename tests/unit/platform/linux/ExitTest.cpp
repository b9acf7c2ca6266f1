// How a process ends that has queues (platform rows Q2 and Q3). Each test runs its first half in a child process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "platform/Exception.h"
#include "platform/Process.h"
#include "platform/linux/AbortingUncaughtException.h"
#include "platform/linux/OpenSSLDigest.h"
#include "platform/linux/SyslogSystemLog.h"
#include "platform/linux/ThreadQueues.h"
#include "support/ChildProcess.h"
#include "support/Event.h"
#include "support/RecordingUncaughtException.h"
#include "support/ThreadState.h"

namespace {

using platform::DispatchQueue;
using test::say;
using Queue = std::shared_ptr<DispatchQueue>;

constexpr int kSignalAbort = 6;

// A service that is never destroyed, as a host's is.
platform::ThreadQueues& foreverQueues() {
  static auto* const queues = new platform::ThreadQueues(std::make_shared<test::RecordingUncaughtException>());
  return *queues;
}

Queue& foreverQueue() {
  static auto* const queue = new Queue(foreverQueues().makeSerialQueue("serial"));
  return *queue;
}

[[noreturn]] void neverEnd() {
  for (;;) pause();
}

void require(bool holds, const char* what) {
  if (holds) return;
  say(std::string("not so: ") + what + "\n");
  _exit(99);
}

// Gives the queue a block that runs until the process ends, with others behind it.
void leaveBusy(const Queue& queue) {
  static auto* const started = new test::Event;
  queue->async([] {
    started->happen();
    neverEnd();
  });
  for (int i = 0; i < 100; ++i) queue->async([] { say("a queued block ran\n"); });
  require(started->wait(), "the block started");
}

// Runs this test's first half in a child and expects it to say nothing but `errors`.
void expectChild(const std::string& status, const std::string& errors = "", test::LeakCheck leakCheck = test::LeakCheck::kOn) {
  const test::ChildResult child = test::runThisTestInChild(leakCheck);
  EXPECT_EQ(child.status, status);
  EXPECT_EQ(child.errors, errors);
}

TEST(ExitTest, Q3ReturningFromMainNeitherDrainsNorHangs) {
  if (test::isChild()) return leaveBusy(foreverQueue());
  expectChild("exited with 0");
}

TEST(ExitTest, Q3ExitNeitherDrainsNorHangs) {
  if (test::isChild()) {
    leaveBusy(foreverQueue());
    std::exit(7);
  }
  expectChild("exited with 7");
}

TEST(ExitTest, Q3QuickExitNeitherDrainsNorHangs) {
  if (test::isChild()) {
    leaveBusy(foreverQueue());
    std::quick_exit(8);
  }
  expectChild("exited with 8");
}

TEST(ExitTest, Q3ABlockMayExitTheProcess) {
  if (test::isChild()) {
    foreverQueue()->async([] { std::exit(9); });
    foreverQueue()->async([] { say("a queued block ran\n"); });
    neverEnd();
  }
  expectChild("exited with 9");
}

TEST(ExitTest, Q3QueuesThatSleepDoNotDelayTheExit) {
  if (test::isChild()) {
    test::Event ran;
    foreverQueue()->async([&] { ran.happen(); });
    require(ran.wait(), "the block ran");
    return;
  }
  expectChild("exited with 0");
}

std::atomic<bool> runningBlockMayEnd = false;
std::atomic<bool> runningBlockIsGone = false;
std::atomic<long> threadOfRunningBlock = 0;

struct SaysWhenItIsGone {
  ~SaysWhenItIsGone() { runningBlockIsGone = true; }
};

// With the running block released, waits until its thread has either parked or run everything and fallen asleep.
void releaseTheRunningBlock() {
  runningBlockMayEnd = true;
  const auto deadline = std::chrono::steady_clock::now() + test::kLimit;
  while (!runningBlockIsGone || test::stateOf(threadOfRunningBlock) != 'S') {
    require(std::chrono::steady_clock::now() < deadline, "the thread came to rest");
    std::this_thread::yield();
  }
  say("static objects are gone\n");
}

void waitUntilReleased() {
  while (!runningBlockMayEnd) std::this_thread::yield();
}

TEST(ExitTest, Q3NoBlockStartsAfterTheExitHasBegun) {
  if (test::isChild()) {
    std::atexit(&releaseTheRunningBlock);  // before the first thread starts, so it is called when the static objects' turn has come
    test::Event started;
    foreverQueue()->async([&started, guard = std::make_unique<SaysWhenItIsGone>()] {
      threadOfRunningBlock = test::numberOfThisThread();
      started.happen();
      waitUntilReleased();
      say("the running block ended\n");
    });
    for (int i = 0; i < 100; ++i) foreverQueue()->async([] { say("a queued block ran\n"); });
    require(started.wait(), "the block started");
    std::exit(0);
  }
  expectChild("exited with 0", "the running block ended\nstatic objects are gone\n");
}

TEST(ExitTest, Q3ABlockThatRunsMayEndBeforeStaticObjectsAreDestroyed) {
  if (test::isChild()) {
    std::atexit([] { say("static objects are gone\n"); });
    test::Event started;
    foreverQueue()->async([&] {
      started.happen();
      waitUntilReleased();
      say("the running block ended\n");
    });
    require(started.wait(), "the block started");
    std::atexit([] { runningBlockMayEnd = true; });  // called first of all
    std::exit(0);
  }
  expectChild("exited with 0", "the running block ended\nstatic objects are gone\n");
}

TEST(ExitTest, Q3WhatIsSubmittedByStaticObjectsAsTheyDieIsDropped) {
  if (test::isChild()) {
    struct Host {
      Queue queue;
      Queue unused;
      ~Host() {
        for (const Queue& each : {queue, unused}) each->async([] { say("ran\n"); });
        queue.reset();
        unused.reset();
        say("destroyed\n");
      }
    };
    static Host host;
    host.queue = foreverQueues().makeSerialQueue("serial");
    host.unused = foreverQueues().makeSerialQueue("unused");
    test::Event ran;
    host.queue->async([&] { ran.happen(); });
    require(ran.wait(), "the block ran");
    std::exit(0);
  }
  expectChild("exited with 0", "destroyed\n");
}

TEST(ExitTest, Q3AServiceThatIsAStaticObjectDiesWithoutWaiting) {
  if (test::isChild()) {
    static std::unique_ptr<platform::ThreadQueues> queues;
    static Queue queue;
    queues = std::make_unique<platform::ThreadQueues>(std::make_shared<test::RecordingUncaughtException>());
    queue = queues->makeSerialQueue("serial");
    leaveBusy(queue);
    std::exit(0);
  }
  expectChild("exited with 0");
}

TEST(ExitTest, Q3ADigestOnAnotherThreadIsNotDisturbed) {
  if (test::isChild()) {
    // Never destroyed: the block goes on using them while the process ends.
    static auto* const digest = new platform::OpenSSLDigest;
    static auto* const started = new test::Event;
    foreverQueue()->async([] {
      for (;;) {
        digest->hmac(platform::Digest::Algorithm::kSHA256, "key", {"text"});
        digest->hash(platform::Digest::Algorithm::kSHA512, {"text"});
        started->happen();
      }
    });
    require(started->wait(), "the block started");
    std::exit(0);
  }
  expectChild("exited with 0");
}

TEST(ExitTest, AChildMadeByForkMayExit) {
  if (test::isChild()) {
    leaveBusy(foreverQueue());
    const pid_t forked = fork();
    if (forked == 0) std::exit(5);
    say(test::waitForEnd(forked) + "\n");
    std::_Exit(0);
  }
  expectChild("exited with 0", "exited with 5\n", test::LeakCheck::kOff);
}

TEST(ExitTest, AChildMadeByForkMayRunAnotherProgram) {
  if (test::isChild()) {
    leaveBusy(foreverQueue());
    const pid_t forked = fork();
    if (forked == 0) {
      execl("/bin/sh", "sh", "-c", "exit 6", static_cast<char*>(nullptr));
      _exit(1);
    }
    say(test::waitForEnd(forked) + "\n");
    std::_Exit(0);
  }
  expectChild("exited with 0", "exited with 6\n");
}

TEST(ExitTest, InAChildMadeByForkNothingRunsAndNothingWaits) {
  if (test::isChild()) {
    auto queues = std::make_unique<platform::ThreadQueues>(std::make_shared<test::RecordingUncaughtException>());
    Queue asleep = queues->makeSerialQueue("asleep");
    Queue busy = queues->makeSerialQueue("busy");
    Queue unused = queues->makeSerialQueue("unused");
    test::Event ran;
    asleep->async([&] { ran.happen(); });
    require(ran.wait(), "the block ran");
    leaveBusy(busy);
    const pid_t forked = fork();
    if (forked == 0) {
      for (Queue* queue : {&asleep, &busy, &unused}) {
        (*queue)->async([] { say("ran\n"); });
        queue->reset();
      }
      queues.reset();
      std::exit(4);
    }
    say(test::waitForEnd(forked) + "\n");
    std::_Exit(0);
  }
  expectChild("exited with 0", "exited with 4\n", test::LeakCheck::kOff);
}

TEST(ExitTest, Q2AnUncaughtExceptionIsTheEndOfTheProcess) {
  if (test::isChild()) {
    std::set_terminate([] { say("the host's terminate handler was called\n"); });
    const auto log = std::make_shared<platform::SyslogSystemLog>();
    platform::ThreadQueues queues(std::make_shared<platform::AbortingUncaughtException>(log));
    queues.makeSerialQueue("serial")->async([] { throw platform::Exception("NSInvalidArgumentException", "no\nsuch thing"); });
    neverEnd();
  }
  expectChild("killed by signal " + std::to_string(kSignalAbort),
              "*** Terminating app due to uncaught exception 'NSInvalidArgumentException', reason: 'no\nsuch thing'\n");
}

TEST(ExitTest, Q2InTheSystemsOwnProcessRecordToo) {
  if (test::isChild()) {
    platform::Process::install(platform::makeSystemProcess({}));
    platform::DispatchQueue::mainQueue()->async([] { throw std::out_of_range("far out"); });
    neverEnd();
  }
  expectChild("killed by signal " + std::to_string(kSignalAbort),
              "*** Terminating app due to uncaught exception 'std::out_of_range', reason: 'far out'\n");
}

}  // namespace
