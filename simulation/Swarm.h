// What may go wrong in one run, and how often: drawn from the seed, with some kinds switched off altogether.
//
// A run in which everything fails reaches little; runs in which different things fail reach what one average run never would.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "simulation/Random.h"

namespace simulation {

enum class Kind : std::size_t {
  kFileFails,
  kFileRaises,
  kShortWrite,
  kJSONFails,
  kDataRaises,
  kServiceCallRaises,
  kDeathBeforeCall,
  kDeathAfterCall,
  kKill,
  kPowerCut,
  kServiceDeathAtCall,
  kServiceKill,
  kLinkBreaks,
  kStoreFails,
  kSpoolFails,
  kLaunchFails,
  kRequestLost,
  kAnswerLost,
  kRequestRepeated,
  kServerError,
  kServerErrorAfterTaking,
  kChallenge,
  kFalseChallenge,
  kInvalidAnswer,
  kTruncatedAnswer,
  kPoisonedAnswer,
  kClockJump,
  kUploadFails,
  kUploadRefused,
  kUnwritableEvent,
  kAbsentName,
  kBigEvents,
  kDefaultsLost,
  kCount,
};

constexpr std::size_t kKinds = static_cast<std::size_t>(Kind::kCount);

struct KindDescription {
  std::string_view name;
  double likelihood;  // of each opportunity: a call, a step, a request, an event
};

/// In the order of Kind.
constexpr std::array<KindDescription, kKinds> kKindDescriptions{{
    {"a file operation fails", 0.03},
    {"a file handle raises", 0.02},
    {"a write is short", 0.02},
    {"JSON fails", 0.01},
    {"cutting bytes out raises", 0.01},
    {"a call that rarely raises does", 0.003},
    {"the application dies before a call", 0.0007},
    {"the application dies after a call", 0.0007},
    {"the application is killed", 0.001},
    {"power cut", 0.0012},
    {"the service dies at a call", 0.005},
    {"the service is killed", 0.001},
    {"the link breaks", 0.02},
    {"the service's store fails", 0.03},
    {"the spool fails", 0.03},
    {"a launch fails", 0.2},
    {"a request is lost", 0.2},
    {"an answer is lost", 0.12},
    {"a request arrives twice", 0.1},
    {"the server answers with an error", 0.25},
    {"the server answers with an error, but has taken it", 0.08},
    {"the server challenges a good request", 0.08},
    {"the server challenges falsely", 0.06},
    {"the answer is no JSON", 0.1},
    {"the answer is cut off", 0.1},
    {"the answer is of a kind that ends the application", 0.01},
    {"the clock jumps", 0.003},
    {"an upload's try fails", 0.4},
    {"an upload is refused", 0.1},
    {"an event cannot be written", 0.01},
    {"an event has no name", 0.002},
    {"events are big", 0.3},
    {"the user defaults were not kept", 0.2},
}};

class Swarm {
 public:
  explicit Swarm(Random& random);

  /// Of each opportunity; nil when the kind is switched off, and for every kind once quiet() was called.
  double likelihood(Kind kind) const { return isQuiet_ ? 0 : likelihoods_[static_cast<std::size_t>(kind)]; }
  /// No fault from now on.
  void quiet() { isQuiet_ = true; }
  bool isQuiet() const { return isQuiet_; }

  double switchLikelihood = 0;  // at each call of a service
  std::uint64_t steps = 0;
  std::int32_t queueLimit = 0;  // bytes
  double hostActivity = 0;      // how much the host does, against all the rest
  double uploadShare = 0;       // how much of that is uploads

 private:
  std::array<double, kKinds> likelihoods_{};
  bool isQuiet_ = false;
};

inline std::string_view nameOf(Kind kind) { return kKindDescriptions[static_cast<std::size_t>(kind)].name; }

}  // namespace simulation
