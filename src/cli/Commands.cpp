// The commands that report events and look at what is kept.
#include "cli/Commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/Doctor.h"
#include "cli/EventInput.h"
#include "cli/HomeFolder.h"
#include "cli/Host.h"
#include "cli/LineReader.h"
#include "cli/QueueInspection.h"
#include "cli/Report.h"
#include "cli/StopSignals.h"
#include "companions/KSVConstants.h"
#include "companions/KSVIdentityStorage.h"
#include "companions/KSVUtils.h"
#include "platform/UserDefaults.h"

namespace cli {
namespace {

int finishRun(Host& host, const Options& options, const BadLines& badLines = {}) {
  const Account account = host.account();
  host.rememberFailure(account);
  printAccount(account, badLines, host.directives(), options.json);
  return account.exitStatus(badLines.count() > 0);
}

/// Reports every good line; tells of the others and skips them.
BadLines reportLines(Host& host, LineReader& input) {
  BadLines badLines;
  Progress progress;
  std::uint64_t number = 0;
  while (host.keepPace()) {
    const auto line = input.next();
    if (!line) break;
    ++number;
    if (line->isTooLong) {
      badLines.add(number, fmt::format("longer than {} MiB", LineReader::kMaxLine / 1024 / 1024));
      continue;
    }
    if (line->text.find_first_not_of(" \t\r") == std::string::npos) continue;
    if (auto event = parseEventLine(line->text)) {
      host.report(event->name, std::move(event->data));
    } else {
      badLines.add(number, event.error());
    }
    progress.update(host.recorded(), host.activity()->traffic().delivered);
  }
  badLines.tellTheRest();
  if (!input.error().empty()) badLines.tell(number + 1, "cannot read on: " + input.error());
  return badLines;
}

/// What an application's folder holds beside its events.
struct State {
  std::optional<std::string> device;
  std::optional<std::string> folder;
  std::int64_t clockCorrection = 0;  // seconds
  std::int64_t disabledFeatures = 0;
  std::optional<platform::Value> disabledReasons;
};

State storedState() {
  State state;
  if (const auto support = KSVUtils::applicationSupportDirectory()) {
    state.folder = support->path();
    // Without a folder it would be another one each time.
    state.device = KSVIdentityStorage().identifier().UUIDString();
  }
  auto& defaults = platform::UserDefaults::standardUserDefaults();
  state.clockCorrection = defaults.integerForKey(*Kestrova::defaultConstants().hawkLocalTimeSkew);
  state.disabledFeatures = defaults.integerForKey(kFeaturesDefault);
  state.disabledReasons = defaults.objectForKey(kReasonsDefault);
  return state;
}

}  // namespace

int runEvent(const Options& options) {
  StopSignals signals;
  Host host(options);
  std::optional<platform::Dictionary> data;
  if (options.eventData) {
    auto parsed = parseEventData(*options.eventData);
    if (!parsed) {
      printError("--data: " + parsed.error());
      return kBadInput;
    }
    data = *std::move(parsed);
  }
  signals.onStop([activity = host.activity()] { activity->interrupt(); });
  if (const auto started = host.start(); !started) {
    printError(started.error());
    return kBadInput;
  }
  host.report(options.eventName, std::move(data));
  host.finish();
  return finishRun(host, options);
}

int runEvents(const Options& options) {
  StopSignals signals;
  Host host(options);
  auto opened = LineReader::open(options.inputFile);
  if (!opened) {
    const std::string name = options.inputFile == "-" ? "standard input" : options.inputFile;
    printError(fmt::format("cannot read {}: {}", name, opened.error()));
    return kBadInput;
  }
  const auto input = std::make_shared<LineReader>(*std::move(opened));
  signals.onStop([activity = host.activity(), input] {
    activity->interrupt();
    input->stop();
  });
  if (const auto started = host.start(); !started) {
    printError(started.error());
    return kBadInput;
  }
  const BadLines badLines = reportLines(host, *input);
  host.finish();
  return finishRun(host, options, badLines);
}

int runFlush(const Options& options) {
  StopSignals signals;
  Host host(options);
  signals.onStop([activity = host.activity()] { activity->interrupt(); });
  if (const auto started = host.start(); !started) {
    printError(started.error());
    return kBadInput;
  }
  host.flush();
  return finishRun(host, options);
}

int runQueue(const Options& options) {
  const Host host(options);
  if (const auto folder = folderNotYetMade(options)) {
    QueueContent nothing;
    nothing.path = *folder + "/application-support/event-queue.json";
    printQueue(nothing, options.json);
    if (!options.json) printLine("Its folder is not there: nothing was ever kept under this identifier.");
    return kDelivered;
  }
  const auto queue = inspectQueue();
  if (!queue) {
    printError(queue.error().localizedDescription());
    return kFailed;
  }
  printQueue(*queue, options.json);
  return kDelivered;
}

int runStatus(const Options& options) {
  const Host host(options);
  const auto absentFolder = folderNotYetMade(options);
  const State state = absentFolder ? State() : storedState();
  const std::string application = options.bundleId.value_or(std::string(kSDKReverseDNSPrefix) + ".test");

  if (options.json) {
    printJSON({{"application", application},
               {"device", textOrNull(state.device)},
               {"apiHost", textOrNull(options.apiHost)},
               {"clockCorrection", state.clockCorrection},
               {"applicationSupport", textOrNull(state.folder)},
               {"disabledFeatures", state.disabledFeatures},
               {"disabledReasons", state.disabledReasons.value_or(platform::Value())}});
    return kDelivered;
  }
  const std::string folder = absentFolder ? *absentFolder + " (not there yet)" : "(none)";
  printLine(fmt::format("application       {}", application));
  printLine(fmt::format("device            {}", state.device.value_or("(none yet)")));
  printLine(fmt::format("API host          {}", options.apiHost.value_or("(not given)")));
  printLine(fmt::format("clock correction  {} s", state.clockCorrection));
  printLine(fmt::format("state             {}", state.folder.value_or(folder)));
  printLine(fmt::format("features off      {}{}", state.disabledFeatures,
                        state.disabledReasons ? " because " + state.disabledReasons->description() : ""));
  return kDelivered;
}

int runDoctor(const Options& options) {
  const Host host(options);
  const std::vector<Finding> findings = diagnose(options);
  printFindings(findings, options.json);
  const bool isIll = std::ranges::any_of(findings, [](const Finding& finding) { return finding.state == Finding::State::kIll; });
  return isIll ? kFailed : kDelivered;
}

}  // namespace cli
