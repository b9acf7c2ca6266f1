// Background sessions without a service: what they make of each message, and what they say. The link and the spool are the test's.
#include "platform/linux/TransferSessions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Exception.h"
#include "platform/Process.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/ManualClock.h"
#include "support/RecordingUncaughtException.h"
#include "support/SteppedQueues.h"

namespace test {
namespace {

using platform::BackgroundURLSessionRef;
using platform::URL;
using platform::URLSessionTaskRef;
using testing::ElementsAre;
using testing::IsEmpty;
using Need = platform::TransferLinkListener::Need;
using State = platform::URLSessionTask::State;
using Texts = std::vector<std::string>;

class RecordingLink final : public platform::TransferLink {
 public:
  void setListener(std::weak_ptr<platform::TransferLinkListener> listener) override { listener_ = std::move(listener); }
  void connect() override { ++connects; }
  void send(transfer::Message message) override {
    const std::string line = encode(message);
    said_.push_back(line.substr(0, line.size() - 1));
  }
  void stop() override { isStopped = true; }

  platform::TransferLinkListener& listener() const { return *listener_.lock(); }
  /// What was said since the last call.
  Texts take() { return std::exchange(said_, {}); }

  int connects = 0;
  bool isStopped = false;

 private:
  std::weak_ptr<platform::TransferLinkListener> listener_;
  Texts said_;
};

class ScriptedSpool final : public platform::TransferSpool {
 public:
  std::expected<std::uint64_t, platform::Error> reserveTaskIdentifier() override { return ++last_; }
  std::expected<void, platform::Error> write(transfer::SpoolEntry entry) override {
    if (whileWriting) whileWriting();
    if (failure) return std::unexpected(*failure);
    written.push_back(entry.session + " " + std::to_string(entry.task));
    return {};
  }
  bool hasInterruptedTransfers() override {
    ++looks;
    return isInterrupted;
  }

  std::function<void()> whileWriting;
  std::optional<platform::Error> failure;
  Texts written;
  bool isInterrupted = false;
  int looks = 0;

 private:
  std::uint64_t last_ = 0;
};

class NotingDelegate final : public platform::URLSessionDelegate {
 public:
  void URLSessionTaskDidCompleteWithError(const BackgroundURLSessionRef& /*session*/, const URLSessionTaskRef& task,
                                          const std::optional<platform::Error>& error) override {
    told.push_back("task " + std::to_string(task->taskIdentifier()) + (error ? " " + std::to_string(error->code()) : ""));
    if (raises) throw platform::Exception("Broken", "on purpose");
  }
  void URLSessionDidBecomeInvalidWithError(const BackgroundURLSessionRef&, const std::optional<platform::Error>&) override {
    told.emplace_back("invalid");
  }
  void URLSessionDidFinishEventsForBackgroundURLSession(const BackgroundURLSessionRef&) override { told.emplace_back("finished"); }
  void URLSessionDownloadTaskDidFinishDownloadingToURL(const BackgroundURLSessionRef&, const URLSessionTaskRef&,
                                                       const URL&) override {
    told.emplace_back("download");
  }

  Texts told;
  bool raises = false;
};

class TransferSessionsTest : public testing::Test {
 protected:
  TransferSessionsTest() {
    record_.json = platform::makeRapidJSONSerialization();
    scope_.emplace(record_);
  }

  BackgroundURLSessionRef session(const std::string& identifier = "one") {
    return sessions_->sessionWithConfigurationDelegateDelegateQueue(
        platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier), delegate_, nullptr);
  }
  URLSessionTaskRef task() {
    return session()->uploadTaskWithRequestFromFile(platform::URLRequest(URL::URLWithString("https://a/")),
                                                    URL::fileURLWithPath("/a"));
  }
  void connect() {
    link_->listener().linkConnected();
    (void)link_->take();
  }
  void hear(const transfer::Message& message) { link_->listener().linkReceived(message); }
  static transfer::TaskEvent eventOf(std::uint64_t task, std::uint64_t number) {
    transfer::TaskEvent event{.session = "one", .event = number, .task = {}};
    event.task.identifier = task;
    event.task.state = transfer::TaskStatus::State::kCompleted;
    event.task.statusCode = 200;
    return event;
  }

