// Drawing what may go wrong.
#include "simulation/Swarm.h"

namespace simulation {

Swarm::Swarm(Random& random) {
  constexpr double kSwitchedOff = 0.5;
  for (std::size_t kind = 0; kind < kKinds; ++kind) {
    const double factor = random.between(0.3, 2);
    if (!random.chance(kSwitchedOff)) likelihoods_[kind] = kKindDescriptions[kind].likelihood * factor;
  }
  switchLikelihood = random.chance(0.2) ? 0.02 : random.between(0.1, 0.6);
  steps = 600 + random.below(1200);
  constexpr std::array<std::int32_t, 4> kLimits{900, 6000, 60'000, 1'048'576};
  queueLimit = kLimits[random.below(kLimits.size())];
  hostActivity = random.between(0.5, 4);
  uploadShare = random.chance(0.3) ? 0 : random.between(0.02, 0.15);
}

}  // namespace simulation
