// Each operation of each service, through its decorator: it passes when nothing is planned, and goes wrong in every way it can.
#include "support/FaultyServices.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

/// How a test report names the operation.
void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

namespace {

using platform::Data;
using platform::Date;
using platform::Error;
using platform::URL;
using platform::Value;
using testing::ElementsAre;
using testing::IsEmpty;

// Inner services that only say that they were reached: each operation adds its name to one list.
using Reached = std::vector<std::string>;

struct TinyFileHandle : platform::FileHandle {
  Reached& reached;
  explicit TinyFileHandle(Reached& list) : reached(list) {}
  std::uint64_t seekToEndOfFile() override {
    reached.push_back("FileHandle.seekToEndOfFile");
    return 7;
  }
  void seekToFileOffset(std::uint64_t) override { reached.push_back("FileHandle.seekToFileOffset"); }
  Data readDataOfLength(std::uint64_t) override {
    reached.push_back("FileHandle.readDataOfLength");
    return Data("read");
  }
  Data readDataToEndOfFile() override {
    reached.push_back("FileHandle.readDataToEndOfFile");
    return Data("read");
  }
  void writeData(const Data& data) override { reached.push_back("FileHandle.writeData " + std::string(data.bytes())); }
  void synchronizeFile() override { reached.push_back("FileHandle.synchronizeFile"); }
  void closeFile() override { reached.push_back("FileHandle.closeFile"); }
};

struct TinyFileManager : platform::FileManager {
  using Done = std::expected<void, Error>;
  Reached& reached;
  explicit TinyFileManager(Reached& list) : reached(list) {}
  bool fileExistsAtPath(std::string_view) override {
    reached.push_back("FileManager.fileExists");
    return true;
  }
  std::expected<platform::FileAttributes, Error> attributesOfItemAtPath(std::string_view) override {
    reached.push_back("FileManager.attributesOfItem");
    platform::FileAttributes attributes;
    attributes.fileSize = 7;
    return attributes;
  }
  std::expected<std::vector<std::string>, Error> contentsOfDirectoryAtPath(std::string_view) override {
    reached.push_back("FileManager.contentsOfDirectory");
    return std::vector<std::string>{"entry"};
  }
  Done copyItemAtURLToURL(const std::optional<URL>&, const std::optional<URL>&) override { return done("FileManager.copyItem"); }
  Done linkItemAtURLToURL(const std::optional<URL>&, const std::optional<URL>&) override { return done("FileManager.linkItem"); }
  Done moveItemAtURLToURL(const std::optional<URL>&, const std::optional<URL>&) override { return done("FileManager.moveItem"); }
  Done removeItemAtURL(const std::optional<URL>&) override { return done("FileManager.removeItem"); }
  Done removeItemAtPath(std::string_view) override { return done("FileManager.removeItemAtPath"); }
  std::expected<URL, Error> replaceItemAtURLWithItemAtURL(const std::optional<URL>& original, const std::optional<URL>&) override {
    reached.push_back("FileManager.replaceItem");
    return *original;
  }
  Done createDirectoryAtURL(const std::optional<URL>&) override { return done("FileManager.createDirectory"); }
  std::expected<URL, Error> applicationSupportDirectory() override {
    reached.push_back("FileManager.applicationSupportDirectory");
    return URL::fileURLWithPath("/support");
  }
  std::expected<URL, Error> temporaryDirectory() override {
    reached.push_back("FileManager.temporaryDirectory");
    return URL::fileURLWithPath("/temporary");
  }
  std::expected<std::shared_ptr<platform::FileHandle>, Error> openFileHandle(const std::optional<URL>&, Access access) override {
    reached.push_back(access == Access::kReading   ? "FileManager.openForReading"
                      : access == Access::kWriting ? "FileManager.openForWriting"
                                                   : "FileManager.openForUpdating");
    return std::make_shared<TinyFileHandle>(reached);
  }
  Done writeDataWithoutOverwriting(const Data& data, const std::optional<URL>&) override {
    return done("FileManager.writeDataWithoutOverwriting " + std::string(data.bytes()));
  }
  std::expected<Data, Error> contentsOfURL(const std::optional<URL>&) override {
    reached.push_back("FileManager.contentsOfURL");
    return Data("content");
  }
  Done done(std::string name) {
    reached.push_back(std::move(name));
    return {};
  }
};

struct TinyJSON : platform::JSONSerialization {
  Reached& reached;
  explicit TinyJSON(Reached& list) : reached(list) {}
  std::expected<Data, Error> write(const Value&) override {
    reached.push_back("JSON.write");
    return Data("{}");
  }
  std::expected<Value, Error> read(const Data&) override {
    reached.push_back("JSON.read");
    return Value(7);
  }
};

struct TinyDataService : platform::DataService {
  Reached& reached;
  explicit TinyDataService(Reached& list) : reached(list) {}
  Data subdataWithRange(std::string_view, std::uint64_t, std::uint64_t) override {
    reached.push_back("Data.subdata");
    return Data("cut");
  }
};

struct TinyUserDefaults : platform::UserDefaults {
  Reached& reached;
  explicit TinyUserDefaults(Reached& list) : reached(list) {}
  void setObjectForKey(const std::optional<Value>&, std::string_view) override { reached.push_back("UserDefaults.setObject"); }
  std::optional<Value> objectForKey(std::string_view) override {
    reached.push_back("UserDefaults.object");
    return Value(7);
  }
  void synchronize() override { reached.push_back("UserDefaults.synchronize"); }
};

struct TinyQueue : platform::DispatchQueue {
  Reached& reached;
  std::string name = "label";
  explicit TinyQueue(Reached& list) : reached(list) {}
  void async(Block block) override {
    reached.push_back("DispatchQueue.async");
    block();
  }
  void asyncAfter(double, Block block) override {
    reached.push_back("DispatchQueue.asyncAfter");
    block();
  }
  const std::string& label() const override { return name; }
};

struct TinyQueues : platform::DispatchQueues {
  Reached& reached;
  std::shared_ptr<TinyQueue> queue;
  explicit TinyQueues(Reached& list) : reached(list), queue(std::make_shared<TinyQueue>(list)) {}
  std::shared_ptr<platform::DispatchQueue> makeSerialQueue(std::string_view) override {
    return give("DispatchQueues.makeSerialQueue");
  }
  std::shared_ptr<platform::DispatchQueue> mainQueue() override { return give("DispatchQueues.mainQueue"); }
  std::shared_ptr<platform::DispatchQueue> globalBackgroundQueue() override { return give("DispatchQueues.globalBackgroundQueue"); }
  void setMainExecutor(Executor) override { reached.push_back("DispatchQueues.setMainExecutor"); }
  std::shared_ptr<platform::DispatchQueue> give(std::string name) {
    reached.push_back(std::move(name));
    return queue;
  }
};

struct TinyTask : platform::URLSessionTask {
  Reached& reached;
  platform::URLSession::CompletionHandler handler;
  TinyTask(Reached& list, platform::URLSession::CompletionHandler completion) : reached(list), handler(std::move(completion)) {}
  std::uint64_t taskIdentifier() const override {
    reached.push_back("URLSessionTask.taskIdentifier");
    return 7;
  }
  State state() const override {
    reached.push_back("URLSessionTask.state");
    return State::kSuspended;
  }
  void resume() override {
    reached.push_back("URLSessionTask.resume");
    if (!handler) return;
    const URL url = *URL::URLWithString("https://api.example.com/events");
    handler(Data("answer"), std::make_shared<platform::HTTPURLResponse>(url, 200, platform::HTTPHeaderFields()), std::nullopt);
  }
  void cancel() override { reached.push_back("URLSessionTask.cancel"); }
};

struct TinyURLSession : platform::URLSession {
  Reached& reached;
  explicit TinyURLSession(Reached& list) : reached(list) {}
  std::shared_ptr<platform::URLSessionTask> dataTaskWithRequestCompletionHandler(platform::URLRequest,
                                                                                 CompletionHandler handler) override {
    reached.push_back("URLSession.dataTask");
    return std::make_shared<TinyTask>(reached, std::move(handler));
  }
};

struct TinyDelegate : platform::URLSessionDelegate {
  Reached& reached;
  explicit TinyDelegate(Reached& list) : reached(list) {}
  void URLSessionTaskDidCompleteWithError(const platform::BackgroundURLSessionRef&, const platform::URLSessionTaskRef&,
                                          const std::optional<Error>&) override {
    reached.push_back("URLSessionDelegate.taskDidComplete");
  }
  void URLSessionDidBecomeInvalidWithError(const platform::BackgroundURLSessionRef&, const std::optional<Error>&) override {
    reached.push_back("URLSessionDelegate.didBecomeInvalid");
  }
  void URLSessionDidFinishEventsForBackgroundURLSession(const platform::BackgroundURLSessionRef&) override {
    reached.push_back("URLSessionDelegate.didFinishEvents");
  }
  void URLSessionDownloadTaskDidFinishDownloadingToURL(const platform::BackgroundURLSessionRef&, const platform::URLSessionTaskRef&,
                                                       const URL&) override {}
};

struct TinyBackgroundSession : platform::BackgroundURLSession {
  Reached& reached;
  platform::URLSessionConfiguration made =
      platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("session-1");
  explicit TinyBackgroundSession(Reached& list) : reached(list) {}
  const platform::URLSessionConfiguration& configuration() const override { return made; }
  platform::URLSessionTaskRef uploadTaskWithRequestFromFile(platform::URLRequest, const URL&) override {
    reached.push_back("BackgroundURLSession.uploadTask");
    return nullptr;
  }
  void invalidateAndCancel() override { reached.push_back("BackgroundURLSession.invalidateAndCancel"); }
  void getTasksWithCompletionHandler(TasksHandler handler) override {
    reached.push_back("BackgroundURLSession.getTasks");
    handler({}, {nullptr}, {});
  }
};

struct TinyBackgroundSessions : platform::BackgroundURLSessions {
  Reached& reached;
  std::shared_ptr<TinyBackgroundSession> session;
  std::shared_ptr<platform::URLSessionDelegate> delegate;
  explicit TinyBackgroundSessions(Reached& list) : reached(list), session(std::make_shared<TinyBackgroundSession>(list)) {}
  platform::BackgroundURLSessionRef sessionWithConfigurationDelegateDelegateQueue(
      const platform::URLSessionConfiguration&, std::shared_ptr<platform::URLSessionDelegate> given,
      std::shared_ptr<platform::DispatchQueue>) override {
    reached.push_back("BackgroundURLSessions.session");
    delegate = std::move(given);
    return session;
  }
  std::optional<std::string> identifierOfLaunch() override { return std::nullopt; }
  void notifyWhenEventsAreDelivered(const std::string&, std::function<void()>) override {}
  void goOnWithInterruptedTransfers() override {}
};

struct TinyBrowserOpener : platform::BrowserOpener {
  Reached& reached;
  explicit TinyBrowserOpener(Reached& list) : reached(list) {}
  void openURL(const URL&, Completion completion) override {
    reached.push_back("BrowserOpener.openURL");
    completion(true);
  }
};

struct TinyClock : platform::Clock {
  Reached& reached;
  explicit TinyClock(Reached& list) : reached(list) {}
  Date now() override {
    reached.push_back("Clock.now");
    return Date::dateWithTimeIntervalSince1970(7);
  }
};

struct TinySecureRandom : platform::SecureRandom {
  Reached& reached;
  explicit TinySecureRandom(Reached& list) : reached(list) {}
  void fill(std::span<std::byte> bytes) override {
    reached.push_back("SecureRandom.fill");
    for (std::byte& byte : bytes) byte = std::byte{7};
  }
};

struct TinyDigest : platform::Digest {
  Reached& reached;
  explicit TinyDigest(Reached& list) : reached(list) {}
  Data hash(Algorithm, std::initializer_list<std::string_view>) override {
    reached.push_back("Digest.hash");
    return Data("hash");
  }
  Data hmac(Algorithm, std::string_view, std::initializer_list<std::string_view>) override {
    reached.push_back("Digest.hmac");
    return Data("hmac");
  }
  bool constantTimeEqual(std::string_view, std::string_view) override {
    reached.push_back("Digest.constantTimeEqual");
    return true;
  }
};

struct TinyBundle : platform::Bundle {
  Reached& reached;
  explicit TinyBundle(Reached& list) : reached(list) {}
  std::optional<std::string> bundleIdentifier() override {
    reached.push_back("Bundle.bundleIdentifier");
    return "com.example.app";
  }
};

struct TinyApplication : platform::Application {
  Reached& reached;
  explicit TinyApplication(Reached& list) : reached(list) {}
  void setNetworkActivityIndicatorVisible(bool) override { reached.push_back("Application.setNetworkActivityIndicatorVisible"); }
  bool isNetworkActivityIndicatorVisible() override {
    reached.push_back("Application.isNetworkActivityIndicatorVisible");
    return true;
  }
};

struct TinySystemLog : platform::SystemLog {
  Reached& reached;
  explicit TinySystemLog(Reached& list) : reached(list) {}
  void log(std::string_view) override { reached.push_back("SystemLog.log"); }
};

// What a call came to, as text, so that one table can speak of all of them.
std::string text(const Data& data) { return std::string(data.bytes()); }
std::string text(bool value) { return value ? "true" : "false"; }
std::string text(std::uint64_t value) { return std::to_string(value); }
std::string text(const std::optional<std::string>& value) { return value.value_or("absent"); }
std::string text(const std::optional<Value>& value) { return value ? std::to_string(value->integerValue()) : "absent"; }
std::string text(const Value& value) { return std::to_string(value.integerValue()); }
std::string text(const URL& url) { return url.path(); }
std::string text(const platform::FileAttributes& attributes) { return std::to_string(attributes.fileSize); }
std::string text(const std::vector<std::string>& names) { return names.empty() ? "no names" : names.front(); }
std::string text(const std::shared_ptr<platform::FileHandle>& handle) { return handle ? "handle" : "no handle"; }
template <class T>
std::string text(const std::expected<T, Error>& result) {
  if (!result) return "error: " + result.error().localizedDescription();
  if constexpr (std::is_void_v<T>)
    return "done";
  else
    return text(*result);
}

/// A record of tiny services behind the decorators.
struct Faulty {
  std::shared_ptr<TinyBackgroundSessions> backgroundSessions;
  Reached reached;
  std::shared_ptr<FaultPlan> plan = std::make_shared<FaultPlan>();
  platform::Process process;
  std::optional<URL> a = URL::fileURLWithPath("/folder/a");
  std::optional<URL> b = URL::fileURLWithPath("/folder/b");
  std::string completed = "not completed";

