// How the server misbehaves: what it was told on the command line and, while it runs, through POST /dev/behaviour.
//
// Both speak the same language, an object of settings; docs/devserver.md has them all. A setting that counts requests ("next") is
// used up by API requests, one each. Where several could serve a request, the order is: drop, answer, status, stale.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "devserver/HawkVerifier.h"
#include "platform/Value.h"

namespace devserver {

/// What goes back to a client; Content-Length and Connection are added on the wire.
struct Answer {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> fields;
  std::string body;
};

/// What is to happen with one request instead of the right thing.
struct Misbehaviour {
  enum class Kind { kNone, kDrop, kAnswer, kStatus, kStale };
  Kind kind = Kind::kNone;
  Answer answer;                    // kAnswer, kStatus
  std::optional<std::string> time;  // kStale: as text; absent for the server's own time
  Tsm tsm = Tsm::kGood;             // kStale

  /// The setting's name; empty for none.
  const char* name() const;
};

/// Any thread.
class Behaviour {
 public:
  /// Applies every setting of the object, or none and says what is wrong. A setting that is null goes back to its default.
  std::expected<void, std::string> change(const platform::Dictionary& settings);
  void reset();
  /// What is in force, in the form that change takes; what counts requests shows how many are left.
  platform::Dictionary state() const;
  /// The same in short, for whoever is told of it with each request: of an answer of its own "status", "next" and "bodyBytes"
  /// alone, and in place of directives whose JSON has more than kMaxDirectives bytes "directivesBeginning" and "directivesBytes".
  platform::Dictionary summary() const;
  static constexpr std::size_t kMaxDirectives = 1024;

  /// The misbehaviour that this request uses up. A stale challenge waits for one that `canChallenge`: it needs the application's
  /// key.
  Misbehaviour take(bool canChallenge);

  std::chrono::seconds clockOffset() const;
  std::chrono::milliseconds delay() const;
  /// The body of a good answer to /events.
  platform::Dictionary directives() const;
  /// After how many requests a connection is closed without being announced; 0 for never.
  std::int64_t closeEvery() const;
  /// How many bytes of a body are read in a second on each connection; 0 for as many as come.
  std::int64_t readRate() const;

 private:
  struct Settings {
    std::int64_t clockOffset = 0;
    std::int64_t delay = 0;
    std::int64_t closeEvery = 0;
    std::int64_t readRate = 0;
    platform::Dictionary directives;
    std::int64_t drop = 0;
    std::int64_t answersLeft = 0;
    Answer answer;
    std::int64_t statusesLeft = 0;
    int status = 500;
    std::int64_t stalesLeft = 0;
    std::optional<std::string> staleTime;
    Tsm tsm = Tsm::kGood;
  };
  using Outcome = std::expected<void, std::string>;

  static Outcome apply(Settings& settings, std::string_view name, const platform::Value& value);
  static Outcome applyNumber(Settings& settings, std::string_view name, const platform::Value& value);
  static Outcome applyDirectives(Settings& settings, const platform::Value& value);
  static Outcome applyAnswer(Settings& settings, const platform::Value& value);
  static Outcome applyStatus(Settings& settings, const platform::Value& value);
  static Outcome applyStale(Settings& settings, const platform::Value& value);

  mutable std::mutex mutex_;
  Settings settings_;
};

/// The names of all settings, which are those of the command line's options too.
const std::vector<std::string>& behaviourNames();

}  // namespace devserver
