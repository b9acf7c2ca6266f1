// The benchmarks' surroundings.
#include "common/Sandbox.h"

#include <stdlib.h>

#include <fstream>
#include <stdexcept>
#include <utility>

#include "platform/URLSession.h"

namespace bench {
namespace {

using platform::URLSession;
using platform::URLSessionTask;

/// Answers on the thread that starts the task, which is the client's queue; a network would only add its own noise.
class InstantTask final : public URLSessionTask {
 public:
  InstantTask(platform::URL url, URLSession::CompletionHandler handler) : url_(std::move(url)), handler_(std::move(handler)) {}
  std::uint64_t taskIdentifier() const override { return 1; }
  State state() const override { return handler_ ? State::kSuspended : State::kCompleted; }
  void resume() override {
    auto handler = std::exchange(handler_, nullptr);
    handler(platform::Data("{}"), std::make_shared<platform::HTTPURLResponse>(url_, 200, platform::HTTPHeaderFields()),
            std::nullopt);
  }
  void cancel() override {}

 private:
  platform::URL url_;
  URLSession::CompletionHandler handler_;
};

class InstantSession final : public URLSession {
 public:
  std::shared_ptr<URLSessionTask> dataTaskWithRequestCompletionHandler(platform::URLRequest request,
                                                                       CompletionHandler handler) override {
    return std::make_shared<InstantTask>(*request.URL(), std::move(handler));
  }
};

}  // namespace

Sandbox::Sandbox() {
  std::string name = (std::filesystem::temp_directory_path() / "kestrova-bench-XXXXXX").string();
  if (!mkdtemp(name.data())) throw std::runtime_error("cannot make a temporary folder");
  folder_ = name;
  platform::SystemOptions options;
  options.bundleIdentifier = "com.example.bench";
  options.homeDirectory = folder_.string();
  process_ = platform::makeSystemProcess(options);
  process_->urlSession = std::make_shared<InstantSession>();
  process_->constants = {"session-started", "did-cookie-match", "KSVHawkLocalTimeSkew", "1", "api.example.com"};
  scope_ = std::make_unique<platform::Process::Scope>(*process_);
}

Sandbox::~Sandbox() {
  // The queues first, while the record is still in force: what runs on them reads it.
  process_->queues.reset();
  scope_.reset();
  process_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

std::shared_ptr<KSVData> Sandbox::makeClient() { return KSVData::initWithSecret("s3cr3t-API-key-0123456789abcdef"); }

std::filesystem::path Sandbox::queueFile() const {
  return std::filesystem::path(process_->fileManager->applicationSupportDirectory().value().path()) / "event-queue.json";
}

void Sandbox::writeQueue(std::uint64_t count, std::size_t bytes) const {
  const std::string head = R"({"event":"gif-viewed","eventData":{"text":")";
  const std::string tail = "\"},\"localTime\":\"2026-11-20T20:19:39.123Z\"}\n";
  const std::string record = head + std::string(bytes - head.size() - tail.size(), 'x') + tail;
  std::ofstream file(queueFile(), std::ios::binary | std::ios::trunc);
  for (std::uint64_t index = 0; index < count; ++index) file << record;
}

platform::Dictionary fiveProperties() {
  return {{"gif", "g169a7"}, {"loops", 2.5}, {"source", "trending"}, {"position", 12}, {"offline", false}};
}

platform::Value sampleRecord() {
  platform::Dictionary data = fiveProperties();
  data.setObjectForKey(platform::Value("abcdefghijklmnopqrstuvwxyz0123"), "sessionId");
  data.setObjectForKey(platform::Value("a comment of some length, as people write them under pictures that move"), "comment");
  return platform::Dictionary{{"localTime", "2026-11-20T20:19:39.123Z"}, {"event", "gif-viewed"}, {"eventData", std::move(data)}};
}

platform::Array sampleBatch() {
  platform::Array batch;
  for (int index = 0; index < 10; ++index) batch.addObject(sampleRecord());
  return batch;
}

}  // namespace bench
