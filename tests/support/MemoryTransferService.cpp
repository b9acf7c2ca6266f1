// The transfer service in memory.
#include "support/MemoryTransferService.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace test {
namespace {

using platform::TransferLinkListener;

transfer::ApplicationIdentity applicationOfTheTest() { return {"com.example.app", "/application", std::string(64, 'a')}; }
std::vector<std::string> launchCommandOfTheTest() { return {"/usr/bin/example", "--background"}; }

}  // namespace

// The link of one process. Both directions go through one queue of the process, and are gone with it.
class MemoryTransferService::Link final : public platform::TransferLink, public std::enable_shared_from_this<Link> {
 public:
  Link(std::shared_ptr<MemoryTransferService> service, std::shared_ptr<platform::DispatchQueue> queue)
      : service_(std::move(service)), queue_(std::move(queue)) {}

  void setListener(std::weak_ptr<TransferLinkListener> listener) override { listener_ = std::move(listener); }

  void connect() override {
    const std::lock_guard lock(mutex_);
    if (isStopped_ || connection_ || std::exchange(isConnecting_, true)) return;
    queue_->async([self = shared_from_this()] { self->tryToConnect(); });
  }

  void send(transfer::Message message) override {
    const std::lock_guard lock(mutex_);
    if (!connection_) return;
    queue_->async([self = shared_from_this(), connection = *connection_, line = encode(message)] { self->say(connection, line); });
  }

  void stop() override { close(true); }

  // Of the service, which holds its mutex.
  void deliver(transfer::ConnectionId connection, std::string line) {
    queue_->async([self = shared_from_this(), connection, line = std::move(line)] { self->take(connection, line); });
  }
  void broke(transfer::ConnectionId connection) {
    queue_->async([self = shared_from_this(), connection] { self->lost(connection); });
  }
  void serviceIsThere() {
    if (const auto listener = listener_.lock(); listener && listener->linkNeed() == TransferLinkListener::Need::kConnect) connect();
  }

 private:
  void tryToConnect() {
    const transfer::ConnectionId made = service_->open(shared_from_this());
    {
      const std::lock_guard lock(mutex_);
      isConnecting_ = false;
      if (isStopped_ || made == 0) return;
      connection_ = made;
    }
    transfer::Hello hello;
    hello.application = applicationOfTheTest();
    hello.launchCommand = launchCommandOfTheTest();
    service_->arrived(made, encode(transfer::Message(hello)));
  }

  void say(transfer::ConnectionId connection, const std::string& line) {
    service_->arrived(connection, line);
    closeWhenNotNeeded();
  }

  void take(transfer::ConnectionId connection, const std::string& line) {
    const auto listener = listener_.lock();
    if (!listener || !isOpen(connection)) return;
    const auto message = transfer::decode(line);
    if (!message) throw std::logic_error("the service said what is no message: " + line);
    if (std::holds_alternative<transfer::Welcome>(*message))
      listener->linkConnected();
    else
      listener->linkReceived(*message);
  }

  void lost(transfer::ConnectionId connection) {
    if (!isOpen(connection)) return;
    close(false);
    const auto listener = listener_.lock();
    if (!listener) return;
    listener->linkDisconnected();
    serviceIsThere();
  }

  void closeWhenNotNeeded() {
    const auto listener = listener_.lock();
    if (!listener || listener->linkNeed() != TransferLinkListener::Need::kNone) return;
    close(false);
    listener->linkDisconnected();
  }

  bool isOpen(transfer::ConnectionId connection) const {
    const std::lock_guard lock(mutex_);
    return connection_ == connection;
  }

  void close(bool forGood) {
    std::optional<transfer::ConnectionId> connection;
    {
      const std::lock_guard lock(mutex_);
      isStopped_ = isStopped_ || forGood;
      connection.swap(connection_);
    }
    if (connection) service_->closed(*connection);
  }

  const std::shared_ptr<MemoryTransferService> service_;
  const std::shared_ptr<platform::DispatchQueue> queue_;
  std::weak_ptr<TransferLinkListener> listener_;
  mutable std::mutex mutex_;
  bool isStopped_ = false;
  bool isConnecting_ = false;
  std::optional<transfer::ConnectionId> connection_;
};

