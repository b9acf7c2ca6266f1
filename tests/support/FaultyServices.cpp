// The decorators, one a service; each operation is one call of perform().
#include "support/FaultyServices.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace test {

using platform::Data;
using platform::Error;
using platform::URL;
using platform::Value;

namespace {

using Plan = std::shared_ptr<FaultPlan>;

template <class T>
constexpr bool kIsExpected = false;
template <class T>
constexpr bool kIsExpected<std::expected<T, Error>> = true;

template <class Result>
Result empty() {
  if constexpr (!std::is_void_v<Result> && std::is_default_constructible_v<Result>)
    return Result();
  else if constexpr (!std::is_void_v<Result>)
    throw std::logic_error("FaultyServices: there is no empty result of this type");
}

/// A call that cannot stop in the middle.
struct NoShortWrite {};

// How deep this thread is in inner services. What a service asks of another, such as a file manager of the clock, is none of the
// calls that a test means: it is neither written down nor spoilt.
thread_local int serviceDepth = 0;

class DepthScope {
 public:
  explicit DepthScope(int depth) : before_(std::exchange(serviceDepth, depth)) {}
  ~DepthScope() { serviceDepth = before_; }
  DepthScope(const DepthScope&) = delete;
  DepthScope& operator=(const DepthScope&) = delete;

 private:
  int before_;
};

/// Makes one call as the plan has it: `real` is the inner call, `shortWrite` the inner call cut off after that many bytes.
template <class Real, class ShortWrite = NoShortWrite>
auto perform(FaultPlan& plan, std::string_view operation, std::string argument, Real real, ShortWrite shortWrite = {}) {
  using Result = std::invoke_result_t<Real>;
  if (serviceDepth > 0) return real();
  const FaultPlan::Fate fate = plan.begin(operation, std::move(argument));
  const auto outcome = [&]() -> Result {
    const DepthScope inside(serviceDepth + 1);
    if constexpr (kIsExpected<Result>)
      if (fate.error) return std::unexpected(*fate.error);
    if constexpr (!std::is_same_v<ShortWrite, NoShortWrite>)
      if (fate.shortBytes) return shortWrite(*fate.shortBytes);
    if (fate.empty) return empty<Result>();
    return real();
  };
  const auto runAfter = [&] {
    for (const auto& hook : fate.after) hook();
  };
  if constexpr (std::is_void_v<Result>) {
    outcome();
    runAfter();
  } else {
    Result result = outcome();
    runAfter();
    return result;
  }
}

std::string lastComponent(std::string_view path) { return std::string(path.substr(path.find_last_of('/') + 1)); }
std::string nameOf(const std::optional<URL>& url) { return url ? url->lastPathComponent() : "(null)"; }
std::string names(const std::optional<URL>& from, const std::optional<URL>& to) { return nameOf(from) + " to " + nameOf(to); }

class FaultyFileHandle final : public platform::FileHandle {
 public:
  FaultyFileHandle(std::shared_ptr<platform::FileHandle> inner, Plan plan, std::string name)
      : inner_(std::move(inner)), plan_(std::move(plan)), name_(std::move(name)) {}

  std::uint64_t seekToEndOfFile() override {
    return perform(*plan_, "FileHandle.seekToEndOfFile", name_, [&] { return inner_->seekToEndOfFile(); });
  }
  void seekToFileOffset(std::uint64_t offset) override {
    perform(*plan_, "FileHandle.seekToFileOffset", with(offset), [&] { inner_->seekToFileOffset(offset); });
  }
  Data readDataOfLength(std::uint64_t length) override {
    return perform(*plan_, "FileHandle.readDataOfLength", with(length), [&] { return inner_->readDataOfLength(length); });
  }
  Data readDataToEndOfFile() override {
    return perform(*plan_, "FileHandle.readDataToEndOfFile", name_, [&] { return inner_->readDataToEndOfFile(); });
  }
  void writeData(const Data& data) override {
    perform(
        *plan_, "FileHandle.writeData", with(data.length()), [&] { inner_->writeData(data); },
        [&](std::size_t bytes) {
          inner_->writeData(Data(data.bytes().substr(0, bytes)));
          throw outOfSpaceException();
        });
  }
  void synchronizeFile() override {
    perform(*plan_, "FileHandle.synchronizeFile", name_, [&] { inner_->synchronizeFile(); });
  }
  void closeFile() override {
    perform(*plan_, "FileHandle.closeFile", name_, [&] { inner_->closeFile(); });
  }

