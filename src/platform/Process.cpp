// The current record and every accessor over it.
#include "platform/Process.h"

#include "platform/Exception.h"

namespace platform {
namespace {

std::atomic<Process*>& currentSlot() {
  static constinit std::atomic<Process*> slot{nullptr};
  return slot;
}

}  // namespace

Process::~Process() {
  // Whatever runs first: its threads use all the rest.
  backgroundSessions.reset();
  browserOpener.reset();
  urlSession.reset();
  queues.reset();
  application.reset();
  shared_.clear();
}

Process* Process::currentOrNull() noexcept { return currentSlot().load(std::memory_order_acquire); }

Process& Process::current() {
  if (Process* process = currentOrNull()) return *process;
  throw Exception(kInternalInconsistencyException, "The platform is used before a process record was installed");
}

bool Process::install(std::unique_ptr<Process> process) {
  Process* none = nullptr;
  if (!currentSlot().compare_exchange_strong(none, process.get(), std::memory_order_acq_rel)) return false;
  process.release();  // NOLINT(bugprone-unused-return-value): lives as long as the process, also while it exits
  return true;
}

Process::Scope::Scope(Process& process) : before_(currentSlot().exchange(&process, std::memory_order_acq_rel)) {}
Process::Scope::~Scope() { currentSlot().store(before_, std::memory_order_release); }

Date Date::date() { return Process::current().clock->now(); }
FileManager& FileManager::defaultManager() { return *Process::current().fileManager; }
UserDefaults& UserDefaults::standardUserDefaults() { return *Process::current().userDefaults; }
URLSession& URLSession::sharedSession() { return *Process::current().urlSession; }
BackgroundURLSessions& BackgroundURLSessions::backgroundSessions() { return *Process::current().backgroundSessions; }
BackgroundURLSessionRef BackgroundURLSession::sessionWithConfigurationDelegateDelegateQueue(
    const URLSessionConfiguration& configuration, std::shared_ptr<URLSessionDelegate> delegate,
    std::shared_ptr<DispatchQueue> delegateQueue) {
  return BackgroundURLSessions::backgroundSessions().sessionWithConfigurationDelegateDelegateQueue(
      configuration, std::move(delegate), std::move(delegateQueue));
}
BrowserOpener& BrowserOpener::browserOpener() { return *Process::current().browserOpener; }
Bundle& Bundle::mainBundle() { return *Process::current().bundle; }
Application& Application::sharedApplication() { return *Process::current().application; }
SystemLog& SystemLog::systemLog() { return *Process::current().systemLog; }
UncaughtException& UncaughtException::handler() { return *Process::current().uncaughtException; }
SecureRandom& SecureRandom::source() { return *Process::current().secureRandom; }
Digest& Digest::digests() { return *Process::current().digest; }

std::shared_ptr<DispatchQueue> DispatchQueue::serialQueueWithLabel(std::string_view label) {
  return Process::current().queues->makeSerialQueue(label);
}
std::shared_ptr<DispatchQueue> DispatchQueue::mainQueue() { return Process::current().queues->mainQueue(); }
std::shared_ptr<DispatchQueue> DispatchQueue::globalBackgroundQueue() { return Process::current().queues->globalBackgroundQueue(); }

std::expected<std::shared_ptr<FileHandle>, Error> FileHandle::fileHandleForWritingToURL(const std::optional<URL>& url) {
  return FileManager::defaultManager().openFileHandle(url, FileManager::Access::kWriting);
}
std::expected<std::shared_ptr<FileHandle>, Error> FileHandle::fileHandleForUpdatingURL(const std::optional<URL>& url) {
  return FileManager::defaultManager().openFileHandle(url, FileManager::Access::kUpdating);
}
std::expected<std::shared_ptr<FileHandle>, Error> FileHandle::fileHandleForReadingFromURL(const std::optional<URL>& url) {
  return FileManager::defaultManager().openFileHandle(url, FileManager::Access::kReading);
}

Data Data::subdataWithRange(std::uint64_t location, std::uint64_t length) const {
  return Process::current().data->subdataWithRange(bytes(), location, length);
}
Data MutableData::subdataWithRange(std::uint64_t location, std::uint64_t length) const {
  return Process::current().data->subdataWithRange(bytes(), location, length);
}
std::expected<void, Error> Data::writeToURLWithoutOverwriting(const std::optional<URL>& url) const {
  return FileManager::defaultManager().writeDataWithoutOverwriting(*this, url);
}
std::expected<Data, Error> Data::dataWithContentsOfURL(const std::optional<URL>& url) {
  return FileManager::defaultManager().contentsOfURL(url);
}

std::expected<Data, Error> JSONSerialization::dataWithJSONObject(const Value& object) {
  return Process::current().json->write(object);
}
std::expected<Value, Error> JSONSerialization::JSONObjectWithData(const Data& data) { return Process::current().json->read(data); }

std::int64_t UserDefaults::integerForKey(std::string_view key) {
  const std::optional<Value> value = objectForKey(key);
  return value ? value->integerValue() : 0;
}

}  // namespace platform
