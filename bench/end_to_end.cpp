// Events from the host's call to the server's answer, over real TLS on loopback.
//
// The client keeps to the first processor and the development server to the second: a loopback round trip costs several times as
// much when the scheduler moves the two about, so that an unpinned run says nothing.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "client/KSVData.h"
#include "common/DevelopmentServer.h"
#include "common/Sandbox.h"
#include "platform/Process.h"
#include "support/KSVDataInspector.h"

namespace {

/// Processor time of this process so far, in seconds.
double processorTime() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// Counts the records that were answered, so that the benchmark can keep the pace of a network and wait for its end. Records of the
/// benchmark are all of one length, so that a body's length tells how many it holds.
class Counting final : public platform::URLSession {
 public:
  explicit Counting(std::shared_ptr<URLSession> session) : session_(std::move(session)) {}

  std::shared_ptr<platform::URLSessionTask> dataTaskWithRequestCompletionHandler(platform::URLRequest request,
                                                                                 CompletionHandler handler) override {
    constexpr std::size_t kFrame = std::string_view(R"({"data":[]})").size();
    const std::size_t records = (request.HTTPBody()->length() - kFrame + 1) / (recordLength_ + 1);  // with their commas
    return session_->dataTaskWithRequestCompletionHandler(
        std::move(request), [this, records, handler = std::move(handler)](auto data, auto response, auto error) mutable {
          const bool failed = error || platform::statusCode(response) != 200;
          handler(std::move(data), std::move(response), std::move(error));
          const std::lock_guard lock(mutex_);
          failed_ = failed_ || failed;
          ended_ += records;
          changed_.notify_all();
        });
  }

  void setRecordLength(std::size_t bytes) { recordLength_ = bytes; }
  void waitUntilAnswered(std::uint64_t records) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return ended_ >= records; });
  }
  bool failed() {
    const std::lock_guard lock(mutex_);
    return failed_;
  }

 private:
  std::shared_ptr<URLSession> session_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t recordLength_ = 0;
  std::uint64_t ended_ = 0;
  bool failed_ = false;
};

/// 10,000 events of five properties; the host goes on while at most 500 are unanswered.
void eventsEndToEnd(benchmark::State& state) {
  constexpr std::uint64_t kEvents = 10'000;
  constexpr std::uint64_t kMostUnanswered = 500;

  const bench::DevelopmentServer server;
  platform::SystemOptions options;
  options.bundleIdentifier = bench::kApplication;
  options.homeDirectory = (server.folder() / "device").string();
  const auto process = platform::makeSystemProcess(options);
  const auto session = std::make_shared<Counting>(process->urlSession);
  process->urlSession = session;
  process->constants = {"session-started", "did-cookie-match", "skew", "1", server.host()};
  {
    const platform::Process::Scope scope(*process);
    const auto client = KSVData::initWithSecret(bench::kSecret);
    const platform::Dictionary data = bench::fiveProperties();
    const platform::Dictionary record = KSVDataInspector(client).addEventWrappingWithData("gif-viewed", bench::fiveProperties());
    platform::Dictionary withSession = record.objectForKey("eventData")->object();
    withSession.setObjectForKey(platform::Value(std::string(30, 'x')), "sessionId");
    platform::Dictionary sample = record;
    sample.setObjectForKey(platform::Value(withSession), "eventData");
    session->setRecordLength(process->json->write(sample)->length());

    double processor = 0;
    std::uint64_t created = 0;
    for (auto iteration : state) {
      const double before = processorTime();
      for (std::uint64_t event = 0; event < kEvents; ++event) {
        client->createEventWithData("gif-viewed", data);
        if (++created % 100 == 0 && created > kMostUnanswered) session->waitUntilAnswered(created - kMostUnanswered);
      }
      client->sendEventQueueToServer();
      session->waitUntilAnswered(created);
      processor += processorTime() - before;
    }
    if (session->failed()) state.SkipWithError("a request was not answered with 200");
    const double events = static_cast<double>(state.iterations() * kEvents);
    state.counters["events/s"] = benchmark::Counter(events, benchmark::Counter::kIsRate);
    state.counters["processor_us/event"] = 1e6 * processor / events;
    process->urlSession.reset();
    process->queues.reset();
  }
}
BENCHMARK(eventsEndToEnd)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
