// Applications on the real service: two side by side, many uploads at once, and servers that do not answer as they should.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "companions/KSVShare.h"
#include "platform/Process.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/GetrandomSecureRandom.h"
#include "platform/linux/TransferDirectory.h"
#include "platform/linux/TransferIdentity.h"
#include "platform/linux/TransferInspection.h"
#include "support/DevServer.h"
#include "support/Event.h"
#include "support/Files.h"
#include "support/Program.h"
#include "support/RealClient.h"
#include "support/ServiceEnd.h"
#include "support/TemporaryDirectory.h"
#include "support/TlsTestServer.h"
#include "transfer/linux/Startup.h"
#include "transfer/protocol/SpoolEntry.h"

// A sanitizer's own memory is many times a program's, so the bound on the service's holds without one only.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KESTROVA_MEMORY_IS_MEASURED 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KESTROVA_MEMORY_IS_MEASURED 0
#endif
#endif
#ifndef KESTROVA_MEMORY_IS_MEASURED
#define KESTROVA_MEMORY_IS_MEASURED 1
#endif

namespace test {
namespace {

namespace fs = std::filesystem;
using platform::BackgroundURLSessionRef;
using platform::TransferInspection;
using platform::URL;
using platform::URLSessionTaskRef;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Connection = TlsTestServer::Connection;
using Texts = std::vector<std::string>;

std::string writeFile(const fs::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

/// Keeps the service's folder, finds the service there, and ends it with the test.
class ServiceTest : public testing::Test {
 protected:
  ServiceTest() {
    setenv("KESTROVA_TRANSFER_DIR", directory_.path().c_str(), 1);
    setenv("KESTROVA_TRANSFERD", binary("kestrova-transferd").c_str(), 1);
  }
  ~ServiceTest() override {
    if (const auto service = transfer::answeringService(directory_)) kill(*service, SIGTERM);
    EXPECT_TRUE(serviceEnds(directory_)) << "the service ends before its folder";
  }

  TemporaryDirectory folder_;
  platform::TransferDirectory directory_ = *platform::TransferDirectory::open(folder_.path() + "/transfers");
};

// What a delegate is told, a line for each: the session, the task and how it ended.
class Outcomes final : public platform::URLSessionDelegate {
 public:
  void URLSessionTaskDidCompleteWithError(const BackgroundURLSessionRef& session, const URLSessionTaskRef& task,
                                          const std::optional<platform::Error>& error) override {
    note(session->configuration().identifier() + " task " + std::to_string(task->taskIdentifier()) +
         (error ? " failed: " + error->localizedDescription() : " completed"));
  }
  void URLSessionDidBecomeInvalidWithError(const BackgroundURLSessionRef& session, const std::optional<platform::Error>&) override {
    note(session->configuration().identifier() + " invalid");
  }
  void URLSessionDidFinishEventsForBackgroundURLSession(const BackgroundURLSessionRef& session) override {
    note(session->configuration().identifier() + " finished");
  }
  void URLSessionDownloadTaskDidFinishDownloadingToURL(const BackgroundURLSessionRef&, const URLSessionTaskRef&,
                                                       const URL&) override {
    note("download");
  }
  Texts all() const {
    const std::lock_guard lock(mutex_);
    return all_;
  }
  [[nodiscard]] bool waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kLimit, [&] { return all_.size() >= count; });
  }

 private:
  void note(std::string text) {
    const std::lock_guard lock(mutex_);
    all_.push_back(std::move(text));
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Texts all_;
};

/// One application: an identifier, a home, and sessions on the services of the machine.
class Application {
 public:
  Application(std::string identifier, const std::string& home, const std::string& transfers) {
    options_.bundleIdentifier = std::move(identifier);
    options_.homeDirectory = home;
    options_.transferDirectory = transfers;
    options_.transferServicePath = binary("kestrova-transferd");
    process_ = platform::makeSystemProcess(options_);
    scope_.emplace(*process_);
  }
  ~Application() { end(); }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  /// Ends its sessions and its threads.
  void end() {
    process_->backgroundSessions.reset();
    process_->queues.reset();
  }

