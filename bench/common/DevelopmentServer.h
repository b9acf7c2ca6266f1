// The development server as a benchmark's other end, on a processor of its own.
//
// The program under test keeps to the first processor and the server to the second: a loopback round trip costs several times as
// much when the scheduler moves the two about, so that an unpinned run says nothing.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "cli/ChildProcess.h"

namespace bench {

constexpr const char* kApplication = "com.example.bench";
constexpr const char* kSecret = "s3cr3t-API-key-0123456789abcdef";

/// Starts the server, keeps this process to the first processor, and has it trust the server's certificate authority.
class DevelopmentServer {
 public:
  explicit DevelopmentServer(const std::vector<std::string>& moreArguments = {});
  ~DevelopmentServer();
  DevelopmentServer(const DevelopmentServer&) = delete;
  DevelopmentServer& operator=(const DevelopmentServer&) = delete;

  /// `localhost:<port>`.
  const std::string& host() const { return host_; }
  const std::string& caFile() const { return caFile_; }
  /// A folder for the benchmark's own things, which goes with the server.
  const std::filesystem::path& folder() const { return folder_; }

 private:
  void readReadyFile();

  std::filesystem::path folder_;
  std::unique_ptr<cli::ChildProcess> process_;
  std::string host_;
  std::string caFile_;
};

}  // namespace bench
