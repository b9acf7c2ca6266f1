// Uploads as loads of the URL loading loop.
#include "transfer/linux/CurlUploads.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string_view>
#include <utility>

#include "platform/URL.h"
#include "transfer/linux/FileBodySource.h"

namespace transfer {
namespace {

using platform::Error;

constexpr std::chrono::days kResourceTimeout{7};
constexpr double kUsualTimeout = 60;

std::chrono::milliseconds timeoutOf(const SpoolEntry& entry) {
  const double longest = std::chrono::duration<double>(kResourceTimeout).count();
  const double seconds = entry.requestTimeout > 0 ? std::min(entry.requestTimeout, longest) : kUsualTimeout;
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

platform::URLRequest requestOf(const SpoolEntry& entry) {
  platform::URLRequest request(platform::URL::URLWithString(entry.url));
  request.setHTTPMethod(entry.method);
  for (const auto& [name, value] : entry.headerFields) request.setValueForHTTPHeaderField(value, name);
  request.setHTTPBody(platform::Data());  // the file stands in for it
  return request;
}

platform::CurlLoop::Settings loopSettings(const CurlUploads::Options& options) {
  platform::CurlLoop::Settings settings;
  settings.resourceTimeout = kResourceTimeout;  // the service has the task's own
  settings.maxResponseBytes = options.maxAnswerBytes;
  settings.keepsCookies = false;
  settings.keepsAnswerBodies = false;
  return settings;
}

/// The library's own words are all that tells a connection that ended in the handshake from a handshake that failed.
bool wasCut(std::string_view detail) {
  constexpr std::string_view kCuts[] = {"SSL_ERROR_SYSCALL", "SSL_ERROR_ZERO_RETURN", "unexpected eof", "Connection reset",
                                        "Broken pipe"};
  return std::ranges::any_of(kCuts, [detail](std::string_view cut) { return detail.find(cut) != std::string_view::npos; });
}

/// The machine, and not the file, is to blame.
bool isShortage(const Error& error) {
  if (!error.underlyingError()) return false;
  const std::int64_t code = error.underlyingError()->code();
  return code == EMFILE || code == ENFILE || code == ENOMEM;
}

}  // namespace

bool mayBeTriedAgain(const Error& error) {
  if (error.domain() != platform::kURLErrorDomain) return isShortage(error);
  switch (error.code()) {
    case platform::kURLErrorTimedOut:
    case platform::kURLErrorCannotFindHost:
    case platform::kURLErrorCannotConnectToHost:
    case platform::kURLErrorNetworkConnectionLost:
    case platform::kURLErrorNotConnectedToInternet:
      return true;
    case platform::kURLErrorSecureConnectionFailed:
      return wasCut(error.debugDescription());
    default:
      return false;
  }
}

// Made on the event loop's thread; finished, and its file read, on the other's.
class CurlUploads::Upload final : public platform::CurlLoad {
 public:
  /// What is posted reaches the uploads only while they are there.
  using Back = std::function<void(std::function<void(CurlUploads&)>)>;

  Upload(TaskId identifier, const SpoolEntry& entry, FileBodySource file, const Options& options)
      : task(identifier),
        request_(requestOf(entry)),
        file_(std::move(file)),
        timeout_(timeoutOf(entry)),
        trustAnchors_(entry.trustAnchors),
        options_(options) {}

  void reportThrough(Back back, const std::weak_ptr<Upload>& self) {
    back_ = std::move(back);
    self_ = self;
    file_.tellOfSent([this](std::uint64_t bytes) { wasSent(bytes); });
  }

  const platform::URLRequest& request() const override { return request_; }
  bool isCancelled() const override { return isStopped; }
  platform::HTTPBodySource* bodySource() override { return &file_; }
  std::optional<std::chrono::milliseconds> requestTimeout() const override { return timeout_; }
  std::optional<std::string> trustAnchorsFile() const override { return trustAnchors_; }