  BackgroundURLSessionRef session(const std::string& identifier) {
    return process_->backgroundSessions->sessionWithConfigurationDelegateDelegateQueue(
        platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier), outcomes, nullptr);
  }
  void upload(const std::string& session, const std::string& url, const std::string& file) {
    platform::URLRequest request(URL::URLWithString(url));
    request.setHTTPMethod("POST");
    this->session(session)->uploadTaskWithRequestFromFile(request, URL::fileURLWithPath(file))->resume();
  }
  /// The numbers of the tasks that the session lists, once the service has answered.
  Texts tasks(const std::string& session) {
    Event listed;
    Texts numbers;
    this->session(session)->getTasksWithCompletionHandler([&](const auto&, const auto& uploads, const auto&) {
      for (const URLSessionTaskRef& task : uploads) numbers.push_back(std::to_string(task->taskIdentifier()));
      listed.happen();
    });
    EXPECT_TRUE(listed.wait());
    return numbers;
  }
  /// What the service says that it has of this application: each session with its files.
  Texts listed() {
    Texts lines;
    auto sessions = TransferInspection(options_).sessionsOfStartedService();
    EXPECT_TRUE(sessions) << sessions.error().localizedDescription();
    if (!sessions) return lines;
    for (const auto& each : *sessions) {
      for (const auto& task : each.tasks) lines.push_back(each.identifier + " " + fs::path(task.file).filename().string());
      if (each.tasks.empty()) lines.push_back(each.identifier);
    }
    return lines;
  }
  std::string cancel(const std::string& session) {
    const auto done = TransferInspection(options_).cancel(session);
    return done ? "cancelled" : done.error().localizedDescription();
  }
  transfer::ApplicationIdentity identity() const {
    return *platform::TransferIdentity(options_, std::make_shared<platform::GetrandomSecureRandom>()).identity();
  }

  std::shared_ptr<Outcomes> outcomes = std::make_shared<Outcomes>();

 private:
  platform::SystemOptions options_;
  std::unique_ptr<platform::Process> process_;
  std::optional<platform::Process::Scope> scope_;
};

/// A connection to the service on which a test says what it likes.
class Conversation {
 public:
  Conversation(const platform::TransferDirectory& directory, transfer::ApplicationIdentity identity)
      : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = directory.socketAddress();
    EXPECT_EQ(connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    transfer::Hello hello;
    hello.application = std::move(identity);
    say(hello);
  }
  void say(const transfer::Message& message) const {
    const std::string line = encode(message);
    EXPECT_EQ(::send(socket_.get(), line.data(), line.size(), MSG_NOSIGNAL), static_cast<ssize_t>(line.size()));
  }
  /// The next message as its line; "(end)" when the service has closed, or at the limit.
  std::string hear() {
    std::array<char, 4096> buffer{};
    for (;;) {
      if (const auto message = reader_.next()) return *message ? encode(**message) : "no message";
      pollfd waiting{socket_.get(), POLLIN, 0};
      if (poll(&waiting, 1, static_cast<int>(std::chrono::milliseconds(kLimit).count())) != 1) return "(end)";
      const ssize_t got = recv(socket_.get(), buffer.data(), buffer.size(), 0);
      if (got <= 0) return "(end)";
      reader_.append({buffer.data(), static_cast<std::size_t>(got)});
    }
  }

