// A client on the real services: real files below a folder of its own, real threads, real TLS.
//
//     test::DevServer server;
//     test::RealClient client(server.host(), server.authorityFile());
//     client->createEvent("session-started");
//     ASSERT_TRUE(client.waitForMessage("Events successfully sent to server"));
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/KSVData.h"
#include "platform/Process.h"
#include "support/KSVDataInspector.h"
#include "support/TemporaryDirectory.h"

namespace test {

class RealClient {
 public:
  static constexpr const char* kSessionStarted = "session-started";
  static constexpr const char* kSkewKey = "hawk-local-time-skew";

  /// `host` is the API host; `authorityFile` names the only authority that is trusted; `timeout` is the URL-loading service's, in
  /// seconds.
  RealClient(const std::string& host, const std::string& authorityFile, double timeout = 60);
  ~RealClient();
  RealClient(const RealClient&) = delete;
  RealClient& operator=(const RealClient&) = delete;

  KSVData* operator->() const { return client_.get(); }
  KSVDataInspector inspect() const { return KSVDataInspector(client_); }
  platform::Process& process() { return *process_; }
  /// Drops the client; its services stay.
  void drop() { client_.reset(); }

  /// The trace so far.
  std::vector<std::string> messages() const;
  /// Waits until `count` lines of the trace begin with the text; false when they do not come within the limit.
  [[nodiscard]] bool waitForMessage(std::string_view start, std::size_t count = 1);

  /// The bytes of event-queue.json, absent when there is none.
  std::optional<std::string> queueFile() const;
  std::int64_t skew() const;

 private:
  TemporaryDirectory home_;
  std::unique_ptr<platform::Process> process_;
  std::unique_ptr<platform::Process::Scope> scope_;
  std::shared_ptr<KSVData> client_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> messages_;
};

}  // namespace test
