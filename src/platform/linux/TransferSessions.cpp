// Background sessions over the transfer service.
//
// One mutex guards all that sessions and tasks hold. It is never held while a delegate, a handler or the spool is at work. Blocks
// are submitted under it, so that a session's queue gets them in the order in which they were decided.
#include "platform/linux/TransferSessions.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "platform/Exception.h"
#include "platform/Handler.h"

namespace platform {
namespace {

using State = URLSessionTask::State;
using Tasks = std::vector<URLSessionTaskRef>;

State stateOf(transfer::TaskStatus::State state) {
  return state == transfer::TaskStatus::State::kCompleted ? State::kCompleted : State::kRunning;
}

}  // namespace

// All sessions of the process. Sessions and tasks come here with what they are asked; the link comes here with what the service
// says.
class TransferSessions::Core final : public TransferLinkListener, public std::enable_shared_from_this<Core> {
 public:
  Core(Surroundings surroundings, Settings settings)
      : link_(std::move(surroundings.link)),
        spool_(std::move(surroundings.spool)),
        clock_(std::move(surroundings.clock)),
        queues_(std::move(surroundings.queues)),
        settings_(std::move(settings)) {}

  const std::optional<std::string>& identifierOfLaunch() const { return settings_.identifierOfLaunch; }
  void close();

  // Of the application. Any thread.
  BackgroundURLSessionRef session(const URLSessionConfiguration& configuration, std::shared_ptr<URLSessionDelegate> delegate,
                                  std::shared_ptr<DispatchQueue> queue);
  void notifyWhenEventsAreDelivered(const std::string& identifier, std::function<void()> handler);
  void goOnWithInterruptedTransfers();
  URLSessionTaskRef makeTask(const std::shared_ptr<Session>& session, URLRequest request, const URL& file);
  void resume(const std::shared_ptr<Task>& task);
  void cancel(const std::shared_ptr<Task>& task);
  void getTasks(const std::shared_ptr<Session>& session, BackgroundURLSession::TasksHandler handler);
  void invalidate(const std::shared_ptr<Session>& session);

  // Of the link.
  void linkConnected() override;
  void linkReceived(const transfer::Message& message) override;
  void linkDisconnected() override;
  Need linkNeed() override;

 private:
  struct Request {
    std::shared_ptr<Session> session;
    BackgroundURLSession::TasksHandler handler;
  };
  using Notifications = std::vector<std::function<void()>>;

  // Under the mutex.
  std::shared_ptr<Session> find(const std::string& identifier) const;
  // What is not said for want of a connection is said when there is one.
  void say(transfer::Message message) {
    if (isConnected_) link_->send(std::move(message));
  }
  void sayHold(const Session& session);
  void sayInvalidate(Session& session);
  void endTask(const std::shared_ptr<Task>& task, std::optional<Error> error);
  void answer(Request request);
  bool isWorking(const Session& session) const;
  void submitEventOf(const std::shared_ptr<Task>& task, std::optional<Error> error);

  // From the service, under the mutex.
  void received(const transfer::SessionTasks& tasks);
  void received(const transfer::TaskEvent& event);
  void received(const transfer::EventsDelivered& delivered);
  void received(const transfer::Invalidated& invalidated);
  template <class Other>
  void received(const Other& /*message*/) {}  // the link's own, or an application's

  // On a session's delegate queue.
  std::shared_ptr<URLSessionDelegate> delegateOf(const Session& session);
  void deliverTask(const std::shared_ptr<Task>& task, const std::optional<Error>& error);
  void deliverFinishEvents(const std::shared_ptr<Session>& session);
  void deliverInvalid(const std::shared_ptr<Session>& session);

  void afterWriting(const std::shared_ptr<Task>& task, const std::expected<void, Error>& written);
  transfer::SpoolEntry entryOf(const Task& task);
  void submitNotifications(const std::string& identifier);

  const std::shared_ptr<TransferLink> link_;
  const std::shared_ptr<TransferSpool> spool_;
  const std::shared_ptr<Clock> clock_;
  std::shared_ptr<DispatchQueues> queues_;
  const Settings settings_;