  void finish(std::expected<platform::HTTPAnswer, Error> answer) override {
    UploadOutcome outcome;
    outcome.bytesSent = bytesSent_;
    outcome.bytesExpected = bytesExpected();
    if (answer) {
      outcome.statusCode = answer->response->statusCode();
    } else {
      outcome.mayBeTriedAgain = mayBeTriedAgain(answer.error());
      outcome.error = std::move(answer.error());
    }
    back_([self = self_.lock(), outcome](CurlUploads& uploads) { uploads.ended(*self, outcome); });
  }

  std::uint64_t bytesExpected() const { return file_.length(); }

  const TaskId task;
  std::atomic<bool> isStopped{false};

 private:
  using Clock = std::chrono::steady_clock;

  void wasSent(std::uint64_t bytes) {
    if (options_.stepHook && bytesSent_ < file_.length() / 2 && bytes >= file_.length() / 2) options_.stepHook("body-half");
    bytesSent_ = bytes;
    const Clock::time_point now = Clock::now();
    if (now - lastReport_ < options_.progressInterval) return;
    lastReport_ = now;
    back_([self = self_.lock(), bytes](CurlUploads& uploads) { uploads.progressed(*self, bytes); });
  }

  const platform::URLRequest request_;
  FileBodySource file_;
  const std::chrono::milliseconds timeout_;
  const std::optional<std::string> trustAnchors_;
  const Options& options_;
  Back back_;
  std::weak_ptr<Upload> self_;
  std::uint64_t bytesSent_ = 0;
  Clock::time_point lastReport_;
};

CurlUploads::CurlUploads(EventLoop& events, Handlers handlers, Options options)
    : events_(events),
      handlers_(std::move(handlers)),
      options_(options),
      loop_(std::make_shared<platform::CurlLoop>(loopSettings(options))) {}

CurlUploads::~CurlUploads() {
  loop_->stop();
  *self_ = nullptr;
}

void CurlUploads::start(TaskId task, const SpoolEntry& entry) {
  auto file = FileBodySource::open(entry.file);
  if (!file) return fail(task, file.error());
  const auto upload = std::make_shared<Upload>(task, entry, std::move(*file), options_);
  upload->reportThrough(
      [&events = events_, self = self_](std::function<void(CurlUploads&)> call) {
        events.post([self, call = std::move(call)] {
          if (*self) call(**self);
        });
      },
      upload);
  uploads_[task] = upload;
  loop_->start(upload);
}

void CurlUploads::stop(TaskId task) {
  const auto found = uploads_.find(task);
  if (found == uploads_.end()) return;
  const std::shared_ptr<Upload> upload = std::move(found->second);
  uploads_.erase(found);
  if (!upload) return;  // it failed before it began
  upload->isStopped = true;
  loop_->cancel(upload);
}

// Told later, as nobody may be called back from inside start().
void CurlUploads::fail(TaskId task, const Error& error) {
  UploadOutcome outcome;
  outcome.error = error;
  outcome.mayBeTriedAgain = mayBeTriedAgain(error);
  uploads_[task] = nullptr;
  events_.post([self = self_, task, outcome] {
    if (!*self) return;
    auto& uploads = **self;
    const auto found = uploads.uploads_.find(task);
    if (found == uploads.uploads_.end() || found->second) return;
    uploads.uploads_.erase(found);
    uploads.handlers_.ended(task, outcome);
  });
}

// A task may have been stopped and begun anew while what its first upload posted was under way.
bool CurlUploads::isCurrent(const Upload& upload) const {
  const auto found = uploads_.find(upload.task);
  return found != uploads_.end() && found->second.get() == &upload;
}

void CurlUploads::progressed(const Upload& upload, std::uint64_t bytesSent) const {
  if (isCurrent(upload)) handlers_.progressed(upload.task, bytesSent, upload.bytesExpected());
}

void CurlUploads::ended(const Upload& upload, const UploadOutcome& outcome) {
  if (!isCurrent(upload)) return;
  const TaskId task = upload.task;
  uploads_.erase(task);
  handlers_.ended(task, outcome);
}

}  // namespace transfer