 private:
  std::string with(std::uint64_t number) const { return name_ + " " + std::to_string(number); }

  std::shared_ptr<platform::FileHandle> inner_;
  Plan plan_;
  std::string name_;
};

class FaultyFileManager final : public platform::FileManager {
 public:
  FaultyFileManager(std::shared_ptr<platform::FileManager> inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) {}

  bool fileExistsAtPath(std::string_view path) override {
    return perform(*plan_, "FileManager.fileExists", lastComponent(path), [&] { return inner_->fileExistsAtPath(path); });
  }
  std::expected<platform::FileAttributes, Error> attributesOfItemAtPath(std::string_view path) override {
    return perform(*plan_, "FileManager.attributesOfItem", lastComponent(path),
                   [&] { return inner_->attributesOfItemAtPath(path); });
  }
  std::expected<std::vector<std::string>, Error> contentsOfDirectoryAtPath(std::string_view path) override {
    return perform(*plan_, "FileManager.contentsOfDirectory", lastComponent(path),
                   [&] { return inner_->contentsOfDirectoryAtPath(path); });
  }
  std::expected<void, Error> copyItemAtURLToURL(const std::optional<URL>& source, const std::optional<URL>& target) override {
    return perform(
        *plan_, "FileManager.copyItem", names(source, target), [&] { return inner_->copyItemAtURLToURL(source, target); },
        [&](std::size_t bytes) -> std::expected<void, Error> {
          const auto whole = inner_->contentsOfURL(source);
          if (!whole) return std::unexpected(whole.error());
          return writeHead(*whole, bytes, target);
        });
  }
  std::expected<void, Error> linkItemAtURLToURL(const std::optional<URL>& source, const std::optional<URL>& target) override {
    return perform(*plan_, "FileManager.linkItem", names(source, target),
                   [&] { return inner_->linkItemAtURLToURL(source, target); });
  }
  std::expected<void, Error> moveItemAtURLToURL(const std::optional<URL>& source, const std::optional<URL>& target) override {
    return perform(*plan_, "FileManager.moveItem", names(source, target),
                   [&] { return inner_->moveItemAtURLToURL(source, target); });
  }
  std::expected<void, Error> removeItemAtURL(const std::optional<URL>& url) override {
    return perform(*plan_, "FileManager.removeItem", nameOf(url), [&] { return inner_->removeItemAtURL(url); });
  }
  std::expected<void, Error> removeItemAtPath(std::string_view path) override {
    return perform(*plan_, "FileManager.removeItemAtPath", lastComponent(path), [&] { return inner_->removeItemAtPath(path); });
  }
  std::expected<URL, Error> replaceItemAtURLWithItemAtURL(const std::optional<URL>& original,
                                                          const std::optional<URL>& newItem) override {
    return perform(*plan_, "FileManager.replaceItem", nameOf(original) + " with " + nameOf(newItem),
                   [&] { return inner_->replaceItemAtURLWithItemAtURL(original, newItem); });
  }
  std::expected<void, Error> createDirectoryAtURL(const std::optional<URL>& url) override {
    return perform(*plan_, "FileManager.createDirectory", nameOf(url), [&] { return inner_->createDirectoryAtURL(url); });
  }
  std::expected<URL, Error> applicationSupportDirectory() override {
    return perform(*plan_, "FileManager.applicationSupportDirectory", "", [&] { return inner_->applicationSupportDirectory(); });
  }
  std::expected<URL, Error> temporaryDirectory() override {
    return perform(*plan_, "FileManager.temporaryDirectory", "", [&] { return inner_->temporaryDirectory(); });
  }
  std::expected<std::shared_ptr<platform::FileHandle>, Error> openFileHandle(const std::optional<URL>& url,
                                                                             Access access) override {
    auto opened = perform(*plan_, openingName(access), nameOf(url), [&] { return inner_->openFileHandle(url, access); });
    if (opened && *opened) *opened = std::make_shared<FaultyFileHandle>(*std::move(opened), plan_, nameOf(url));
    return opened;
  }
  std::expected<void, Error> writeDataWithoutOverwriting(const Data& data, const std::optional<URL>& url) override {
    return perform(
        *plan_, "FileManager.writeDataWithoutOverwriting", nameOf(url) + " " + std::to_string(data.length()),
        [&] { return inner_->writeDataWithoutOverwriting(data, url); },
        [&](std::size_t bytes) { return writeHead(data, bytes, url); });
  }
  std::expected<Data, Error> contentsOfURL(const std::optional<URL>& url) override {
    return perform(*plan_, "FileManager.contentsOfURL", nameOf(url), [&] { return inner_->contentsOfURL(url); });
  }

