// What the service knows while it runs, and the decisions over it.
//
// Each file beside this one makes one kind of decision: Spooling.cpp takes tasks in, Tries.cpp uploads and tries again,
// Sessions.cpp hands events over and forgets, Conversations.cpp answers applications, Launching.cpp launches them.
//
// Every change of the store is wanted first, in memory, and made as soon as the store takes it: a write that fails leaves its wish
// standing, and no write at all is tried until the wait after a failure is over. What is not stored is not told.
#pragma once

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "transfer/core/Service.h"

namespace transfer {

/// The wait after something failed: doubled with each failure in a row.
class Backoff {
 public:
  static constexpr double kFirstWait = 1;  // seconds
  static constexpr double kLongestWait = 60;

  void failed(double now);
  void succeeded() { *this = {}; }
  bool waits(double now) const { return until_ && dueAt(now) > now; }
  bool isDue(double now) const { return until_ && !waits(now); }
  /// Only while something has failed. Never further away than the wait itself, whatever the clock did.
  std::optional<double> deadline(double now) const { return until_ ? std::optional(dueAt(now)) : std::nullopt; }
  /// The clock went back: the wait begins again.
  void correct(double now);
  /// A new attempt is about to be made.
  void expire() { until_.reset(); }

 private:
  double dueAt(double now) const { return std::min(*until_, now + wait_); }

  double wait_ = 0;
  std::optional<double> until_;
};

class Service::Implementation {
 public:
  Implementation(Store& store, Uploads& uploads, Launcher& launcher, Connections& connections, Spool& spool, platform::Clock& clock,
                 platform::SecureRandom& random, const ServiceOptions& options)
      : store_(store),
        uploads_(uploads),
        launcher_(launcher),
        wire_(connections),
        spool_(spool),
        clock_(clock),
        random_(random),
        options_(options) {}

  Store::Result<> start();
  void connectionOpened(ConnectionId connection);
  void messageArrived(ConnectionId connection, const Message& message);
  void garbageArrived(ConnectionId connection, const std::string& reason);
  void connectionClosed(ConnectionId connection);
  void uploadProgressed(TaskId task, std::uint64_t bytesSent, std::uint64_t bytesExpected);
  void uploadEnded(TaskId task, const UploadOutcome& outcome);
  void launchEnded(ApplicationId application, const std::string& session);
  void tick();
  std::optional<platform::Date> nextDeadline() const;
  bool mayEnd() const;

 private:
  /// A launch whose process has not handed over yet.
  struct Launch {
    std::string session;
    std::uint64_t lastEvent = 0;  // the latest of the events that it was made for
  };
  struct Application {
    StoredApplication stored;
    std::optional<std::vector<std::string>> commandToSave;
    bool launchesAreUnsaved = false;
    std::size_t openConnections = 0;
    std::optional<Launch> launch;
    std::size_t lingering = 0;  // processes whose launch is over
    std::string lastLaunched;   // session
  };
  struct Task {
    TaskId id = 0;
    std::pair<ApplicationId, std::string> session;
    SpoolEntry entry;
    std::string spoolName;
    bool hasLeftSpool = false;
    TaskStatus status;
    bool isUnsaved = false;         // the status of a failed try
    std::optional<TaskStatus> end;  // wanted, not stored yet
    bool isQueued = false;
    double resumedAt = 0;  // never in the future

    bool hasEnded() const { return status.state == TaskStatus::State::kCompleted; }
    bool isOpen() const { return !hasEnded() && !end; }
    bool isRunning() const { return status.state == TaskStatus::State::kRunning; }
  };
  struct Event {
    std::uint64_t sequence = 0;
    TaskStatus task;
    bool isSent = false;    // to the present holder
    bool isHanded = false;  // the store does not know yet
  };
  struct Connection {
    std::uint64_t order = 0;  // of its opening
    double openedAt = 0;      // never in the future
    std::optional<ApplicationId> application;
    bool isRefused = false;

    bool isSilent() const { return !application && !isRefused; }
  };
  struct Holder {
    bool wasLaunchedForIt = false;
    bool holdsAgain = false;  // made the session again after its invalidation had been asked for
  };
  struct Session {
    std::optional<SessionId> id;  // absent while the store knows no task of it
    bool isToEnd = false;         // invalidation was asked for
    bool isInvalidated = false;   // and the store knows
    std::map<std::uint64_t, TaskId> tasks;
    std::deque<Event> events;  // by sequence
    std::uint64_t lastEvent = 0;
    std::map<ConnectionId, Holder> holders;
    std::optional<ConnectionId> holder;  // who gets the events
    bool owesDelivered = false;
    std::uint64_t deliveredAt = 0;  // the last event that is to be handed over before
    std::set<ConnectionId> invalidators;
  };
  using SessionKey = std::pair<ApplicationId, std::string>;
  using Sessions = std::map<SessionKey, Session>;

