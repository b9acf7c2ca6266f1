// What a transfer service reaches besides its store and its uploads, kept in memory: a launcher, connections and a spool folder.
//
// Each keeps what the service did with it for the test, and fails when the test says so. One thread.
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "transfer/core/Surroundings.h"

namespace test {

class RecordingLauncher final : public transfer::Launcher {
 public:
  struct Launch {
    transfer::ApplicationId application = 0;
    std::vector<std::string> command;
    std::string session;
    std::optional<std::string> trustAnchors;
  };

  /// Every launch asked for, also those that failed.
  std::vector<Launch> launches;
  /// What a launch ends in at once, while it is there.
  std::optional<platform::Error> failure;

  std::expected<void, platform::Error> launch(transfer::ApplicationId application, const std::vector<std::string>& command,
                                              const std::string& session, const std::optional<std::string>& trustAnchors) override {
    launches.push_back({application, command, session, trustAnchors});
    if (failure) return std::unexpected(*failure);
    return {};
  }
};

class RecordingConnections final : public transfer::Connections {
 public:
  /// Called for each message as well, for a test that plays the process at the other end.
  std::function<void(transfer::ConnectionId, const transfer::Message&)> onSend;

  void send(transfer::ConnectionId connection, const transfer::Message& message) override {
    sent_[connection].push_back(message);
    if (onSend) onSend(connection, message);
  }
  void close(transfer::ConnectionId connection) override { closed_.insert(connection); }

  /// What was sent since the last call.
  std::vector<transfer::Message> take(transfer::ConnectionId connection) { return std::exchange(sent_[connection], {}); }
  bool isClosed(transfer::ConnectionId connection) const { return closed_.contains(connection); }

 private:
  std::map<transfer::ConnectionId, std::vector<transfer::Message>> sent_;
  std::set<transfer::ConnectionId> closed_;
};

class MemorySpool final : public transfer::Spool {
 public:
  struct SetAside {
    std::string name;
    std::string reason;
  };

  /// Asked before `read` and `remove`, by operation and name; an error makes it fail.
  std::function<std::optional<platform::Error>(std::string_view operation, const std::string& name)> fail;

  /// Puts a text there as an application would.
  void put(const std::string& name, std::string text) {
    std::erase_if(entries_, [&](const auto& entry) { return entry.first == name; });
    entries_.emplace_back(name, std::move(text));
  }
  const std::vector<SetAside>& asides() const { return asides_; }

  std::vector<std::string> names() override {
    std::vector<std::string> names;
    for (const auto& [name, text] : entries_) names.push_back(name);
    return names;
  }
  std::expected<std::string, platform::Error> read(const std::string& name) override {
    if (auto error = failure("read", name)) return std::unexpected(*error);
    for (const auto& [each, text] : entries_)
      if (each == name) return text;
    return std::unexpected(platform::Error(platform::kCocoaErrorDomain, platform::kFileReadNoSuchFile));
  }
  std::expected<void, platform::Error> remove(const std::string& name) override {
    if (auto error = failure("remove", name)) return std::unexpected(*error);
    std::erase_if(entries_, [&](const auto& entry) { return entry.first == name; });
    return {};
  }
  void setAside(const std::string& name, std::string_view reason) override {
    std::erase_if(entries_, [&](const auto& entry) { return entry.first == name; });
    asides_.push_back({name, std::string(reason)});
  }

 private:
  std::optional<platform::Error> failure(std::string_view operation, const std::string& name) const {
    return fail ? fail(operation, name) : std::nullopt;
  }

  std::vector<std::pair<std::string, std::string>> entries_;
  std::vector<SetAside> asides_;
};

}  // namespace test
