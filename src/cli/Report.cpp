// Sentences and JSON for the command's end.
#include "cli/Report.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/JSONSerialization.h"

namespace cli {
namespace {

double secondsNow() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

constexpr double kTerminalInterval = 0.1;  // seconds
constexpr double kPlainInterval = 5;       // seconds

/// Whether colours are wanted there: on a terminal that knows them, unless NO_COLOR is set (https://no-color.org).
bool showsColours(int descriptor) {
  const char* refused = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return isatty(descriptor) == 1 && !(refused && *refused) && terminal && std::string_view(terminal) != "dumb";
}

struct Mark {
  const char* word;
  std::string colour;  // the terminal's sequence that begins it
};
Mark markOf(Finding::State state) {
  switch (state) {
    case Finding::State::kWell:
      return {"well", "\033[32m"};
    case Finding::State::kNotice:
      return {"notice", "\033[33m"};
    case Finding::State::kIll:
      break;
  }
  return {"ill", "\033[31m"};
}

platform::Dictionary accountObject(const Account& account, const BadLines& badLines, const platform::Dictionary& directives) {
  platform::Array lines;
  for (const BadLine& line : badLines.told())
    lines.addObject(platform::Value(platform::Dictionary{{"line", line.number}, {"reason", line.reason}}));
  const auto known = [&account](std::uint64_t count) { return account.queueFault ? platform::Value() : platform::Value(count); };
  return {{"recorded", account.recorded},
          {"waiting", account.waiting},
          {"delivered", account.delivered},
          {"kept", known(account.kept)},
          {"lost", known(account.lost)},
          {"interrupted", account.interrupted},
          {"inputUnread", account.inputUnread},
          {"reasons", reasonsObject(account.reasons)},
          {"badLines", lines},
          {"badLineCount", badLines.count()},
          {"directives", directives}};
}

}  // namespace

void BadLines::add(std::uint64_t number, const std::string& reason) {
  if (told_.size() < kMostTold)
    tell(number, reason);
  else
    ++untold_;
}

void BadLines::tell(std::uint64_t number, const std::string& reason) {
  told_.push_back({number, reason});
  printError(fmt::format("line {}: {}; skipped", number, reason));
}

void BadLines::tellTheRest() const {
  if (untold_ > 0) printError(counted(untold_, "more line") + " skipped");
}

platform::Dictionary reasonsObject(const std::map<std::string, std::uint64_t>& reasons) {
  platform::Dictionary object;
  for (const auto& [reason, count] : reasons) object.setObjectForKey(platform::Value(count), reason);
  return object;
}

// With the C library: what cannot be written is no reason to end here; main looks at standard output once more.
void printLine(const std::string& line) { (void)std::fprintf(stdout, "%s\n", line.c_str()); }
void printError(const std::string& line) { (void)std::fprintf(stderr, "kestrova: %s\n", line.c_str()); }

void printJSON(const platform::Dictionary& object) {
  const auto text = platform::JSONSerialization::dataWithJSONObject(object);
  if (text) printLine(std::string(text->bytes()));
}

platform::Value textOrNull(const std::optional<std::string>& text) { return text ? platform::Value(*text) : platform::Value(); }

std::string counted(std::uint64_t count, const std::string& noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

void printReasons(const std::map<std::string, std::uint64_t>& reasons) {
  for (const auto& [reason, count] : reasons)
    printLine(fmt::format("  {}{}", reason, count > 1 ? fmt::format(" ({} times)", count) : ""));
}

void printAccount(const Account& account, const BadLines& badLines, const platform::Dictionary& directives, bool json) {
  if (account.queueFault) printError("cannot read the queue: " + *account.queueFault);
  if (json) {
    printJSON(accountObject(account, badLines, directives));
    return;
  }
  if (account.interrupted) printLine("Stopped early.");
  if (account.inputUnread)
    printLine("The time was up before the input had been read to its end; what was not read is in no place.");
  std::string waiting;
  if (account.waiting > 0) waiting = fmt::format(" and {} from earlier runs", account.waiting);
  const std::string fate = account.queueFault ? "what became of the others is not known"
                                              : fmt::format("{} kept on disk, {} lost", account.kept, account.lost);
  printLine(fmt::format("{} recorded{}: {} delivered, {}.", counted(account.recorded, "event"), waiting, account.delivered, fate));
  printReasons(account.reasons);
  for (const auto& [name, value] : directives)
    printLine(fmt::format("  The server said {} = {}", name.view(), value.description()));
  if (account.kept > 0) printLine("What was kept goes out with the next events, or with `kestrova flush`.");
  if (account.kept > 0 || account.lost > 0) printLine("`kestrova doctor` looks for the cause.");
}

void printQueue(const QueueContent& queue, bool json) {
  if (json) {
    printJSON({{"path", queue.path},
               {"records", queue.records},
               {"bytes", queue.bytes},
               {"badLines", queue.badLines},
               {"unendedTail", queue.hasUnendedTail},
               {"oldest", textOrNull(queue.oldest)},
               {"newest", textOrNull(queue.newest)}});
    return;
  }
  printLine(fmt::format("{}: {}, {}", queue.path, counted(queue.records, "record"), counted(queue.bytes, "byte")));
  if (queue.records > 0) printLine(fmt::format("oldest {}, newest {}", queue.oldest.value_or("?"), queue.newest.value_or("?")));
  if (queue.badLines > 0)
    printLine(fmt::format("{} that {} not parse; the next send drops {}", counted(queue.badLines, "line"),
                          queue.badLines == 1 ? "does" : "do", queue.badLines == 1 ? "it" : "them"));
  if (queue.hasUnendedTail) printLine("The last record is incomplete.");
}

void printFindings(const std::vector<Finding>& findings, bool json) {
  if (json) {
    platform::Array list;
    for (const Finding& finding : findings)
      list.addObject(platform::Value(platform::Dictionary{{"state", markOf(finding.state).word},
                                                          {"subject", finding.subject},
                                                          {"what", finding.what},
                                                          {"advice", finding.advice}}));
    printJSON({{"findings", list}});
    return;
  }
  const bool isColoured = showsColours(STDOUT_FILENO);
  for (const Finding& finding : findings) {
    const Mark mark = markOf(finding.state);
    const std::string word = fmt::format("{:<6}", mark.word);
    printLine(fmt::format("{}  {:<11}  {}", isColoured ? mark.colour + word + "\033[0m" : word, finding.subject, finding.what));
    if (!finding.advice.empty()) printLine(fmt::format("{:21}{}", "", finding.advice));
  }
}

Progress::Progress() : isTerminal_(isatty(STDERR_FILENO) == 1), last_(secondsNow()) {}

Progress::~Progress() {
  if (isDrawn_) (void)std::fputs("\r\033[K", stderr);
}

void Progress::update(std::uint64_t recorded, std::uint64_t delivered) {
  const double now = secondsNow();
  if (now - last_ < (isTerminal_ ? kTerminalInterval : kPlainInterval)) return;
  last_ = now;
  isDrawn_ = isTerminal_;
  const std::string told = fmt::format("{} recorded, {} delivered", counted(recorded, "event"), delivered);
  (void)std::fprintf(stderr, isTerminal_ ? "\r\033[K%s" : "%s\n", told.c_str());
  (void)std::fflush(stderr);
}

}  // namespace cli
