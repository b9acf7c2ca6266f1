// A task in the spool folder: how an application hands an upload to the service without waiting for it.
//
// The application writes one file under a name that begins with a dot, syncs it, renames it to `<random>.task` and syncs the
// folder. The service takes it into its store, removes the file, syncs the folder, and only then begins. So a task is in the
// folder, or in the store, or, after a crash between, in both under the same spool name.
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "transfer/protocol/Messages.h"

namespace transfer {

inline constexpr std::string_view kSpoolSuffix = ".task";

struct SpoolEntry {
  ApplicationIdentity application;
  std::vector<std::string> launchCommand;
  std::string session;
  std::uint64_t task = 0;
  std::string method;
  std::string url;  // empty when the request had none
  std::vector<std::pair<std::string, std::string>> headerFields;
  std::string file;                         // absolute path
  std::optional<std::string> trustAnchors;  // a PEM file; the system's when absent
  double requestTimeout = 60;               // seconds without progress
  double resumedAt = 0;                     // seconds since 1970
  friend bool operator==(const SpoolEntry&, const SpoolEntry&) = default;
};

// The longest texts of an entry, in bytes, so that what the service says of a task always fits a message.
inline constexpr std::size_t kMaxSessionBytes = 1024;
inline constexpr std::size_t kMaxURLBytes = std::size_t{16} * 1024;
inline constexpr std::size_t kMaxPathBytes = 4096;

/// Whether the service can know a session by that identifier: a text that messages carry unchanged, neither empty nor too long.
bool isSessionIdentifier(std::string_view identifier);

/// One line, as encode(Message) writes it.
std::string encode(const SpoolEntry& entry);
/// The reason when the text is no entry of this version. Never raises. What it yields is one again when it is encoded.
std::expected<SpoolEntry, std::string> decodeSpoolEntry(std::string_view text);

}  // namespace transfer