  platform::Process record_;
  std::optional<platform::Process::Scope> scope_;
  std::shared_ptr<RecordingUncaughtException> uncaught_ = std::make_shared<RecordingUncaughtException>();
  std::shared_ptr<SteppedQueues> queues_ = std::make_shared<SteppedQueues>(uncaught_);
  std::shared_ptr<RecordingLink> link_ = std::make_shared<RecordingLink>();
  std::shared_ptr<ScriptedSpool> spool_ = std::make_shared<ScriptedSpool>();
  std::shared_ptr<NotingDelegate> delegate_ = std::make_shared<NotingDelegate>();
  std::optional<platform::TransferSessions> sessions_{
      std::in_place, platform::TransferSessions::Surroundings{link_, spool_, std::make_shared<ManualClock>(0), queues_},
      platform::TransferSessions::Settings{}};
};

// Events.

TEST_F(TransferSessionsTest, B4_AnEventThatComesTwiceIsOneOperation) {
  const auto running = task();
  running->resume();
  connect();
  hear(eventOf(1, 1));
  hear(eventOf(1, 1));
  queues_->runAll();
  EXPECT_THAT(delegate_->told, ElementsAre("task 1"));
  EXPECT_THAT(link_->take(), ElementsAre(R"({"event":1,"is":"handed","session":"one"})"));
  hear(eventOf(1, 1));
  queues_->runAll();
  EXPECT_THAT(delegate_->told, ElementsAre("task 1"));
  EXPECT_THAT(link_->take(), ElementsAre(R"({"event":1,"is":"handed","session":"one"})"))
      << "the record was lost, so it is said again";
}

TEST_F(TransferSessionsTest, B4_ATaskEndsOnceWhateverNumberItsEventHas) {
  const auto running = task();
  running->resume();
  connect();
  hear(eventOf(1, 7));
  queues_->runAll();
  (void)link_->take();
  hear(eventOf(1, 1));  // a service that had forgotten the session counts anew
  queues_->runAll();
  EXPECT_THAT(delegate_->told, ElementsAre("task 1"));
  EXPECT_THAT(link_->take(), ElementsAre(R"({"event":1,"is":"handed","session":"one"})"));
}

TEST_F(TransferSessionsTest, B4_AnOperationThatRaisesIsNotRecorded) {
  const auto running = task();
  running->resume();
  connect();
  delegate_->raises = true;
  hear(eventOf(1, 1));
  queues_->runAll();
  EXPECT_THAT(delegate_->told, ElementsAre("task 1"));
  EXPECT_THAT(link_->take(), IsEmpty());
  EXPECT_THAT(uncaught_->descriptions(),
              ElementsAre("*** Terminating app due to uncaught exception 'Broken', reason: 'on purpose'"));
}

TEST_F(TransferSessionsTest, WhatIsSaidOfAnotherSessionIsIgnored) {
  (void)session();
  connect();
  transfer::TaskEvent event = eventOf(1, 1);
  event.session = "two";
  hear(event);
  hear(transfer::EventsDelivered{"two"});
  hear(transfer::Invalidated{"two"});
  hear(transfer::Invalidated{"one"});  // not asked for
  hear(transfer::Listed{7});
  queues_->runAll();
  EXPECT_THAT(delegate_->told, IsEmpty());
  EXPECT_THAT(link_->take(), IsEmpty());
}

// Cancelling.

TEST_F(TransferSessionsTest, CancellingASuspendedTaskEndsItHere) {
  const auto suspended = task();
  connect();
  suspended->cancel();
  suspended->cancel();
  suspended->resume();
  queues_->runAll();
  EXPECT_EQ(suspended->state(), State::kCompleted);
  EXPECT_THAT(delegate_->told, ElementsAre("task 1 -999"));
  EXPECT_THAT(link_->take(), IsEmpty()) << "the service knows nothing of it";
  EXPECT_THAT(spool_->written, IsEmpty());
}

TEST_F(TransferSessionsTest, CancellingARunningTaskIsAskedOnceAndEndsItWithItsEvent) {
  const auto running = task();
  running->resume();
  connect();
  running->cancel();
  running->cancel();
  EXPECT_EQ(running->state(), State::kCanceling);
  EXPECT_THAT(link_->take(), ElementsAre(R"({"is":"cancel","session":"one"})"));
  EXPECT_THAT(delegate_->told, IsEmpty());
  transfer::TaskEvent event = eventOf(1, 1);
  event.task.error = platform::urlError(platform::kURLErrorCancelled);
  hear(event);
  queues_->runAll();
  EXPECT_EQ(running->state(), State::kCompleted);
  EXPECT_THAT(delegate_->told, ElementsAre("task 1 -999"));
  (void)link_->take();
  running->cancel();
  EXPECT_THAT(link_->take(), IsEmpty()) << "it has ended";
}

TEST_F(TransferSessionsTest, CancellingWithoutAConnectionIsAskedWhenThereIsOne) {
  const auto running = task();
  running->resume();
  running->cancel();
  EXPECT_THAT(link_->take(), IsEmpty());
  link_->listener().linkConnected();
  EXPECT_THAT(link_->take(), ElementsAre(R"({"is":"wake"})", R"({"is":"hold","session":"one","wasLaunchedForIt":false})",
                                         R"({"is":"cancel","session":"one"})"));
  EXPECT_EQ(link_->listener().linkNeed(), Need::kConnect);
}

TEST_F(TransferSessionsTest, CancellingWhileTheTaskIsBeingWrittenIsAskedAfterwards) {
  connect();
  const auto running = task();
  (void)link_->take();
  spool_->whileWriting = [&] {
    running->cancel();
    (void)link_->take();  // asked now it would come before the task
  };
  running->resume();
  EXPECT_THAT(spool_->written, ElementsAre("one 1"));
  EXPECT_THAT(link_->take(), ElementsAre(R"({"is":"wake"})", R"({"is":"cancel","session":"one"})"));
}

// The end of the stored events.

TEST_F(TransferSessionsTest, WhoAsksAfterTheSessionIsOverHearsOfItsDelivery) {
  session()->invalidateAndCancel();
  connect();
  hear(transfer::EventsDelivered{"one"});
  hear(transfer::Invalidated{"one"});
  queues_->runAll();
  ASSERT_THAT(delegate_->told, ElementsAre("finished", "invalid"));
  int told = 0;
  sessions_->notifyWhenEventsAreDelivered("one", [&told] { ++told; });
  queues_->runAll();
  EXPECT_EQ(told, 1);
}

TEST_F(TransferSessionsTest, ASessionThatIsMadeAgainHasADeliveryOfItsOwn) {
  session()->invalidateAndCancel();
  connect();
  hear(transfer::EventsDelivered{"one"});
  hear(transfer::Invalidated{"one"});
  queues_->runAll();
  (void)session();
  int told = 0;
  sessions_->notifyWhenEventsAreDelivered("one", [&told] { ++told; });
  queues_->runAll();
  EXPECT_EQ(told, 0);
  hear(transfer::EventsDelivered{"one"});
  queues_->runAll();
  EXPECT_EQ(told, 1);
}

TEST_F(TransferSessionsTest, WhoWaitsForADeliveryWantsAConnection) {
  (void)session();
  connect();
  link_->listener().linkDisconnected();
  ASSERT_EQ(link_->listener().linkNeed(), Need::kKeep) << "so nobody has made it again";
  const int before = link_->connects;
  sessions_->notifyWhenEventsAreDelivered("another", [] {});
  EXPECT_EQ(link_->connects, before) << "nothing of a session that is not made";
  sessions_->notifyWhenEventsAreDelivered("one", [] {});
  EXPECT_EQ(link_->connects, before + 1);
  EXPECT_EQ(link_->listener().linkNeed(), Need::kConnect);
}

// Identifiers that no message carries unchanged: the service would refuse the application with all its sessions.

class TransferSessionsUnsayable : public TransferSessionsTest, public testing::WithParamInterface<std::string> {};

TEST_P(TransferSessionsUnsayable, TheServiceNeverHearsOfIt) {
  const auto odd = session(GetParam());
  link_->listener().linkConnected();
  EXPECT_THAT(link_->take(), ElementsAre(R"({"is":"wake"})"));
  std::optional<std::size_t> listed;
  odd->getTasksWithCompletionHandler([&listed](auto, const auto& uploads, auto) { listed = uploads.size(); });
  queues_->runAll();
  EXPECT_EQ(listed, 0U);
  EXPECT_EQ(link_->listener().linkNeed(), Need::kKeep);
  odd->invalidateAndCancel();
  queues_->runAll();
  EXPECT_THAT(delegate_->told, ElementsAre("invalid"));
  EXPECT_EQ(link_->listener().linkNeed(), Need::kNone);
  EXPECT_THAT(link_->take(), ElementsAre(R"({"is":"wake"})")) << "the link looks whether anybody needs it";
}

INSTANTIATE_TEST_SUITE_P(Identifiers, TransferSessionsUnsayable,
                         testing::Values("", std::string("a\0b", 3), "\xff", std::string(transfer::kMaxSessionBytes + 1, 'a')));

// Tasks that cannot be written, and those that nobody works on.

TEST_F(TransferSessionsTest, ATaskThatCannotBeWrittenEndsAtOnceAndIsNobodysBusiness) {
  spool_->failure = platform::Error(platform::kCocoaErrorDomain, platform::kFileWriteOutOfSpace);
  const auto failing = task();
  failing->resume();
  queues_->runAll();
  EXPECT_EQ(failing->state(), State::kCompleted);
  EXPECT_THAT(delegate_->told, ElementsAre("task 1 640"));
  EXPECT_EQ(link_->listener().linkNeed(), Need::kKeep) << "nothing of it is to come";
}

TEST_F(TransferSessionsTest, InterruptedTransfersAreLookedForInTheBackgroundAndOnlyTheyWantAConnection) {
  sessions_->goOnWithInterruptedTransfers();
  EXPECT_EQ(spool_->looks, 0) << "the disk is not looked at by whoever calls";
  queues_->runAll(queues_->globalBackgroundQueue());
  EXPECT_EQ(spool_->looks, 1);
  EXPECT_EQ(link_->connects, 0);
  spool_->isInterrupted = true;
  sessions_->goOnWithInterruptedTransfers();
  queues_->runAll();
  EXPECT_EQ(link_->connects, 1);
  connect();
  EXPECT_EQ(link_->listener().linkNeed(), Need::kNone) << "the service has been woken; that is all";
}

TEST_F(TransferSessionsTest, AfterTheEndNothingHappens) {
  const auto kept = session();
  const auto running = task();
  running->resume();
  connect();
  hear(eventOf(1, 1));
  sessions_.reset();
  EXPECT_TRUE(link_->isStopped);
  queues_->runAll();
  EXPECT_THAT(delegate_->told, IsEmpty());
  running->cancel();
  kept->invalidateAndCancel();
  kept->getTasksWithCompletionHandler([](auto, auto, auto) { ADD_FAILURE() << "answered"; });
  queues_->runAll();
  EXPECT_THAT(link_->take(), IsEmpty());
}

}  // namespace
}  // namespace test
