// Applications, entries and statuses for tests of the transfer service.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "transfer/protocol/Messages.h"
#include "transfer/protocol/SpoolEntry.h"

namespace test {

inline constexpr double kResumedAt = 1'795'205'979;

inline transfer::ApplicationIdentity applicationNamed(const std::string& name) {
  return {.identifier = "com.example." + name, .folder = "/home/user/" + name, .token = std::string(64, 'a')};
}

inline transfer::SpoolEntry entryFor(const std::string& session, std::uint64_t task = 1, const std::string& application = "app") {
  transfer::SpoolEntry entry;
  entry.application = applicationNamed(application);
  entry.launchCommand = {"/usr/bin/" + application, "--for-events"};
  entry.session = session;
  entry.task = task;
  entry.method = "POST";
  entry.url = "https://api.example.com/gifs?shareId=" + session;
  entry.headerFields = {{"Authorization", "Hawk id=\"x\""}, {"Content-Type", "image/gif"}};
  entry.file = "/home/user/" + application + "/uploads/" + session;
  entry.trustAnchors = "/etc/anchors.pem";
  entry.resumedAt = kResumedAt;
  return entry;
}

/// A task that waits for its first try.
inline transfer::TaskStatus statusFor(const transfer::SpoolEntry& entry) {
  transfer::TaskStatus status;
  status.identifier = entry.task;
  status.url = entry.url;
  status.file = entry.file;
  return status;
}

inline transfer::TaskStatus endedStatusFor(const transfer::SpoolEntry& entry) {
  transfer::TaskStatus status = statusFor(entry);
  status.state = transfer::TaskStatus::State::kCompleted;
  status.tries = 1;
  status.statusCode = 200;
  return status;
}

}  // namespace test