 private:
  static std::string_view openingName(Access access) {
    switch (access) {
      case Access::kReading:
        return "FileManager.openForReading";
      case Access::kWriting:
        return "FileManager.openForWriting";
      case Access::kUpdating:
        return "FileManager.openForUpdating";
    }
    throw std::logic_error("FaultyServices: no such access");
  }

  /// Leaves a new file that holds the first bytes only, and fails.
  std::expected<void, Error> writeHead(const Data& whole, std::size_t bytes, const std::optional<URL>& target) {
    const auto written = inner_->writeDataWithoutOverwriting(Data(whole.bytes().substr(0, bytes)), target);
    return std::unexpected(written ? outOfSpaceError() : written.error());
  }

  std::shared_ptr<platform::FileManager> inner_;
  Plan plan_;
};

class FaultyJSONSerialization final : public platform::JSONSerialization {
 public:
  FaultyJSONSerialization(std::shared_ptr<platform::JSONSerialization> inner, Plan plan)
      : inner_(std::move(inner)), plan_(std::move(plan)) {}

  std::expected<Data, Error> write(const Value& object) override {
    return perform(*plan_, "JSON.write", "", [&] { return inner_->write(object); });
  }
  std::expected<Value, Error> read(const Data& data) override {
    return perform(*plan_, "JSON.read", std::to_string(data.length()), [&] { return inner_->read(data); });
  }

 private:
  std::shared_ptr<platform::JSONSerialization> inner_;
  Plan plan_;
};

class FaultyDataService final : public platform::DataService {
 public:
  FaultyDataService(std::shared_ptr<platform::DataService> inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) {}

  Data subdataWithRange(std::string_view whole, std::uint64_t location, std::uint64_t length) override {
    return perform(*plan_, "Data.subdata", std::to_string(location) + " " + std::to_string(length),
                   [&] { return inner_->subdataWithRange(whole, location, length); });
  }

 private:
  std::shared_ptr<platform::DataService> inner_;
  Plan plan_;
};

class FaultyUserDefaults final : public platform::UserDefaults {
 public:
  FaultyUserDefaults(std::shared_ptr<platform::UserDefaults> inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) {}

  void setObjectForKey(const std::optional<Value>& value, std::string_view key) override {
    perform(*plan_, "UserDefaults.setObject", std::string(key), [&] { inner_->setObjectForKey(value, key); });
  }
  std::optional<Value> objectForKey(std::string_view key) override {
    return perform(*plan_, "UserDefaults.object", std::string(key), [&] { return inner_->objectForKey(key); });
  }
  void synchronize() override {
    perform(*plan_, "UserDefaults.synchronize", "", [&] { inner_->synchronize(); });
  }

 private:
  std::shared_ptr<platform::UserDefaults> inner_;
  Plan plan_;
};

class FaultyDispatchQueue final : public platform::DispatchQueue {
 public:
  FaultyDispatchQueue(std::shared_ptr<platform::DispatchQueue> inner, Plan plan)
      : inner_(std::move(inner)), plan_(std::move(plan)) {}

  void async(Block block) override {
    perform(*plan_, "DispatchQueue.async", inner_->label(), [&] { inner_->async(std::move(block)); });
  }
  void asyncAfter(double seconds, Block block) override {
    perform(*plan_, "DispatchQueue.asyncAfter", inner_->label(), [&] { inner_->asyncAfter(seconds, std::move(block)); });
  }
  const std::string& label() const override {
    return *perform(*plan_, "DispatchQueue.label", inner_->label(), [&] { return &inner_->label(); });
  }

  const std::shared_ptr<platform::DispatchQueue>& inner() const { return inner_; }

 private:
  std::shared_ptr<platform::DispatchQueue> inner_;
  Plan plan_;
};

class FaultyDispatchQueues final : public platform::DispatchQueues {
 public:
  FaultyDispatchQueues(std::shared_ptr<platform::DispatchQueues> inner, Plan plan)
      : inner_(std::move(inner)), plan_(std::move(plan)) {}