  Faulty() {
    process.systemLog = std::make_shared<TinySystemLog>(reached);
    process.clock = std::make_shared<TinyClock>(reached);
    process.secureRandom = std::make_shared<TinySecureRandom>(reached);
    process.digest = std::make_shared<TinyDigest>(reached);
    process.data = std::make_shared<TinyDataService>(reached);
    process.json = std::make_shared<TinyJSON>(reached);
    process.bundle = std::make_shared<TinyBundle>(reached);
    process.fileManager = std::make_shared<TinyFileManager>(reached);
    process.userDefaults = std::make_shared<TinyUserDefaults>(reached);
    process.queues = std::make_shared<TinyQueues>(reached);
    process.application = std::make_shared<TinyApplication>(reached);
    process.urlSession = std::make_shared<TinyURLSession>(reached);
    backgroundSessions = std::make_shared<TinyBackgroundSessions>(reached);
    process.backgroundSessions = backgroundSessions;
    process.browserOpener = std::make_shared<TinyBrowserOpener>(reached);
    makeFaulty(process, plan);
  }

  platform::BackgroundURLSessionRef session() {
    return process.backgroundSessions->sessionWithConfigurationDelegateDelegateQueue(
        backgroundSessions->session->configuration(), std::make_shared<TinyDelegate>(reached), nullptr);
  }
  /// The session's delegate as the platform knows it, with the platform's session.
  std::string toldDelegate(void (*tell)(platform::URLSessionDelegate&, const platform::BackgroundURLSessionRef&)) {
    const auto made = session();
    tell(*backgroundSessions->delegate, backgroundSessions->session);
    return reached.back();
  }
  std::string listedTasks() {
    std::string listed = "not told";
    session()->getTasksWithCompletionHandler(
        [&](const auto&, const auto& uploads, const auto&) { listed = text(static_cast<std::uint64_t>(uploads.size())); });
    return listed;
  }

