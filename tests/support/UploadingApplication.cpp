// The host application that uploads, writes down what it sees, and dies where it is told to.
#include "support/UploadingApplication.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVDebugger.h"
#include "companions/KSVShare.h"
#include "companions/Kestrova.h"
#include "platform/SystemLog.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/TransferDirectory.h"
#include "support/DevServer.h"
#include "support/Event.h"

namespace test {
namespace {

using platform::BackgroundURLSessionRef;
using platform::FileDescriptor;
using platform::URLSessionTaskRef;

constexpr const char* kArgument = "--uploading-application";
constexpr unsigned kLongestLife = 300;  // seconds; none outlives a test that came to a sudden end for long

// What the process that is the application knows; unset elsewhere.
struct Application {
  ApplicationPlace place;
  FileDescriptor log;
  std::string share;                            // of the upload that is being started
  static thread_local std::string sessionHere;  // of the delegate operation on this thread

  void note(std::string_view word, const std::string& session, const std::string& detail = {}) const {
    const auto time = std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
    std::string line = std::to_string(time) + " " + std::to_string(getpid()) + " " + std::string(word) + " " + session;
    if (!detail.empty()) line += " " + detail;
    line += "\n";
    if (::write(log.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()) || fsync(log.get()) != 0) std::abort();
  }
  void trace(std::string_view line) const {
    constexpr std::string_view kStarting = "Starting GIF upload: ";
    if (line.starts_with(kStarting)) note("starting", std::string(line.substr(kStarting.size())), share);
    std::istringstream words{std::string(line)};
    std::string first;
    std::string number;
    if (line.starts_with("Kestrova: Background task ")) {
      words.ignore(std::string_view("Kestrova: Background task ").size());
      words >> number;
      note("failed", sessionHere, number);
    } else if (line.starts_with("Task ") && line.ends_with(" completed")) {
      words >> first >> number;
      note("completed", sessionHere, number);
    }
  }
};

thread_local std::string Application::sessionHere;
std::unique_ptr<Application> theApplication;

// Names each step of a delegate operation.
class WatchedDelegate final : public platform::URLSessionDelegate {
 public:
  explicit WatchedDelegate(std::shared_ptr<platform::URLSessionDelegate> inner) : inner_(std::move(inner)) {}

  void URLSessionTaskDidCompleteWithError(const BackgroundURLSessionRef& session, const URLSessionTaskRef& task,
                                          const std::optional<platform::Error>& error) override {
    const std::string& name = Application::sessionHere = session->configuration().identifier();
    theApplication->note("begun", name, std::to_string(task->taskIdentifier()));
    reachStep("operation-begins");
    inner_->URLSessionTaskDidCompleteWithError(session, task, error);
    theApplication->note("returned", name, std::to_string(task->taskIdentifier()));
    reachStep("operation-returned");
  }
  void URLSessionDidBecomeInvalidWithError(const BackgroundURLSessionRef& session,
                                           const std::optional<platform::Error>& error) override {
    inner_->URLSessionDidBecomeInvalidWithError(session, error);
  }
  void URLSessionDidFinishEventsForBackgroundURLSession(const BackgroundURLSessionRef& session) override {
    theApplication->note("finished", session->configuration().identifier());
    inner_->URLSessionDidFinishEventsForBackgroundURLSession(session);
    reachStep("finished");
  }
  void URLSessionDownloadTaskDidFinishDownloadingToURL(const BackgroundURLSessionRef& session, const URLSessionTaskRef& task,
                                                       const platform::URL& location) override {
    inner_->URLSessionDownloadTaskDidFinishDownloadingToURL(session, task, location);
  }

 private:
  const std::shared_ptr<platform::URLSessionDelegate> inner_;
};

class WatchedSessions final : public platform::BackgroundURLSessions {
 public:
  explicit WatchedSessions(std::shared_ptr<platform::BackgroundURLSessions> inner) : inner_(std::move(inner)) {}

