// Looks into a queue file without touching it.
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>

#include "platform/Error.h"
#include "platform/URL.h"

namespace cli {

struct QueueContent {
  std::string path;
  std::uint64_t records = 0;          // lines that parse
  std::uint64_t bytes = 0;            // of the whole file
  std::uint64_t badLines = 0;         // lines that do not parse; a load drops them
  bool hasUnendedTail = false;        // bytes after the last line feed
  std::optional<std::string> oldest;  // "localTime" of the first record, as text
  std::optional<std::string> newest;
};

/// What waits in the application's queue file; an absent file is an empty queue.
std::expected<QueueContent, platform::Error> inspectQueue();

}  // namespace cli