 private:
  platform::FileDescriptor socket_;
  transfer::MessageReader reader_;
};

class TwoApplications : public ServiceTest {
 protected:
  // The threads of both read the record in force, which is that of one of them: none goes while a thread of the other runs.
  ~TwoApplications() override {
    one_.end();
    two_.end();
  }
  std::string file(const std::string& name) const { return writeFile(folder_.path() + "/" + name, "GIF89a " + name); }
  std::string home(const std::string& name) const { return folder_.path() + "/" + name; }
  /// Both upload in a session of one name, and each in one of its own; none is answered yet.
  void begin() {
    for (const auto& [application, name] : {std::pair{&one_, "one"}, {&two_, "two"}}) {
      application->upload("shared", server_.url("/" + std::string(name) + "-shared"), file(std::string(name) + "-shared"));
      application->upload(name, server_.url("/" + std::string(name)), file(name));
    }
    ASSERT_TRUE(server_.waitForRequests(4));
    // An upload may begin before its application's connection stands, and what ends before it holds the session ends unheard. What
    // is answered now was asked over the connection that holds it.
    for (const auto& [application, name] : {std::pair{&one_, "one"}, {&two_, "two"}})
      for (const char* const session : {"shared", name}) ASSERT_THAT(application->tasks(session), SizeIs(1));
  }
  void expectNothingTouched() {
    EXPECT_THAT(one_.listed(), ElementsAre("one one", "shared one-shared"));
    EXPECT_THAT(two_.listed(), ElementsAre("shared two-shared", "two two"));
    EXPECT_THAT(one_.outcomes->all(), IsEmpty());
    EXPECT_THAT(two_.outcomes->all(), IsEmpty());
  }
  /// Each is told of its own uploads and of nothing else.
  void expectOwnOutcomes() {
    gate_.happen();
    ASSERT_TRUE(one_.outcomes->waitFor(2));
    ASSERT_TRUE(two_.outcomes->waitFor(2));
    // What is asked after an event is answered after it.
    EXPECT_THAT(one_.tasks("shared"), ElementsAre("1"));
    EXPECT_THAT(two_.tasks("shared"), ElementsAre("1"));
    EXPECT_THAT(one_.outcomes->all(), testing::UnorderedElementsAre("shared task 1 completed", "one task 2 completed"));
    EXPECT_THAT(two_.outcomes->all(), testing::UnorderedElementsAre("shared task 1 completed", "two task 2 completed"));
    for (const auto& request : server_.requests()) EXPECT_EQ(request.body, "GIF89a " + request.target.substr(1));
    EXPECT_THAT(server_.requests(), SizeIs(4));
  }