  std::string browsed() {
    std::string told = "not told";
    process.browserOpener->openURL(*URL::URLWithString("https://api.example.com/match"),
                                   [&](bool didOpen) { told = text(didOpen); });
    return told;
  }
  platform::FileManager& files() { return *process.fileManager; }
  std::shared_ptr<platform::FileHandle> handle() { return *files().openFileHandle(a, platform::FileManager::Access::kUpdating); }
  std::shared_ptr<platform::URLSessionTask> task() {
    platform::URLRequest request(URL::URLWithString("https://api.example.com/events"));
    return process.urlSession->dataTaskWithRequestCompletionHandler(
        std::move(request), [this](std::optional<Data> data, platform::HTTPURLResponseRef response, std::optional<Error> error) {
          completed = error ? "error: " + error->localizedDescription()
                            : (data ? text(*data) : "absent") + " " + std::to_string(platform::statusCode(response));
        });
  }
};

/// One operation: how a test calls it, what that gives, and what an empty outcome looks like.
struct Row {
  std::function<std::string(Faulty&)> call;
  std::string passed;
  std::string emptied{};
  std::string reachedAs{};  // how the inner service names it, when that differs
};

using Access = platform::FileManager::Access;
using Algorithm = platform::Digest::Algorithm;

const std::map<std::string_view, Row>& rows() {
  const auto done = [](auto call) {
    return [call](Faulty& f) {
      call(f);
      return std::string("done");
    };
  };
  static const std::map<std::string_view, Row> rows = {
      {"FileManager.fileExists", {[](Faulty& f) { return text(f.files().fileExistsAtPath("/folder/a")); }, "true", "false"}},
      {"FileManager.attributesOfItem", {[](Faulty& f) { return text(f.files().attributesOfItemAtPath("/folder/a")); }, "7"}},
      {"FileManager.contentsOfDirectory",
       {[](Faulty& f) { return text(f.files().contentsOfDirectoryAtPath("/folder")); }, "entry", "no names"}},
      {"FileManager.copyItem", {[](Faulty& f) { return text(f.files().copyItemAtURLToURL(f.a, f.b)); }, "done"}},
      {"FileManager.linkItem", {[](Faulty& f) { return text(f.files().linkItemAtURLToURL(f.a, f.b)); }, "done"}},
      {"FileManager.moveItem", {[](Faulty& f) { return text(f.files().moveItemAtURLToURL(f.a, f.b)); }, "done"}},
      {"FileManager.removeItem", {[](Faulty& f) { return text(f.files().removeItemAtURL(f.a)); }, "done"}},
      {"FileManager.removeItemAtPath", {[](Faulty& f) { return text(f.files().removeItemAtPath("/folder/a")); }, "done"}},
      {"FileManager.replaceItem", {[](Faulty& f) { return text(f.files().replaceItemAtURLWithItemAtURL(f.a, f.b)); }, "/folder/a"}},
      {"FileManager.createDirectory", {[](Faulty& f) { return text(f.files().createDirectoryAtURL(f.a)); }, "done"}},
      {"FileManager.applicationSupportDirectory",
       {[](Faulty& f) { return text(f.files().applicationSupportDirectory()); }, "/support"}},
      {"FileManager.temporaryDirectory", {[](Faulty& f) { return text(f.files().temporaryDirectory()); }, "/temporary"}},
      {"FileManager.openForReading", {[](Faulty& f) { return text(f.files().openFileHandle(f.a, Access::kReading)); }, "handle"}},
      {"FileManager.openForWriting", {[](Faulty& f) { return text(f.files().openFileHandle(f.a, Access::kWriting)); }, "handle"}},
      {"FileManager.openForUpdating", {[](Faulty& f) { return text(f.files().openFileHandle(f.a, Access::kUpdating)); }, "handle"}},
      {"FileManager.writeDataWithoutOverwriting",
       {[](Faulty& f) { return text(f.files().writeDataWithoutOverwriting(Data("bytes"), f.a)); }, "done", "",
        "FileManager.writeDataWithoutOverwriting bytes"}},
      {"FileManager.contentsOfURL", {[](Faulty& f) { return text(f.files().contentsOfURL(f.a)); }, "content", ""}},
      {"FileHandle.seekToEndOfFile", {[](Faulty& f) { return text(f.handle()->seekToEndOfFile()); }, "7", "0"}},
      {"FileHandle.seekToFileOffset", {done([](Faulty& f) { f.handle()->seekToFileOffset(9); }), "done"}},
      {"FileHandle.readDataOfLength", {[](Faulty& f) { return text(f.handle()->readDataOfLength(9)); }, "read", ""}},
      {"FileHandle.readDataToEndOfFile", {[](Faulty& f) { return text(f.handle()->readDataToEndOfFile()); }, "read", ""}},
      {"FileHandle.writeData",
       {done([](Faulty& f) { f.handle()->writeData(Data("bytes")); }), "done", "", "FileHandle.writeData bytes"}},
      {"FileHandle.synchronizeFile", {done([](Faulty& f) { f.handle()->synchronizeFile(); }), "done"}},
      {"FileHandle.closeFile", {done([](Faulty& f) { f.handle()->closeFile(); }), "done"}},
      {"JSON.write", {[](Faulty& f) { return text(f.process.json->write(Value(platform::Dictionary()))); }, "{}", ""}},
      {"JSON.read", {[](Faulty& f) { return text(f.process.json->read(Data("7"))); }, "7"}},
      {"Data.subdata", {[](Faulty& f) { return text(f.process.data->subdataWithRange("whole", 1, 2)); }, "cut", ""}},
      {"UserDefaults.setObject",
       {done([](Faulty& f) { f.process.userDefaults->setObjectForKey(Value(1), "key"); }), "done", "done"}},
      {"UserDefaults.object", {[](Faulty& f) { return text(f.process.userDefaults->objectForKey("key")); }, "7", "absent"}},
      {"UserDefaults.synchronize", {done([](Faulty& f) { f.process.userDefaults->synchronize(); }), "done", "done"}},
      {"DispatchQueues.makeSerialQueue", {[](Faulty& f) { return f.process.queues->makeSerialQueue("new")->label(); }, "label"}},
      {"DispatchQueues.mainQueue", {[](Faulty& f) { return f.process.queues->mainQueue()->label(); }, "label"}},
      {"DispatchQueues.globalBackgroundQueue",
       {[](Faulty& f) { return f.process.queues->globalBackgroundQueue()->label(); }, "label"}},
      {"DispatchQueues.setMainExecutor", {done([](Faulty& f) { f.process.queues->setMainExecutor(nullptr); }), "done"}},
      {"DispatchQueue.async",
       {[](Faulty& f) {
          std::string ran = "not run";
          f.process.queues->mainQueue()->async([&] { ran = "ran"; });
          return ran;
        },
        "ran", "not run"}},
      {"DispatchQueue.asyncAfter",
       {[](Faulty& f) {
          std::string ran = "not run";
          f.process.queues->mainQueue()->asyncAfter(1, [&] { ran = "ran"; });
          return ran;
        },
        "ran", "not run"}},
      {"DispatchQueue.label",
       {[](Faulty& f) { return f.process.queues->mainQueue()->label(); }, "label", "", "DispatchQueues.mainQueue"}},
      {"URLSession.dataTask", {[](Faulty& f) { return std::string(f.task() ? "task" : "no task"); }, "task"}},
      {"URLSession.completion",
       {[](Faulty& f) {
          f.task()->resume();
          return f.completed;
        },
        "answer 200", "absent 200", "URLSessionTask.resume"}},
      {"URLSessionTask.taskIdentifier", {[](Faulty& f) { return text(f.task()->taskIdentifier()); }, "7"}},
      {"URLSessionTask.state", {[](Faulty& f) { return text(static_cast<std::uint64_t>(f.task()->state())); }, "1"}},
      {"URLSessionTask.resume",
       {[](Faulty& f) {
          f.task()->resume();
          return f.completed;
        },
        "answer 200", "not completed"}},
      {"URLSessionTask.cancel", {done([](Faulty& f) { f.task()->cancel(); }), "done", "done"}},
      {"BackgroundURLSessions.session", {[](Faulty& f) { return f.session()->configuration().identifier(); }, "session-1", ""}},
      {"BackgroundURLSession.uploadTask",
       {[](Faulty& f) {
          return text(f.session()->uploadTaskWithRequestFromFile(platform::URLRequest(std::nullopt), *f.a) != nullptr);
        },
        "true", ""}},
      {"BackgroundURLSession.invalidateAndCancel", {done([](Faulty& f) { f.session()->invalidateAndCancel(); }), "done", "done"}},
      {"BackgroundURLSession.getTasks", {[](Faulty& f) { return f.listedTasks(); }, "1", "not told"}},
      {"BackgroundURLSession.tasks", {[](Faulty& f) { return f.listedTasks(); }, "1", "not told", "BackgroundURLSession.getTasks"}},
      {"URLSessionDelegate.taskDidComplete",
       {[](Faulty& f) {
          return f.toldDelegate([](auto& delegate, const auto& session) {
            delegate.URLSessionTaskDidCompleteWithError(session, nullptr, std::nullopt);
          });
        },
        "URLSessionDelegate.taskDidComplete", "BackgroundURLSessions.session"}},
      {"URLSessionDelegate.didBecomeInvalid",
       {[](Faulty& f) {
          return f.toldDelegate(
              [](auto& delegate, const auto& session) { delegate.URLSessionDidBecomeInvalidWithError(session, std::nullopt); });
        },
        "URLSessionDelegate.didBecomeInvalid", "BackgroundURLSessions.session"}},
      {"URLSessionDelegate.didFinishEvents",
       {[](Faulty& f) {
          return f.toldDelegate(
              [](auto& delegate, const auto& session) { delegate.URLSessionDidFinishEventsForBackgroundURLSession(session); });
        },
        "URLSessionDelegate.didFinishEvents", "BackgroundURLSessions.session"}},
      {"BrowserOpener.openURL", {[](Faulty& f) { return f.browsed(); }, "true", "not told"}},
      {"BrowserOpener.completion", {[](Faulty& f) { return f.browsed(); }, "true", "not told", "BrowserOpener.openURL"}},
      {"Clock.now",
       {[](Faulty& f) { return text(static_cast<std::uint64_t>(f.process.clock->now().timeIntervalSince1970())); }, "7", "0"}},
      {"SecureRandom.fill",
       {[](Faulty& f) {
          std::byte bytes[1] = {std::byte{9}};
          f.process.secureRandom->fill(bytes);
          return text(std::to_integer<std::uint64_t>(bytes[0]));
        },
        "7", "0"}},
      {"Digest.hash", {[](Faulty& f) { return text(f.process.digest->hash(Algorithm::kSHA256, {"a", "b"})); }, "hash", ""}},
      {"Digest.hmac", {[](Faulty& f) { return text(f.process.digest->hmac(Algorithm::kSHA256, "key", {"a"})); }, "hmac", ""}},
      {"Digest.constantTimeEqual",
       {[](Faulty& f) { return text(f.process.digest->constantTimeEqual("a", "b")); }, "true", "false"}},
      {"Bundle.bundleIdentifier",
       {[](Faulty& f) { return text(f.process.bundle->bundleIdentifier()); }, "com.example.app", "absent"}},
      {"Application.setNetworkActivityIndicatorVisible",
       {done([](Faulty& f) { f.process.application->setNetworkActivityIndicatorVisible(true); }), "done", "done"}},
      {"Application.isNetworkActivityIndicatorVisible",
       {[](Faulty& f) { return text(f.process.application->isNetworkActivityIndicatorVisible()); }, "true", "false"}},
      {"SystemLog.log", {done([](Faulty& f) { f.process.systemLog->log("message"); }), "done", "done"}},
  };
  return rows;
}

class EveryOperation : public testing::TestWithParam<Operation> {
 protected:
  const Operation& operation() { return GetParam(); }
  const Row& row() { return rows().at(operation().name); }
  std::string reachedName() { return row().reachedAs.empty() ? std::string(operation().name) : row().reachedAs; }
  void expectNotReached() {
    for (const std::string& name : faulty.reached) EXPECT_FALSE(name.starts_with(operation().name)) << name;
  }
  bool wasReached() { return std::ranges::count(faulty.reached, reachedName()) == 1; }
  Faulty faulty;
};

TEST_P(EveryOperation, PassesAndIsWrittenDownWhenNothingIsPlanned) {
  ASSERT_TRUE(rows().contains(operation().name)) << "the table lacks an operation";
  EXPECT_EQ(row().call(faulty), row().passed);
  EXPECT_TRUE(wasReached());
  EXPECT_GE(faulty.plan->count(operation().name), 1u);
}

TEST_P(EveryOperation, CanBeMadeToRaiseBeforeItHasAnyEffect) {
  faulty.plan->raise(operation().name, nth(1), platform::Exception("Name", "reason"));
  try {
    row().call(faulty);
    FAIL() << "did not raise";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.reason(), "reason");
  }
  expectNotReached();
  EXPECT_THAT(faulty.plan->unused(), IsEmpty());
}

