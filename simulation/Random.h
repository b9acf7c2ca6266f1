// The one source of chance of a simulated world: everything that is drawn comes from its seed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace simulation {

class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed * 0x9e3779b97f4a7c15 + 0x1234567) {}

  std::uint64_t next() {
    std::uint64_t mixed = state_ += 0x9e3779b97f4a7c15;
    mixed = (mixed ^ mixed >> 30) * 0xbf58476d1ce4e5b9;
    mixed = (mixed ^ mixed >> 27) * 0x94d049bb133111eb;
    return mixed ^ mixed >> 31;
  }
  /// From 0 up to, not including, the bound.
  std::size_t below(std::size_t bound) { return static_cast<std::size_t>(next() % bound); }
  double unit() { return static_cast<double>(next() >> 11) / 9007199254740992.0; }
  /// True that often, of 1.
  bool chance(double likelihood) { return likelihood > 0 && unit() < likelihood; }
  double between(double low, double high) { return low + (high - low) * unit(); }

 private:
  std::uint64_t state_;
};

}  // namespace simulation
