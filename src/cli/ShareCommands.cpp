// The commands for shares, the session-start patch and the cookie match.
//
// The client tells its caller little of these: what became of them is learnt from the trace, the traffic and the delegate. Every
// wait is bounded by --timeout, and by a few seconds more for requests that are cancelled.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <expected>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/Commands.h"
#include "cli/EventInput.h"
#include "cli/HomeFolder.h"
#include "cli/Host.h"
#include "cli/Report.h"
#include "cli/ShareCodes.h"
#include "cli/ShareFile.h"
#include "cli/StopSignals.h"
#include "client/KSVData.h"
#include "platform/Date.h"

namespace cli {
namespace {

using platform::Dictionary;
using platform::Value;

constexpr const char* kNoBrowser = "No browser took the page: xdg-open (Debian package xdg-utils) must be there and know a browser";

int fail(const std::string& reason, ExitStatus status) {
  printError(reason);
  return status;
}

/// Starts the SDK, with signals that stop the waiting; what is wrong otherwise.
std::expected<void, std::string> start(Host& host, StopSignals& signals) {
  signals.onStop([activity = host.activity()] { activity->interrupt(); });
  return host.start();
}

/// The reasons as lines, after what `headline` says; or one JSON object of the members and what every report has.
void printOutcome(const Outcome& outcome, const std::string& headline, Dictionary members, bool json) {
  if (json) {
    members.addEntriesFromDictionary({{"interrupted", outcome.interrupted}, {"reasons", reasonsObject(outcome.reasons)}});
    return printJSON(members);
  }
  if (outcome.interrupted) printLine("Stopped early.");
  printLine(headline);
  printReasons(outcome.reasons);
}

void tellThatItIsLost(const std::string& advice, bool json) {
  if (!json) printLine("It is not kept: " + advice + ". `kestrova doctor` looks for the cause.");
}

std::string codeOf(const KSVShare& share) { return share.referralCode ? share.referralCode->description() : ""; }

std::string lineFor(const KSVShare& share) {
  static constexpr std::array<const char*, 4> kStates{"sent", "clicked", "opened", "installed"};
  std::string line = fmt::format("{}  {:<9}", codeOf(share), kStates.at(static_cast<std::size_t>(share.state)));
  if (share.URL) line += "  " + share.URL->absoluteString();
  return line.substr(0, line.find_last_not_of(' ') + 1);
}

Value serialized(const std::vector<KSVShare>& shares) {
  platform::Array list;
  for (const KSVShare& share : shares) list.addObject(Value(share.serialize()));
  return Value(list);
}

/// Remembers shares in the command's file; that it cannot is told, and no more.
void remember(const std::vector<KSVShare>& shares) {
  auto file = ShareFile::read();
  std::expected<void, std::string> written;
  if (file) {
    for (const KSVShare& share : shares) file->remember(share);
    written = file->write();
  } else {
    written = std::unexpected(file.error());
  }
  if (!written) printError("cannot remember the share: " + written.error());
}

std::expected<std::shared_ptr<KSVShare>, std::string> shareFrom(const Options& options) {
  auto data = parseEventData(options.jsonData);
  if (!data) return std::unexpected("--data: " + data.error());
  auto share = std::make_shared<KSVShare>();
  share->data = *std::move(data);
  share->createdAt = platform::Date::date();
  share->updatedAt = share->createdAt;
  if (!options.shareURL) return share;
  share->URL = platform::URL::URLWithString(*options.shareURL);
  if (!share->URL || !share->URL->scheme())
    return std::unexpected("--url: '" + *options.shareURL + "' is no URL, as https://share.example.com/ab is one");
  return share;
}

/// What a callback brings from another thread. A callback that comes too late still finds it.
template <class T>
class Box {
 public:
  void put(T value) {
    const std::lock_guard lock(mutex_);
    value_ = std::move(value);
  }
  std::optional<T> value() const {
    const std::lock_guard lock(mutex_);
    return value_;
  }