  std::shared_ptr<platform::DispatchQueue> makeSerialQueue(std::string_view label) override {
    return std::make_shared<FaultyDispatchQueue>(
        perform(*plan_, "DispatchQueues.makeSerialQueue", std::string(label), [&] { return inner_->makeSerialQueue(label); }),
        plan_);
  }
  std::shared_ptr<platform::DispatchQueue> mainQueue() override {
    return wrapped(main_, perform(*plan_, "DispatchQueues.mainQueue", "", [&] { return inner_->mainQueue(); }));
  }
  std::shared_ptr<platform::DispatchQueue> globalBackgroundQueue() override {
    return wrapped(background_,
                   perform(*plan_, "DispatchQueues.globalBackgroundQueue", "", [&] { return inner_->globalBackgroundQueue(); }));
  }
  void setMainExecutor(Executor executor) override {
    perform(*plan_, "DispatchQueues.setMainExecutor", "", [&] { inner_->setMainExecutor(std::move(executor)); });
  }

 private:
  /// One decorator for one queue, so that the same queue is the same object.
  std::shared_ptr<platform::DispatchQueue> wrapped(std::shared_ptr<FaultyDispatchQueue>& kept,
                                                   std::shared_ptr<platform::DispatchQueue> queue) {
    std::lock_guard lock(mutex_);
    if (!kept || kept->inner() != queue) kept = std::make_shared<FaultyDispatchQueue>(std::move(queue), plan_);
    return kept;
  }

  std::shared_ptr<platform::DispatchQueues> inner_;
  Plan plan_;
  std::mutex mutex_;
  std::shared_ptr<FaultyDispatchQueue> main_;
  std::shared_ptr<FaultyDispatchQueue> background_;
};

class FaultyURLSessionTask final : public platform::URLSessionTask {
 public:
  FaultyURLSessionTask(std::shared_ptr<platform::URLSessionTask> inner, Plan plan)
      : inner_(std::move(inner)), plan_(std::move(plan)) {}

  std::uint64_t taskIdentifier() const override {
    return perform(*plan_, "URLSessionTask.taskIdentifier", "", [&] { return inner_->taskIdentifier(); });
  }
  State state() const override {
    return perform(*plan_, "URLSessionTask.state", "", [&] { return inner_->state(); });
  }
  void resume() override {
    perform(*plan_, "URLSessionTask.resume", "", [&] { inner_->resume(); });
  }
  void cancel() override {
    perform(*plan_, "URLSessionTask.cancel", "", [&] { inner_->cancel(); });
  }

 private:
  std::shared_ptr<platform::URLSessionTask> inner_;
  Plan plan_;
};

class FaultyURLSession final : public platform::URLSession {
 public:
  FaultyURLSession(std::shared_ptr<platform::URLSession> inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) {}

  std::shared_ptr<platform::URLSessionTask> dataTaskWithRequestCompletionHandler(platform::URLRequest request,
                                                                                 CompletionHandler handler) override {
    const std::string text = request.HTTPMethod() + " " + (request.URL() ? request.URL()->absoluteString() : "(null)");
    auto task = perform(*plan_, "URLSession.dataTask", text, [&] {
      return inner_->dataTaskWithRequestCompletionHandler(std::move(request), handler ? spoilt(std::move(handler), text) : nullptr);
    });
    return std::make_shared<FaultyURLSessionTask>(std::move(task), plan_);
  }

 private:
  /// The handler, given an error instead of the outcome, or an absent body, as the plan has it.
  CompletionHandler spoilt(CompletionHandler handler, std::string text) {
    return [plan = plan_, handler = std::move(handler), text = std::move(text)](
               std::optional<Data> data, platform::HTTPURLResponseRef response, std::optional<Error> error) mutable {
      const DepthScope outside(0);
      const FaultPlan::Fate fate = plan->begin("URLSession.completion", text);
      if (fate.error)
        handler(std::nullopt, nullptr, fate.error);
      else if (fate.empty)
        handler(std::nullopt, std::move(response), std::move(error));
      else
        handler(std::move(data), std::move(response), std::move(error));
      for (const auto& hook : fate.after) hook();
    };
  }

