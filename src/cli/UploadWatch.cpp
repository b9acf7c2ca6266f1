// The wrapper around background sessions and their delegate.
#include "cli/UploadWatch.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace cli {
namespace {

using platform::BackgroundURLSessionRef;
using platform::URLSessionTaskRef;

class WatchedDelegate final : public platform::URLSessionDelegate {
 public:
  WatchedDelegate(std::shared_ptr<platform::URLSessionDelegate> delegate, std::shared_ptr<UploadWatch> watch)
      : delegate_(std::move(delegate)), watch_(std::move(watch)) {}

  void URLSessionTaskDidCompleteWithError(const BackgroundURLSessionRef& session, const URLSessionTaskRef& task,
                                          const std::optional<platform::Error>& error) override {
    watch_->hand({session->configuration().identifier(), error},
                 [&] { delegate_->URLSessionTaskDidCompleteWithError(session, task, error); });
  }
  void URLSessionDidBecomeInvalidWithError(const BackgroundURLSessionRef& session,
                                           const std::optional<platform::Error>& error) override {
    delegate_->URLSessionDidBecomeInvalidWithError(session, error);
  }
  void URLSessionDidFinishEventsForBackgroundURLSession(const BackgroundURLSessionRef& session) override {
    delegate_->URLSessionDidFinishEventsForBackgroundURLSession(session);
  }
  void URLSessionDownloadTaskDidFinishDownloadingToURL(const BackgroundURLSessionRef& session,
                                                       const URLSessionTaskRef& downloadTask,
                                                       const platform::URL& location) override {
    delegate_->URLSessionDownloadTaskDidFinishDownloadingToURL(session, downloadTask, location);
  }

 private:
  const std::shared_ptr<platform::URLSessionDelegate> delegate_;
  const std::shared_ptr<UploadWatch> watch_;
};

class WatchedSessions final : public platform::BackgroundURLSessions {
 public:
  WatchedSessions(std::shared_ptr<platform::BackgroundURLSessions> sessions, std::shared_ptr<UploadWatch> watch)
      : sessions_(std::move(sessions)), watch_(std::move(watch)) {}

  BackgroundURLSessionRef sessionWithConfigurationDelegateDelegateQueue(const platform::URLSessionConfiguration& configuration,
                                                                        std::shared_ptr<platform::URLSessionDelegate> delegate,
                                                                        std::shared_ptr<platform::DispatchQueue> queue) override {
    watch_->made(configuration.identifier());
    return sessions_->sessionWithConfigurationDelegateDelegateQueue(
        configuration, std::make_shared<WatchedDelegate>(std::move(delegate), watch_), std::move(queue));
  }
  std::optional<std::string> identifierOfLaunch() override { return sessions_->identifierOfLaunch(); }
  void notifyWhenEventsAreDelivered(const std::string& identifier, std::function<void()> handler) override {
    sessions_->notifyWhenEventsAreDelivered(identifier, std::move(handler));
  }
  void goOnWithInterruptedTransfers() override { sessions_->goOnWithInterruptedTransfers(); }

 private:
  const std::shared_ptr<platform::BackgroundURLSessions> sessions_;
  const std::shared_ptr<UploadWatch> watch_;
};

}  // namespace

void UploadWatch::made(const std::string& session) {
  const std::lock_guard lock(mutex_);
  lastSession_ = session;
}

void UploadWatch::close() {
  const std::lock_guard handing(handing_);
  isClosed_ = true;
}

void UploadWatch::hand(const UploadEnd& end, const std::function<void()>& operation) {
  const std::lock_guard handing(handing_);
  while (isClosed_) ::pause();  // the process is about to exit
  operation();
  if (listener_) listener_(end);
  const std::lock_guard lock(mutex_);
  ends_.push_back(end);
  ++changes_;
  changed_.notify_all();
}

void UploadWatch::delivered() {
  const std::lock_guard lock(mutex_);
  isDelivered_ = true;
  ++changes_;
  changed_.notify_all();
}

std::optional<std::string> UploadWatch::lastSession() const {
  const std::lock_guard lock(mutex_);
  return lastSession_;
}

std::optional<UploadEnd> UploadWatch::endOf(const std::string& session) const {
  const std::lock_guard lock(mutex_);
  const auto found = std::ranges::find(ends_, session, &UploadEnd::session);
  return found == ends_.end() ? std::nullopt : std::optional(*found);
}

std::vector<UploadEnd> UploadWatch::ends() const {
  const std::lock_guard lock(mutex_);
  return ends_;
}

void UploadWatch::waitForChange(double seconds) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, std::chrono::duration<double>(std::max(seconds, 0.0)), [this] { return changes_ != seen_; });
  seen_ = changes_;
}

bool UploadWatch::isDelivered() const {
  const std::lock_guard lock(mutex_);
  return isDelivered_;
}

std::shared_ptr<platform::BackgroundURLSessions> observe(std::shared_ptr<platform::BackgroundURLSessions> sessions,
                                                         std::shared_ptr<UploadWatch> watch) {
  return std::make_shared<WatchedSessions>(std::move(sessions), std::move(watch));
}

}  // namespace cli
