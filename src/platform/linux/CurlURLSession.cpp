// The session and its tasks over the loop.
#include "platform/linux/CurlURLSession.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "platform/Exception.h"
#include "platform/linux/CurlLoop.h"
#include "platform/linux/Environment.h"

namespace platform {
namespace {

/// A request from its making to its handler. The state decides between an outcome and a cancellation: whoever changes it first.
class CurlDataTask final : public URLSessionTask, public CurlLoad, public std::enable_shared_from_this<CurlDataTask> {
 public:
  CurlDataTask(std::uint64_t identifier, URLRequest request, URLSession::CompletionHandler handler, std::shared_ptr<CurlLoop> loop,
               std::shared_ptr<DispatchQueue> completionQueue)
      : identifier_(identifier),
        request_(std::move(request)),
        handler_(std::move(handler)),
        loop_(std::move(loop)),
        completionQueue_(std::move(completionQueue)) {}

  std::uint64_t taskIdentifier() const override { return identifier_; }
  State state() const override { return state_; }

  void resume() override {
    State expected = State::kSuspended;
    if (state_.compare_exchange_strong(expected, State::kRunning)) loop_->start(shared_from_this());
  }

  void cancel() override {
    State seen = State::kSuspended;
    if (state_.compare_exchange_strong(seen, State::kCanceling)) return finish(std::unexpected(urlError(kURLErrorCancelled)));
    seen = State::kRunning;
    if (state_.compare_exchange_strong(seen, State::kCanceling)) loop_->cancel(shared_from_this());
  }

  const URLRequest& request() const override { return request_; }
  bool isCancelled() const override { return state_ == State::kCanceling; }

  void finish(std::expected<HTTPAnswer, Error> outcome) override {
    if (state_.exchange(State::kCompleted) == State::kCanceling) outcome = std::unexpected(urlError(kURLErrorCancelled));
    completionQueue_->async(
        [self = shared_from_this(), outcome = std::move(outcome)]() mutable { self->deliver(std::move(outcome)); });
  }

 private:
  void deliver(std::expected<HTTPAnswer, Error> outcome) {
    URLSession::CompletionHandler handler = std::move(handler_);
    if (!handler) throw Exception(kInvalidArgumentException, "The completion handler of a data task is absent");
    if (outcome)
      handler(std::move(outcome->body), std::move(outcome->response), std::nullopt);
    else
      handler(std::nullopt, nullptr, std::move(outcome.error()));
  }

  const std::uint64_t identifier_;
  const URLRequest request_;
  URLSession::CompletionHandler handler_;
  const std::shared_ptr<CurlLoop> loop_;
  const std::shared_ptr<DispatchQueue> completionQueue_;
  std::atomic<State> state_{State::kSuspended};
};

class CurlURLSession final : public URLSession {
 public:
  CurlURLSession(CurlLoop::Settings settings, std::shared_ptr<DispatchQueue> completionQueue)
      : loop_(std::make_shared<CurlLoop>(std::move(settings))), completionQueue_(std::move(completionQueue)) {}
  CurlURLSession(const CurlURLSession&) = delete;
  CurlURLSession& operator=(const CurlURLSession&) = delete;
  ~CurlURLSession() override { loop_->stop(); }

  std::shared_ptr<URLSessionTask> dataTaskWithRequestCompletionHandler(URLRequest request, CompletionHandler handler) override {
    return std::make_shared<CurlDataTask>(++lastIdentifier_, std::move(request), std::move(handler), loop_, completionQueue_);
  }

 private:
  const std::shared_ptr<CurlLoop> loop_;
  const std::shared_ptr<DispatchQueue> completionQueue_;
  std::atomic<std::uint64_t> lastIdentifier_{0};
};

}  // namespace

CurlURLSessionOptions CurlURLSessionOptions::fromSystemOptions(const SystemOptions& options) {
  CurlURLSessionOptions made;
  if (options.requestTimeout > 0) {
    const double longest = std::chrono::duration<double>(made.resourceTimeout).count();
    const std::chrono::duration<double> seconds(std::min(options.requestTimeout, longest));
    made.requestTimeout = std::chrono::ceil<std::chrono::milliseconds>(seconds);
  }
  made.maxResponseBytes = options.maxResponseBytes;
  return made;
}

std::shared_ptr<URLSession> makeCurlURLSession(const CurlURLSessionOptions& options, DispatchQueues& queues) {
  CurlLoop::Settings settings;
  settings.requestTimeout = options.requestTimeout;
  settings.resourceTimeout = options.resourceTimeout;
  settings.maxResponseBytes = options.maxResponseBytes;
  settings.trustAnchorsFile = trustedEnvironmentText("SSL_CERT_FILE");
  return std::make_shared<CurlURLSession>(std::move(settings), queues.makeSerialQueue("NSURLSession completions"));
}

}  // namespace platform