  std::shared_ptr<platform::URLSession> inner_;
  Plan plan_;
};

using platform::BackgroundURLSessionRef;
using platform::URLSessionTaskRef;

/// A session of the platform's, and the one place where what its delegate and its handlers are given is wrapped.
class FaultyBackgroundURLSession final : public platform::BackgroundURLSession,
                                         public std::enable_shared_from_this<FaultyBackgroundURLSession> {
 public:
  FaultyBackgroundURLSession(BackgroundURLSessionRef inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) {}

  const platform::URLSessionConfiguration& configuration() const override { return inner_->configuration(); }
  URLSessionTaskRef uploadTaskWithRequestFromFile(platform::URLRequest request, const URL& file) override {
    const std::string text = request.HTTPMethod() + " " + (request.URL() ? request.URL()->absoluteString() : "(null)");
    return wrapped(perform(*plan_, "BackgroundURLSession.uploadTask", text,
                           [&] { return inner_->uploadTaskWithRequestFromFile(std::move(request), file); }));
  }
  void invalidateAndCancel() override {
    perform(*plan_, "BackgroundURLSession.invalidateAndCancel", identifier(), [&] { inner_->invalidateAndCancel(); });
  }
  void getTasksWithCompletionHandler(TasksHandler handler) override {
    perform(*plan_, "BackgroundURLSession.getTasks", identifier(),
            [&] { inner_->getTasksWithCompletionHandler(handler ? spoilt(std::move(handler)) : nullptr); });
  }

  const BackgroundURLSessionRef& inner() const { return inner_; }
  URLSessionTaskRef wrapped(URLSessionTaskRef task) const { return std::make_shared<FaultyURLSessionTask>(std::move(task), plan_); }

 private:
  const std::string& identifier() const { return inner_->configuration().identifier(); }

  TasksHandler spoilt(TasksHandler handler) {
    return [self = shared_from_this(), handler = std::move(handler)](auto data, auto uploads, auto downloads) {
      const DepthScope outside(0);
      perform(*self->plan_, "BackgroundURLSession.tasks", std::to_string(uploads.size()), [&] {
        const DepthScope inHandler(0);
        for (URLSessionTaskRef& task : uploads) task = self->wrapped(std::move(task));
        handler(std::move(data), std::move(uploads), std::move(downloads));
      });
    };
  }

  const BackgroundURLSessionRef inner_;
  const Plan plan_;
};

/// One decorator for one session, so that the same session is the same object. The platform's session holds its delegate, which
/// must not hold the decorator: that holds the session.
class FaultyBackgroundURLSessions final : public platform::BackgroundURLSessions {
 public:
  FaultyBackgroundURLSessions(std::shared_ptr<platform::BackgroundURLSessions> inner, Plan plan)
      : inner_(std::move(inner)), known_(std::make_shared<Known>(std::move(plan))) {}

  BackgroundURLSessionRef sessionWithConfigurationDelegateDelegateQueue(const platform::URLSessionConfiguration& configuration,
                                                                        std::shared_ptr<platform::URLSessionDelegate> delegate,
                                                                        std::shared_ptr<platform::DispatchQueue> queue) override {
    if (delegate) delegate = std::make_shared<Delegate>(std::move(delegate), known_);
    return known_->wrapped(perform(*known_->plan, "BackgroundURLSessions.session", configuration.identifier(), [&] {
      return inner_->sessionWithConfigurationDelegateDelegateQueue(configuration, std::move(delegate), std::move(queue));
    }));
  }
  // What only hosts ask is not spoilt.
  std::optional<std::string> identifierOfLaunch() override { return inner_->identifierOfLaunch(); }
  void notifyWhenEventsAreDelivered(const std::string& identifier, std::function<void()> handler) override {
    inner_->notifyWhenEventsAreDelivered(identifier, std::move(handler));
  }
  void goOnWithInterruptedTransfers() override { inner_->goOnWithInterruptedTransfers(); }

 private:
  struct Known {
    explicit Known(Plan itsPlan) : plan(std::move(itsPlan)) {}

    std::shared_ptr<FaultyBackgroundURLSession> wrapped(const BackgroundURLSessionRef& session) {
      const std::lock_guard lock(mutex);
      for (auto& each : sessions)
        if (const auto found = each.lock(); found && found->inner() == session) return found;
      auto made = std::make_shared<FaultyBackgroundURLSession>(session, plan);
      sessions.push_back(made);
      return made;
    }

    const Plan plan;
    std::mutex mutex;
    std::vector<std::weak_ptr<FaultyBackgroundURLSession>> sessions;
  };

  class Delegate final : public platform::URLSessionDelegate {
   public:
    Delegate(std::shared_ptr<platform::URLSessionDelegate> inner, std::shared_ptr<Known> known)
        : inner_(std::move(inner)), known_(std::move(known)) {}

