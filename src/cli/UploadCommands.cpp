// The commands for uploads: handing a GIF over, looking at what became of it, ending it, and taking the outcome after a launch.
//
// None of them touches the events or their queue, so none waits for the home: a process that the transfer service launches never
// stands in the way of a command that a person runs, nor the other way round.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <expected>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "cli/Commands.h"
#include "cli/HomeFolder.h"
#include "cli/Host.h"
#include "cli/LaunchLog.h"
#include "cli/Report.h"
#include "cli/StopSignals.h"
#include "cli/UploadFile.h"
#include "client/KSVData.h"
#include "companions/KSVUtils.h"
#include "platform/Date.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/TransferInspection.h"

namespace cli {
namespace {

using platform::Dictionary;
using platform::TransferInspection;
using platform::Value;
using Sessions = TransferInspection::Sessions;
using transfer::TaskStatus;

constexpr double kLook = 0.2;          // seconds between looks at an upload that is waited for
constexpr double kPlainInterval = 5;   // seconds between lines where there is no terminal
constexpr double kEndInProcess = 2;    // seconds for an end that comes from this process itself
constexpr std::size_t kBarWidth = 30;  // characters

int fail(const std::string& reason, ExitStatus status) {
  printError(reason);
  return status;
}

double now() { return platform::Date::date().timeIntervalSince1970(); }
double steadySeconds() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

// The GIF.

struct Gif {
  std::string path;  // absolute, and of the file itself: a link to a symbolic link would not keep the file
  std::uint64_t bytes = 0;
};

std::expected<Gif, std::string> gifAt(const std::string& name) {
  const auto failed = [&name](int error) {
    return std::unexpected("cannot read " + name + ": " + std::generic_category().message(error));
  };
  const auto file = platform::FileDescriptor::open(name, O_RDONLY | O_NONBLOCK);
  if (!file) return failed(file.error());
  std::array<char, 6> first{};
  const auto got = file->readAt(first.data(), first.size(), 0);
  if (!got) return failed(got.error());
  const std::string_view start(first.data(), *got);
  if (start != "GIF87a" && start != "GIF89a") return std::unexpected(name + " is no GIF: it begins with neither GIF87a nor GIF89a");
  std::error_code error;
  const auto path = std::filesystem::canonical(name, error);
  const std::uint64_t bytes = error ? 0 : std::filesystem::file_size(path, error);
  if (error) return failed(error.value());
  return Gif{path.string(), bytes};
}

/// It stands in the request's address as it is.
bool isShareId(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' || c == '_' || c == '.' ||
           c == '~';
  });
}

// Outcomes.

const TaskStatus* taskOf(const std::optional<Sessions>& sessions, const std::string& session) {
  if (!sessions) return nullptr;
  const auto found = std::ranges::find(*sessions, session, &TransferInspection::Session::identifier);
  return found == sessions->end() || found->tasks.empty() ? nullptr : &found->tasks.back();
}

/// The record of an upload that has ended just now; with the answer's status, while the service still knows it.
UploadRecord recordOf(const UploadEnd& end, const platform::SystemOptions& system) {
  UploadRecord record{.session = end.session, .endedAt = now(), .error = end.error};
  if (end.error) return record;
  const auto sessions = TransferInspection(system).sessions();
  const TaskStatus* task = sessions ? taskOf(*sessions, end.session) : nullptr;
  if (task && task->statusCode != 0) record.statusCode = task->statusCode;
  return record;
}

const char* stateOf(const UploadRecord& record) {
  if (!record.endedAt) return "unknown";
  if (record.error) return "failed";
  return record.isDelivered() ? "delivered" : "refused";
}

const char* stateOf(const TaskStatus& task) {
  if (task.state == TaskStatus::State::kCompleted) return "ended";
  return task.state == TaskStatus::State::kRunning ? "running" : "waiting";
}

std::string outcomeText(const UploadRecord& record) {
  if (record.error) return "The upload failed: " + record.error->localizedDescription();
  if (!record.isDelivered()) return fmt::format("The upload was refused: the server answered {}.", record.statusCode.value_or(0));
  if (!record.statusCode) return "The upload is done.";
  return fmt::format("The upload is done: the server answered {}.", *record.statusCode);
}

/// How far an upload is: a bar that is redrawn on a terminal, a line every few seconds elsewhere. On standard error.
class UploadProgress {
 public:
  ~UploadProgress() {
    if (isDrawn_) (void)std::fputs("\r\033[K", stderr);
  }
  UploadProgress() = default;
  UploadProgress(const UploadProgress&) = delete;
  UploadProgress& operator=(const UploadProgress&) = delete;