  std::mutex mutex_;
  bool isClosed_ = false;
  bool isConnected_ = false;
  std::map<std::string, std::shared_ptr<Session>> sessions_;  // until they are invalidated
  std::map<std::uint64_t, Request> requests_;                 // not answered yet
  std::map<std::string, Notifications> notifications_;
  std::set<std::string> delivered_;  // sessions that are over, and whose stored events were delivered before
  std::uint64_t lastRequest_ = 0;
};

class TransferSessions::Task final : public URLSessionTask, public std::enable_shared_from_this<Task> {
 public:
  Task(std::shared_ptr<Core> core, std::shared_ptr<Session> session, std::uint64_t identifier, State state)
      : core_(std::move(core)), session_(std::move(session)), identifier_(identifier), state_(state) {}

  std::uint64_t taskIdentifier() const override { return identifier_; }
  State state() const override { return state_.load(); }
  void resume() override { core_->resume(shared_from_this()); }
  void cancel() override { core_->cancel(shared_from_this()); }

 private:
  friend class Core;

  const std::shared_ptr<Core> core_;
  const std::shared_ptr<Session> session_;
  const std::uint64_t identifier_;
  std::atomic<State> state_;  // changed under the core's mutex

  // Of a task that this process has made; gone once the spool has them.
  std::optional<URLRequest> request_;
  std::string file_;
  std::optional<Error> identifierError_;  // why there is no identifier that the service could take

  // Under the core's mutex.
  std::optional<std::uint64_t> event_;  // the number under which the service hands the end over
  bool isHandedOver_ = false;           // the delegate operation has returned
};

class TransferSessions::Session final : public BackgroundURLSession, public std::enable_shared_from_this<Session> {
 public:
  Session(std::shared_ptr<Core> core, URLSessionConfiguration configuration, std::shared_ptr<URLSessionDelegate> delegate,
          std::shared_ptr<DispatchQueue> queue)
      : core_(std::move(core)),
        configuration_(std::move(configuration)),
        isSayable_(transfer::isSessionIdentifier(configuration_.identifier())),
        queue_(std::move(queue)),
        delegate_(std::move(delegate)) {}

  const URLSessionConfiguration& configuration() const override { return configuration_; }
  URLSessionTaskRef uploadTaskWithRequestFromFile(URLRequest request, const URL& file) override {
    return core_->makeTask(shared_from_this(), std::move(request), file);
  }
  void invalidateAndCancel() override { core_->invalidate(shared_from_this()); }
  void getTasksWithCompletionHandler(TasksHandler handler) override { core_->getTasks(shared_from_this(), std::move(handler)); }

 private:
  friend class Core;
  enum class Phase { kValid, kInvalidating, kInvalidated };

  const std::string& identifier() const { return configuration_.identifier(); }

  const std::shared_ptr<Core> core_;
  const URLSessionConfiguration configuration_;
  /// The service would refuse the whole application for any other identifier. So it never hears of such a session, and no task of
  /// one gets past the spool.
  const bool isSayable_;
  const std::shared_ptr<DispatchQueue> queue_;