TEST_P(EveryOperation, CanBeMadeToThrowAStandardException) {
  faulty.plan->throwStandard(operation().name, nth(1));
  EXPECT_THROW(row().call(faulty), std::runtime_error);
}

TEST_P(EveryOperation, CanBeMadeToFailWhereItHasAnError) {
  if (!operation().fails) {
    EXPECT_THROW(faulty.plan->fail(operation().name, nth(1), someError()), std::invalid_argument);
    return;
  }
  faulty.plan->fail(operation().name, nth(1), someError("as planned"));
  EXPECT_EQ(row().call(faulty), "error: as planned");
  expectNotReached();
}

TEST_P(EveryOperation, CanBeMadeToComeBackWithNothingWhereThatIsPossible) {
  if (!operation().yieldsEmpty) {
    EXPECT_THROW(faulty.plan->yieldEmpty(operation().name, nth(1)), std::invalid_argument);
    return;
  }
  faulty.plan->yieldEmpty(operation().name, nth(1));
  EXPECT_EQ(row().call(faulty), row().emptied);
  expectNotReached();
}

TEST_P(EveryOperation, RunsTheHooksBeforeAndAfterIt) {
  std::vector<std::string> order;
  faulty.plan->before(operation().name, nth(1), [&] { order.push_back(faulty.plan->calls().back().operation); });
  faulty.plan->after(operation().name, nth(1), [&] { order.push_back("after"); });
  EXPECT_EQ(row().call(faulty), row().passed);
  EXPECT_THAT(order, ElementsAre(std::string(operation().name), "after"));
}