  void update(const TaskStatus& task) {
    if (!isTerminal_ && steadySeconds() - last_ < kPlainInterval) return;
    last_ = steadySeconds();
    isDrawn_ = isTerminal_;
    std::string text = fmt::format("{} of {} bytes sent", task.bytesSent, task.bytesExpected);
    if (task.tries > 1) text += fmt::format(", try {}", task.tries);
    if (task.nextTryAt) text += fmt::format(", next try in {} s", std::lround(std::max(0.0, *task.nextTryAt - now())));
    (void)std::fprintf(stderr, isTerminal_ ? "\r\033[K%s %s" : "%s%s\n", isTerminal_ ? bar(task).c_str() : "", text.c_str());
    (void)std::fflush(stderr);
  }

 private:
  static std::string bar(const TaskStatus& task) {
    const std::size_t full =
        task.bytesExpected ? static_cast<std::size_t>(kBarWidth * std::min(task.bytesSent, task.bytesExpected) / task.bytesExpected)
                           : 0;
    return "[" + std::string(full, '#') + std::string(kBarWidth - full, ' ') + "]";
  }

  const bool isTerminal_ = isatty(STDERR_FILENO) == 1;
  bool isDrawn_ = false;
  double last_ = steadySeconds();
};

// Uploading.

/// One upload, from the options to the report.
class Upload {
 public:
  Upload(Host& host, const Options& options, UploadFile file)
      : host_(host), options_(options), system_(systemOptionsOf(options)), file_(std::move(file)) {}

  int run(const Gif& gif) {
    const UploadWatchScope watching(host_.uploads());
    host_.uploads()->setListener([this](const UploadEnd& end) { note(recordOf(end, system_)); });
    host_.startBesideOthers();
    auto code = std::make_shared<KSVReferralCode>();
    code->userId = options_.userId;
    code->shareId = options_.shareId;
    auto share = std::make_shared<KSVShare>();
    share->referralCode = std::move(code);
    host_.data().uploadGIFForShare(platform::URL::fileURLWithPath(gif.path), share);
    const auto session = host_.uploads()->lastSession();
    if (!session) return report({}, "The upload was not started.", "failed", kFailed);
    note({.session = *session, .file = gif.path, .shareId = options_.shareId, .bytes = gif.bytes, .startedAt = now()});
    return options_.wait ? waitForEnd(*session) : confirm(*session);
  }

 private:
  void note(const UploadRecord& record) const {
    if (const auto noted = file_.note(record); !noted) printError("cannot remember the upload: " + noted.error());
  }
  /// How the upload ended, whether this process was told or one that the service launched.
  std::optional<UploadRecord> endOf(const std::string& session) const {
    if (const auto known = file_.read())
      if (const auto found = std::ranges::find(*known, session, &UploadRecord::session); found != known->end() && found->endedAt)
        return *found;
    const auto end = host_.uploads()->endOf(session);
    if (!end) return std::nullopt;
    return UploadRecord{.session = session, .endedAt = now(), .error = end->error};
  }
  bool hasEnded(const std::string& session) const { return endOf(session).has_value(); }

  int waitForEnd(const std::string& session) {
    TransferInspection inspection(system_);
    const double deadline = steadySeconds() + options_.timeout;
    {
      UploadProgress progress;
      while (!hasEnded(session) && !host_.activity()->interrupted() && steadySeconds() < deadline) {
        const auto sessions = inspection.sessions();
        if (const TaskStatus* task = sessions ? taskOf(*sessions, session) : nullptr) progress.update(*task);
        host_.uploads()->waitForChange(std::min(kLook, deadline - steadySeconds()));
      }
    }
    if (const auto end = endOf(session)) return reportEnd(*end);
    return report(session, "The upload goes on without this command; `kestrova uploads` shows it.", "waiting", kKept);
  }

  /// The upload is durable by now, or ends at once with what kept it from that. So that it begins, the service is started.
  int confirm(const std::string& session) {
    const auto sessions = TransferInspection(system_).sessionsOfStartedService();
    const bool isTaken = sessions && taskOf(*sessions, session);
    for (const double deadline = steadySeconds() + kEndInProcess; !isTaken && !hasEnded(session) && steadySeconds() < deadline;)
      host_.uploads()->waitForChange(deadline - steadySeconds());
    if (const auto end = endOf(session)) return reportEnd(*end);
    if (isTaken)
      return report(session, "The upload is in the transfer service's hands; `kestrova uploads` shows it.", "waiting", kDelivered);
    printError(sessions ? "the transfer service does not know the upload" : sessions.error().localizedDescription());
    return report(session, "The upload waits for the transfer service.", "waiting", kKept);
  }