class MemoryTransferService::ApplicationSpool final : public platform::TransferSpool {
 public:
  explicit ApplicationSpool(std::shared_ptr<MemoryTransferService> service) : service_(std::move(service)) {}

  std::expected<std::uint64_t, platform::Error> reserveTaskIdentifier() override {
    const std::lock_guard lock(service_->mutex_);
    if (service_->reservationFailure) return std::unexpected(*service_->reservationFailure);
    return ++service_->lastTask_;
  }

  std::expected<void, platform::Error> write(transfer::SpoolEntry entry) override {
    const std::lock_guard lock(service_->mutex_);
    if (service_->spoolFailure) return std::unexpected(*service_->spoolFailure);
    entry.application = applicationOfTheTest();
    entry.launchCommand = launchCommandOfTheTest();
    service_->spool_.put(std::to_string(++service_->lastSpooled_) + std::string(transfer::kSpoolSuffix), encode(entry));
    return {};
  }

  bool hasInterruptedTransfers() override {
    const std::lock_guard lock(service_->mutex_);
    return service_->hasCrashed_ || !service_->spool_.names().empty();
  }

 private:
  const std::shared_ptr<MemoryTransferService> service_;
};

namespace {

class Wire final : public transfer::Connections {
 public:
  using Send = std::function<void(transfer::ConnectionId, const transfer::Message&)>;
  using Close = std::function<void(transfer::ConnectionId)>;
  Wire(Send send, Close close) : send_(std::move(send)), close_(std::move(close)) {}
  void send(transfer::ConnectionId connection, const transfer::Message& message) override { send_(connection, message); }
  void close(transfer::ConnectionId connection) override { close_(connection); }

 private:
  const Send send_;
  const Close close_;
};

}  // namespace

MemoryTransferService::MemoryTransferService(std::shared_ptr<ManualClock> clock) : clock_(std::move(clock)) {}
MemoryTransferService::~MemoryTransferService() = default;

std::shared_ptr<platform::BackgroundURLSessions> MemoryTransferService::makeSessions(
    std::shared_ptr<platform::DispatchQueues> queues, std::optional<std::string> identifierOfLaunch) {
  auto link = std::make_shared<Link>(shared_from_this(), queues->makeSerialQueue(kQueueLabel));
  {
    const std::lock_guard lock(mutex_);
    links_.push_back(link);
  }
  platform::TransferSessions::Surroundings surroundings;
  surroundings.link = std::move(link);
  surroundings.spool = std::make_shared<ApplicationSpool>(shared_from_this());
  surroundings.clock = clock_;
  surroundings.queues = std::move(queues);
  platform::TransferSessions::Settings settings;
  settings.identifierOfLaunch = std::move(identifierOfLaunch);
  return std::make_shared<platform::TransferSessions>(std::move(surroundings), std::move(settings));
}

// The service's life.

void MemoryTransferService::setMayStart(bool mayStart) {
  const std::lock_guard lock(mutex_);
  mayStart_ = mayStart;
}

bool MemoryTransferService::isRunning() const {
  const std::lock_guard lock(mutex_);
  return service_ != nullptr;
}

void MemoryTransferService::crash() {
  const std::lock_guard lock(mutex_);
  if (!service_) return;
  service_.reset();
  begunBefore_ += uploads_->begun().size();
  uploads_.reset();
  hasCrashed_ = true;
  for (const auto& [connection, link] : std::exchange(open_, {})) link->broke(connection);
}

void MemoryTransferService::startLocked() {
  if (service_) return;
  hasCrashed_ = false;
  store_ = std::make_unique<MemoryTransferStore>(disk_);
  uploads_ = std::make_unique<ScriptedUploads>();
  wire_ = std::make_unique<Wire>(
      [this](transfer::ConnectionId connection, const transfer::Message& message) {
        if (const auto found = open_.find(connection); found != open_.end()) found->second->deliver(connection, encode(message));
      },
      [this](transfer::ConnectionId connection) {
        if (const auto found = open_.find(connection); found != open_.end()) found->second->broke(connection);
      });
  service_ = std::make_unique<transfer::Service>(*store_, *uploads_, launcher_, *wire_, spool_, *clock_, random_,
                                                 transfer::ServiceOptions());
  if (const auto started = service_->start(); !started) throw std::logic_error(started.error().localizedDescription());
}

