// The client on the real services.
#include "support/RealClient.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "companions/KSVDebugger.h"
#include "platform/FileManager.h"
#include "platform/UserDefaults.h"
#include "platform/linux/ThreadQueues.h"
#include "support/Event.h"

namespace test {

RealClient::RealClient(const std::string& host, const std::string& authorityFile, double timeout) {
  setenv("SSL_CERT_FILE", authorityFile.c_str(), 1);
  platform::SystemOptions options;
  options.bundleIdentifier = "com.example.app";
  options.homeDirectory = home_.path();
  options.requestTimeout = timeout;
  process_ = platform::makeSystemProcess(std::move(options));
  process_->constants = {kSessionStarted, "did-cookie-match", kSkewKey, "1", host};
  process_->debug = true;
  scope_ = std::make_unique<platform::Process::Scope>(*process_);
  KSVDebugger::sharedDebugger()->setListener([this](std::string_view line) {
    const std::lock_guard lock(mutex_);
    messages_.emplace_back(line);
    changed_.notify_all();
  });
  client_ = KSVData::initWithSecret("s3cr3t-API-key-0123456789abcdef");
}

RealClient::~RealClient() {
  client_.reset();
  // What runs on the queues reads the record, so it ends before anything is taken out of that.
  std::dynamic_pointer_cast<platform::ThreadQueues>(process_->queues)->close();
  process_->backgroundSessions.reset();
  process_->browserOpener.reset();
  process_->urlSession.reset();
  process_->queues.reset();
  KSVDebugger::sharedDebugger()->setListener(nullptr);
}

std::vector<std::string> RealClient::messages() const {
  const std::lock_guard lock(mutex_);
  return messages_;
}

bool RealClient::waitForMessage(std::string_view start, std::size_t count) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, kLimit, [&] {
    return static_cast<std::size_t>(std::ranges::count_if(messages_, [&](const auto& line) { return line.starts_with(start); })) >=
           count;
  });
}

std::optional<std::string> RealClient::queueFile() const {
  const auto support = process_->fileManager->applicationSupportDirectory();
  const auto content = process_->fileManager->contentsOfURL(support.value().URLByAppendingPathComponent("event-queue.json"));
  return content ? std::optional(std::string(content->bytes())) : std::nullopt;
}

std::int64_t RealClient::skew() const { return process_->userDefaults->integerForKey(kSkewKey); }

}  // namespace test