  int reportEnd(const UploadRecord& record) {
    statusCode_ = record.statusCode;
    error_ = record.error;
    return report(record.session, outcomeText(record), stateOf(record), record.isDelivered() ? kDelivered : kLost);
  }

  int report(const std::optional<std::string>& session, const std::string& headline, const char* state, ExitStatus status) {
    const Outcome outcome = host_.outcome();
    if (!options_.json) {
      if (outcome.interrupted) printLine("Stopped early.");
      printLine(headline);
      if (session) printLine("session " + *session);
      if (!error_) printReasons(outcome.reasons);
      return status;
    }
    Dictionary object = UploadRecord{.session = session.value_or(""), .error = error_, .statusCode = statusCode_}.object();
    object.addEntriesFromDictionary({{"session", session ? Value(*session) : Value()},
                                     {"state", state},
                                     {"interrupted", outcome.interrupted},
                                     {"reasons", reasonsObject(outcome.reasons)}});
    printJSON(object);
    return status;
  }

  Host& host_;
  const Options& options_;
  const platform::SystemOptions system_;
  const UploadFile file_;
  std::optional<std::int64_t> statusCode_;
  std::optional<platform::Error> error_;
};

// Listing.

/// The service knows it from the first try on.
std::optional<std::uint64_t> sizeOf(const UploadRecord& record, const TaskStatus& task) {
  return task.bytesExpected != 0 ? std::optional(task.bytesExpected) : record.bytes;
}

/// What is known of an upload here, with what the service says laid over it.
Dictionary listed(const UploadRecord& record, const TaskStatus* task) {
  Dictionary object = record.object();
  object.setObjectForKey(Value(task ? stateOf(*task) : stateOf(record)), "state");
  if (!task) return object;
  object.addEntriesFromDictionary(
      {{"task", task->identifier}, {"url", task->url}, {"bytesSent", task->bytesSent}, {"tries", task->tries}});
  if (const auto bytes = sizeOf(record, *task)) object.setObjectForKey(Value(*bytes), "bytes");
  if (task->nextTryAt) object.setObjectForKey(Value(*task->nextTryAt), "nextTryAt");
  const UploadRecord said{.session = record.session,
                          .error = task->error,
                          .statusCode = task->statusCode != 0 ? std::optional(task->statusCode) : std::nullopt};
  object.addEntriesFromDictionary(said.object());
  return object;
}

std::string lineFor(const UploadRecord& record, const TaskStatus* task) {
  std::string line = fmt::format("{}  {:<9}", record.session, task ? stateOf(*task) : stateOf(record));
  if (task) {
    const std::string tries = task->tries == 1 ? "1 try" : fmt::format("{} tries", task->tries);
    line += fmt::format("  {} of {} bytes, {}", task->bytesSent, sizeOf(record, *task).value_or(0), tries);
    if (task->nextTryAt) line += fmt::format(", next in {} s", std::lround(std::max(0.0, *task->nextTryAt - now())));
  } else if (record.bytes) {
    line += "  " + counted(*record.bytes, "byte");
  }
  const auto status = task && task->statusCode != 0 ? std::optional(task->statusCode) : record.statusCode;
  if (status) line += fmt::format(", answered {}", *status);
  if (record.shareId) line += ", share " + *record.shareId;
  if (const auto& error = task ? task->error : record.error) line += ": " + error->localizedDescription();
  if (task && task->state == TaskStatus::State::kCompleted) line += "; the application has not taken the outcome yet";
  return line;
}

/// Every session that the service or the command knows, the command's own order first.
std::vector<UploadRecord> allUploads(std::vector<UploadRecord> records, const std::optional<Sessions>& sessions) {
  for (const auto& session : sessions.value_or(Sessions()))
    if (std::ranges::find(records, session.identifier, &UploadRecord::session) == records.end())
      records.push_back({.session = session.identifier});
  return records;
}

}  // namespace

int runUpload(const Options& options) {
  StopSignals signals;
  Host host(options);
  const auto gif = gifAt(options.uploadFile);
  if (!gif) return fail(gif.error(), kBadInput);
  if (!isShareId(options.shareId))
    return fail("--share-id: '" + options.shareId + "' is no share identifier: letters, digits and -._~ only", kBadInput);
  if (!KSVUtils::applicationSupportDirectory()) return fail(folderFault(options), kBadInput);
  auto file = UploadFile::open();
  if (!file) return fail(file.error(), kFailed);
  signals.onStop([activity = host.activity()] { activity->interrupt(); });
  return Upload(host, options, *std::move(file)).run(*gif);
}

