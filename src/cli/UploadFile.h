// What the command remembers of uploads: what it gave to the client, and the outcomes that it was told of.
//
// `command-uploads.json` in the application's folder holds {"uploads": [...]}, the newest last; docs/formats/command-uploads.md has
// the members. The client neither reads nor writes it. Each change is made under `command-uploads.lock`, which is held for that
// alone: a command that waits for an upload and a process that was launched for another one may both have something to note.
#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/Value.h"

namespace cli {

struct UploadRecord {
  std::string session;
  std::optional<std::string> file = std::nullopt;  // as the command was given it
  std::optional<std::string> shareId = std::nullopt;
  std::optional<std::uint64_t> bytes = std::nullopt;
  std::optional<double> startedAt = std::nullopt;  // seconds since 1970, as the next one
  std::optional<double> endedAt = std::nullopt;    // absent: the command was not told of an end
  std::optional<platform::Error> error = std::nullopt;
  std::optional<std::int64_t> statusCode = std::nullopt;  // of the server's answer, where the service still knew it

  platform::Dictionary object() const;
  /// Ended with an answer that is no refusal.
  bool isDelivered() const { return endedAt && !error && statusCode.value_or(200) < 400; }
};

class UploadFile {
 public:
  /// More are not remembered; the oldest go first.
  static constexpr std::size_t kMaxUploads = 1000;

  /// In the application's folder; what is wrong with that.
  static std::expected<UploadFile, std::string> open();

  const std::string& path() const { return path_; }
  std::expected<std::vector<UploadRecord>, std::string> read() const;
  /// Lays what the record has over what is known of its session.
  std::expected<void, std::string> note(const UploadRecord& record) const;

 private:
  explicit UploadFile(std::string path) : path_(std::move(path)) {}
  std::expected<void, std::string> write(const std::vector<UploadRecord>& records) const;

  std::string path_;
};

}  // namespace cli
