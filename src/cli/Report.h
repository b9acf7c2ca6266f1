// What the command tells people and scripts at its end.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/Doctor.h"
#include "cli/Host.h"
#include "cli/QueueInspection.h"
#include "platform/Value.h"

namespace cli {

struct BadLine {
  std::uint64_t number = 0;  // from 1
  std::string reason;
};

/// Lines of an input that were skipped. Only the first are told one by one: a file of another kind would bury everything else.
class BadLines {
 public:
  static constexpr std::size_t kMostTold = 10;

  /// Notes a line, and tells of it while there are few.
  void add(std::uint64_t number, const std::string& reason);
  /// Notes a line and tells of it, however many there are.
  void tell(std::uint64_t number, const std::string& reason);
  /// Tells how many were not told.
  void tellTheRest() const;

  std::uint64_t count() const { return told_.size() + untold_; }
  const std::vector<BadLine>& told() const { return told_; }

 private:
  std::uint64_t untold_ = 0;
  std::vector<BadLine> told_;
};

/// The account of a run that sent something: on standard output, as sentences or as one JSON object.
void printAccount(const Account& account, const BadLines& badLines, const platform::Dictionary& directives, bool json);
/// A line for each reason, with how often it was there.
void printReasons(const std::map<std::string, std::uint64_t>& reasons);
/// The reasons as a JSON object, each with how often it was there.
platform::Dictionary reasonsObject(const std::map<std::string, std::uint64_t>& reasons);
void printQueue(const QueueContent& queue, bool json);
/// A line for each finding, in colour on a terminal, with what to do below those that ask for something.
void printFindings(const std::vector<Finding>& findings, bool json);

/// A line on standard output.
void printLine(const std::string& line);
/// A line on standard error, after the command's name.
void printError(const std::string& line);
void printJSON(const platform::Dictionary& object);
/// The text, or JSON null.
platform::Value textOrNull(const std::optional<std::string>& text);
/// `1 event`, `2 events`.
std::string counted(std::uint64_t count, const std::string& noun);

/// Tells how far a long run is: one line that is redrawn on a terminal, a line every few seconds elsewhere. On standard error.
class Progress {
 public:
  Progress();
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  void update(std::uint64_t recorded, std::uint64_t delivered);

 private:
  bool isTerminal_;
  bool isDrawn_ = false;
  double last_;  // seconds
};

}  // namespace cli
