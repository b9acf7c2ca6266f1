// The rules of a fault plan, matched call by call.
#include "support/FaultPlan.h"

#include <algorithm>
#include <stdexcept>
#include <thread>
#include <utility>

namespace test {
namespace {

constexpr Operation kOperations[] = {
    {.name = "FileManager.fileExists", .yieldsEmpty = true},
    {.name = "FileManager.attributesOfItem", .fails = true},
    {.name = "FileManager.contentsOfDirectory", .fails = true, .yieldsEmpty = true},
    {.name = "FileManager.copyItem", .fails = true, .writesShort = true},
    {.name = "FileManager.linkItem", .fails = true},
    {.name = "FileManager.moveItem", .fails = true},
    {.name = "FileManager.removeItem", .fails = true},
    {.name = "FileManager.removeItemAtPath", .fails = true},
    {.name = "FileManager.replaceItem", .fails = true},
    {.name = "FileManager.createDirectory", .fails = true},
    {.name = "FileManager.applicationSupportDirectory", .fails = true},
    {.name = "FileManager.temporaryDirectory", .fails = true},
    {.name = "FileManager.openForReading", .fails = true},
    {.name = "FileManager.openForWriting", .fails = true},
    {.name = "FileManager.openForUpdating", .fails = true},
    {.name = "FileManager.writeDataWithoutOverwriting", .fails = true, .writesShort = true},
    {.name = "FileManager.contentsOfURL", .fails = true, .yieldsEmpty = true},
    {.name = "FileHandle.seekToEndOfFile", .raises = true, .yieldsEmpty = true},
    {.name = "FileHandle.seekToFileOffset", .raises = true},
    {.name = "FileHandle.readDataOfLength", .raises = true, .yieldsEmpty = true},
    {.name = "FileHandle.readDataToEndOfFile", .raises = true, .yieldsEmpty = true},
    {.name = "FileHandle.writeData", .raises = true, .writesShort = true},
    {.name = "FileHandle.synchronizeFile", .raises = true},
    {.name = "FileHandle.closeFile", .neverRaises = true},
    {.name = "JSON.write", .fails = true, .raises = true, .yieldsEmpty = true},
    {.name = "JSON.read", .fails = true},
    {.name = "Data.subdata", .raises = true, .yieldsEmpty = true},
    {.name = "UserDefaults.setObject", .raises = true, .yieldsEmpty = true},
    {.name = "UserDefaults.object", .yieldsEmpty = true},
    {.name = "UserDefaults.synchronize", .yieldsEmpty = true},
    {.name = "DispatchQueues.makeSerialQueue"},
    {.name = "DispatchQueues.mainQueue"},
    {.name = "DispatchQueues.globalBackgroundQueue"},
    {.name = "DispatchQueues.setMainExecutor", .raises = true},
    {.name = "DispatchQueue.async", .yieldsEmpty = true},
    {.name = "DispatchQueue.asyncAfter", .yieldsEmpty = true},
    {.name = "DispatchQueue.label"},
    {.name = "URLSession.dataTask"},
    {.name = "URLSession.completion", .fails = true, .yieldsEmpty = true},
    {.name = "URLSessionTask.taskIdentifier"},
    {.name = "URLSessionTask.state"},
    {.name = "URLSessionTask.resume", .yieldsEmpty = true},
    {.name = "URLSessionTask.cancel", .yieldsEmpty = true},
    {.name = "BackgroundURLSessions.session"},
    {.name = "BackgroundURLSession.uploadTask", .raises = true},
    {.name = "BackgroundURLSession.invalidateAndCancel", .yieldsEmpty = true},
    {.name = "BackgroundURLSession.getTasks", .yieldsEmpty = true},
    {.name = "BackgroundURLSession.tasks", .yieldsEmpty = true},
    {.name = "URLSessionDelegate.taskDidComplete", .yieldsEmpty = true},
    {.name = "URLSessionDelegate.didBecomeInvalid", .yieldsEmpty = true},
    {.name = "URLSessionDelegate.didFinishEvents", .yieldsEmpty = true},
    {.name = "BrowserOpener.openURL", .yieldsEmpty = true},
    {.name = "BrowserOpener.completion", .yieldsEmpty = true},
    {.name = "Clock.now", .yieldsEmpty = true},
    {.name = "SecureRandom.fill", .yieldsEmpty = true},
    {.name = "Digest.hash", .raises = true, .yieldsEmpty = true},
    {.name = "Digest.hmac", .raises = true, .yieldsEmpty = true},
    {.name = "Digest.constantTimeEqual", .yieldsEmpty = true},
    {.name = "Bundle.bundleIdentifier", .yieldsEmpty = true},
    {.name = "Application.setNetworkActivityIndicatorVisible", .yieldsEmpty = true},
    {.name = "Application.isNetworkActivityIndicatorVisible", .yieldsEmpty = true},
    {.name = "SystemLog.log", .yieldsEmpty = true},
};

bool startsWithOneOf(std::string_view text, std::initializer_list<std::string_view> prefixes) {
  if (prefixes.size() == 0) return true;
  return std::ranges::any_of(prefixes, [&](std::string_view prefix) { return text.starts_with(prefix); });
}

[[noreturn]] void usageError(std::string_view operation, std::string_view what) {
  throw std::invalid_argument("FaultPlan: " + std::string(operation) + " " + std::string(what));
}

}  // namespace

std::span<const Operation> allOperations() { return kOperations; }

const Operation& operationNamed(std::string_view name) {
  const auto found = std::ranges::find(kOperations, name, &Operation::name);
  if (found == std::end(kOperations)) usageError(name, "is no operation of a service");
  return *found;
}

struct FaultPlan::Rule {
  enum class Kind { kFail, kThrow, kShort, kEmpty, kBreak, kBefore, kAfter };