 private:
  mutable std::mutex mutex_;
  std::optional<T> value_;
};

std::expected<KSVShares, std::string> sharesNamed(const std::vector<std::string>& codes) {
  KSVShares shares;
  for (const std::string& text : codes) {
    auto code = parseReferralCode(text);
    if (!code) return std::unexpected("'" + text + "' is no referral code: " + code.error());
    auto share = std::make_shared<KSVShare>();
    share->referralCode = std::make_shared<const KSVReferralCode>(*std::move(code));
    shares.push_back(std::move(share));
  }
  return shares;
}

/// The codes that no share of the answer has, each once.
std::vector<std::string> unknownCodes(const std::vector<std::string>& codes, const std::vector<KSVShare>& found) {
  std::vector<std::string> unknown;
  for (const std::string& code : codes) {
    const bool isKnown = std::ranges::any_of(found, [&](const KSVShare& share) { return codeOf(share) == code; });
    if (!isKnown && std::ranges::find(unknown, code) == unknown.end()) unknown.push_back(code);
  }
  return unknown;
}

int reportRefresh(const Options& options, const Outcome& outcome, const std::vector<KSVShare>& found) {
  const bool refreshed = outcome.delivered && outcome.reasons.empty();
  const auto unknown = refreshed ? unknownCodes(options.referralCodes, found) : std::vector<std::string>();
  platform::Array unknownList;
  for (const std::string& code : unknown) unknownList.addObject(Value(code));
  if (!options.json)
    for (const KSVShare& share : found) printLine(lineFor(share));
  const std::string headline = refreshed ? counted(found.size(), "share") + " refreshed." : "Nothing could be refreshed.";
  printOutcome(outcome, headline, {{"refreshed", refreshed}, {"shares", serialized(found)}, {"unknown", unknownList}},
               options.json);
  for (const std::string& code : unknown) printError(code + ": the server knows no such share");
  if (!refreshed) return kFailed;
  return unknown.empty() ? kDelivered : kBadInput;
}

}  // namespace

int runShareSubmit(const Options& options) {
  StopSignals signals;
  Host host(options);
  const auto share = shareFrom(options);
  if (!share) return fail(share.error(), kBadInput);
  if (const auto started = start(host, signals); !started) return fail(started.error(), kBadInput);
  host.data().submitShare(*share);
  host.waitForOutcome();

  Outcome outcome = host.outcome();
  const auto code = outcome.referralCode ? parseReferralCode(*outcome.referralCode) : std::unexpected(std::string());
  if (outcome.delivered && !outcome.referralCode) ++outcome.reasons["The server's answer had no referral code"];
  const bool submitted = outcome.referralCode.has_value();
  const std::string headline =
      submitted ? "Share submitted, referral code " + *outcome.referralCode : "The share was not submitted.";
  const auto userId = host.directives().objectForKey("userId");
  printOutcome(outcome, headline,
               {{"submitted", submitted},
                {"referralCode", submitted ? Value(*outcome.referralCode) : Value()},
                {"userId", userId.value_or(Value())}},
               options.json);
  if (!submitted) tellThatItIsLost("submit it again", options.json);
  if (code) {
    (*share)->referralCode = std::make_shared<const KSVReferralCode>(*code);
    remember({**share});
  }
  return submitted ? kDelivered : kLost;
}

int runShareRefresh(const Options& options) {
  StopSignals signals;
  Host host(options);
  const auto shares = sharesNamed(options.referralCodes);
  if (!shares) return fail(shares.error(), kBadInput);
  if (const auto started = start(host, signals); !started) return fail(started.error(), kBadInput);
  const auto answer = std::make_shared<Box<std::vector<KSVShare>>>();
  host.data().updateSharesFromServerWithCallback(*shares, [answer](const KSVShares& updated) {
    std::vector<KSVShare> copies;
    for (const auto& share : updated) copies.push_back(*share);
    answer->put(std::move(copies));
  });
  host.waitForOutcome();

  const std::vector<KSVShare> found = answer->value().value_or(std::vector<KSVShare>());
  std::vector<KSVShare> named;
  std::ranges::copy_if(found, std::back_inserter(named), [](const KSVShare& share) { return share.referralCode != nullptr; });
  if (!named.empty()) remember(named);
  return reportRefresh(options, host.outcome(), found);
}

int runShareList(const Options& options) {
  const Host host(options);
  if (const auto absent = folderNotYetMade(options)) {
    if (options.json)
      printJSON({{"path", Value()}, {"shares", platform::Array()}});
    else
      printLine(nothingKeptIn(*absent) + ".");
    return kDelivered;
  }
  const auto file = ShareFile::read();
  if (!file) return fail(file.error(), kFailed);
  if (options.json) {
    printJSON({{"path", file->path()}, {"shares", serialized(file->shares())}});
    return kDelivered;
  }
  printLine(fmt::format("{}: {}", file->path(), counted(file->shares().size(), "share")));
  for (const KSVShare& share : file->shares()) printLine(lineFor(share));
  return kDelivered;
}

int runPatch(const Options& options) {
  StopSignals signals;
  Host host(options);
  const auto data = parseEventData(options.jsonData);
  if (!data) return fail("JSON: " + data.error(), kBadInput);
  if (data->empty()) return fail("JSON: there is nothing to add in an empty object", kBadInput);
  if (const auto started = start(host, signals); !started) return fail(started.error(), kBadInput);
  host.data().patchPreviousSessionStarted(*data);
  host.waitForOutcome();

  const Outcome outcome = host.outcome();
  printOutcome(outcome, outcome.delivered ? "The server took the patch." : "The patch was lost.",
               {{"delivered", outcome.delivered}}, options.json);
  if (!outcome.delivered) tellThatItIsLost("give it again", options.json);
  return outcome.delivered ? kDelivered : kLost;
}

int runCookieMatch(const Options& options) {
  StopSignals signals;
  Host host(options);
  if (const auto started = start(host, signals); !started) return fail(started.error(), kBadInput);
  // Work like any other to the waiting, until the answer is there.
  const auto work = std::make_shared<std::unique_ptr<Activity::Work>>(std::make_unique<Activity::Work>(host.activity()));
  const auto answer = std::make_shared<Box<bool>>();
  host.data().tryCookieMatchWithCompletion([work, answer](bool didComplete) {
    answer->put(didComplete);
    work->reset();
  });
  host.waitForOutcome();

  Outcome outcome = host.outcome();
  const auto didComplete = answer->value();
  if (!didComplete && !outcome.interrupted) ++outcome.reasons["There was no answer in time"];
  if (didComplete == false) ++outcome.reasons[kNoBrowser];
  const bool completed = didComplete.value_or(false);
  printOutcome(outcome, completed ? "The match page is open in the browser." : "The match did not complete.",
               {{"didComplete", completed}}, options.json);
  return completed ? kDelivered : kFailed;
}

}  // namespace cli
