// The link to the transfer service.
//
// Callers and the thread share a few words under a mutex; the descriptors, the reader and the listener's calls belong to the
// thread.
#include "platform/linux/SocketTransferLink.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <utility>

#include "platform/SystemLog.h"
#include "platform/linux/ExitGate.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FileErrors.h"
#include "platform/linux/TransferDirectory.h"
#include "platform/linux/TransferServiceProcess.h"

namespace platform {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kFirstWait{10};  // the service that was just started answers soon
constexpr milliseconds kLongestWait{60'000};
constexpr milliseconds kWaitForService{5'000};      // before it is started once more, at first
constexpr int kTriesWithoutNeed = 10;               // of a link that is needed for nothing yet, since it was asked for last
constexpr milliseconds kPatience{10'000};           // for the service's welcome
constexpr milliseconds kShortLife{5'000};           // of a connection that breaks again and again
constexpr milliseconds kLongestWaitAfterLife{500};  // shorter than the service waits before it launches applications

// Doubled with each time in a row.
milliseconds growingWait(milliseconds first, int times, milliseconds longest) {
  return times == 0 ? milliseconds::zero() : std::min(longest, first * (1 << std::min(times - 1, 13)));
}

class MachineTime final : public LinkTime {
 public:
  steady_clock::time_point now() override { return steady_clock::now(); }
  void wait(std::span<pollfd> watched, int limit) override { (void)::poll(watched.data(), watched.size(), limit); }
};

sigset_t signalsOfTheHost() {
  sigset_t signals;
  sigfillset(&signals);
  for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) sigdelset(&signals, fault);
  return signals;
}

class SocketTransferLink final : public TransferLink, public std::enable_shared_from_this<SocketTransferLink> {
 public:
  SocketTransferLink(const SystemOptions& options, std::optional<std::string> directory, std::shared_ptr<TransferIdentity> identity,
                     std::shared_ptr<LinkTime> time)
      : directory_(std::move(directory)),
        identity_(std::move(identity)),
        time_(std::move(time)),
        launchCommand_(options.launchCommand),
        service_(options, directory_) {}
  SocketTransferLink(const SocketTransferLink&) = delete;
  SocketTransferLink& operator=(const SocketTransferLink&) = delete;
  ~SocketTransferLink() override = default;

  void setListener(std::weak_ptr<TransferLinkListener> listener) override { listener_ = std::move(listener); }
  void connect() override;
  void send(transfer::Message message) override;
  void stop() override;

 private:
  enum class State { kIdle, kWaiting, kGreeting, kConnected };  // waiting: for the next try

  bool isHere() const { return getpid() == process_ && !ExitGate::isClosed(); }
  bool startThread();
  static void* threadMain(void* argument);
  void wake() const { (void)eventfd_write(wake_.get(), 1); }

  // On the thread.
  void step();
  void wait();
  milliseconds timeUntilDeadline() const;
  void tryToConnect();
  std::expected<FileDescriptor, int> connectedSocket();
  void greet();
  void giveUp(bool mayStartService, milliseconds leastWait = milliseconds::zero());
  void giveUpForLong(const std::string& cause);
  void startService();
  void noteEndOfService();
  void complain(const std::string& cause);
  bool isWorthAnotherTry();
  void read();
  void take(const transfer::Message& message);
  void write();
  void disconnect();
  bool isListenerSatisfied();
  void beginWhenAsked();
  bool takeAsk();
  void setDeadline(milliseconds wait) { deadline_ = time_->now() + wait; }

  const std::optional<std::string> directory_;
  const std::shared_ptr<TransferIdentity> identity_;
  const std::shared_ptr<LinkTime> time_;
  const std::vector<std::string> launchCommand_;
  const pid_t process_ = getpid();
  std::weak_ptr<TransferLinkListener> listener_;

  std::mutex mutex_;  // held for a few words
  bool isStopping_ = false;
  bool hasThread_ = false;
  bool isAsked_ = false;      // for a connection, since the thread looked last
  bool isWanted_ = false;     // asked for, and not made yet
  bool takesOutput_ = false;  // connected
  std::string output_;
  pthread_t thread_{};

  FileDescriptor wake_;  // made before the thread

  // The thread's own.
  TransferServiceProcess service_;
  State state_ = State::kIdle;
  FileDescriptor socket_;
  transfer::MessageReader reader_;
  std::string unsent_;
  // Since the link was asked for last, or a connection stood.
  int failedTries_ = 0;                // but for those while the program starts
  int triesSinceStart_ = 0;            // since the service was started, if it was
  int starts_ = 0;                     // and the one before the ask
  int shortLives_ = 0;                 // connections in a row that broke soon
  steady_clock::time_point deadline_;  // of waiting and greeting
  steady_clock::time_point connectedAt_;
  std::string complaint_;  // the last that went to the system log since a connection stood
  std::optional<steady_clock::time_point> startedAt_;
};

// Callers.

void SocketTransferLink::connect() {
  if (!isHere()) return;
  const std::lock_guard lock(mutex_);
  if (isStopping_) return;
  isAsked_ = isWanted_ = true;
  if (hasThread_ || startThread()) wake();
}

void SocketTransferLink::send(transfer::Message message) {
  if (!isHere()) return;
  const std::string line = encode(message);
  const std::lock_guard lock(mutex_);
  if (isStopping_ || !takesOutput_) return;
  output_ += line;
  wake();
}

void SocketTransferLink::stop() {
  if (!isHere()) return;
  {
    const std::lock_guard lock(mutex_);
    isStopping_ = true;
    if (!std::exchange(hasThread_, false)) return;
    wake();
  }
  pthread_join(thread_, nullptr);
}

// Without a thread nothing is lost: what is in the spool is found by the next process, or by a service that runs.
bool SocketTransferLink::startThread() {
  ExitGate::install();
  wake_ = FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake_.isOpen()) return false;
  const sigset_t blocked = signalsOfTheHost();
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setsigmask_np(&attributes, &blocked);
  auto self = std::make_unique<std::shared_ptr<SocketTransferLink>>(shared_from_this());
  const int error = pthread_create(&thread_, &attributes, &SocketTransferLink::threadMain, self.get());
  pthread_attr_destroy(&attributes);
  if (error != 0) return false;
  self.release();  // NOLINT(bugprone-unused-return-value): the thread owns it
  hasThread_ = true;
  return true;
}

// The thread.

void* SocketTransferLink::threadMain(void* argument) {
  const std::unique_ptr<std::shared_ptr<SocketTransferLink>> owner(static_cast<std::shared_ptr<SocketTransferLink>*>(argument));
  SocketTransferLink& self = **owner;
  pthread_setname_np(pthread_self(), "transfers");
  ExitGate::enter();
  for (;;) {
    {
      const std::lock_guard lock(self.mutex_);
      if (self.isStopping_) break;
    }
    ExitGate::pass();
    self.step();
    ExitGate::leave();
    self.wait();
    ExitGate::enter();
  }
  self.disconnect();
  ExitGate::leave();
  return nullptr;
}

void SocketTransferLink::step() {
  noteEndOfService();
  beginWhenAsked();
  if (state_ == State::kWaiting && timeUntilDeadline() <= milliseconds::zero()) tryToConnect();
  if (state_ == State::kGreeting || state_ == State::kConnected) {
    read();
    write();
  }
  if (state_ == State::kGreeting && timeUntilDeadline() <= milliseconds::zero()) giveUp(false);
  if (state_ == State::kConnected && unsent_.empty() && isListenerSatisfied()) disconnect();
}

// Whoever asks does not wait for the end of a pause, and makes none longer: an application that takes up many sessions asks many
// times before the service can be there.
void SocketTransferLink::beginWhenAsked() {
  if (state_ == State::kIdle || state_ == State::kWaiting) (void)takeAsk();
}

// Whether somebody has asked since the thread looked last; the next try is due then.
bool SocketTransferLink::takeAsk() {
  const std::lock_guard lock(mutex_);
  if (!std::exchange(isAsked_, false)) return false;
  failedTries_ = triesSinceStart_ = 0;
  starts_ = std::min(starts_, 1);
  state_ = State::kWaiting;
  setDeadline(milliseconds::zero());
  return true;
}

// What was asked until now the listener knows of; what is asked from now on makes a new connection.
bool SocketTransferLink::isListenerSatisfied() {
  {
    const std::lock_guard lock(mutex_);
    isWanted_ = isAsked_ = false;
  }
  const auto listener = listener_.lock();
  return !listener || listener->linkNeed() == TransferLinkListener::Need::kNone;
}

milliseconds SocketTransferLink::timeUntilDeadline() const { return std::chrono::ceil<milliseconds>(deadline_ - time_->now()); }

void SocketTransferLink::wait() {
  const short events = static_cast<short>(unsent_.empty() ? POLLIN : POLLIN | POLLOUT);
  std::array<pollfd, 3> watched{{{wake_.get(), POLLIN, 0}, {socket_.get(), events, 0}, {service_.descriptor(), POLLIN, 0}}};
  const bool hasDeadline = state_ == State::kWaiting || state_ == State::kGreeting;
  const int timeout = hasDeadline ? static_cast<int>(std::max<std::int64_t>(timeUntilDeadline().count(), 0)) : -1;
  time_->wait(watched, timeout);
  eventfd_t count = 0;
  (void)eventfd_read(wake_.get(), &count);
}

void SocketTransferLink::tryToConnect() {
  auto made = connectedSocket();
  if (!made) return giveUp(made.error() == ENOENT || made.error() == ECONNREFUSED);
  socket_ = *std::move(made);
  reader_ = transfer::MessageReader();
  state_ = State::kGreeting;
  setDeadline(kPatience);
  greet();
}

std::expected<FileDescriptor, int> SocketTransferLink::connectedSocket() {
  if (!directory_) return std::unexpected(EINVAL);
  const auto directory = TransferDirectory::open(*directory_);
  if (!directory) {
    complain("The transfer service cannot be reached: " + directory.error().localizedDescription());
    return std::unexpected(EINVAL);
  }
  return directory->connect();
}

void SocketTransferLink::greet() {
  auto identity = identity_->identity();
  if (!identity) {
    complain("The transfer service cannot be asked: " + identity.error().localizedDescription());
    return giveUp(false);
  }
  transfer::Hello hello;
  hello.application = *std::move(identity);
  hello.launchCommand = launchCommand_;
  unsent_ = encode(hello);
}

// After a try that failed: another one later, if it is worth it.
void SocketTransferLink::giveUp(bool mayStartService, milliseconds leastWait) {
  // A service that dies at each start must not be started without pause.
  if (state_ == State::kConnected) shortLives_ = time_->now() - connectedAt_ < kShortLife ? shortLives_ + 1 : 0;
  disconnect();
  if (takeAsk()) return;
  if (!service_.isRunning()) ++failedTries_;
  ++triesSinceStart_;
  if (!isWorthAnotherTry()) {
    failedTries_ = triesSinceStart_ = 0;
    return;
  }
  if (mayStartService) startService();
  state_ = State::kWaiting;
  setDeadline(std::max({leastWait, growingWait(kFirstWait, triesSinceStart_, kLongestWait),
                        growingWait(kFirstWait, shortLives_, kLongestWaitAfterLife)}));
}

// What a try right away would only meet again.
void SocketTransferLink::giveUpForLong(const std::string& cause) {
  complain(cause);
  giveUp(false, kLongestWait);
}

// The service that was just started answers soon, however long the tries before it had become.
void SocketTransferLink::startService() {
  const auto now = time_->now();
  if (service_.isRunning() || (startedAt_ && now - *startedAt_ < growingWait(kWaitForService, starts_, kLongestWait))) return;
  startedAt_ = now;
  ++starts_;
  if (const int error = service_.start())
    complain("The transfer service cannot be started as “" + service_.program() + "”: " + systemErrorText(error) + ".");
  else
    triesSinceStart_ = 1;
}

// The program that is started ends in peace when a service answers.
void SocketTransferLink::noteEndOfService() {
  const std::optional<std::string> end = service_.reap();
  if (end && state_ != State::kConnected) complain("The transfer service “" + service_.program() + "” " + *end + ".");
}

void SocketTransferLink::complain(const std::string& cause) {
  if (complaint_ == cause) return;
  complaint_ = cause;
  SystemLog::systemLog().log(cause);
}

bool SocketTransferLink::isWorthAnotherTry() {
  const auto listener = listener_.lock();
  if (!listener) return false;
  if (listener->linkNeed() == TransferLinkListener::Need::kConnect) return true;
  const std::lock_guard lock(mutex_);
  isWanted_ = isWanted_ && failedTries_ < kTriesWithoutNeed;
  return isWanted_;
}

void SocketTransferLink::read() {
  std::array<char, 65536> buffer;
  for (;;) {
    const ssize_t got = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno == EAGAIN) return;
    if (got <= 0) return giveUp(false);
    reader_.append({buffer.data(), static_cast<std::size_t>(got)});
    while (const auto message = reader_.next()) {
      if (!*message) return giveUpForLong("The transfer service says what is no message: " + message->error() + ".");
      take(**message);
      if (state_ != State::kGreeting && state_ != State::kConnected) return;
    }
  }
}

void SocketTransferLink::take(const transfer::Message& message) {
  const auto listener = listener_.lock();
  if (!listener) return;
  if (const auto* refused = std::get_if<transfer::Refused>(&message))
    return giveUpForLong("The transfer service refuses this application: " + refused->reason + ".");
  if (state_ == State::kConnected) return listener->linkReceived(message);
  const auto* welcome = std::get_if<transfer::Welcome>(&message);
  if (!welcome || welcome->version != transfer::kProtocolVersion)
    return giveUpForLong("The transfer service says something else than welcome.");
  state_ = State::kConnected;
  connectedAt_ = time_->now();
  complaint_.clear();
  failedTries_ = triesSinceStart_ = starts_ = 0;
  startedAt_.reset();
  {
    const std::lock_guard lock(mutex_);
    takesOutput_ = true;
  }
  listener->linkConnected();
}

void SocketTransferLink::write() {
  {
    const std::lock_guard lock(mutex_);
    unsent_ += std::exchange(output_, {});
  }
  while (!unsent_.empty()) {
    const ssize_t sent = ::send(socket_.get(), unsent_.data(), unsent_.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && errno == EAGAIN) return;
    if (sent < 0) return giveUp(false);
    unsent_.erase(0, static_cast<std::size_t>(sent));
  }
}

void SocketTransferLink::disconnect() {
  socket_.close();
  unsent_.clear();
  {
    const std::lock_guard lock(mutex_);
    takesOutput_ = false;
    output_.clear();
  }
  const bool wasConnected = state_ == State::kConnected;
  state_ = State::kIdle;
  if (!wasConnected) return;
  if (const auto listener = listener_.lock()) listener->linkDisconnected();
}

}  // namespace

std::shared_ptr<TransferLink> makeSocketTransferLink(const SystemOptions& options, std::optional<std::string> directory,
                                                     std::shared_ptr<TransferIdentity> identity, std::shared_ptr<LinkTime> time) {
  if (!time) time = std::make_shared<MachineTime>();
  return std::make_shared<SocketTransferLink>(options, std::move(directory), std::move(identity), std::move(time));
}

}  // namespace platform