  Kind kind = Kind::kBreak;
  std::string operation{};
  Calls calls{};
  std::optional<platform::Error> error{};
  std::exception_ptr exception{};
  std::size_t bytes = 0;
  std::function<void()> hook{};

  std::uint64_t seen = 0;
  bool used = false;
  std::vector<std::thread::id> running;  // the threads that are inside the hook

  bool isHook() const { return kind == Kind::kBefore || kind == Kind::kAfter; }

  bool concerns(const Operation& called) const {
    if (kind == Kind::kBreak) return called.fails || called.raises;
    if (operation == kAnyOperation) return kind != Kind::kThrow || !called.neverRaises;
    return operation == called.name;
  }

  /// Counts a call; true when it is one of those meant.
  bool takes(const Operation& called, std::string_view argument) {
    if (!concerns(called) || (!calls.argument.empty() && argument.find(calls.argument) == std::string_view::npos)) return false;
    if (isHook() && std::ranges::find(running, std::this_thread::get_id()) != running.end()) return false;
    ++seen;
    const bool meant = seen >= calls.first && seen <= calls.last;
    used = used || meant;
    return meant;
  }
};

FaultPlan::FaultPlan() = default;
FaultPlan::~FaultPlan() = default;

void FaultPlan::add(std::string_view operation, Calls calls, std::unique_ptr<Rule> rule) {
  if (operation != kAnyOperation) operationNamed(operation);
  if (calls.first == 0) usageError(operation, "counts its calls from 1");
  rule->operation = operation;
  rule->calls = std::move(calls);
  std::lock_guard lock(mutex_);
  rules_.push_back(std::move(rule));
}

void FaultPlan::fail(std::string_view operation, Calls calls, platform::Error error) {
  if (operation == kAnyOperation || !operationNamed(operation).fails)
    usageError(operation, "has no error to give: it can only raise");
  auto rule = std::make_unique<Rule>();
  rule->kind = Rule::Kind::kFail;
  rule->error = std::move(error);
  add(operation, std::move(calls), std::move(rule));
}

void FaultPlan::raise(std::string_view operation, Calls calls, platform::Exception exception) {
  auto rule = std::make_unique<Rule>();
  rule->kind = Rule::Kind::kThrow;
  rule->exception = std::make_exception_ptr(std::move(exception));
  add(operation, std::move(calls), std::move(rule));
}

void FaultPlan::throwStandard(std::string_view operation, Calls calls, std::string what) {
  auto rule = std::make_unique<Rule>();
  rule->kind = Rule::Kind::kThrow;
  rule->exception = std::make_exception_ptr(std::runtime_error(what));
  add(operation, std::move(calls), std::move(rule));
}

void FaultPlan::writeShort(std::string_view operation, Calls calls, std::size_t bytes) {
  if (operation == kAnyOperation || !operationNamed(operation).writesShort) usageError(operation, "writes nothing");
  auto rule = std::make_unique<Rule>();
  rule->kind = Rule::Kind::kShort;
  rule->bytes = bytes;
  add(operation, std::move(calls), std::move(rule));
}

void FaultPlan::yieldEmpty(std::string_view operation, Calls calls) {
  if (operation == kAnyOperation || !operationNamed(operation).yieldsEmpty) usageError(operation, "cannot come back with nothing");
  auto rule = std::make_unique<Rule>();
  rule->kind = Rule::Kind::kEmpty;
  add(operation, std::move(calls), std::move(rule));
}

void FaultPlan::breakCalls(Calls calls) {
  auto rule = std::make_unique<Rule>();
  rule->kind = Rule::Kind::kBreak;
  add(kAnyOperation, std::move(calls), std::move(rule));
}

void FaultPlan::leaveOut(std::string_view operation, std::string argument) {
  operationNamed(operation);
  const std::lock_guard lock(mutex_);
  leftOut_.push_back({std::string(operation), std::move(argument)});
}

std::optional<std::string> FaultPlan::brokenCall() const {
  std::lock_guard lock(mutex_);
  return brokenCall_;
}

void FaultPlan::before(std::string_view operation, Calls calls, std::function<void()> hook) {
  auto rule = std::make_unique<Rule>();
  rule->kind = Rule::Kind::kBefore;
  rule->hook = std::move(hook);
  add(operation, std::move(calls), std::move(rule));
}

void FaultPlan::after(std::string_view operation, Calls calls, std::function<void()> hook) {
  auto rule = std::make_unique<Rule>();
  rule->kind = Rule::Kind::kAfter;
  rule->hook = std::move(hook);
  add(operation, std::move(calls), std::move(rule));
}

void FaultPlan::clear() {
  std::lock_guard lock(mutex_);
  rules_.clear();
  leftOut_.clear();
  brokenCall_.reset();
}

std::vector<std::string> FaultPlan::unused() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> texts;
  for (const auto& rule : rules_) {
    if (rule->used || rule->kind == Rule::Kind::kBreak) continue;
    texts.push_back(rule->operation + " call " + std::to_string(rule->calls.first) +
                    (rule->calls.argument.empty() ? "" : " on " + rule->calls.argument) + ", seen " + std::to_string(rule->seen));
  }
  return texts;
}

