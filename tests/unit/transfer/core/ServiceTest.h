// A service over doubles, with applications that the test plays.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/Process.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/FixedSecureRandom.h"
#include "support/ManualClock.h"
#include "support/MemoryTransferStore.h"
#include "support/RecordingSystemLog.h"
#include "support/ScriptedUploads.h"
#include "support/TransferSamples.h"
#include "support/TransferSurroundings.h"
#include "transfer/core/Service.h"

class ServiceTest : public testing::Test {
 protected:
  ServiceTest() {
    process_.json = platform::makeRapidJSONSerialization();
    process_.systemLog = log_;
    options_.reconnectTime = 0;
    scope_.emplace(process_);
  }

  /// A service over what is stored now, as after an end of the one before.
  void start() {
    service_.reset();
    uploads_ = std::make_unique<test::ScriptedUploads>();
    wire_ = std::make_unique<test::RecordingConnections>();
    service_ = std::make_unique<transfer::Service>(store_, *uploads_, launcher_, *wire_, spool_, clock_, random_, options_);
    ASSERT_TRUE(service_->start());
  }

  void put(const transfer::SpoolEntry& entry) {
    spool_.put(entry.session + "-" + std::to_string(entry.task) + ".task", encode(entry));
  }
  /// A process of the application, with its hello said.
  transfer::ConnectionId connect(const std::string& application = "app") {
    const transfer::ConnectionId connection = ++lastConnection_;
    service_->connectionOpened(connection);
    service_->messageArrived(connection, transfer::Hello{.application = test::applicationNamed(application),
                                                         .launchCommand = {"/usr/bin/" + application, "--for-events"}});
    EXPECT_EQ(take(connection), "welcome") << "the answer to hello";
    return connection;
  }
  void say(transfer::ConnectionId connection, const transfer::Message& message) { service_->messageArrived(connection, message); }
  void disconnect(transfer::ConnectionId connection) { service_->connectionClosed(connection); }

  /// What came over the connection since the last call, in short: `taskEvent one 1 task 1 error -999`.
  std::string take(transfer::ConnectionId connection) {
    std::string texts;
    for (const transfer::Message& message : wire_->take(connection)) texts += (texts.empty() ? "" : "; ") + textOf(message);
    return texts;
  }
  static std::string textOf(const transfer::TaskStatus& task) {
    constexpr const char* kStates[] = {"waiting", "running", "completed"};
    std::string text = "task " + std::to_string(task.identifier) + " " + kStates[static_cast<std::size_t>(task.state)];
    if (task.statusCode != 0) text += " status " + std::to_string(task.statusCode);
    if (task.error) text += " error " + std::to_string(task.error->code());
    return text;
  }
  static std::string textOf(const transfer::Message& message) {
    if (std::holds_alternative<transfer::Welcome>(message)) return "welcome";
    if (const auto* const refused = std::get_if<transfer::Refused>(&message)) return "refused: " + refused->reason;
    if (const auto* const event = std::get_if<transfer::TaskEvent>(&message))
      return "taskEvent " + event->session + " " + std::to_string(event->event) + " " + textOf(event->task);
    if (const auto* const delivered = std::get_if<transfer::EventsDelivered>(&message))
      return "eventsDelivered " + delivered->session;
    if (const auto* const invalidated = std::get_if<transfer::Invalidated>(&message)) return "invalidated " + invalidated->session;
    if (const auto* const listed = std::get_if<transfer::Listed>(&message)) return "listed " + std::to_string(listed->request);
    if (const auto* const tasks = std::get_if<transfer::SessionTasks>(&message)) {
      std::string text = "sessionTasks " + std::to_string(tasks->request) + " " + tasks->session;
      for (const transfer::TaskStatus& task : tasks->tasks) text += " (" + textOf(task) + ")";
      return text;
    }
    return "a message that a service does not send";
  }

  void answerOldest(std::int64_t statusCode = 200) {
    service_->uploadEnded(uploads_->takeOldest(), outcome(std::nullopt, false, statusCode));
  }
  void failOldest(std::int64_t code, bool mayBeTriedAgain) {
    service_->uploadEnded(uploads_->takeOldest(), outcome(platform::urlError(code), mayBeTriedAgain, 0));
  }
  static transfer::UploadOutcome outcome(std::optional<platform::Error> error, bool mayBeTriedAgain, std::int64_t statusCode) {
    transfer::UploadOutcome outcome;
    outcome.error = std::move(error);
    outcome.mayBeTriedAgain = mayBeTriedAgain;
    outcome.statusCode = statusCode;
    return outcome;
  }
  void pass(double seconds) {
    clock_.advance(seconds);
    service_->tick();
  }
  /// Seconds until the service wants to be looked after; -1 when it does not.
  double untilDeadline() {
    const auto deadline = service_->nextDeadline();
    return deadline ? deadline->timeIntervalSinceDate(clock_.now()) : -1;
  }
  std::vector<std::string> runningSessions() const {
    std::vector<std::string> sessions;
    for (const auto& each : uploads_->running()) sessions.push_back(each.entry.session);
    return sessions;
  }
  std::vector<std::string> launchedSessions() const {
    std::vector<std::string> sessions;
    for (const auto& each : launcher_.launches) sessions.push_back(each.session);
    return sessions;
  }
  transfer::ApplicationId applicationId() const { return store_.contents().applications.at(0).id; }

  platform::Process process_;
  std::shared_ptr<test::RecordingSystemLog> log_ = std::make_shared<test::RecordingSystemLog>();
  std::optional<platform::Process::Scope> scope_;
  transfer::ServiceOptions options_;
  test::MemoryTransferStore store_;
  test::MemorySpool spool_;
  test::RecordingLauncher launcher_;
  test::ManualClock clock_{test::kResumedAt};
  test::FixedSecureRandom random_;
  std::unique_ptr<test::ScriptedUploads> uploads_;
  std::unique_ptr<test::RecordingConnections> wire_;
  std::unique_ptr<transfer::Service> service_;
  transfer::ConnectionId lastConnection_ = 0;
};
