// The API server of a simulated world: it checks every signature as the scheme has it, keeps what it was sent, and answers as the
// seed wants.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "devserver/HawkVerifier.h"
#include "platform/Error.h"
#include "platform/URLRequest.h"
#include "platform/URLResponse.h"
#include "simulation/Ledger.h"
#include "simulation/Random.h"
#include "simulation/Story.h"
#include "simulation/Swarm.h"
#include "transfer/core/Surroundings.h"

namespace simulation {

class Server {
 public:
  /// What the network hands back for one request.
  struct Outcome {
    std::optional<platform::Data> body;
    platform::HTTPURLResponseRef response;
    std::optional<platform::Error> error;
    bool saysTaken = false;
    bool isChallenge = false;
    std::string text;  // for the story
  };

  Server(Random& random, Story& story, Swarm& swarm, Ledger& ledger);

  /// The oracles over what the client signs: the signature and the payload hash are right, the nonce is new. Once for each request
  /// that the client sends, whatever becomes of it.
  void checkSignature(const platform::URLRequest& request);
  /// The same for an upload, which is signed once for all its tries.
  void checkUploadSignature(const transfer::SpoolEntry& entry);

  /// A request, with its number among the client's, meets its fate.
  Outcome handle(std::uint64_t number, const platform::URLRequest& request, bool isEvents);
  /// One try of an upload whose file is there.
  transfer::UploadOutcome upload(const transfer::SpoolEntry& entry);

  /// A digest was made to fail: one request may be without a signature.
  void digestFailed() { ++digestFailures_; }

  void advance(double seconds) { time_ += seconds; }
  double time() const { return time_; }
  std::uint64_t requests() const { return requests_; }

 private:
  bool happens(Kind kind);
  Outcome answer(const platform::URLRequest& request, std::int64_t status, std::string body,
                 const std::optional<std::string>& challenge = std::nullopt);
  static Outcome failure(std::int64_t code);
  Outcome taken(const platform::URLRequest& request, bool isEvents);
  std::optional<devserver::HawkRefusal> refusal(const platform::URLRequest& request);
  devserver::HawkTicket ticketOf(const std::string& method, const std::string& target, const std::string& authorization,
                                 std::string_view what);
  void expectExcuse(const std::string& what);
  void useNonce(const devserver::HawkTicket& ticket);
  std::chrono::milliseconds now() const { return std::chrono::milliseconds(static_cast<std::int64_t>(time_ * 1000)); }

  Random& random_;
  Story& story_;
  Swarm& swarm_;
  Ledger& ledger_;
  double time_;  // seconds since 1970; never jumps
  devserver::HawkVerifier verifier_;
  std::set<std::string> nonces_;
  std::uint64_t requests_ = 0;
  std::uint64_t digestFailures_ = 0;
};

}  // namespace simulation