std::vector<FaultPlan::Call> FaultPlan::calls() const {
  std::lock_guard lock(mutex_);
  return log_;
}

std::vector<std::string> FaultPlan::callTexts(std::initializer_list<std::string_view> prefixes) const {
  std::vector<std::string> texts;
  for (const Call& call : calls())
    if (startsWithOneOf(call.operation, prefixes)) texts.push_back(call.text());
  return texts;
}

std::vector<std::string> FaultPlan::callNames(std::initializer_list<std::string_view> prefixes) const {
  std::vector<std::string> names;
  for (const Call& call : calls())
    if (startsWithOneOf(call.operation, prefixes)) names.push_back(call.operation);
  return names;
}

std::uint64_t FaultPlan::count(std::string_view operation) const {
  operationNamed(operation);
  std::lock_guard lock(mutex_);
  return static_cast<std::uint64_t>(std::ranges::count(log_, operation, &Call::operation));
}

void FaultPlan::clearCalls() {
  std::lock_guard lock(mutex_);
  log_.clear();
}

std::function<void()> FaultPlan::guarded(std::shared_ptr<Rule> rule) {
  return [this, rule = std::move(rule)] {
    struct Running {
      FaultPlan& plan;
      Rule& rule;
      Running(FaultPlan& itsPlan, Rule& itsRule) : plan(itsPlan), rule(itsRule) {
        std::lock_guard lock(plan.mutex_);
        rule.running.push_back(std::this_thread::get_id());
      }
      ~Running() {
        std::lock_guard lock(plan.mutex_);
        rule.running.erase(std::ranges::find(rule.running, std::this_thread::get_id()));
      }
    } running(*this, *rule);
    rule->hook();
  };
}

FaultPlan::Fate FaultPlan::begin(std::string_view operation, std::string argument) {
  const Operation& called = operationNamed(operation);
  if (decider_) return decider_(called, argument);
  Fate fate;
  std::vector<std::function<void()>> before;
  std::shared_ptr<Rule> decisive;
  {
    std::lock_guard lock(mutex_);
    const bool isLeftOut = std::ranges::any_of(leftOut_, [&](const Call& each) {
      return each.operation == operation && (each.argument.empty() || argument.find(each.argument) != std::string::npos);
    });
    for (const auto& rule : rules_) {
      if (isLeftOut && rule->operation == kAnyOperation) continue;
      if (!rule->takes(called, argument)) continue;
      if (rule->isHook())
        (rule->kind == Rule::Kind::kBefore ? before : fate.after).push_back(guarded(rule));
      else if (!decisive)
        decisive = rule;
    }
    log_.push_back({std::string(operation), std::move(argument)});
    if (decisive && decisive->kind == Rule::Kind::kBreak && !brokenCall_) brokenCall_ = log_.back().text();
  }

  for (const auto& hook : before) hook();
  if (!decisive) return fate;
  switch (decisive->kind) {
    case Rule::Kind::kFail:
      fate.error = decisive->error;
      break;
    case Rule::Kind::kThrow:
      std::rethrow_exception(decisive->exception);
    case Rule::Kind::kShort:
      fate.shortBytes = decisive->bytes;
      break;
    case Rule::Kind::kEmpty:
      fate.empty = true;
      break;
    case Rule::Kind::kBreak:
      if (!called.fails) throw someException();
      fate.error = someError();
      break;
    case Rule::Kind::kBefore:
    case Rule::Kind::kAfter:
      break;
  }
  return fate;
}

platform::Exception outOfSpaceException() {
  return {platform::kFileHandleOperationException, "*** -[NSConcreteFileHandle writeData:]: No space left on device"};
}

platform::Error outOfSpaceError() {
  return {platform::kCocoaErrorDomain, platform::kFileWriteOutOfSpace,
          "The file couldn’t be saved because the volume is out of space."};
}

platform::Error someError(std::string localizedDescription) {
  return {platform::kCocoaErrorDomain, platform::kFileWriteUnknown, std::move(localizedDescription)};
}

platform::Exception someException(std::string reason) { return {platform::kFileHandleOperationException, std::move(reason)}; }

}  // namespace test
