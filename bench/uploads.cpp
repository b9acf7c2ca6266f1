// Uploading a large GIF through the transfer service, beside curl doing the same to the same server.
//
// Each round uploads 200 MB over TLS on loopback twice: once with `curl -T`, once from the host's call to the delegate's being
// told.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "client/KSVData.h"
#include "common/DevelopmentServer.h"
#include "companions/KSVDebugger.h"
#include "platform/Process.h"
#include "support/KSVDataInspector.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kBytes = 200'000'000;
constexpr auto kPatience = std::chrono::seconds(120);

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

void writeGif(const fs::path& path, std::size_t bytes) {
  std::mt19937_64 random(1);  // nothing on the way compresses
  std::ofstream file(path, std::ios::binary);
  file << "GIF89a";
  std::string block(1 << 20, ' ');
  for (std::size_t written = 6; written < bytes;) {
    for (char& byte : block) byte = static_cast<char>(random());
    const std::size_t part = std::min(block.size(), bytes - written);
    file.write(block.data(), static_cast<std::streamsize>(part));
    written += part;
  }
}

/// Hears in the trace how tasks end.
class Outcomes {
 public:
  Outcomes() {
    KSVDebugger::sharedDebugger()->setListener([this](std::string_view line) {
      const std::lock_guard lock(mutex_);
      completed_ += line.starts_with("Task ") && line.ends_with(" completed") ? 1 : 0;
      failed_ = failed_ || line.starts_with("Kestrova: Background task");
      changed_.notify_all();
    });
  }
  ~Outcomes() { KSVDebugger::sharedDebugger()->setListener({}); }
  Outcomes(const Outcomes&) = delete;
  Outcomes& operator=(const Outcomes&) = delete;

  bool waitUntilCompleted(std::uint64_t tasks) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return failed_ || completed_ >= tasks; }) && !failed_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t completed_ = 0;
  bool failed_ = false;
};

std::shared_ptr<const KSVShare> shareOf(const std::string& shareId) {
  auto share = std::make_shared<KSVShare>();
  share->referralCode = std::make_shared<const KSVReferralCode>(KSVReferralCode{"abcdefgh", shareId});
  return share;
}

/// Seconds, or nothing when curl or the server was not content.
std::optional<double> uploadWithCurl(KSVDataInspector inspect, const bench::DevelopmentServer& server, const fs::path& file) {
  platform::URLRequest request = inspect.buildRequestForApi("/gifs?shareId=curl");
  request.setHTTPMethod("POST");
  const std::string authorization = inspect.authHeaderForDataRequest(std::nullopt, request).value();
  const std::string status = (server.folder() / "curl-status").string();
  const Clock::time_point start = Clock::now();
  cli::ChildProcess curl("/usr/bin/curl",
                         {"--silent",
                          "--show-error",
                          "--http1.1",
                          "--cacert",
                          server.caFile(),
                          "--request",
                          "POST",
                          "--upload-file",
                          file.string(),
                          "--header",
                          "Authorization: " + authorization,
                          "--header",
                          "Content-Type: image/gif",
                          "--header",
                          "Expect:",
                          "--output",
                          "/dev/null",
                          "--write-out",
                          "%{http_code}",
                          request.URL()->absoluteString()},
                         {}, status);
  const int exitStatus = curl.wait();
  const double seconds = secondsSince(start);
  std::ifstream answer(status);
  const std::string code{std::istreambuf_iterator<char>(answer), std::istreambuf_iterator<char>()};
  return exitStatus == 0 && code == "200" ? std::optional(seconds) : std::nullopt;
}

void uploadOf200MB(benchmark::State& state) {
  const bench::DevelopmentServer server;
  const std::string transfers = (server.folder() / "transfers").string();
  const cli::ChildProcess service(std::string(KESTROVA_BIN_DIR) + "/kestrova-transferd", {"--directory", transfers}, {},
                                  "/dev/null");
  platform::SystemOptions options;
  options.bundleIdentifier = bench::kApplication;
  options.homeDirectory = (server.folder() / "device").string();
  options.transferDirectory = transfers;
  const auto process = platform::makeSystemProcess(options);
  process->constants = {"session-started", "did-cookie-match", "skew", "1", server.host()};
  process->debug = true;
  const fs::path small = server.folder() / "small.gif";
  const fs::path large = server.folder() / "large.gif";
  writeGif(small, 1000);
  writeGif(large, kBytes);
  {
    const platform::Process::Scope scope(*process);
    const auto client = KSVData::initWithSecret(bench::kSecret);
    Outcomes outcomes;
    std::uint64_t uploads = 0;
    const auto upload = [&](const fs::path& file) {
      client->uploadGIFForShare(platform::URL::fileURLWithPath(file.string()), shareOf("bench"));
      return outcomes.waitUntilCompleted(++uploads);
    };
    if (!upload(small)) state.SkipWithError("the first upload failed");  // connects to the service

    std::vector<double> ours;
    std::vector<double> curls;
    for (auto iteration : state) {
      const std::optional<double> curl = uploadWithCurl(KSVDataInspector(client), server, large);
      const Clock::time_point start = Clock::now();
      if (!curl || !upload(large)) {
        state.SkipWithError("an upload failed");
        break;
      }
      ours.push_back(secondsSince(start));
      curls.push_back(*curl);
      state.SetIterationTime(ours.back());
    }
    if (!ours.empty()) {
      state.counters["MB/s"] = kBytes / 1e6 / median(ours);
      state.counters["curl_MB/s"] = kBytes / 1e6 / median(curls);
      state.counters["of_curl"] = median(curls) / median(ours);
    }
  }
  process->backgroundSessions.reset();
  process->urlSession.reset();
  process->queues.reset();
}
BENCHMARK(uploadOf200MB)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