void MemoryTransferService::start() {
  std::vector<std::weak_ptr<Link>> links;
  {
    const std::lock_guard lock(mutex_);
    mayStart_ = true;
    startLocked();
    links = links_;
  }
  for (const auto& each : links)
    if (const auto link = each.lock()) link->serviceIsThere();
}

void MemoryTransferService::tick() {
  const std::lock_guard lock(mutex_);
  if (service_) service_->tick();
}

// Its uploads.

std::vector<transfer::SpoolEntry> MemoryTransferService::uploads() const {
  const std::lock_guard lock(mutex_);
  std::vector<transfer::SpoolEntry> entries;
  if (uploads_)
    for (const ScriptedUploads::Try& each : uploads_->running()) entries.push_back(each.entry);
  return entries;
}

std::size_t MemoryTransferService::uploadsBegun() const {
  const std::lock_guard lock(mutex_);
  return begunBefore_ + (uploads_ ? uploads_->begun().size() : 0);
}

void MemoryTransferService::answerUpload(std::int64_t status) {
  const std::lock_guard lock(mutex_);
  if (!service_) throw std::logic_error("the service does not run");
  transfer::UploadOutcome outcome;
  outcome.statusCode = status;
  service_->uploadEnded(uploads_->takeOldest(), outcome);
}

void MemoryTransferService::failUpload(const platform::Error& error, bool mayBeTriedAgain) {
  const std::lock_guard lock(mutex_);
  if (!service_) throw std::logic_error("the service does not run");
  transfer::UploadOutcome outcome;
  outcome.error = error;
  outcome.mayBeTriedAgain = mayBeTriedAgain;
  service_->uploadEnded(uploads_->takeOldest(), outcome);
}

// What it did and holds.

std::vector<RecordingLauncher::Launch> MemoryTransferService::launches() const {
  const std::lock_guard lock(mutex_);
  return launcher_.launches;
}

void MemoryTransferService::launchEnded(std::string_view session) {
  const std::lock_guard lock(mutex_);
  for (const RecordingLauncher::Launch& launch : launcher_.launches)
    if (launch.session == session && service_) return service_->launchEnded(launch.application, launch.session);
  throw std::logic_error("nothing was launched for this session");
}

transfer::Contents MemoryTransferService::stored() const {
  const std::lock_guard lock(mutex_);
  return disk_->contents;
}

std::vector<std::string> MemoryTransferService::spooled() {
  const std::lock_guard lock(mutex_);
  return spool_.names();
}

std::size_t MemoryTransferService::connections() const {
  const std::lock_guard lock(mutex_);
  return open_.size();
}

std::vector<std::string> MemoryTransferService::received() const {
  const std::lock_guard lock(mutex_);
  return received_;
}

// Of the links.

transfer::ConnectionId MemoryTransferService::open(const std::shared_ptr<Link>& link) {
  const std::lock_guard lock(mutex_);
  if (!service_ && !mayStart_) return 0;
  startLocked();
  const transfer::ConnectionId connection = ++lastConnection_;
  open_[connection] = link;
  service_->connectionOpened(connection);
  return connection;
}

void MemoryTransferService::arrived(transfer::ConnectionId connection, const std::string& line) {
  const std::lock_guard lock(mutex_);
  if (!service_ || !open_.contains(connection)) return;
  const auto message = transfer::decode(line);
  if (!message) return service_->garbageArrived(connection, message.error());
  if (!std::holds_alternative<transfer::Hello>(*message)) received_.push_back(line.substr(0, line.find('\n')));
  service_->messageArrived(connection, *message);
}

void MemoryTransferService::closed(transfer::ConnectionId connection) {
  std::shared_ptr<Link> link;  // dies after the mutex is released
  const std::lock_guard lock(mutex_);
  const auto found = open_.find(connection);
  if (found == open_.end()) return;
  link = std::move(found->second);
  open_.erase(found);
  if (service_) service_->connectionClosed(connection);
}

}  // namespace test