    void URLSessionTaskDidCompleteWithError(const BackgroundURLSessionRef& session, const URLSessionTaskRef& task,
                                            const std::optional<Error>& error) override {
      const auto wrapped = known_->wrapped(session);
      told("taskDidComplete", error ? error->localizedDescription() : "",
           [&] { inner_->URLSessionTaskDidCompleteWithError(wrapped, wrapped->wrapped(task), error); });
    }
    void URLSessionDidBecomeInvalidWithError(const BackgroundURLSessionRef& session, const std::optional<Error>& error) override {
      told("didBecomeInvalid", error ? error->localizedDescription() : "",
           [&] { inner_->URLSessionDidBecomeInvalidWithError(known_->wrapped(session), error); });
    }
    void URLSessionDidFinishEventsForBackgroundURLSession(const BackgroundURLSessionRef& session) override {
      told("didFinishEvents", "", [&] { inner_->URLSessionDidFinishEventsForBackgroundURLSession(known_->wrapped(session)); });
    }
    void URLSessionDownloadTaskDidFinishDownloadingToURL(const BackgroundURLSessionRef& session, const URLSessionTaskRef& task,
                                                         const URL& location) override {
      inner_->URLSessionDownloadTaskDidFinishDownloadingToURL(known_->wrapped(session), task, location);
    }

   private:
    template <class Call>
    void told(const std::string& operation, std::string argument, Call call) {
      const DepthScope outside(0);
      perform(*known_->plan, "URLSessionDelegate." + operation, std::move(argument), [&] {
        const DepthScope inOperation(0);
        call();
      });
    }

    const std::shared_ptr<platform::URLSessionDelegate> inner_;
    const std::shared_ptr<Known> known_;
  };

  std::shared_ptr<platform::BackgroundURLSessions> inner_;
  std::shared_ptr<Known> known_;
};

class FaultyBrowserOpener final : public platform::BrowserOpener {
 public:
  FaultyBrowserOpener(std::shared_ptr<platform::BrowserOpener> inner, Plan plan)
      : inner_(std::move(inner)), plan_(std::move(plan)) {}

  void openURL(const URL& url, Completion completion) override {
    const std::string text = url.host().value_or("") + url.path();
    perform(*plan_, "BrowserOpener.openURL", text, [&] {
      inner_->openURL(url, [plan = plan_, completion = std::move(completion)](bool didOpen) mutable {
        const DepthScope outside(0);
        perform(*plan, "BrowserOpener.completion", didOpen ? "true" : "false", [&] { completion(didOpen); });
      });
    });
  }

 private:
  std::shared_ptr<platform::BrowserOpener> inner_;
  Plan plan_;
};

class FaultyClock final : public platform::Clock {
 public:
  FaultyClock(std::shared_ptr<platform::Clock> inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) {}

  platform::Date now() override {
    return perform(*plan_, "Clock.now", "", [&] { return inner_->now(); });
  }

 private:
  std::shared_ptr<platform::Clock> inner_;
  Plan plan_;
};

class FaultySecureRandom final : public platform::SecureRandom {
 public:
  FaultySecureRandom(std::shared_ptr<platform::SecureRandom> inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) {}

  void fill(std::span<std::byte> bytes) override {
    std::ranges::fill(bytes, std::byte{});  // what an empty fill leaves
    perform(*plan_, "SecureRandom.fill", std::to_string(bytes.size()), [&] { inner_->fill(bytes); });
  }

 private:
  std::shared_ptr<platform::SecureRandom> inner_;
  Plan plan_;
};

class FaultyDigest final : public platform::Digest {
 public:
  FaultyDigest(std::shared_ptr<platform::Digest> inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) {}

  Data hash(Algorithm algorithm, std::initializer_list<std::string_view> parts) override {
    return perform(*plan_, "Digest.hash", "", [&] { return inner_->hash(algorithm, parts); });
  }
  Data hmac(Algorithm algorithm, std::string_view key, std::initializer_list<std::string_view> parts) override {
    return perform(*plan_, "Digest.hmac", "", [&] { return inner_->hmac(algorithm, key, parts); });
  }
  bool constantTimeEqual(std::string_view a, std::string_view b) override {
    return perform(*plan_, "Digest.constantTimeEqual", "", [&] { return inner_->constantTimeEqual(a, b); });
  }