  // Time and steps (Service.cpp).
  double now() const { return clock_.now().timeIntervalSince1970(); }
  void step(std::string_view name) const {
    if (options_.stepHook) options_.stepHook(name);
  }
  void load(const Contents& contents);
  Task& keep(const StoredTask& stored, const SessionKey& key);
  void settleEverything();
  void correctTimes();
  void noteIdleness();
  bool isIdle() const;
  bool storeWaits() const { return storeBackoff_.waits(now()); }
  /// Whether the store took the change; a failure makes all others wait.
  template <class Result>
  bool isStored(const Result& result) {
    if (!result) storeFailed(result.error());
    return result.has_value();
  }
  void storeFailed(const platform::Error& error);

  // Spooling.cpp
  void importSpool();
  bool importEntry(const std::string& name);
  bool importAgain(Task& task);
  bool addTask(const std::string& name, const SpoolEntry& entry);
  bool setAside(const std::string& name, std::string_view reason);
  bool leaveSpool(Task& task);
  std::optional<std::string> refusalOf(const SpoolEntry& entry) const;
  Application* applicationFor(const ApplicationIdentity& identity, const std::vector<std::string>* launchCommand);
  const Application* knownApplication(const ApplicationIdentity& identity) const;
  std::optional<std::string> refusalOf(const ApplicationIdentity& identity) const;
  bool isInUse(ApplicationId application) const;
  void saveApplications();

  // Tries.cpp
  void queueIfReady(Task& task);
  void beginUploads();
  void begin(Task& task);
  void endTry(Task& task, const UploadOutcome& outcome);
  void tryFailed(Task& task, const platform::Error& error);
  void end(Task& task, std::optional<platform::Error> error);
  void saveTries(Task& task);
  void storeEnd(Task& task);
  void endIfTimedOut(Task& task);
  double retryWait(std::uint64_t tries) const;
  double jittered(double wait);
  std::optional<double> deadlineOf(const Task& task) const;

  // Sessions.cpp
  void settle(const SessionKey& key);
  void settleTasks(Session& session);
  void settleInvalidation(Session& session);
  void cancelTasks(Session& session);
  void letGo(ConnectionId connection, const SessionKey& key);
  void chooseHolder(Session& session);
  void sendEvents(const SessionKey& key, Session& session);
  void storeHanded(const SessionKey& key, Session& session);
  void sendDelivered(const SessionKey& key, Session& session);
  bool isOver(const Session& session) const;
  void forgetIfOver(const SessionKey& key);
  void forget(const SessionKey& key, Session& session);
  void tellInvalidated(const SessionKey& key, Session& session);

  // Conversations.cpp
  void answer(ConnectionId connection, const Hello& hello);
  void answer(ConnectionId connection, const Hold& hold);
  void answer(ConnectionId connection, const GetTasks& getTasks);
  void answer(ConnectionId connection, const Wake& wake);
  void answer(ConnectionId connection, const Handed& handed);
  void answer(ConnectionId connection, const Invalidate& invalidate);
  void answer(ConnectionId connection, const Cancel& cancel);
  void answer(ConnectionId connection, const List& list);
  template <class FromService>
  void answer(ConnectionId connection, const FromService& /*message*/) {
    refuse(connection, "this message is the service's own");
  }
  void refuse(ConnectionId connection, const std::string& reason);
  void turnAway(ConnectionId connection);
  void refuseSilentOnes();
  std::vector<TaskStatus> tasksOf(const SessionKey& key) const;
  SessionKey keyOf(ConnectionId connection, const std::string& session) const {
    return {*connections_.at(connection).application, session};
  }

  // Launching.cpp
  void considerLaunches();
  void considerLaunch(Application& application);
  void launch(Application& application, const SessionKey& key);
  void eventsWereHanded(const SessionKey& key, const Session& session);
  bool saveLaunches(Application& application);
  double launchWait(const Application& application) const;
  std::optional<SessionKey> sessionToLaunchFor(const Application& application) const;
  std::optional<double> launchDeadline(const Application& application) const;
  std::optional<std::string> trustAnchorsOf(const Session& session) const;

  Store& store_;
  Uploads& uploads_;
  Launcher& launcher_;
  Connections& wire_;
  Spool& spool_;
  platform::Clock& clock_;
  platform::SecureRandom& random_;
  const ServiceOptions options_;

  std::map<ApplicationId, Application> applications_;
  Sessions sessions_;
  std::map<TaskId, Task> tasks_;
  std::map<std::string, TaskId> bySpoolName_;
  std::map<ConnectionId, Connection> connections_;
  std::uint64_t connectionsSoFar_ = 0;
  std::deque<TaskId> queue_;  // of tasks that wait for their turn
  std::size_t running_ = 0;
  Backoff storeBackoff_;
  Backoff spoolBackoff_;
  double startedAt_ = 0;
  std::optional<double> idleSince_;
};

}  // namespace transfer
