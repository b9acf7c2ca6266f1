// What the server received: one JSON object a line, appended to a file of mode 0600, and one line for people on standard output.
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace devserver {

/// Any thread.
class Journal {
 public:
  Journal() = default;
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  std::expected<void, std::string> open(const std::filesystem::path& file);

  /// Appends an entry, whole or not at all.
  std::expected<void, std::string> append(const platform::Dictionary& entry);
  /// The entries since the journal was opened, as the text of a JSON array.
  std::expected<std::string, std::string> entriesAsJson() const;

 private:
  mutable std::mutex mutex_;
  std::filesystem::path file_;
  int descriptor_ = -1;
  std::uint64_t start_ = 0;  // where this run's entries begin
};

/// A time since 1970 in UTC with milliseconds, `2026-11-20T20:19:39.123Z`.
std::string timeText(std::chrono::milliseconds time);
/// The current time in that form.
std::string timeText();

/// Writes one line on standard output, at once. Any thread; a reader who has gone away is no reason to stop.
void printLine(std::string_view line);
/// As printLine on standard error, after the program's name.
void printError(std::string_view message);

}  // namespace devserver