  Event gate_;
  TlsTestServer server_{[this](Connection& connection) {
    while (connection.readRequest())
      if (!gate_.wait() || !connection.send(TlsTestServer::Answer{})) return;
  }};
  const int trust_ = setenv("SSL_CERT_FILE", certificateAuthorityFile().c_str(), 1);
  Application one_{"com.example.one", home("home-one"), directory_.path()};
  Application two_{"com.example.two", home("home-two"), directory_.path()};
};

TEST_F(TwoApplications, SeeAndHearOfTheirOwnSessionsOnly) {
  begin();
  expectNothingTouched();
  EXPECT_THAT(one_.tasks("shared"), ElementsAre("1"));
  EXPECT_THAT(one_.tasks("one"), ElementsAre("2"));
  EXPECT_THAT(one_.tasks("two"), IsEmpty()) << "a name of the other's is a new session here";
  EXPECT_THAT(two_.tasks("one"), IsEmpty());
  EXPECT_EQ(one_.cancel("two"), "The transfer service knows no session two.");
  expectNothingTouched();
  expectOwnOutcomes();
}

TEST_F(TwoApplications, TheOthersIdentifierCancelsAndInvalidatesNothingOfTheOthers) {
  begin();
  Conversation asOne(directory_, one_.identity());
  EXPECT_EQ(asOne.hear(), encode(transfer::Welcome{}));
  asOne.say(transfer::Cancel{"two"});
  asOne.say(transfer::Handed{"two", 1});
  asOne.say(transfer::GetTasks{7, "two"});
  EXPECT_EQ(asOne.hear(), encode(transfer::SessionTasks{.request = 7, .session = "two", .tasks = {}}));
  asOne.say(transfer::Invalidate{"two"});
  EXPECT_EQ(asOne.hear(), encode(transfer::Invalidated{"two"})) << "its own, of which there is nothing";
  expectNothingTouched();
  expectOwnOutcomes();
}

TEST_F(TwoApplications, EndingASessionOfOneNameEndsOnlyTheOwn) {
  begin();
  two_.session("shared")->invalidateAndCancel();
  ASSERT_TRUE(two_.outcomes->waitFor(2));
  EXPECT_THAT(two_.outcomes->all(), ElementsAre("shared task 1 failed: cancelled", "shared invalid"));
  EXPECT_THAT(one_.listed(), ElementsAre("one one", "shared one-shared"));
  gate_.happen();
  ASSERT_TRUE(one_.outcomes->waitFor(2));
  EXPECT_THAT(one_.outcomes->all(), testing::UnorderedElementsAre("shared task 1 completed", "one task 2 completed"));
}

TEST_F(TwoApplications, OneWithTheOthersIdentifierAndAWrongTokenIsRefused) {
  begin();
  auto identity = one_.identity();
  identity.token = two_.identity().token;
  const std::string reason = "the application “com.example.one” in “" + identity.folder + "” is known with another token";
  Conversation intruder(directory_, identity);
  EXPECT_EQ(intruder.hear(), encode(transfer::Refused{reason}));
  EXPECT_EQ(intruder.hear(), "(end)");

  transfer::SpoolEntry entry;
  entry.application = identity;
  entry.session = "shared";
  entry.task = 9;
  entry.method = "POST";
  entry.url = server_.url("/intruder");
  entry.file = file("intruder");
  entry.resumedAt = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  const fs::path unseen = writeFile(directory_.spool() + "/.intruder", encode(entry));
  fs::permissions(unseen, fs::perms::owner_read | fs::perms::owner_write);
  fs::rename(unseen, directory_.spool() + "/intruder.task");
  // The reason is there first, for a moment without its words.
  ASSERT_TRUE(becomes([&] { return fs::exists(directory_.refused() + "/intruder.task"); }));
  EXPECT_EQ(contentOf(directory_.refused() + "/intruder.task.reason"), reason + "\n");
  expectNothingTouched();
  expectOwnOutcomes();
}

// A client on the service, its server programmed by the test.
class UploadingClient : public ServiceTest {
 protected:
  static std::shared_ptr<const KSVShare> shareWithId(std::string shareId) {
    auto code = std::make_shared<KSVReferralCode>();
    code->shareId = std::move(shareId);
    auto share = std::make_shared<KSVShare>();
    share->referralCode = std::move(code);
    return share;
  }
  std::string gif(const std::string& content) const { return writeFile(folder_.path() + "/cat.gif", content); }
  static void upload(const RealClient& client, const std::string& path, const std::string& share = "share-1") {
    client->uploadGIFForShare(URL::fileURLWithPath(path), shareWithId(share));
  }
  static Texts uploadFiles(const RealClient& client) {
    const fs::path folder = client.inspect().uploadDirectory().value().path();
    Texts names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
    return names;
  }
  /// The service answers over the connection that holds the client's session.
  static void waitUntilHeld(const std::string& session) {
    Event answered;
    platform::BackgroundURLSession::sessionWithConfigurationDelegateDelegateQueue(
        platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(session), nullptr, nullptr)
        ->getTasksWithCompletionHandler([&](const auto&, const auto&, const auto&) { answered.happen(); });
    ASSERT_TRUE(answered.wait());
  }
  static std::string host(const TlsTestServer& server) { return "localhost:" + std::to_string(server.port()); }
  /// What the service has of the client's only upload.
  static transfer::TaskStatus task(const RealClient& client) {
    platform::SystemOptions options;
    options.bundleIdentifier = "com.example.app";
    options.homeDirectory = fs::path(client.inspect().uploadDirectory().value().path()).parent_path().parent_path().parent_path();
    const auto sessions = TransferInspection(options).sessionsOfStartedService();
    EXPECT_TRUE(sessions) << sessions.error().localizedDescription();
    if (!sessions || sessions->size() != 1 || sessions->front().tasks.size() != 1) return {};
    return sessions->front().tasks.front();
  }
};

TEST_F(UploadingClient, AnyStatusCompletesTheTaskInTheTracesWords) {
  std::atomic<int> status = 0;
  std::counting_semaphore<> mayAnswer(0);
  TlsTestServer server(TlsTestServer::answering([&](const auto&) {
    EXPECT_TRUE(mayAnswer.try_acquire_for(kLimit));
    return TlsTestServer::Answer{status, {}, "{}"};
  }));
  RealClient client(host(server), certificateAuthorityFile());
  Texts expected = client.messages();
  int task = 0;
  for (const int each : {200, 401, 404, 500}) {
    status = each;
    upload(client, gif("GIF89a"));
    const Texts files = uploadFiles(client);
    ASSERT_THAT(files, SizeIs(1)) << each;
    waitUntilHeld(files.front());
    mayAnswer.release();
    expected.push_back("Starting GIF upload: " + files.front());
    expected.push_back("Task " + std::to_string(++task) + " completed");
    ASSERT_TRUE(client.waitForMessage(expected.back())) << each;
    EXPECT_TRUE(becomes([&] { return uploadFiles(client).empty(); })) << each;
  }
  EXPECT_EQ(client.messages(), expected);
  EXPECT_THAT(server.requests(), SizeIs(4)) << "no status is tried again";
}

TEST_F(UploadingClient, ACertificateThatIsRefusedEndsTheTaskAtOnce) {
  TlsTestServer server(TlsTestServer::answering(TlsTestServer::Answer{}),
                       {.certificate = TlsTestServer::Certificate::kUnknownAuthority});
  RealClient client(host(server), certificateAuthorityFile());
  Texts expected = client.messages();
  upload(client, gif("GIF89a"));
  ASSERT_TRUE(client.waitForMessage("Kestrova: Background task 1 failed"));
  ASSERT_THAT(uploadFiles(client), SizeIs(1)) << "a failed upload leaves its file to the sweep";
  expected.push_back("Starting GIF upload: " + uploadFiles(client).front());
  expected.emplace_back(
      "Kestrova: Background task 1 failed: The certificate for this server is invalid. You might be connecting to a server that is "
      "pretending to be “localhost” which could put your confidential information at risk.");
  EXPECT_EQ(client.messages(), expected);
  EXPECT_EQ(server.connections(), 1U);
}

TEST_F(UploadingClient, ASilentServerIsTriedAgain) {
  TlsTestServer server([](Connection& connection) {
    if (connection.number() == 0) return connection.waitForClose();
    while (connection.readRequest())
      if (!connection.send(TlsTestServer::Answer{})) return;
  });
  RealClient client(host(server), certificateAuthorityFile(), 0.5);
  upload(client, gif(gifOf(100'000)));
  ASSERT_TRUE(client.waitForMessage("Task 1 completed"));
  EXPECT_EQ(server.connections(), 2U);
  ASSERT_THAT(server.requests(), SizeIs(1));
  EXPECT_TRUE(server.requests().front().body == gifOf(100'000));
}

TEST_F(UploadingClient, AConnectionThatIsCutInTheMiddleIsFollowedByTheWholeFile) {
  constexpr std::size_t kSize = 5'000'000;
  TlsTestServer server([](Connection& connection) {
    std::size_t got = 0;
    while (connection.number() == 0 && got < kSize / 2) got += connection.readSome().value_or(std::string(kSize, ' ')).size();
    if (connection.number() == 0) return connection.reset();
    while (connection.readRequest())
      if (!connection.send(TlsTestServer::Answer{})) return;
  });
  RealClient client(host(server), certificateAuthorityFile());
  upload(client, gif(gifOf(kSize)));
  fs::remove(folder_.path() + "/cat.gif");
  ASSERT_TRUE(client.waitForMessage("Task 1 completed"));
  EXPECT_EQ(server.connections(), 2U);
  ASSERT_THAT(server.requests(), SizeIs(1));
  EXPECT_TRUE(server.requests().front().body == gifOf(kSize));
}

TEST_F(UploadingClient, AServerThatIsAwayForAWhileGetsTheFileWhenItIsBack) {
  const std::string state = folder_.path() + "/server";
  const std::string gifs = folder_.path() + "/gifs";
  std::optional<DevServer> server(std::in_place, state, Texts{"--gifs", gifs});
  ASSERT_EQ(server->fault(), "");
  const std::string port = std::to_string(server->port());
  const std::string authority = writeFile(folder_.path() + "/authority.pem", contentOf(server->authorityFile()));
  RealClient client(server->host(), authority);
  EXPECT_EQ(server->stop(), "exited with 0");
  upload(client, gif(gifOf(100'000)));
  ASSERT_TRUE(becomes([&] { return task(client).nextTryAt.has_value(); }));
  EXPECT_EQ(task(client).error.value_or(platform::Error("none", 0)).localizedDescription(), "Could not connect to the server.");
  server.emplace(state, Texts{"--gifs", gifs, "--port", port});
  ASSERT_EQ(server->fault(), "");
  ASSERT_TRUE(client.waitForMessage("Task 1 completed"));
  EXPECT_TRUE(contentOf(gifs + "/000001.gif") == gifOf(100'000));
}

// A try that is cut after the server has seen its header: the service dies half way, and the next one sends the header again.
class UploadCutHalfWay : public UploadingClient {
 protected:
  /// What the server has answered, once the task has ended.
  void uploadAndCut(const Texts& arguments) {
    Texts all{"--gifs", gifs()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    server_.emplace(all);
    ASSERT_EQ(server_->fault(), "");
    Program dying(binary("kestrova-transferd"), {},
                  {{"KESTROVA_TRANSFERD_DIE_AT", "body-half"}, {"KESTROVA_TRANSFER_DIR", directory_.path()}});
    ASSERT_EQ(transfer::waitForService(directory_), dying.process());
    RealClient client(server_->host(), server_->authorityFile());
    upload(client, gif(gifOf(20'000'000)));
    EXPECT_EQ(dying.waitForEnd(), "killed by signal 9");
    ASSERT_TRUE(client.waitForMessage("Task 1 completed"));
    EXPECT_TRUE(becomes([&] { return uploadFiles(client).empty(); }));
  }
  std::string gifs() const { return folder_.path() + "/gifs"; }

  std::optional<DevServer> server_;
};

TEST_F(UploadCutHalfWay, IsLetInAgainByAServerThatKeepsANonceForWholeUploadsOnly) {
  uploadAndCut({});
  ASSERT_TRUE(server_->waitForLine("200 POST /gifs"));
  // The one that was cut had the first number.
  EXPECT_FALSE(fs::exists(gifs() + "/000001.gif"));
  EXPECT_TRUE(contentOf(gifs() + "/000002.gif") == gifOf(20'000'000));
}

TEST_F(UploadCutHalfWay, IsRefusedByAStrictServerAndCountsAsCompleted) {
  uploadAndCut({"--strict-uploads"});
  ASSERT_TRUE(server_->waitForLine("401 POST /gifs"));
  EXPECT_FALSE(fs::exists(gifs() + "/000001.gif"));
  EXPECT_FALSE(fs::exists(gifs() + "/000002.gif"));
}

// Memory.

long peakMemoryOf(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string word; status >> word;) {
    long kilobytes = 0;
    if (word == "VmHWM:" && status >> kilobytes) return kilobytes * 1024;
  }
  return -1;
}

class ManyUploads : public UploadingClient, public testing::WithParamInterface<std::string> {};

TEST_P(ManyUploads, AllArriveWholeAndTheServiceStaysSmall) {
  constexpr int kUploads = 200;
  constexpr std::size_t kSize = 320'000;  // 64 MB in all
  constexpr long kBound = 64L * 1024 * 1024;
  TlsTestServer server(TlsTestServer::answering(TlsTestServer::Answer{}));
  Program service(binary("kestrova-transferd"), {"--max-uploads", GetParam(), "--directory", directory_.path()});
  ASSERT_EQ(transfer::waitForService(directory_), service.process());
  RealClient client(host(server), certificateAuthorityFile());
  for (int i = 0; i < kUploads; ++i) {
    const std::string path = gif(gifOf(kSize, static_cast<std::uint32_t>(i)));
    upload(client, path, std::to_string(i));
    ASSERT_TRUE(fs::remove(path));
  }
  ASSERT_TRUE(client.waitForMessage("Task ", kUploads));
  const long peak = peakMemoryOf(service.process());
  RecordProperty("PeakBytes", std::to_string(peak));
  ASSERT_GT(peak, 0);
  if constexpr (KESTROVA_MEMORY_IS_MEASURED) {
    EXPECT_LT(peak, kBound);
  }

  const auto requests = server.requests();
  ASSERT_THAT(requests, SizeIs(kUploads)) << "each once";
  std::vector<bool> seen(kUploads);
  for (const auto& request : requests) {
    const auto number = static_cast<std::uint32_t>(std::stoul(request.target.substr(std::string_view("/gifs?shareId=").size())));
    seen.at(number) = true;
    EXPECT_TRUE(request.body == gifOf(kSize, number)) << request.target;
  }
  EXPECT_EQ(std::ranges::count(seen, false), 0);
  EXPECT_TRUE(becomes([&] { return uploadFiles(client).empty(); }));
  EXPECT_EQ(std::ranges::count_if(client.messages(), [](const auto& line) { return line.starts_with("Kestrova: "); }), 0);
}

INSTANTIATE_TEST_SUITE_P(EightAtOnceAndAllAtOnce, ManyUploads, testing::Values("8", "200"),
                         [](const auto& parameter) { return "AtMost" + parameter.param; });

}  // namespace
}  // namespace test
