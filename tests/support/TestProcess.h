// A whole process for a test: the services' twins behind a fault plan, put in force for the test's scope.
//
//     test::TestProcess process;
//     auto client = process.makeClient();
//     client->createEvent("opened");
//     process.plan().fail("FileManager.copyItem", nth(1), test::someError());
//     process.runAll();
//     EXPECT_THAT(process.messages(), ElementsAre("…"));
//
// Nothing moves by itself: queues are stepped, the clock stands, the network answers when the test says so. The variants put the
// real file system of a fresh folder, or the real queues with their threads, in the place of the twins. A fault or hook that no
// call has reached when the test ends fails the test, as it proves nothing then.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/KSVData.h"
#include "platform/Process.h"
#include "support/FaultPlan.h"
#include "support/FixedBundle.h"
#include "support/FixedSecureRandom.h"
#include "support/ManualClock.h"
#include "support/MemoryApplication.h"
#include "support/MemoryFileManager.h"
#include "support/MemoryTransferService.h"
#include "support/MemoryUserDefaults.h"
#include "support/RecordingBrowserOpener.h"
#include "support/RecordingSystemLog.h"
#include "support/RecordingUncaughtException.h"
#include "support/ScriptedURLSession.h"
#include "support/SteppedQueues.h"
#include "support/TemporaryDirectory.h"

namespace test {

/// What outlives a process: the device's clock, its files and its transfer service. A second process over it is the next life of
/// the application.
struct TestDevice {
  static constexpr double kStartTime = 1795205979;  // 2026-11-20T20:19:39Z

  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(kStartTime);
  std::shared_ptr<MemoryFileManager> files = std::make_shared<MemoryFileManager>("/application", clock);
  std::shared_ptr<MemoryTransferService> transfers = std::make_shared<MemoryTransferService>(clock);
};

struct TestProcessOptions {
  enum class Files { kInMemory, kOnDisk };
  enum class Queues { kStepped, kThreads };

  Files files = Files::kInMemory;
  Queues queues = Queues::kStepped;
  /// Off, the services stand bare: for tests of races, which the plan's lock would hide.
  bool faults = true;
  bool debug = true;
  std::optional<std::string> bundleIdentifier = "com.example.app";
  /// A device of its own when null.
  std::shared_ptr<TestDevice> device = nullptr;
  /// The background session for whose events the process was launched.
  std::optional<std::string> launchedFor = std::nullopt;
};

class TestProcess {
 public:
  static constexpr const char* kSecret = "s3cr3t-API-key-0123456789abcdef";
  static constexpr const char* kSessionStarted = "session-started";
  static constexpr const char* kDidCookieMatch = "did-cookie-match";
  static constexpr const char* kSkewKey = "hawk-local-time-skew";
  static constexpr const char* kApiVersion = "1";
  static constexpr const char* kApiHost = "api.example.com";
  /// Where the clock stands at first: 2026-11-20T20:19:39Z.
  static constexpr double kStartTime = TestDevice::kStartTime;

  explicit TestProcess(TestProcessOptions options = {});
  ~TestProcess();
  TestProcess(const TestProcess&) = delete;
  TestProcess& operator=(const TestProcess&) = delete;

  std::shared_ptr<KSVData> makeClient(std::optional<std::string> secret = kSecret);

  /// The record in force; its services are the decorated ones.
  platform::Process& process() { return process_; }
  FaultPlan& plan() { return *plan_; }
  /// As FaultPlan::callTexts.
  std::vector<std::string> callTexts(std::initializer_list<std::string_view> prefixes = {}) const {
    return plan_->callTexts(prefixes);
  }

  // The twins themselves, without faults. Those that a variant replaces are not there.
  MemoryFileManager& memoryFiles();
  MemoryUserDefaults& userDefaults() { return *userDefaults_; }
  SteppedQueues& queues();
  ManualClock& clock() { return *clock_; }
  FixedSecureRandom& secureRandom() { return *secureRandom_; }
  RecordingUncaughtException& uncaught() { return *uncaught_; }
  MemoryApplication& application() { return *application_; }
  ScriptedURLSession& urlSession() { return *urlSession_; }
  RecordingBrowserOpener& browser() { return *browser_; }
  MemoryTransferService& transfers() { return *device_->transfers; }

  // Time. Setting it is what happens to a wrong clock: no time goes by for delayed blocks.
  void setTime(double secondsSince1970);
  /// Lets time go by; delayed blocks whose time has come queue up.
  void advanceTime(double seconds);

  // Stepping. Each runs blocks on the calling thread; the first says whether there was one.
  bool runOne(std::string_view label);
  /// Every queue, until all are empty.
  void runAll();
  std::size_t blocksWaiting(std::string_view label);
  /// Labels of the client's serial queue and of the background queue.
  static std::string clientQueue();
  std::string backgroundQueue();

  // The network. A request waits until it is answered; its handler then waits on the session's queue.
  /// Bodies of the requests so far, in order.
  std::vector<platform::Data> posts();
  /// Ends the oldest request that waits.
  void answer(std::int64_t status, std::string_view body, ScriptedURLSession::Fields fields = {});
  void failRequest(std::int64_t code);

  /// With real queues: waits until all that the queue holds now has run; a test that takes too long is ended.
  static void waitUntilDrained(platform::DispatchQueue& queue);

  // What was said.
  /// The debug trace.
  std::vector<std::string> trace();
  /// The system log.
  std::vector<std::string> systemLog();
  /// Both in the order in which they came; lines of the system log begin with `system log: `.
  std::vector<std::string> messages();
  void clearMessages();
  /// What would have ended the process, as the real service words it.
  std::vector<std::string> uncaughtReasons() { return uncaught_->descriptions(); }

  // Files, by the file system beneath the decorators.
  std::string supportPath(std::string_view name);
  std::string temporaryFolder();
  std::optional<std::string> fileBytes(const std::string& path);
  void setFileBytes(const std::string& path, std::string_view bytes);
  /// Names in the folder, sorted; empty when it is missing.
  std::vector<std::string> namesIn(const std::string& folder);
  std::vector<std::string> temporaryFiles() { return namesIn(temporaryFolder()); }
  /// The bytes of event-queue.json, absent when there is none.
  std::optional<std::string> queueFile() { return fileBytes(supportPath("event-queue.json")); }
  void setQueueFile(std::string_view bytes) { setFileBytes(supportPath("event-queue.json"), bytes); }

 private:
  class MessageRecorder;

  void makeFileManager(const TestProcessOptions& options);
  void makeQueues(const TestProcessOptions& options);

  std::shared_ptr<FaultPlan> plan_ = std::make_shared<FaultPlan>();
  std::shared_ptr<MessageRecorder> messages_;
  std::shared_ptr<TestDevice> device_;
  std::optional<TemporaryDirectory> folder_;  // of the variant on disk
  std::shared_ptr<MemoryFileManager> memoryFiles_;
  std::shared_ptr<platform::FileManager> files_;  // whichever is in use
  std::shared_ptr<MemoryUserDefaults> userDefaults_;
  std::shared_ptr<SteppedQueues> steppedQueues_;
  std::shared_ptr<ManualClock> clock_;
  std::shared_ptr<FixedSecureRandom> secureRandom_;
  std::shared_ptr<RecordingUncaughtException> uncaught_;
  std::shared_ptr<MemoryApplication> application_;
  std::shared_ptr<ScriptedURLSession> urlSession_;
  std::shared_ptr<RecordingBrowserOpener> browser_;
  platform::Process process_;
  std::optional<platform::Process::Scope> scope_;
};

}  // namespace test