INSTANTIATE_TEST_SUITE_P(Operations, EveryOperation, testing::ValuesIn(allOperations().begin(), allOperations().end()),
                         [](const testing::TestParamInfo<Operation>& parameter) {
                           std::string name(parameter.param.name);
                           std::ranges::replace(name, '.', '_');
                           return name;
                         });

TEST(FaultyServices, TheTableHasNoOperationThatTheListLacks) { EXPECT_EQ(rows().size(), allOperations().size()); }

TEST(FaultyServices, AShortWriteLeavesItsFirstBytesAndRaisesAsAFullVolumeDoes) {
  Faulty faulty;
  faulty.plan->writeShort("FileHandle.writeData", nth(1), 3);
  try {
    faulty.handle()->writeData(Data("bytes"));
    FAIL() << "did not raise";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSFileHandleOperationException");
    EXPECT_EQ(exception.reason(), "*** -[NSConcreteFileHandle writeData:]: No space left on device");
  }
  EXPECT_EQ(faulty.reached.back(), "FileHandle.writeData byt");
}

TEST(FaultyServices, AShortCopyLeavesTheHeadOfTheSourceAndFails) {
  Faulty faulty;
  faulty.plan->writeShort("FileManager.copyItem", nth(1), 3);
  const auto copied = faulty.files().copyItemAtURLToURL(faulty.a, faulty.b);
  ASSERT_FALSE(copied);
  EXPECT_EQ(copied.error().code(), platform::kFileWriteOutOfSpace);
  EXPECT_THAT(faulty.reached, ElementsAre("FileManager.contentsOfURL", "FileManager.writeDataWithoutOverwriting con"));
}