  BackgroundURLSessionRef sessionWithConfigurationDelegateDelegateQueue(const platform::URLSessionConfiguration& configuration,
                                                                        std::shared_ptr<platform::URLSessionDelegate> delegate,
                                                                        std::shared_ptr<platform::DispatchQueue> queue) override {
    return inner_->sessionWithConfigurationDelegateDelegateQueue(
        configuration, std::make_shared<WatchedDelegate>(std::move(delegate)), std::move(queue));
  }
  std::optional<std::string> identifierOfLaunch() override { return inner_->identifierOfLaunch(); }
  void notifyWhenEventsAreDelivered(const std::string& identifier, std::function<void()> handler) override {
    inner_->notifyWhenEventsAreDelivered(identifier, std::move(handler));
  }
  void goOnWithInterruptedTransfers() override { inner_->goOnWithInterruptedTransfers(); }

 private:
  const std::shared_ptr<platform::BackgroundURLSessions> inner_;
};

// Into the record what nobody reads on the standard error of a process that was launched.
class NotedSystemLog final : public platform::SystemLog {
 public:
  void log(std::string_view message) override { theApplication->note("says", "-", std::string(message)); }
};

struct flock lockOf(short type) {
  struct flock lock{};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

/// Holds for the life of the process. False when the file is not there.
bool holdLock(const std::string& path, short type) {
  const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);  // NOLINT: the end of the process closes it
  struct flock lock = lockOf(type);
  return file >= 0 && fcntl(file, F_SETLKW, &lock) == 0;
}

void startKestrova(const std::string& apiHost) {
  auto process = platform::makeSystemProcess(theApplication->place.options(apiHost));
  process->backgroundSessions = std::make_shared<WatchedSessions>(process->backgroundSessions);
  process->systemLog = std::make_shared<NotedSystemLog>();
  platform::Process::install(std::move(process));
  KSVDebugger::sharedDebugger()->setListener([](std::string_view line) { theApplication->trace(line); });
  Kestrova::Configuration configuration;
  configuration.secret = DevServer::kSecret;
  configuration.apiHost = apiHost;
  configuration.debug = true;
  (void)Kestrova::start(std::move(configuration));
}

void takeUp(const std::string& session) {
  Kestrova::shared()->data()->handleEventsForBackgroundURLSessionCompletionHandler(session, [] {});
}

void upload(const std::string& path, const std::string& share) {
  auto code = std::make_shared<KSVReferralCode>();
  code->shareId = share;
  auto made = std::make_shared<KSVShare>();
  made->referralCode = std::move(code);
  theApplication->share = share;
  Kestrova::shared()->data()->uploadGIFForShare(platform::URL::fileURLWithPath(path), made);
  reachStep("resumed");
  std::string session;
  for (const ApplicationRecord& record : readLog(theApplication->place))
    if (record.word == "starting" && record.detail == share) session = record.session;
  theApplication->note("accepted", session, share);
  std::filesystem::remove(path);
  std::cout << "uploaded " << share << std::endl;
}

void takeUpLaunch(const std::string& session) {
  Event delivered;
  platform::BackgroundURLSessions::backgroundSessions().notifyWhenEventsAreDelivered(session, [&] { delivered.happen(); });
  takeUp(session);
  (void)delivered.wait(std::chrono::seconds(kLongestLife));
}

std::set<std::string> sessionsSoFar() {
  std::set<std::string> sessions;
  for (const ApplicationRecord& record : readLog(theApplication->place))
    if (record.word == "starting") sessions.insert(record.session);
  return sessions;
}

/// An end is a death like any other: one that comes before an outcome is recorded has it seen again. The first answer comes when no
/// delegate operation is at work, so the second question is put after what was said of the last one.
void waitForRecords(const std::string& identifier) {
  const auto session = platform::BackgroundURLSessions::backgroundSessions().sessionWithConfigurationDelegateDelegateQueue(
      platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier), Kestrova::shared()->data(),
      nullptr);
  Event answered;
  session->getTasksWithCompletionHandler([&](const auto&, const auto&, const auto&) {
    session->getTasksWithCompletionHandler([&](const auto&, const auto&, const auto&) { answered.happen(); });
  });
  if (!answered.wait()) std::abort();
}

void takeCommands() {
  for (const std::string& session : sessionsSoFar()) takeUp(session);
  std::cout << "ready" << std::endl;
  std::string word;
  std::string path;
  std::string share;
  while (std::cin >> word >> path >> share) upload(path, share);
  for (const std::string& session : sessionsSoFar()) waitForRecords(session);
}

int run(const std::string& root, const std::string& apiHost) {
  (void)alarm(kLongestLife);
  auto application = std::make_unique<Application>();
  application->place.root = root;
  application->log = FileDescriptor(open(application->place.log().c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
  theApplication = std::move(application);
  if (!holdLock(theApplication->place.alive(), F_RDLCK) || !holdLock(theApplication->place.working(), F_WRLCK)) return 1;
  const bool isLaunched = getenv("KESTROVA_BACKGROUND_SESSION") != nullptr;
  if (isLaunched) reachStep("launched");
  startKestrova(apiHost);
  if (const auto session = Kestrova::sessionOfLaunch()) {
    takeUpLaunch(*session);
  } else {
    takeCommands();
  }
  theApplication->note("left", "-");
  return 0;
}

}  // namespace

std::string ApplicationPlace::uploads() const { return home() + "/" + DevServer::kAppId + "/application-support/uploads"; }

std::vector<std::string> ApplicationPlace::command(const std::string& apiHost) const {
  return {std::filesystem::read_symlink("/proc/self/exe").string(), kArgument, root, apiHost};
}

platform::SystemOptions ApplicationPlace::options(const std::string& apiHost) const {
  platform::SystemOptions options;
  options.bundleIdentifier = DevServer::kAppId;
  options.homeDirectory = home();
  options.transferDirectory = transfers();
  options.transferServicePath = serviceProgram();
  options.launchCommand = command(apiHost);
  return options;
}

pid_t ApplicationPlace::holderOf(const std::string& lockFile) {
  const FileDescriptor file(open(lockFile.c_str(), O_RDWR | O_CLOEXEC));
  struct flock lock = lockOf(F_WRLCK);
  if (!file.isOpen() || fcntl(file.get(), F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return 0;
  return lock.l_pid;
}

pid_t ApplicationPlace::service() const {
  const auto directory = platform::TransferDirectory::open(transfers());
  if (!directory) return 0;
  const auto socket = directory->connect();
  if (!socket) return 0;
  ucred peer{};
  socklen_t length = sizeof peer;
  return getsockopt(socket->get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : 0;
}

std::vector<ApplicationRecord> readLog(const ApplicationPlace& place) {
  std::vector<ApplicationRecord> records;
  std::ifstream file(place.log());
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    ApplicationRecord record;
    std::uint64_t time = 0;  // for whoever reads of a failure
    words >> time >> record.process >> record.word >> record.session >> record.detail;
    records.push_back(std::move(record));
  }
  return records;
}

std::optional<int> runUploadingApplication(int argc, char** argv) {
  if (argc != 4 || std::string_view(argv[1]) != kArgument) return std::nullopt;
  return run(argv[2], argv[3]);
}

void reachStep(std::string_view step) {
  if (!theApplication) return;
  const ApplicationPlace& place = theApplication->place;
  std::ifstream file(place.death());
  std::string wanted;
  std::string both;
  if (!(file >> wanted) || wanted != step) return;
  file >> both;
  if (unlink(place.death().c_str()) != 0) return;  // another one dies of it
  theApplication->note("dies", "-", std::string(step));
  if (const pid_t service = both.empty() ? 0 : place.service(); service > 0) (void)kill(service, SIGKILL);
  (void)raise(SIGKILL);
}

}  // namespace test
