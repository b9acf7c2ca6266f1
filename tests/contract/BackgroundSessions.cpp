// What background sessions promise (platform rows B1, B2 and B4 to B8), held against the real service, a process of its own over
// its socket and its folder, and against the one that a test steps by hand.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Exception.h"
#include "platform/Process.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "platform/linux/TransferDirectory.h"
#include "support/Event.h"
#include "support/MemoryTransferService.h"
#include "support/Program.h"
#include "support/RecordingSystemLog.h"
#include "support/RecordingUncaughtException.h"
#include "support/SteppedQueues.h"
#include "support/TemporaryDirectory.h"
#include "support/TlsTestServer.h"

namespace {

using platform::BackgroundURLSessionRef;
using platform::URL;
using platform::URLSessionTaskRef;
using testing::ElementsAre;
using testing::IsEmpty;
using State = platform::URLSessionTask::State;
using Texts = std::vector<std::string>;

const bool kTrustIsSet = setenv("SSL_CERT_FILE", test::certificateAuthorityFile().c_str(), 1) == 0;

// Writes down what it is told.
class Delegate final : public platform::URLSessionDelegate {
 public:
  void URLSessionTaskDidCompleteWithError(const BackgroundURLSessionRef& session, const URLSessionTaskRef& task,
                                          const std::optional<platform::Error>& error) override {
    add("task of " + session->configuration().identifier() + (error ? " failed " + std::to_string(error->code()) : " completed"));
    EXPECT_EQ(task->state(), State::kCompleted);
  }
  void URLSessionDidBecomeInvalidWithError(const BackgroundURLSessionRef&, const std::optional<platform::Error>& error) override {
    add(error ? "invalid with error" : "invalid");
  }
  void URLSessionDidFinishEventsForBackgroundURLSession(const BackgroundURLSessionRef&) override { add("events finished"); }
  void URLSessionDownloadTaskDidFinishDownloadingToURL(const BackgroundURLSessionRef&, const URLSessionTaskRef&,
                                                       const URL&) override {
    add("download");
  }

  Texts told() const {
    const std::lock_guard lock(mutex_);
    return told_;
  }
  bool waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, test::kLimit, [&] { return told_.size() >= count; });
  }

 private:
  void add(std::string text) {
    const std::lock_guard lock(mutex_);
    told_.push_back(std::move(text));
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Texts told_;
};

// An application's sessions, the service behind them, and the server behind that.
struct Subject {
  virtual ~Subject() = default;
  virtual platform::BackgroundURLSessions& sessions() = 0;
  virtual std::string url() = 0;
  virtual URL file() = 0;
  /// The server answers the upload that waits.
  virtual bool answer() = 0;
  virtual bool runUntil(Delegate& delegate, std::size_t count) = 0;
  virtual bool runUntil(test::Event& event) = 0;
  /// The application ends at once and begins again, launched for that session.
  virtual void relaunch(const std::string& session) = 0;
};

struct TwinSubject : Subject {
  TwinSubject() {
    record.json = platform::makeRapidJSONSerialization();
    record.systemLog = std::make_shared<test::RecordingSystemLog>();
    scope.emplace(record);
    begin(std::nullopt);
  }
  ~TwinSubject() override { end(); }
  platform::BackgroundURLSessions& sessions() override { return *made; }
  std::string url() override { return "https://api.example.com/gifs"; }
  URL file() override { return URL::fileURLWithPath("/host/cat.gif"); }
  bool answer() override {
    if (queues) queues->runAll();
    service->answerUpload(200);
    return true;
  }
  bool runUntil(Delegate& delegate, std::size_t count) override {
    queues->runAll();
    return delegate.told().size() >= count;
  }
  bool runUntil(test::Event& event) override {
    queues->runAll();
    return event.happened();
  }
  void relaunch(const std::string& session) override {
    end();
    service->start();
    service->tick();
    service->answerUpload(200);
    clock->advance(1);  // until then it would wait for an application that runs
    service->tick();
    ASSERT_EQ(service->launches().size(), 1u);
    EXPECT_EQ(service->launches().front().session, session);
    begin(session);
  }
  void begin(std::optional<std::string> session) {
    queues = std::make_shared<test::SteppedQueues>(uncaught);
    made = service->makeSessions(queues, std::move(session));
  }
  void end() {
    made.reset();
    queues.reset();
  }