TEST(FaultyServices, AShortNewFileHoldsItsHeadAndFails) {
  Faulty faulty;
  faulty.plan->writeShort("FileManager.writeDataWithoutOverwriting", nth(1), 2);
  const auto written = faulty.files().writeDataWithoutOverwriting(Data("bytes"), faulty.a);
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().code(), platform::kFileWriteOutOfSpace);
  EXPECT_THAT(faulty.reached, ElementsAre("FileManager.writeDataWithoutOverwriting by"));
}

TEST(FaultyServices, ArgumentsAreShortTexts) {
  Faulty faulty;
  (void)faulty.files().copyItemAtURLToURL(faulty.a, std::nullopt);
  faulty.handle()->readDataOfLength(4096);
  faulty.task();
  EXPECT_THAT(faulty.plan->callTexts(),
              ElementsAre("FileManager.copyItem a to (null)", "FileManager.openForUpdating a", "FileHandle.readDataOfLength a 4096",
                          "URLSession.dataTask GET https://api.example.com/events"));
}

TEST(FaultyServices, TheMainAndTheBackgroundQueueKeepTheirIdentity) {
  Faulty faulty;
  EXPECT_EQ(faulty.process.queues->mainQueue(), faulty.process.queues->mainQueue());
  EXPECT_EQ(faulty.process.queues->globalBackgroundQueue(), faulty.process.queues->globalBackgroundQueue());
}

