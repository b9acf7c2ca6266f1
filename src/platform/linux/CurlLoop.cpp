// The loop over libcurl's multi interface.
#include "platform/linux/CurlLoop.h"

#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <new>
#include <system_error>
#include <utility>

#include "platform/linux/ExitGate.h"
#include "platform/linux/HTTPRules.h"
#include "platform/linux/OpenSSLDigest.h"

namespace platform {
namespace {

using Clock = CurlTransfer::Clock;

constexpr std::size_t kMaxConnectionsPerHost = 6;
constexpr long kMaxKeptConnections = 24;

/// Once in a process, on a loop's thread: it costs too much for a caller's. Never undone, as threads may load while the process
/// exits.
bool initializeLibrary() {
  static const bool kDone = [] {
    initializeOpenSSL();
    return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  }();
  return kDone;
}

/// What shares connection slots.
std::string slotKey(const URL& url) { return *url.host() + ":" + std::to_string(url.port().value_or(443)); }

}  // namespace

std::optional<std::string> trustedEnvironmentText(const char* name) {
  const char* text = secure_getenv(name);
  return text && *text ? std::optional<std::string>(text) : std::nullopt;
}

std::string hostsWithoutProxyFromEnvironment() {
  std::optional<std::string> listed = trustedEnvironmentText("no_proxy");
  if (!listed) listed = trustedEnvironmentText("NO_PROXY");
  std::string loopback = "localhost,127.0.0.1,::1";
  if (!listed) return loopback;
  return *listed == "*" ? *listed : *listed + "," + loopback;
}

// Everything that belongs to the thread alone. It lives while the thread is in its loop.
class CurlLoop::Run {
 public:
  explicit Run(const Settings& settings) : settings_(settings), multi_(initializeLibrary() ? curl_multi_init() : nullptr) {
    transferSettings_.requestTimeout = settings.requestTimeout;
    transferSettings_.maxResponseBytes = settings.maxResponseBytes;
    transferSettings_.trustAnchorsFile = settings.trustAnchorsFile;
    transferSettings_.hostsWithoutProxy = settings.hostsWithoutProxy;
    if (!multi_) throw std::bad_alloc();  // there is no other reason, and nobody could be told: the process ends
    curl_multi_setopt(multi_, CURLMOPT_PIPELINING, long{CURLPIPE_NOTHING});
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(kMaxConnectionsPerHost));
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, kMaxKeptConnections);
    transferSettings_.sockets = &sockets_;
    transferSettings_.keepsAnswerBody = settings.keepsAnswerBodies;
    if (!settings.keepsCookies) return;
    transferSettings_.share = curl_share_init();
    curl_share_setopt(transferSettings_.share, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
  }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  ~Run() {
    for (auto& [load, entry] : entries_) endTransfer(*entry);
    curl_multi_cleanup(multi_);
    curl_share_cleanup(transferSettings_.share);
  }

  CURLM* multi() const { return multi_; }

  void accept(const Job& job) {
    if (job.kind == Job::Kind::kStart)
      begin(job.load);
    else if (const auto entry = entries_.find(job.load.get()); entry != entries_.end())
      end(*entry->second, std::unexpected(urlError(kURLErrorCancelled)));
  }

