// The development server beside a test: the real program, on a free port, with a state folder of its own.
//
//     test::DevServer server({"--status", "500"});
//     ASSERT_EQ(server.fault(), "");
//     ... talk to https://localhost:<server.port()>, trusting server.authorityFile() ...
//     ASSERT_TRUE(server.waitForLine("500 POST /events"));
//     EXPECT_EQ(server.stop(), "exited with 0");
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/Value.h"
#include "support/HttpsClient.h"
#include "support/TemporaryDirectory.h"

namespace test {

class DevServer {
 public:
  /// The application that every server of a test knows.
  static constexpr const char* kAppId = "com.example.app";
  static constexpr const char* kSecret = "s3cr3t-API-key-0123456789abcdef";

  /// Starts the program, with the application above unless the arguments name others, and waits until it is ready or has ended.
  explicit DevServer(const std::vector<std::string>& arguments = {}) : DevServer("", arguments) {}
  /// As above with a state folder that outlives the server.
  DevServer(const std::string& state, const std::vector<std::string>& arguments);
  /// Kills it if it still runs.
  ~DevServer();
  DevServer(const DevServer&) = delete;
  DevServer& operator=(const DevServer&) = delete;

  /// Why it is not ready; empty when it is.
  const std::string& fault() const { return fault_; }
  std::uint16_t port() const { return port_; }
  /// `localhost:<port>`, what a client is given as its API host.
  std::string host() const { return "localhost:" + std::to_string(port_); }
  const std::string& authorityFile() const { return authorityFile_; }
  std::string journalFile() const { return state_ + "/journal.jsonl"; }

  /// The entries of the journal, the API requests that it has dealt with.
  std::vector<platform::Dictionary> requests() const;
  /// How many event records were taken, in the order in which they came.
  std::vector<platform::Value> takenRecords() const;
  /// Posts settings to /dev/behaviour; what it answers when it refuses them, or nothing.
  std::string misbehave(const std::string& settings) const;

  /// The lines of standard output so far, without their times.
  std::vector<std::string> lines() const;
  /// Waits for a line that holds this text; false when none came within the limit or before the end.
  bool waitForLine(std::string_view text);

  /// Sends a signal and waits for the end: "exited with 0", "killed by signal 9" or "still running at the limit".
  std::string stop(int signal = SIGTERM);
  /// Waits for the end of a server that ends by itself; as stop.
  std::string waitForEnd();
  /// What it has written to standard error.
  std::string errors() const;

 private:
  void start(std::vector<std::string> arguments);
  void readLines(int descriptor);
  void readReadyLine();

  TemporaryDirectory directory_;
  std::string state_;
  std::string fault_;
  std::string authorityFile_;
  std::uint16_t port_ = 0;
  pid_t process_ = -1;
  std::string end_;

  std::thread reader_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  bool outputEnded_ = false;
};

}  // namespace test