TEST(FaultyServices, WhatOneServiceAsksOfAnotherPassesUnseen) {
  struct BundleThatReadsTheClock : platform::Bundle {
    platform::Process& process;
    explicit BundleThatReadsTheClock(platform::Process& record) : process(record) {}
    std::optional<std::string> bundleIdentifier() override { return text(process.clock->now() == Date()); }
  };
  Faulty faulty;
  faulty.process.bundle =
      test::faulty(std::shared_ptr<platform::Bundle>(std::make_shared<BundleThatReadsTheClock>(faulty.process)), faulty.plan);
  faulty.plan->yieldEmpty("Clock.now", nth(1));
  EXPECT_EQ(faulty.process.bundle->bundleIdentifier(), "false");
  EXPECT_THAT(faulty.plan->callTexts(), ElementsAre("Bundle.bundleIdentifier"));
  EXPECT_EQ(faulty.process.clock->now(), Date()) << "the fault is for the next call from outside";
}

TEST(FaultyServices, WhatATestDoesUnseenPassesUnseen) {
  Faulty faulty;
  faulty.plan->yieldEmpty("Clock.now", nth(1));
  {
    const Unseen unseen;
    EXPECT_NE(faulty.process.clock->now(), Date());
  }
  EXPECT_THAT(faulty.plan->callTexts(), IsEmpty());
  EXPECT_EQ(faulty.process.clock->now(), Date());
}

TEST(FaultyServices, WhatACompletionHandlerAsksIsSeen) {
  Faulty faulty;
  auto task = faulty.process.urlSession->dataTaskWithRequestCompletionHandler(
      platform::URLRequest(std::nullopt), [&](auto, auto, auto) { faulty.process.clock->now(); });
  task->resume();
  EXPECT_EQ(faulty.plan->count("Clock.now"), 1u);
}

TEST(FaultyServices, ATaskWithoutHandlerStaysWithoutOne) {
  Faulty faulty;
  auto task = faulty.process.urlSession->dataTaskWithRequestCompletionHandler(platform::URLRequest(std::nullopt), nullptr);
  task->resume();
  EXPECT_EQ(faulty.plan->count("URLSession.completion"), 0u);
}

}  // namespace
}  // namespace test