  void step() {
    int running = 0;
    curl_multi_perform(multi_, &running);
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi_, &left))
      if (message->msg == CURLMSG_DONE) transferEnded(entryOf(message->easy_handle), message->data.result);
    endOverdue();
  }

  /// Until there is something to do or somebody wakes the loop.
  void wait() { curl_multi_poll(multi_, nullptr, 0, millisecondsToNextDeadline(), nullptr); }

 private:
  struct Entry {
    Entry(std::shared_ptr<CurlLoad> work, URLRequest first) : load(std::move(work)), request(std::move(first)) {}

    std::shared_ptr<CurlLoad> load;
    URLRequest request;  // of the present hop
    int redirects = 0;
    CurlTransfer::Settings settings;
    Clock::time_point resourceDeadline;
    std::string slot;
    std::unique_ptr<CurlTransfer> transfer;  // null while the entry waits for a slot
  };

  struct Host {
    std::vector<Entry*> active;
    std::deque<Entry*> waiting;
  };

  void begin(const std::shared_ptr<CurlLoad>& load) {
    // A cancellation from another thread can come into the inbox before the start.
    if (load->isCancelled()) return load->finish(std::unexpected(urlError(kURLErrorCancelled)));
    if (const std::optional<Error> refusal = refusalOfRequest(load->request())) return load->finish(std::unexpected(*refusal));
    auto made = std::make_unique<Entry>(load, load->request());
    Entry& entry = *made;
    entry.settings = settingsFor(*load);
    entry.resourceDeadline = Clock::now() + settings_.resourceTimeout;
    entries_.emplace(load.get(), std::move(made));
    enqueue(entry);
  }

  CurlTransfer::Settings settingsFor(const CurlLoad& load) const {
    CurlTransfer::Settings settings = transferSettings_;
    if (const auto timeout = load.requestTimeout()) settings.requestTimeout = *timeout;
    if (auto anchors = load.trustAnchorsFile()) settings.trustAnchorsFile = std::move(*anchors);
    return settings;
  }

  void enqueue(Entry& entry) {
    entry.slot = slotKey(*entry.request.URL());
    hosts_[entry.slot].waiting.push_back(&entry);
    fillSlots(entry.slot);
  }

  // Slots are given out here and not by the library, so that waiting for one does not count as a lack of progress.
  void fillSlots(const std::string& slot) {
    const auto host = hosts_.find(slot);
    if (host == hosts_.end()) return;
    auto& [active, waiting] = host->second;
    while (active.size() < kMaxConnectionsPerHost && !waiting.empty()) {
      active.push_back(waiting.front());
      waiting.pop_front();
      startTransfer(*active.back());
    }
    if (active.empty()) hosts_.erase(host);
  }

  void startTransfer(Entry& entry, CurlTransfer::Connection connection = CurlTransfer::Connection::kAny) {
    entry.transfer = std::make_unique<CurlTransfer>(entry.request, entry.settings, connection, entry.load->bodySource());
    CURL* easy = entry.transfer->easy();
    curl_easy_setopt(easy, CURLOPT_PRIVATE, &entry);
    if (curl_multi_add_handle(multi_, easy) != CURLM_OK) throw std::bad_alloc();
  }

  static Entry& entryOf(CURL* easy) {
    char* entry = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &entry);
    return *reinterpret_cast<Entry*>(entry);
  }

  void endTransfer(Entry& entry) {
    if (!entry.transfer) return;
    curl_multi_remove_handle(multi_, entry.transfer->easy());
    entry.transfer.reset();
  }

  void transferEnded(Entry& entry, CURLcode code) {
    if (entry.transfer->metClosedConnection()) {
      endTransfer(entry);
      return startTransfer(entry, CurlTransfer::Connection::kNew);
    }
    std::expected<HTTPAnswer, Error> outcome = entry.transfer->outcome(code);
    std::optional<std::expected<URLRequest, Error>> redirected;
    if (outcome) redirected = redirection(entry.request, *outcome->response);
    if (!redirected) return end(entry, std::move(outcome));
    if (!*redirected) return end(entry, std::unexpected(redirected->error()));
    follow(entry, std::move(**redirected));
  }

  void follow(Entry& entry, URLRequest next) {
    if (++entry.redirects > kMaxRedirects) return end(entry, std::unexpected(urlError(kURLErrorHTTPTooManyRedirects)));
    if (const std::optional<Error> refusal = refusalOfRequest(next)) return end(entry, std::unexpected(*refusal));
    leaveHost(entry);
    entry.request = std::move(next);
    enqueue(entry);
  }

  void end(Entry& entry, std::expected<HTTPAnswer, Error> outcome) {
    leaveHost(entry);
    forget(entry)->finish(std::move(outcome));
  }

  // Gives the slot, or the place among those who wait for one, to whoever is next.
  void leaveHost(Entry& entry) {
    endTransfer(entry);
    Host& host = hosts_.at(entry.slot);
    std::erase(host.active, &entry);
    std::erase(host.waiting, &entry);
    fillSlots(entry.slot);
  }

  std::shared_ptr<CurlLoad> forget(const Entry& entry) {
    std::shared_ptr<CurlLoad> load = entry.load;
    entries_.erase(load.get());
    return load;
  }

  // Who waits for a slot came in the order of the waiting list, so that its first is the first to be overdue. (A redirected one may
  // be older than those before it; it is then found when it has its slot.)
  template <class Use>
  void forEachDeadline(Use use) {
    for (auto& [key, host] : hosts_) {
      for (Entry* entry : host.active) use(*entry, std::min(entry->transfer->deadline(), entry->resourceDeadline));
      if (!host.waiting.empty()) use(*host.waiting.front(), host.waiting.front()->resourceDeadline);
    }
  }

  void endOverdue() {
    const Clock::time_point now = Clock::now();
    std::vector<Entry*> overdue;
    forEachDeadline([&](Entry& entry, Clock::time_point deadline) {
      if (deadline <= now) overdue.push_back(&entry);
    });
    for (Entry* entry : overdue) end(*entry, std::unexpected(urlError(kURLErrorTimedOut)));
  }

  int millisecondsToNextDeadline() {
    Clock::time_point next = Clock::now() + std::chrono::hours(1);
    forEachDeadline([&](const Entry&, Clock::time_point deadline) { next = std::min(next, deadline); });
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    return static_cast<int>(std::max<std::int64_t>(wait.count(), 0));
  }

  const Settings& settings_;
  CurlTransfer::Settings transferSettings_;
  CurlSockets sockets_;
  CURLM* multi_ = nullptr;
  std::map<CurlLoad*, std::unique_ptr<Entry>> entries_;
  std::map<std::string, Host> hosts_;
};

