// What a test wants to go wrong, and when: faults and hooks for single calls of the platform's services, and the log of all calls.
//
// The decorators of FaultyServices.h name each call, write it down here and ask what shall become of it. A rule counts the calls
// that match it from the moment it is given: `plan.fail("FileManager.copyItem", nth(2), error)` spoils the second copy from now on.
// Of several rules that match one call the oldest decides. Any thread may call anything.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Error.h"
#include "platform/Exception.h"

namespace test {

/// One operation of a service, and the ways in which it can go wrong. Every operation can be made to raise, so that branches that
/// correct platform code never takes can be reached; `raises` says that the platform's contract has it raise.
struct Operation {
  std::string_view name;
  bool fails = false;        // has an error to give
  bool raises = false;       // raises by contract
  bool writesShort = false;  // can stop in the middle of its bytes
  bool neverRaises = false;  // by contract, and destructors rely on it: a raise of any operation leaves it out
  bool yieldsEmpty = false;  // can come back with nothing: absent, empty, 0 or false
};

/// Every operation of every service, for sweeps.
std::span<const Operation> allOperations();
/// Throws std::invalid_argument for a name that is not in the list.
const Operation& operationNamed(std::string_view name);

/// Which of the matching calls are meant. Counting starts at 1.
struct Calls {
  std::uint64_t first = 1;
  std::uint64_t last = std::numeric_limits<std::uint64_t>::max();
  std::string argument;  // when not empty, only calls whose argument text contains it are counted

  Calls on(std::string text) const {
    Calls narrowed = *this;
    narrowed.argument = std::move(text);
    return narrowed;
  }
};
inline Calls nth(std::uint64_t n) { return {n, n, {}}; }
inline Calls fromNth(std::uint64_t n) { return {n, std::numeric_limits<std::uint64_t>::max(), {}}; }
inline Calls everyCall() { return fromNth(1); }

class FaultPlan {
 public:
  FaultPlan();
  ~FaultPlan();
  FaultPlan(const FaultPlan&) = delete;
  FaultPlan& operator=(const FaultPlan&) = delete;

  /// Stands for any operation in the functions below.
  static constexpr std::string_view kAnyOperation = "*";

  // Faults. A name that is unknown, or a fault that the operation has no way to show, is a mistake of the test and throws
  // std::invalid_argument at once.

  /// The call gives the error and has no effect.
  void fail(std::string_view operation, Calls calls, platform::Error error);
  /// The call raises and has no effect.
  void raise(std::string_view operation, Calls calls, platform::Exception exception);
  /// The call throws an exception that is not the platform's.
  void throwStandard(std::string_view operation, Calls calls, std::string what = "a standard exception");
  /// The call writes that many of its bytes, then finds the volume full: file-handle writing raises, copying and creating fail with
  /// 640.
  void writeShort(std::string_view operation, Calls calls, std::size_t bytes);
  /// The call has no effect and comes back with nothing: absent, empty, 0 or false.
  void yieldEmpty(std::string_view operation, Calls calls);
  /// For sweeps: the k-th of all calls that can go wrong by contract does, with an error where it has one, else by a raise.
  void breakCall(std::uint64_t k) { breakCalls(nth(k)); }
  /// The same for several of them: with fromNth(k) it breaks for good.
  void breakCalls(Calls calls);
  /// How the sweep's call went wrong, such as `FileManager.copyItem event-queue.json`, the first time; absent while none has: the
  /// sweep is over.
  std::optional<std::string> brokenCall() const;

  /// Rules for any operation leave these calls alone, those with the argument text only when one is given: the twin of another
  /// process works through the same services.
  void leaveOut(std::string_view operation, std::string argument = {});

  // Hooks, to put something else between two calls. Not run again by calls that the hook itself makes.

  void before(std::string_view operation, Calls calls, std::function<void()> hook);
  /// Runs when the call has come back, also with an error, but not when it raised.
  void after(std::string_view operation, Calls calls, std::function<void()> hook);

  /// Drops all rules and hooks.
  void clear();
  /// Faults and hooks that no call has reached yet, each as text; sweeps are not counted.
  std::vector<std::string> unused() const;

  // The call log, in the order in which the calls began.

  struct Call {
    std::string operation;
    std::string argument;
    std::string text() const { return argument.empty() ? operation : operation + " " + argument; }
  };
  std::vector<Call> calls() const;
  /// Texts of the calls whose operation starts with one of the prefixes; of all calls without prefixes.
  std::vector<std::string> callTexts(std::initializer_list<std::string_view> prefixes = {}) const;
  std::vector<std::string> callNames(std::initializer_list<std::string_view> prefixes = {}) const;
  std::uint64_t count(std::string_view operation) const;
  void clearCalls();

  // For the decorators.

  /// What becomes of one call. At most one of the three is set.
  struct Fate {
    std::optional<platform::Error> error;
    std::optional<std::size_t> shortBytes;
    bool empty = false;
    std::vector<std::function<void()>> after;
  };
  /// Writes the call down and runs the hooks before it; throws when the call is to raise.
  Fate begin(std::string_view operation, std::string argument);

  /// Has every fate drawn by a simulation, in the place of rules, hooks and log. It may throw what the call is to throw. To be
  /// given before the first call.
  using Decider = std::function<Fate(const Operation& called, const std::string& argument)>;
  void decideBy(Decider decider) { decider_ = std::move(decider); }

 private:
  struct Rule;

  void add(std::string_view operation, Calls calls, std::unique_ptr<Rule> rule);
  std::function<void()> guarded(std::shared_ptr<Rule> rule);

  Decider decider_;
  mutable std::mutex mutex_;  // guards all below; not held while a hook runs
  std::vector<std::shared_ptr<Rule>> rules_;
  std::vector<Call> leftOut_;
  std::vector<Call> log_;
  std::optional<std::string> brokenCall_;
};

/// The raise of a file-handle write on a full volume.
platform::Exception outOfSpaceException();
/// The error of a copy or a new file on a full volume.
platform::Error outOfSpaceError();
/// An error for places where any will do; its text tells it from others in messages.
platform::Error someError(std::string localizedDescription = "It went wrong on purpose.");
platform::Exception someException(std::string reason = "raised on purpose");

}  // namespace test
