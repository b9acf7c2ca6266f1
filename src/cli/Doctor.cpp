// Looking at what delivery rests on.
#include "cli/Doctor.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <expected>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "cli/HomeFolder.h"
#include "cli/Host.h"
#include "cli/QueueInspection.h"
#include "cli/Report.h"
#include "companions/KSVHawkAuth.h"
#include "companions/KSVHawkCredentials.h"
#include "companions/KSVUtils.h"
#include "companions/Kestrova.h"
#include "platform/Data.h"
#include "platform/Date.h"
#include "platform/Error.h"
#include "platform/FileManager.h"
#include "platform/URLSession.h"
#include "platform/UserDefaults.h"
#include "platform/linux/TransferInspection.h"
#include "platform/linux/TransferServiceProcess.h"

namespace cli {
namespace {

using State = Finding::State;

// Under it the next write may be the one that does not fit.
constexpr std::uint64_t kLittleSpace = std::uint64_t{16} * 1024 * 1024;
// A file over it is cut down to its newest records by the next append.
constexpr std::uint64_t kQueueLimit = 1'048'576;
// The window in which servers take a signature, to either side.
constexpr double kClockTolerance = 60;  // seconds

Finding application(const Options& options) {
  if (options.bundleId) return {State::kWell, "application", *options.bundleId, ""};
  return {State::kNotice, "application", "has no identifier; its events count as a test's",
          "give --bundle-id or KESTROVA_BUNDLE_ID, the name that the server knows it by"};
}

/// Writes a file where the application's temporary files are, on the volume of its state, and removes it.
std::optional<std::string> writingFails() {
  auto& files = platform::FileManager::defaultManager();
  const auto folder = files.temporaryDirectory();
  if (!folder) return folder.error().localizedDescription();
  const platform::URL probe = folder->URLByAppendingPathComponent("doctor-" + KSVUtils::randomStringWithLength(12));
  if (const auto written = files.writeDataWithoutOverwriting(platform::Data("probe"), probe); !written)
    return written.error().localizedDescription();
  if (const auto removed = files.removeItemAtURL(probe); !removed) return removed.error().localizedDescription();
  return std::nullopt;
}

/// Of a folder that can be used.
Finding usableFolder(const std::string& path) {
  if (const auto reason = writingFails())
    return {State::kIll, "folder", path + " cannot be written to: " + *reason,
            "what cannot be delivered now is lost; give yourself the right to write there, or another folder with --home"};
  std::error_code error;
  const auto space = std::filesystem::space(path, error);
  if (!error && space.available < kLittleSpace)
    return {State::kNotice, "folder", fmt::format("{} has {} KiB left on its disk", path, space.available / 1024),
            "make room: a batch that does not fit is lost"};
  return {State::kWell, "folder", path + " can be written to", ""};
}

Finding queue() {
  const auto content = inspectQueue();
  if (!content)
    return {State::kIll, "queue", "cannot be read: " + content.error().localizedDescription(),
            "give yourself the right to read it; nothing of it is sent until then"};
  if (content->bytes == 0) return {State::kWell, "queue", "is empty: nothing waits", ""};
  const std::string waits = fmt::format("{} of {}, the oldest from {}", counted(content->records, "record"),
                                        counted(content->bytes, "byte"), content->oldest.value_or("an unknown time"));
  if (content->badLines > 0 || content->hasUnendedTail)
    return {State::kNotice, "queue",
            fmt::format("{}; {} damaged, which the next send drops", waits,
                        counted(content->badLines + (content->hasUnendedTail ? 1 : 0), "line")),
            "copy " + content->path + " if you want to look at it"};
  if (content->bytes > kQueueLimit)
    return {State::kNotice, "queue", waits + "; it is over its limit, and the next batch that fails cuts off the oldest ones",
            "see what keeps the server from taking them, then run `kestrova flush`"};
  return {State::kNotice, "queue", waits, "they go out with the next events, or with `kestrova flush`"};
}

/// The folder and the queue in it. A folder that is not there is not made by looking: it may be another one that was meant.
std::vector<Finding> folderAndQueue(const Options& options) {
  if (const auto absent = folderNotYetMade(options))
    return {{State::kNotice, "folder", nothingKeptIn(*absent),
             "see whether --bundle-id and --home are right; the first event makes it"}};
  const auto support = KSVUtils::applicationSupportDirectory();
  if (!support)
    return {{State::kIll, "folder", folderFault(options),
             "set HOME or XDG_DATA_HOME to a folder of yours, or give another one with --home"}};
  return {usableFolder(support->path()), queue()};
}

std::optional<Finding> lastRun() {
  const auto remembered = platform::UserDefaults::standardUserDefaults().objectForKey(kLastFailureDefault);
  if (!remembered) return std::nullopt;
  return Finding{State::kNotice, "last run", remembered->description(), ""};
}

struct Answer {
  platform::HTTPURLResponseRef response;
  std::optional<platform::Error> error;
};

Answer ask(const platform::URLRequest& request, double timeout) {
  const auto promise = std::make_shared<std::promise<Answer>>();
  auto answered = promise->get_future();
  const auto task = platform::URLSession::sharedSession().dataTaskWithRequestCompletionHandler(
      request, [promise](const std::optional<platform::Data>&, platform::HTTPURLResponseRef response,
                         std::optional<platform::Error> error) { promise->set_value({std::move(response), std::move(error)}); });
  task->resume();
  if (answered.wait_for(std::chrono::duration<double>(timeout)) != std::future_status::ready) task->cancel();
  return answered.get();
}

KSVHawkAuth signerFor(const Options& options) {
  KSVHawkAuth signer;
  signer.setCredentials(
      KSVHawkCredentials::initWithHawkIdWithKeyWithAlgorithm(options.bundleId, options.secret, KSVCryptoAlgorithmSHA256));
  return signer;
}

/// An empty batch from 1970. A server that verifies the signature takes nothing so old: to a sender whose secret it knows it tells
/// its time, signed with that secret. One that verifies nothing has nothing to take.
platform::URLRequest questionOfTheSecret(const Options& options) {
  const std::string type = "application/vnd.kestrova.v" + options.apiVersion + "+json";
  const std::string body = R"({"data":[]})";
  const auto url = platform::URL::URLWithString("https://" + *options.apiHost + "/events");
  KSVHawkAuth signer = signerFor(options);
  signer.setMethod("POST");
  if (url) {
    signer.setRequestUri(url->path());
    signer.setHost(url->host().value_or(""));
    signer.setPort(url->port().value_or(443));
  }
  signer.setTimestamp(platform::Date::dateWithTimeIntervalSince1970(1));
  signer.setNonce(KSVUtils::randomStringWithLength(8));
  signer.setPayload(platform::String(body));
  signer.setContentType(type);
  platform::URLRequest request(url);
  request.setHTTPMethod("POST");
  request.setValueForHTTPHeaderField(type, "Content-Type");
  request.setValueForHTTPHeaderField(signer.requestHeader(), "Authorization");
  request.setHTTPBody(platform::Data(body));
  return request;
}

/// `serverAnswers` when it is worth asking it.
Finding secret(const Options& options, bool serverAnswers) {
  if (!options.secret)
    return {State::kIll, "secret", "is not given; the server refuses what is not signed",
            "give --secret-file with a file that only you can read, or KESTROVA_SECRET"};
  if (!serverAnswers || !options.bundleId) return {State::kWell, "secret", "is there, and is shown nowhere", ""};
  const Answer answer = ask(questionOfTheSecret(options), options.timeout);
  const auto challenge = platform::headerField(answer.response, "www-authenticate");
  if (challenge && signerFor(options).getTimestampSkew(*challenge))
    return {State::kWell, "secret", "is the one that the server knows, and is shown nowhere", ""};
  if (answer.response && answer.response->statusCode() == 401)
    return {State::kIll, "secret", "is not the one that the server knows for " + *options.bundleId,
            "compare it with the server's; events that are signed with it are refused and lost"};
  return {State::kNotice, "secret", "is there; whether the server knows it cannot be told from its answer", ""};
}

std::string adviceOn(const platform::Error& error) {
  const char* const anchors = std::getenv("SSL_CERT_FILE");
  if (anchors && !std::ifstream(anchors)) return fmt::format("SSL_CERT_FILE names {}, which cannot be read", anchors);
  switch (error.code()) {
    case platform::kURLErrorCannotFindHost:
      return "check the name, and whether this machine's name server answers";
    case platform::kURLErrorCannotConnectToHost:
      return "check the port, and whether the server runs; `kestrova-devserver` starts one here";
    case platform::kURLErrorServerCertificateUntrusted:
      return "a development server's authority is named by SSL_CERT_FILE; else do not go on, somebody may be in between";
    case platform::kURLErrorServerCertificateHasBadDate:
      return "check this machine's date, then the server's certificate";
    case platform::kURLErrorTimedOut:
    case platform::kURLErrorCancelled:
      return "it did not answer in time: check the network, or give more with --timeout";
    default:
      return "events are kept and sent later; check the network";
  }
}

/// Server time minus device time by the answer's Date, which has whole seconds. Absent without a date that can be read.
std::optional<double> clockDifference(const platform::HTTPURLResponseRef& response) {
  const auto date = platform::headerField(response, "Date");
  std::tm time{};
  if (!date || !strptime(date->c_str(), "%a, %d %b %Y %H:%M:%S GMT", &time)) return std::nullopt;
  return static_cast<double>(timegm(&time)) - platform::Date::date().timeIntervalSince1970();
}

Finding clock(const std::optional<double>& difference) {
  const std::int64_t correction =
      platform::UserDefaults::standardUserDefaults().integerForKey(*Kestrova::defaultConstants().hawkLocalTimeSkew);
  const std::string corrected = fmt::format("the stored correction is {} s", correction);
  if (!difference) return {State::kNotice, "clock", corrected + "; no server told a time to compare with", ""};
  const double off = *difference - static_cast<double>(correction);
  if (std::abs(off) <= kClockTolerance) return {State::kWell, "clock", corrected + ", and agrees with the server's", ""};
  return {State::kNotice, "clock", fmt::format("{}, and is {:.0f} s away from the server's", corrected, std::abs(off)),
          "nothing need be done: the next send is refused once, corrects it and is sent again"};
}

std::optional<Answer> answerOfServer(const Options& options) {
  if (!options.apiHost) return std::nullopt;
  return ask(platform::URLRequest(platform::URL::URLWithString("https://" + *options.apiHost + "/")), options.timeout);
}

Finding server(const Options& options, const std::optional<Answer>& answer) {
  if (!answer) return {State::kIll, "server", "is not named", "give --api-host or KESTROVA_API_HOST"};
  if (answer->error)
    return {State::kIll, "server", *options.apiHost + ": " + answer->error->localizedDescription(), adviceOn(*answer->error)};
  return {State::kWell, "server", *options.apiHost + " answers, and its certificate is trusted", ""};
}

/// What the service says of its uploads.
Finding uploadsOfService(const platform::TransferInspection::Sessions& sessions) {
  std::uint64_t open = 0;
  std::uint64_t ended = 0;
  const transfer::TaskStatus* failing = nullptr;
  for (const auto& session : sessions)
    for (const auto& task : session.tasks) {
      const bool hasEnded = task.state == transfer::TaskStatus::State::kCompleted;
      ++(hasEnded ? ended : open);
      if (!hasEnded && task.error) failing = &task;
    }
  const std::string running = fmt::format("the transfer service runs and has {} under way", counted(open, "upload"));
  if (failing)
    return {State::kNotice, "uploads",
            fmt::format("{}; the last try of one failed: {}", running, failing->error->localizedDescription()),
            "it is tried again for up to 7 days; `kestrova uploads` has each one's state"};
  if (ended > 0)
    return {State::kNotice, "uploads",
            fmt::format("{}; of {} the application has not taken the outcome", running, counted(ended, "ended upload")),
            "start the application. Where that goes on, its launch command fails in the service's environment"};
  return {State::kWell, "uploads", running, ""};
}

Finding uploads(const Options& options) {
  if (!options.bundleId)
    return {State::kNotice, "uploads", "need an application's identifier", "give --bundle-id or KESTROVA_BUNDLE_ID"};
  const platform::TransferServiceProcess service(systemOptionsOf(options), std::nullopt);
  std::expected<std::optional<platform::TransferInspection::Sessions>, platform::Error> asked;
  // The question makes the application's folder, with the token in it that the service knows the application by.
  if (!folderNotYetMade(options)) asked = platform::TransferInspection(systemOptionsOf(options)).sessions();
  if (asked && *asked) return uploadsOfService(**asked);
  const bool isMissing = asked || asked.error().code() == ENOENT;
  if (isMissing && !service.canBeStarted())
    return {asked ? State::kNotice : State::kIll, "uploads",
            fmt::format("there is no transfer service: {} cannot be started, so uploads {}", service.program(),
                        asked ? "would wait" : "wait"),
            "put kestrova-transferd beside the program or on PATH, or name it in KESTROVA_TRANSFERD"};
  if (!asked)
    return {State::kIll, "uploads", "the transfer service is not reached: " + asked.error().localizedDescription(),
            "kestrova-transferd must lie beside the program or in PATH, and its folder be yours alone"};
  return {State::kWell, "uploads", "none under way; the transfer service is started when one is", ""};
}

}  // namespace

std::vector<Finding> diagnose(const Options& options) {
  const std::optional<Answer> answer = answerOfServer(options);
  std::vector<Finding> findings{application(options), secret(options, answer && !answer->error)};
  for (Finding& finding : folderAndQueue(options)) findings.push_back(std::move(finding));
  if (auto last = lastRun()) findings.push_back(*std::move(last));
  findings.push_back(server(options, answer));
  findings.push_back(clock(answer ? clockDifference(answer->response) : std::nullopt));
  findings.push_back(uploads(options));
  return findings;
}

}  // namespace cli
