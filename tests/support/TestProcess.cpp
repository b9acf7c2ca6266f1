// The assembly of a test's process.
#include "support/TestProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "companions/KSVConstants.h"
#include "companions/KSVDebugger.h"
#include "platform/linux/OpenSSLDigest.h"
#include "platform/linux/PosixFileManager.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "platform/linux/ThreadQueues.h"
#include "support/Event.h"
#include "support/FaultyServices.h"

namespace test {

using platform::URL;

/// The system log, and what was said on either channel in the order in which it came.
class TestProcess::MessageRecorder final : public platform::SystemLog {
 public:
  void log(std::string_view message) override {
    systemLog_.log(message);
    add("system log: " + std::string(message));
  }
  void add(std::string line) {
    std::lock_guard lock(mutex_);
    messages_.push_back(std::move(line));
  }
  std::vector<std::string> messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
  }
  std::vector<std::string> systemLog() const { return systemLog_.messages(); }
  void clear() {
    std::lock_guard lock(mutex_);
    messages_.clear();
  }

 private:
  RecordingSystemLog systemLog_;
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
};

TestProcess::TestProcess(TestProcessOptions options)
    : messages_(std::make_shared<MessageRecorder>()),
      device_(options.device ? options.device : std::make_shared<TestDevice>()),
      userDefaults_(std::make_shared<MemoryUserDefaults>()),
      clock_(device_->clock),
      secureRandom_(std::make_shared<FixedSecureRandom>()),
      uncaught_(std::make_shared<RecordingUncaughtException>()),
      application_(std::make_shared<MemoryApplication>()),
      browser_(std::make_shared<RecordingBrowserOpener>()) {
  makeFileManager(options);
  makeQueues(options);
  urlSession_ = std::make_shared<ScriptedURLSession>(*process_.queues);

  process_.systemLog = messages_;
  process_.uncaughtException = uncaught_;
  process_.clock = clock_;
  process_.secureRandom = secureRandom_;
  process_.digest = std::make_shared<platform::OpenSSLDigest>();
  process_.json = platform::makeRapidJSONSerialization();
  process_.bundle = std::make_shared<FixedBundle>(options.bundleIdentifier);
  process_.fileManager = files_;
  process_.userDefaults = userDefaults_;
  process_.application = application_;
  process_.urlSession = urlSession_;
  process_.backgroundSessions = device_->transfers->makeSessions(process_.queues, options.launchedFor);
  process_.browserOpener = browser_;
  process_.debug = options.debug;
  process_.constants = {.sessionStartedKey = kSessionStarted,
                        .didCookieMatchKey = kDidCookieMatch,
                        .hawkLocalTimeSkew = kSkewKey,
                        .apiVersionString = kApiVersion,
                        .apiHost = kApiHost};
  if (options.faults) makeFaulty(process_, plan_);

  scope_.emplace(process_);
  if (options.debug) {
    KSVDebugger::sharedDebugger()->setListener([messages = messages_](std::string_view line) { messages->add(std::string(line)); });
  }
}

TestProcess::~TestProcess() {
  for (const std::string& rule : plan_->unused()) ADD_FAILURE() << "no call reached what was planned for " << rule;
  // A sweep that is still running needs the record.
  if (!steppedQueues_) waitUntilDrained(*process_.queues->globalBackgroundQueue());
}

void TestProcess::makeFileManager(const TestProcessOptions& options) {
  if (options.files == TestProcessOptions::Files::kInMemory) {
    files_ = memoryFiles_ = device_->files;
    return;
  }
  folder_.emplace();
  platform::SystemOptions system;
  system.bundleIdentifier = options.bundleIdentifier;
  system.homeDirectory = folder_->path();
  files_ = platform::makePosixFileManager(system);
}

void TestProcess::makeQueues(const TestProcessOptions& options) {
  if (options.queues == TestProcessOptions::Queues::kStepped)
    process_.queues = steppedQueues_ = std::make_shared<SteppedQueues>(uncaught_);
  else
    process_.queues = std::make_shared<platform::ThreadQueues>(uncaught_);
}