  // Under the core's mutex.
  std::shared_ptr<URLSessionDelegate> delegate_;
  Phase phase_ = Phase::kValid;
  bool isOver_ = false;  // the service has said so; the last event is on its way to the delegate
  std::map<std::uint64_t, std::shared_ptr<Task>> tasks_;
  std::uint64_t tasksBeingWritten_ = 0;
  bool areStoredEventsDelivered_ = false;
  bool mayHandedBeLost_ = false;  // said on a connection that may have broken before the service had read it
};

// Of the application.

void TransferSessions::Core::close() {
  link_->stop();
  decltype(sessions_) sessions;
  decltype(requests_) requests;
  decltype(notifications_) notifications;
  std::vector<std::shared_ptr<URLSessionDelegate>> delegates;
  std::vector<std::shared_ptr<Task>> tasks;
  std::shared_ptr<DispatchQueues> queues;
  const std::lock_guard lock(mutex_);  // what was taken out dies after it is released
  isClosed_ = true;
  for (const auto& [identifier, session] : sessions_) {
    delegates.push_back(std::move(session->delegate_));
    for (const auto& [number, task] : session->tasks_) tasks.push_back(task);
    session->tasks_.clear();
    session->phase_ = Session::Phase::kInvalidated;
  }
  sessions.swap(sessions_);
  requests.swap(requests_);
  notifications.swap(notifications_);
  queues.swap(queues_);
}

BackgroundURLSessionRef TransferSessions::Core::session(const URLSessionConfiguration& configuration,
                                                        std::shared_ptr<URLSessionDelegate> delegate,
                                                        std::shared_ptr<DispatchQueue> queue) {
  std::shared_ptr<Session> session;
  {
    const std::lock_guard lock(mutex_);
    if (const auto made = find(configuration.identifier())) return made;
    if (!queue && queues_) queue = queues_->makeSerialQueue("NSURLSession " + configuration.identifier());
    session = std::make_shared<Session>(shared_from_this(), configuration, std::move(delegate), std::move(queue));
    if (isClosed_) {
      session->phase_ = Session::Phase::kInvalidated;
      return session;
    }
    sessions_.emplace(configuration.identifier(), session);
    sayHold(*session);
  }
  link_->connect();
  return session;
}

void TransferSessions::Core::notifyWhenEventsAreDelivered(const std::string& identifier, std::function<void()> handler) {
  bool areDelivered = false;
  {
    const std::lock_guard lock(mutex_);
    if (isClosed_) return;
    notifications_[identifier].push_back(std::move(handler));
    const auto session = find(identifier);
    areDelivered = session ? session->areStoredEventsDelivered_ : delivered_.contains(identifier);
    if (!areDelivered && !session) return;
  }
  if (areDelivered) return submitNotifications(identifier);
  link_->connect();  // it may have broken while nothing needed it
}

void TransferSessions::Core::goOnWithInterruptedTransfers() {
  std::shared_ptr<DispatchQueue> queue;
  {
    const std::lock_guard lock(mutex_);
    if (!isClosed_) queue = queues_->globalBackgroundQueue();
  }
  if (!queue) return;
  queue->async([core = shared_from_this()] {
    if (core->spool_->hasInterruptedTransfers()) core->link_->connect();
  });
}

URLSessionTaskRef TransferSessions::Core::makeTask(const std::shared_ptr<Session>& session, URLRequest request, const URL& file) {
  if (!file.isFileURL()) throw Exception(kInvalidArgumentException, "Cannot read file at " + file.description());
  const auto reserved = spool_->reserveTaskIdentifier();
  const std::lock_guard lock(mutex_);
  if (session->phase_ != Session::Phase::kValid)
    throw Exception(kGenericException, "Task created in a session that has been invalidated");
  // A task without an identifier of its own never reaches the service, so its number need only be free here.
  std::uint64_t identifier = reserved.value_or(1);
  while (!reserved && session->tasks_.contains(identifier)) ++identifier;
  auto task = std::make_shared<Task>(shared_from_this(), session, identifier, State::kSuspended);
  task->request_ = std::move(request);
  task->file_ = file.path();
  if (!reserved) task->identifierError_ = reserved.error();
  session->tasks_[identifier] = task;
  return task;
}

void TransferSessions::Core::resume(const std::shared_ptr<Task>& task) {
  {
    const std::lock_guard lock(mutex_);
    if (task->state_ != State::kSuspended || task->session_->phase_ != Session::Phase::kValid) return;
    task->state_ = State::kRunning;
    ++task->session_->tasksBeingWritten_;
  }
  afterWriting(task, task->identifierError_ ? std::unexpected(*task->identifierError_) : spool_->write(entryOf(*task)));
}

void TransferSessions::Core::afterWriting(const std::shared_ptr<Task>& task, const std::expected<void, Error>& written) {
  std::optional<URLRequest> request;
  {
    const std::lock_guard lock(mutex_);
    request.swap(task->request_);
    --task->session_->tasksBeingWritten_;
    if (isClosed_) return;
    if (!written) endTask(task, written.error());
    say(transfer::Wake());
    if (written && task->state_ == State::kCanceling) say(transfer::Cancel{task->session_->identifier()});
    if (task->session_->phase_ == Session::Phase::kInvalidating) sayInvalidate(*task->session_);
  }
  link_->connect();
}

transfer::SpoolEntry TransferSessions::Core::entryOf(const Task& task) {
  transfer::SpoolEntry entry;
  entry.session = task.session_->identifier();
  entry.task = task.identifier_;
  entry.method = task.request_->HTTPMethod();
  if (const auto& url = task.request_->URL()) entry.url = url->absoluteString();
  entry.headerFields.assign(task.request_->allHTTPHeaderFields().begin(), task.request_->allHTTPHeaderFields().end());
  entry.file = task.file_;
  entry.trustAnchors = settings_.trustAnchors;
  entry.requestTimeout = settings_.requestTimeout;
  entry.resumedAt = clock_->now().timeIntervalSince1970();
  return entry;
}

void TransferSessions::Core::cancel(const std::shared_ptr<Task>& task) {
  const std::lock_guard lock(mutex_);
  if (isClosed_) return;
  if (task->state_ == State::kSuspended) return endTask(task, urlError(kURLErrorCancelled));
  if (task->state_ != State::kRunning) return;
  task->state_ = State::kCanceling;
  say(transfer::Cancel{task->session_->identifier()});
}

void TransferSessions::Core::getTasks(const std::shared_ptr<Session>& session, BackgroundURLSession::TasksHandler handler) {
  {
    const std::lock_guard lock(mutex_);
    if (isClosed_) return;
    Request request{session, std::move(handler)};
    if (session->isOver_ || !session->isSayable_) return answer(std::move(request));
    const std::uint64_t number = ++lastRequest_;
    requests_.emplace(number, std::move(request));
    say(transfer::GetTasks{number, session->identifier()});
  }
  link_->connect();
}

void TransferSessions::Core::invalidate(const std::shared_ptr<Session>& session) {
  {
    const std::lock_guard lock(mutex_);
    if (isClosed_ || session->phase_ != Session::Phase::kValid) return;
    session->phase_ = Session::Phase::kInvalidating;
    for (const auto& [identifier, task] : session->tasks_) {
      if (task->state_ == State::kSuspended) endTask(task, urlError(kURLErrorCancelled));
      if (task->state_ == State::kRunning) task->state_ = State::kCanceling;
    }
    sayInvalidate(*session);
  }
  link_->connect();
}

// Of the link.

void TransferSessions::Core::linkConnected() {
  const std::lock_guard lock(mutex_);
  if (isClosed_) return;
  isConnected_ = true;
  say(transfer::Wake());
  for (const auto& [identifier, session] : sessions_) {
    session->mayHandedBeLost_ = false;  // what was lost is handed over again
    sayHold(*session);
    if (std::ranges::any_of(session->tasks_, [](const auto& entry) { return entry.second->state_ == State::kCanceling; }))
      say(transfer::Cancel{identifier});
    if (session->phase_ == Session::Phase::kInvalidating) sayInvalidate(*session);
  }
  for (const auto& [number, request] : requests_) say(transfer::GetTasks{number, request.session->identifier()});
}

void TransferSessions::Core::linkReceived(const transfer::Message& message) {
  const std::lock_guard lock(mutex_);
  if (isClosed_) return;
  std::visit([this](const auto& said) { received(said); }, message);
}

void TransferSessions::Core::linkDisconnected() {
  const std::lock_guard lock(mutex_);
  isConnected_ = false;
}

TransferLinkListener::Need TransferSessions::Core::linkNeed() {
  const std::lock_guard lock(mutex_);
  if (sessions_.empty()) return Need::kNone;
  const bool isAnyWorking = std::ranges::any_of(sessions_, [this](const auto& entry) { return isWorking(*entry.second); });
  return isAnyWorking || !requests_.empty() ? Need::kConnect : Need::kKeep;
}

// Whether something of the session is still to come from the service.
bool TransferSessions::Core::isWorking(const Session& session) const {
  if (session.isOver_) return false;
  if (session.phase_ == Session::Phase::kInvalidating || session.mayHandedBeLost_ || notifications_.contains(session.identifier()))
    return true;
  return std::ranges::any_of(session.tasks_, [](const auto& entry) {
    const State state = entry.second->state_;
    return state == State::kRunning || state == State::kCanceling;
  });
}

std::shared_ptr<TransferSessions::Session> TransferSessions::Core::find(const std::string& identifier) const {
  const auto found = sessions_.find(identifier);
  return found == sessions_.end() ? nullptr : found->second;
}

void TransferSessions::Core::sayHold(const Session& session) {
  if (!session.isSayable_) return;
  const bool isOfLaunch = settings_.identifierOfLaunch == session.identifier();
  say(transfer::Hold{session.identifier(), isOfLaunch && !session.areStoredEventsDelivered_});
}

// A task that is being written could reach the service after the end of its session and begin it anew, so the end waits for it.
void TransferSessions::Core::sayInvalidate(Session& session) {
  if (session.tasksBeingWritten_ > 0) return;
  if (!session.isSayable_) return received(transfer::Invalidated{session.identifier()});
  say(transfer::Wake());
  say(transfer::Invalidate{session.identifier()});
}

// A task of which the service knows nothing has ended.
void TransferSessions::Core::endTask(const std::shared_ptr<Task>& task, std::optional<Error> error) {
  task->state_ = State::kCompleted;
  submitEventOf(task, std::move(error));
}

void TransferSessions::Core::answer(Request request) {
  Tasks uploads;
  for (const auto& [identifier, task] : request.session->tasks_) uploads.push_back(task);
  request.session->queue_->async([uploads = std::move(uploads), handler = std::move(request.handler)]() mutable {
    call(handler, Tasks(), std::move(uploads), Tasks());
  });
}

void TransferSessions::Core::submitEventOf(const std::shared_ptr<Task>& task, std::optional<Error> error) {
  task->session_->queue_->async([core = shared_from_this(), task, error = std::move(error)] { core->deliverTask(task, error); });
}

// From the service.

void TransferSessions::Core::received(const transfer::SessionTasks& tasks) {
  const auto session = find(tasks.session);
  if (!session) return;
  for (const transfer::TaskStatus& status : tasks.tasks) {
    std::shared_ptr<Task>& task = session->tasks_[status.identifier];
    if (!task) task = std::make_shared<Task>(shared_from_this(), session, status.identifier, stateOf(status.state));
    if (stateOf(status.state) == State::kCompleted) task->state_ = State::kCompleted;
  }
  const auto found = requests_.find(tasks.request);
  if (found == requests_.end() || found->second.session != session) return;
  answer(std::move(found->second));
  requests_.erase(found);
}

void TransferSessions::Core::received(const transfer::TaskEvent& event) {
  const auto session = find(event.session);
  if (!session) return;
  std::shared_ptr<Task>& task = session->tasks_[event.task.identifier];
  if (!task) task = std::make_shared<Task>(shared_from_this(), session, event.task.identifier, State::kCompleted);
  // A task ends once: whatever the service has lost, its number tells whether the delegate knows. The event's number would not, as
  // it begins again with a session that the service has forgotten.
  const bool isNews = !std::exchange(task->event_, event.event);
  if (task->isHandedOver_) {
    session->mayHandedBeLost_ = true;
    return say(transfer::Handed{event.session, event.event});
  }
  task->state_ = State::kCompleted;
  if (isNews) submitEventOf(task, event.task.error);
}

void TransferSessions::Core::received(const transfer::EventsDelivered& delivered) {
  const auto session = find(delivered.session);
  if (!session) return;
  session->queue_->async([core = shared_from_this(), session] { core->deliverFinishEvents(session); });
}

void TransferSessions::Core::received(const transfer::Invalidated& invalidated) {
  const auto session = find(invalidated.session);
  if (!session || session->phase_ != Session::Phase::kInvalidating || std::exchange(session->isOver_, true)) return;
  for (auto next = requests_.begin(); next != requests_.end();) {
    const auto request = next++;
    if (request->second.session != session) continue;
    answer(std::move(request->second));
    requests_.erase(request);
  }
  session->queue_->async([core = shared_from_this(), session] { core->deliverInvalid(session); });
}

// On a session's delegate queue.

std::shared_ptr<URLSessionDelegate> TransferSessions::Core::delegateOf(const Session& session) {
  const std::lock_guard lock(mutex_);
  return session.delegate_;
}

void TransferSessions::Core::deliverTask(const std::shared_ptr<Task>& task, const std::optional<Error>& error) {
  const std::shared_ptr<Session>& session = task->session_;
  if (const auto delegate = delegateOf(*session)) delegate->URLSessionTaskDidCompleteWithError(session, task, error);
  const std::lock_guard lock(mutex_);
  if (isClosed_) return;
  task->isHandedOver_ = true;
  if (!task->event_) return;  // it ended in this process
  session->mayHandedBeLost_ = true;
  say(transfer::Handed{session->identifier(), *task->event_});
}

void TransferSessions::Core::deliverFinishEvents(const std::shared_ptr<Session>& session) {
  if (const auto delegate = delegateOf(*session)) delegate->URLSessionDidFinishEventsForBackgroundURLSession(session);
  {
    const std::lock_guard lock(mutex_);
    session->areStoredEventsDelivered_ = true;
  }
  submitNotifications(session->identifier());
}

void TransferSessions::Core::deliverInvalid(const std::shared_ptr<Session>& session) {
  if (const auto delegate = delegateOf(*session)) delegate->URLSessionDidBecomeInvalidWithError(session, std::nullopt);
  std::shared_ptr<URLSessionDelegate> delegate;
  decltype(session->tasks_) tasks;
  const std::lock_guard lock(mutex_);  // what was taken out dies after it is released
  if (isClosed_) return;
  delegate.swap(session->delegate_);
  tasks.swap(session->tasks_);
  session->phase_ = Session::Phase::kInvalidated;
  if (session->areStoredEventsDelivered_) delivered_.insert(session->identifier());
  sessions_.erase(session->identifier());
  if (sessions_.empty()) say(transfer::Wake());  // the link sees then that nobody needs it
}

void TransferSessions::Core::submitNotifications(const std::string& identifier) {
  Notifications handlers;
  std::shared_ptr<DispatchQueue> main;
  {
    const std::lock_guard lock(mutex_);
    const auto found = notifications_.find(identifier);
    if (isClosed_ || found == notifications_.end()) return;
    handlers.swap(found->second);
    notifications_.erase(found);
    main = queues_->mainQueue();
  }
  for (auto& handler : handlers) main->async([handler = std::move(handler)] { call(handler); });
}

// The platform's face.

TransferSessions::TransferSessions(Surroundings surroundings, Settings settings) {
  const std::shared_ptr<TransferLink> link = surroundings.link;
  core_ = std::make_shared<Core>(std::move(surroundings), std::move(settings));
  link->setListener(core_);
}

TransferSessions::~TransferSessions() { core_->close(); }

BackgroundURLSessionRef TransferSessions::sessionWithConfigurationDelegateDelegateQueue(
    const URLSessionConfiguration& configuration, std::shared_ptr<URLSessionDelegate> delegate,
    std::shared_ptr<DispatchQueue> delegateQueue) {
  return core_->session(configuration, std::move(delegate), std::move(delegateQueue));
}

std::optional<std::string> TransferSessions::identifierOfLaunch() { return core_->identifierOfLaunch(); }

void TransferSessions::notifyWhenEventsAreDelivered(const std::string& identifier, std::function<void()> handler) {
  core_->notifyWhenEventsAreDelivered(identifier, std::move(handler));
}

void TransferSessions::goOnWithInterruptedTransfers() { core_->goOnWithInterruptedTransfers(); }

}  // namespace platform