bool CurlLoop::isHere() const { return getpid() == process_ && !ExitGate::isClosed(); }

void CurlLoop::start(std::shared_ptr<CurlLoad> load) { submit({Job::Kind::kStart, std::move(load)}); }
void CurlLoop::cancel(std::shared_ptr<CurlLoad> load) { submit({Job::Kind::kCancel, std::move(load)}); }

void CurlLoop::submit(Job job) {
  if (!isHere()) return;
  std::lock_guard lock(mutex_);
  if (stopping_) return;
  inbox_.push_back(std::move(job));
  if (!hasThread_) startThread();
  if (awake_) curl_multi_wakeup(awake_);
}

void CurlLoop::startThread() {
  ExitGate::install();
  // The host's signals are for the host's threads; SIGPIPE from a connection that broke is for nobody. Faults still show.
  sigset_t blocked;
  sigfillset(&blocked);
  for (const int fault : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) sigdelset(&blocked, fault);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setsigmask_np(&attributes, &blocked);
  auto self = std::make_unique<std::shared_ptr<CurlLoop>>(shared_from_this());
  const int error = pthread_create(&thread_, &attributes, &CurlLoop::threadMain, self.get());
  pthread_attr_destroy(&attributes);
  if (error != 0) throw std::system_error(error, std::generic_category(), "No thread for URL loading");
  self.release();  // NOLINT(bugprone-unused-return-value): the thread owns it
  hasThread_ = true;
}

void* CurlLoop::threadMain(void* argument) {
  const std::unique_ptr<std::shared_ptr<CurlLoop>> owner(static_cast<std::shared_ptr<CurlLoop>*>(argument));
  CurlLoop& self = **owner;
  pthread_setname_np(pthread_self(), "URL loading");
  ExitGate::enter();
  {
    Run run(self.settings_);
    for (bool going = true; going;) {
      std::vector<Job> jobs;
      {
        std::lock_guard lock(self.mutex_);
        self.awake_ = self.stopping_ ? nullptr : run.multi();
        jobs.swap(self.inbox_);
        going = !self.stopping_;
      }
      if (!going) break;
      ExitGate::pass();
      for (const Job& job : jobs) run.accept(job);
      run.step();
      // Whoever exits need not wait for a thread that only waits for the network.
      ExitGate::leave();
      run.wait();
      ExitGate::enter();
    }
  }
  ExitGate::leave();
  return nullptr;
}

void CurlLoop::stop() {
  if (!isHere()) return;
  pthread_t thread;
  {
    std::lock_guard lock(mutex_);
    if (std::exchange(stopping_, true) || !hasThread_) return;
    thread = thread_;
    if (awake_) curl_multi_wakeup(awake_);
  }
  if (pthread_equal(thread, pthread_self()))
    pthread_detach(thread);
  else
    pthread_join(thread, nullptr);
}

}  // namespace platform