std::shared_ptr<KSVData> TestProcess::makeClient(std::optional<std::string> secret) {
  return KSVData::initWithSecret(std::move(secret));
}

MemoryFileManager& TestProcess::memoryFiles() {
  if (!memoryFiles_) throw std::logic_error("TestProcess: the files are on the disk");
  return *memoryFiles_;
}

SteppedQueues& TestProcess::queues() {
  if (!steppedQueues_) throw std::logic_error("TestProcess: the queues have threads and cannot be stepped");
  return *steppedQueues_;
}

void TestProcess::setTime(double secondsSince1970) {
  clock_->setNow(platform::Date::dateWithTimeIntervalSince1970(secondsSince1970));
}
void TestProcess::advanceTime(double seconds) {
  clock_->advance(seconds);
  if (steppedQueues_) steppedQueues_->advanceTime(seconds);
}

bool TestProcess::runOne(std::string_view label) { return queues().runNext(label); }
void TestProcess::runAll() { queues().runAll(); }
std::size_t TestProcess::blocksWaiting(std::string_view label) { return queues().pending(label); }
std::string TestProcess::clientQueue() { return std::string(kSDKReverseDNSPrefix) + ".DiskCacheQueueAccess"; }
std::string TestProcess::backgroundQueue() { return queues().globalBackgroundQueue()->label(); }

std::vector<platform::Data> TestProcess::posts() {
  std::vector<platform::Data> bodies;
  for (const platform::URLRequest& request : urlSession_->requests())
    bodies.push_back(request.HTTPBody().value_or(platform::Data()));
  return bodies;
}

void TestProcess::answer(std::int64_t status, std::string_view body, ScriptedURLSession::Fields fields) {
  urlSession_->next()->answer(status, fields, body);
}

void TestProcess::failRequest(std::int64_t code) { urlSession_->next()->fail(code); }

void TestProcess::waitUntilDrained(platform::DispatchQueue& queue) {
  Event drained;
  queue.async([&] { drained.happen(); });
  if (drained.wait()) return;
  std::fprintf(stderr, "TestProcess: the queue %s did not come to rest\n", queue.label().c_str());
  std::abort();  // the block still refers to this frame
}

std::vector<std::string> TestProcess::trace() { return KSVDebugger::sharedDebugger()->trace(); }
std::vector<std::string> TestProcess::systemLog() { return messages_->systemLog(); }
std::vector<std::string> TestProcess::messages() { return messages_->messages(); }
void TestProcess::clearMessages() { messages_->clear(); }

std::string TestProcess::supportPath(std::string_view name) {
  const Unseen unseen;
  return files_->applicationSupportDirectory()->URLByAppendingPathComponent(name).path();
}

std::string TestProcess::temporaryFolder() {
  const Unseen unseen;
  return files_->temporaryDirectory()->path();
}

std::optional<std::string> TestProcess::fileBytes(const std::string& path) {
  const Unseen unseen;
  const auto content = files_->contentsOfURL(URL::fileURLWithPath(path));
  return content ? std::optional(std::string(content->bytes())) : std::nullopt;
}

void TestProcess::setFileBytes(const std::string& path, std::string_view bytes) {
  const Unseen unseen;
  const URL url = URL::fileURLWithPath(path);
  (void)files_->removeItemAtURL(url);
  const auto written = files_->writeDataWithoutOverwriting(platform::Data(bytes), url);
  if (!written) throw std::runtime_error("TestProcess: " + written.error().localizedDescription());
}

std::vector<std::string> TestProcess::namesIn(const std::string& folder) {
  const Unseen unseen;
  auto names = files_->contentsOfDirectoryAtPath(folder).value_or(std::vector<std::string>());
  std::ranges::sort(names);
  return names;
}

}  // namespace test