int runUploads(const Options& options) {
  const Host host(options);
  if (const auto absent = folderNotYetMade(options)) {
    if (options.json)
      printJSON({{"path", Value()}, {"service", "not needed"}, {"uploads", platform::Array()}});
    else
      printLine(nothingKeptIn(*absent) + ".");
    return kDelivered;
  }
  const auto file = UploadFile::open();
  if (!file) return fail(file.error(), kFailed);
  const auto records = file->read();
  if (!records) return fail(records.error(), kFailed);
  const auto asked = TransferInspection(systemOptionsOf(options)).sessions();
  const std::optional<Sessions> sessions = asked ? *asked : std::nullopt;
  if (!asked) printError(asked.error().localizedDescription());

  const auto all = allUploads(*records, sessions);
  platform::Array list;
  for (const UploadRecord& record : all) list.addObject(Value(listed(record, taskOf(sessions, record.session))));
  const char* service = sessions ? "running" : asked ? "not needed" : "not reached";
  if (options.json) {
    printJSON({{"path", file->path()}, {"service", service}, {"uploads", list}});
  } else {
    printLine(fmt::format("{}: {}; the transfer service is {}", file->path(), counted(all.size(), "upload"), service));
    for (const UploadRecord& record : all) printLine(lineFor(record, taskOf(sessions, record.session)));
  }
  return asked ? kDelivered : kFailed;
}

int runUploadsCancel(const Options& options) {
  const Host host(options);
  TransferInspection inspection(systemOptionsOf(options));
  const auto asked = inspection.sessions();
  if (!asked) return fail(asked.error().localizedDescription(), kFailed);
  if (!*asked) return fail("no transfer service runs, and no upload waits for one", kBadInput);
  const auto found = std::ranges::find_if(**asked, [&](const auto& session) {
    return session.identifier == options.uploadSession || session.identifier.ends_with(".GifUpload-" + options.uploadSession);
  });
  if (found == (*asked)->end()) return fail("there is no upload " + options.uploadSession, kBadInput);
  const bool hasEnded =
      std::ranges::all_of(found->tasks, [](const TaskStatus& task) { return task.state == TaskStatus::State::kCompleted; });
  if (hasEnded) return fail("the upload " + found->identifier + " has ended already", kBadInput);
  if (const auto cancelled = inspection.cancel(found->identifier); !cancelled)
    return fail(cancelled.error().localizedDescription(), kFailed);
  if (options.json)
    printJSON({{"session", found->identifier}, {"cancelled", true}});
  else
    printLine("The upload " + found->identifier + " is cancelled.");
  return kDelivered;
}

int runHandleEvents(const Options& options) {
  StopSignals signals;
  Options own = options;
  if (!own.apiHost) own.apiHost = "localhost";  // nothing is asked of it
  std::optional<LaunchLog> log;
  Host host(own);
  auto& background = *platform::Process::current().backgroundSessions;
  const auto session = background.identifierOfLaunch();
  if (!session) return fail("there are no events to handle: the transfer service starts this command", kBadInput);
  auto file = UploadFile::open();
  if (!file) return fail(file.error(), kFailed);
  if (auto opened = LaunchLog::open()) log = *std::move(opened);
  const auto say = [&log](std::string_view line) {
    if (log) log->write(line);
  };
  say("launched for " + *session);
  host.setTraceListener(say);
  const UploadWatchScope watching(host.uploads());
  host.uploads()->setListener([&](const UploadEnd& end) {
    const UploadRecord record = recordOf(end, systemOptionsOf(own));
    say(record.session + ": " + outcomeText(record));
    if (const auto noted = file->note(record); !noted) say("cannot remember the upload: " + noted.error());
  });
  signals.onStop([activity = host.activity()] { activity->interrupt(); });
  host.startBesideOthers();
  background.notifyWhenEventsAreDelivered(*session, [watch = host.uploads()] { watch->delivered(); });
  host.data().handleEventsForBackgroundURLSessionCompletionHandler(*session, [say] { say("the session has ended"); });

  const auto& watch = host.uploads();
  for (const double deadline = steadySeconds() + options.timeout;
       !watch->isDelivered() && !host.activity()->interrupted() && steadySeconds() < deadline;)
    watch->waitForChange(std::min(kLook, deadline - steadySeconds()));
  say(watch->isDelivered() ? "all events are delivered" : "not all events were delivered in time");
  return watch->isDelivered() ? kDelivered : kFailed;
}

}  // namespace cli