  platform::Process record;
  std::optional<platform::Process::Scope> scope;
  std::shared_ptr<test::RecordingUncaughtException> uncaught = std::make_shared<test::RecordingUncaughtException>();
  std::shared_ptr<test::ManualClock> clock = std::make_shared<test::ManualClock>();
  std::shared_ptr<test::MemoryTransferService> service = std::make_shared<test::MemoryTransferService>(clock);
  std::shared_ptr<test::SteppedQueues> queues;
  std::shared_ptr<platform::BackgroundURLSessions> made;
};

struct RealSubject : Subject {
  RealSubject() {
    std::ofstream(path()) << "GIF89a";
    EXPECT_EQ(mkfifo(pipePath().c_str(), 0600), 0);
    pipe = platform::FileDescriptor(open(pipePath().c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    // This start ends once the service listens.
    test::Program start(test::binary("kestrova-transferd"), {"--background"}, {{"KESTROVA_TRANSFER_DIR", directory()}});
    EXPECT_EQ(start.waitForEnd(), "exited with 0");
    service = processOfService();
    EXPECT_GT(service, 0);
    begin();
  }
  ~RealSubject() override {
    end();
    if (service > 0) kill(service, SIGKILL);
    gate.happen();
  }
  platform::SystemOptions options() const {
    platform::SystemOptions made;
    made.bundleIdentifier = "com.example.app";
    made.homeDirectory = home.path();
    made.transferDirectory = directory();
    made.transferServicePath = test::binary("kestrova-transferd");
    made.launchCommand = {"/bin/sh", "-c", "echo \"$KESTROVA_BACKGROUND_SESSION\" 1<>\"$0\"", pipePath()};
    return made;
  }
  std::string directory() const { return home.path() + "/transfers"; }
  pid_t processOfService() const {
    const auto shared = platform::TransferDirectory::open(directory());
    if (!shared) return 0;
    const auto connection = shared->connect();
    if (!connection) return 0;
    ucred peer{};
    socklen_t length = sizeof(peer);
    return getsockopt(connection->get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : 0;
  }
  std::string pipePath() const { return home.path() + "/launched"; }
  /// What the program that is launched in the application's place says. It is launched once the event is in the store.
  std::string sessionOfLaunch() const {
    pollfd watched{pipe.get(), POLLIN, 0};
    const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(test::kLimit);
    if (poll(&watched, 1, static_cast<int>(limit.count())) != 1) return "nothing was launched";
    std::array<char, 256> said{};
    const ssize_t length = read(pipe.get(), said.data(), said.size());
    return {said.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
  }
  std::string path() const { return home.path() + "/cat.gif"; }

  platform::BackgroundURLSessions& sessions() override { return *process->backgroundSessions; }
  std::string url() override { return server.url("/gifs"); }
  URL file() override { return URL::fileURLWithPath(path()); }
  bool answer() override {
    if (!server.waitForRequests(1)) return false;
    gate.happen();
    return true;
  }
  bool runUntil(Delegate& delegate, std::size_t count) override { return delegate.waitFor(count); }
  bool runUntil(test::Event& event) override { return event.wait(); }
  void relaunch(const std::string& session) override {
    end();
    ASSERT_TRUE(answer());
    ASSERT_EQ(sessionOfLaunch(), session + "\n");
    setenv("KESTROVA_BACKGROUND_SESSION", session.c_str(), 1);
    begin();
    unsetenv("KESTROVA_BACKGROUND_SESSION");
  }

  void begin() {
    process = platform::makeSystemProcess(options());
    scope.emplace(*process);
  }
  // The services first: what runs on their threads needs the record.
  void end() {
    process->backgroundSessions.reset();
    process->queues.reset();
    scope.reset();
    process.reset();
  }

  test::TemporaryDirectory home;
  platform::FileDescriptor pipe;
  test::Event gate;
  test::TlsTestServer server{[this](test::TlsTestServer::Connection& connection) {
    while (connection.readRequest()) {
      if (!gate.wait() || !connection.send(test::TlsTestServer::Answer{})) return;
    }
  }};
  pid_t service = 0;
  std::unique_ptr<platform::Process> process;
  std::optional<platform::Process::Scope> scope;
};

struct Implementation {
  std::string name;
  std::function<std::unique_ptr<Subject>()> make;
};

class BackgroundSessions : public testing::TestWithParam<Implementation> {
 protected:
  BackgroundURLSessionRef session(const std::string& identifier = "session-1") {
    return subject->sessions().sessionWithConfigurationDelegateDelegateQueue(
        platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier), delegate, nullptr);
  }
  URLSessionTaskRef task(const BackgroundURLSessionRef& of) {
    platform::URLRequest request(URL::URLWithString(subject->url()));
    request.setHTTPMethod("POST");
    return of->uploadTaskWithRequestFromFile(request, subject->file());
  }

  std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
  std::unique_ptr<Subject> subject = GetParam().make();
};

TEST_P(BackgroundSessions, B1_AnIdentifierHasOneSessionInAProcess) {
  EXPECT_EQ(session(), session());
  EXPECT_NE(session(), session("session-2"));
  EXPECT_EQ(session()->configuration().identifier(), "session-1");
}

TEST_P(BackgroundSessions, B2_AnUploadFromAFileEndsWithItsDelegateTold) {
  const auto made = session();
  test::Event connected;  // else the event could be one that came up while nobody held the session
  made->getTasksWithCompletionHandler([&](const auto&, const auto&, const auto&) { connected.happen(); });
  ASSERT_TRUE(subject->runUntil(connected));
  const auto upload = task(made);
  EXPECT_EQ(upload->state(), State::kSuspended);
  upload->resume();
  EXPECT_EQ(upload->state(), State::kRunning);
  ASSERT_TRUE(subject->answer());
  ASSERT_TRUE(subject->runUntil(*delegate, 1));
  EXPECT_THAT(delegate->told(), ElementsAre("task of session-1 completed"));
}

TEST_P(BackgroundSessions, B4_StoredEventsComeInTheNextLifeAndTheirEndLast) {
  task(session())->resume();
  delegate = std::make_shared<Delegate>();
  subject->relaunch("session-1");
  EXPECT_EQ(subject->sessions().identifierOfLaunch(), "session-1");
  test::Event delivered;
  subject->sessions().notifyWhenEventsAreDelivered("session-1", [&] { delivered.happen(); });
  (void)session();
  ASSERT_TRUE(subject->runUntil(*delegate, 2));
  EXPECT_THAT(delegate->told(), ElementsAre("task of session-1 completed", "events finished"));
  EXPECT_TRUE(subject->runUntil(delivered));
}

TEST_P(BackgroundSessions, B5_ASessionListsItsTasksWithTheirStates) {
  const auto made = session();
  const auto first = task(made);
  const auto second = task(made);
  first->resume();
  test::Event listed;
  std::vector<State> states;
  made->getTasksWithCompletionHandler([&](const auto& data, const auto& uploads, const auto& downloads) {
    EXPECT_THAT(data, IsEmpty());
    EXPECT_THAT(downloads, IsEmpty());
    for (const URLSessionTaskRef& each : uploads) states.push_back(each->state());
    listed.happen();
  });
  ASSERT_TRUE(subject->runUntil(listed));
  EXPECT_THAT(states, ElementsAre(State::kRunning, State::kSuspended));
}

TEST_P(BackgroundSessions, B6_InvalidationEndsEveryTaskAndThenTheSession) {
  const auto made = session();
  const auto suspended = task(made);
  task(made)->resume();
  made->invalidateAndCancel();
  made->invalidateAndCancel();
  ASSERT_TRUE(subject->runUntil(*delegate, 3));
  EXPECT_THAT(delegate->told(), ElementsAre("task of session-1 failed -999", "task of session-1 failed -999", "invalid"));
  try {
    (void)task(made);
    FAIL() << "did not raise";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSGenericException");
  }
}

TEST_P(BackgroundSessions, B7_TaskIdentifiersAreUniqueInASessionAlsoOverALaunch) {
  const auto first = task(session())->taskIdentifier();
  const auto second = task(session());
  second->resume();
  const auto last = second->taskIdentifier();
  subject->relaunch("session-1");
  const auto next = task(session())->taskIdentifier();
  EXPECT_LT(first, last);
  EXPECT_LT(last, next);
}

TEST_P(BackgroundSessions, B8_ASessionHoldsItsDelegateUntilItIsInvalidated) {
  const std::weak_ptr<Delegate> held = delegate;
  const auto made = session();
  delegate.reset();
  const auto alive = held.lock();
  ASSERT_TRUE(alive);
  made->invalidateAndCancel();
  ASSERT_TRUE(subject->runUntil(*alive, 1));
  EXPECT_THAT(alive->told(), ElementsAre("invalid"));
}

INSTANTIATE_TEST_SUITE_P(Both, BackgroundSessions,
                         testing::Values(Implementation{"Twin", [] { return std::make_unique<TwinSubject>(); }},
                                         Implementation{"Real", [] { return std::make_unique<RealSubject>(); }}),
                         [](const auto& parameter) { return parameter.param.name; });

}  // namespace