 private:
  std::shared_ptr<platform::Digest> inner_;
  Plan plan_;
};

class FaultyBundle final : public platform::Bundle {
 public:
  FaultyBundle(std::shared_ptr<platform::Bundle> inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) {}

  std::optional<std::string> bundleIdentifier() override {
    return perform(*plan_, "Bundle.bundleIdentifier", "", [&] { return inner_->bundleIdentifier(); });
  }

 private:
  std::shared_ptr<platform::Bundle> inner_;
  Plan plan_;
};

class FaultyApplication final : public platform::Application {
 public:
  FaultyApplication(std::shared_ptr<platform::Application> inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) {}

  void setNetworkActivityIndicatorVisible(bool visible) override {
    perform(*plan_, "Application.setNetworkActivityIndicatorVisible", visible ? "true" : "false",
            [&] { inner_->setNetworkActivityIndicatorVisible(visible); });
  }
  bool isNetworkActivityIndicatorVisible() override {
    return perform(*plan_, "Application.isNetworkActivityIndicatorVisible", "",
                   [&] { return inner_->isNetworkActivityIndicatorVisible(); });
  }

 private:
  std::shared_ptr<platform::Application> inner_;
  Plan plan_;
};

class FaultySystemLog final : public platform::SystemLog {
 public:
  FaultySystemLog(std::shared_ptr<platform::SystemLog> inner, Plan plan) : inner_(std::move(inner)), plan_(std::move(plan)) {}

  void log(std::string_view message) override {
    perform(*plan_, "SystemLog.log", std::string(message), [&] { inner_->log(message); });
  }

 private:
  std::shared_ptr<platform::SystemLog> inner_;
  Plan plan_;
};

template <class Service>
void wrap(std::shared_ptr<Service>& service, const Plan& plan) {
  if (service) service = faulty(std::move(service), plan);
}

}  // namespace

std::shared_ptr<platform::FileManager> faulty(std::shared_ptr<platform::FileManager> inner, std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyFileManager>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::JSONSerialization> faulty(std::shared_ptr<platform::JSONSerialization> inner,
                                                    std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyJSONSerialization>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::DataService> faulty(std::shared_ptr<platform::DataService> inner, std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyDataService>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::UserDefaults> faulty(std::shared_ptr<platform::UserDefaults> inner, std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyUserDefaults>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::DispatchQueues> faulty(std::shared_ptr<platform::DispatchQueues> inner, std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyDispatchQueues>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::URLSession> faulty(std::shared_ptr<platform::URLSession> inner, std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyURLSession>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::BackgroundURLSessions> faulty(std::shared_ptr<platform::BackgroundURLSessions> inner,
                                                        std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyBackgroundURLSessions>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::BrowserOpener> faulty(std::shared_ptr<platform::BrowserOpener> inner, std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyBrowserOpener>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::Clock> faulty(std::shared_ptr<platform::Clock> inner, std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyClock>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::SecureRandom> faulty(std::shared_ptr<platform::SecureRandom> inner, std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultySecureRandom>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::Digest> faulty(std::shared_ptr<platform::Digest> inner, std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyDigest>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::Bundle> faulty(std::shared_ptr<platform::Bundle> inner, std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyBundle>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::Application> faulty(std::shared_ptr<platform::Application> inner, std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultyApplication>(std::move(inner), std::move(plan));
}
std::shared_ptr<platform::SystemLog> faulty(std::shared_ptr<platform::SystemLog> inner, std::shared_ptr<FaultPlan> plan) {
  return std::make_shared<FaultySystemLog>(std::move(inner), std::move(plan));
}

Unseen::Unseen() : depth_(std::exchange(serviceDepth, serviceDepth + 1)) {}
Unseen::~Unseen() { serviceDepth = depth_; }

void makeFaulty(platform::Process& process, const std::shared_ptr<FaultPlan>& plan) {
  wrap(process.systemLog, plan);
  wrap(process.clock, plan);
  wrap(process.secureRandom, plan);
  wrap(process.digest, plan);
  wrap(process.data, plan);
  wrap(process.json, plan);
  wrap(process.bundle, plan);
  wrap(process.fileManager, plan);
  wrap(process.userDefaults, plan);
  wrap(process.queues, plan);
  wrap(process.application, plan);
  wrap(process.urlSession, plan);
  wrap(process.backgroundSessions, plan);
  wrap(process.browserOpener, plan);
}

}  // namespace test
