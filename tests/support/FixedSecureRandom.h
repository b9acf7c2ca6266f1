// Random bytes that are the same in every run: first those that the test gives, then a sequence that its seed determines.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "platform/SecureRandom.h"

namespace test {

class FixedSecureRandom final : public platform::SecureRandom {
 public:
  explicit FixedSecureRandom(std::uint64_t seed = 1) : state_(seed) {}

  void fill(std::span<std::byte> bytes) override {
    std::lock_guard lock(mutex_);
    for (std::byte& byte : bytes) byte = next();
  }

  /// Hands these out before it goes on with the sequence.
  void give(const std::vector<std::uint8_t>& bytes) {
    std::lock_guard lock(mutex_);
    for (const std::uint8_t byte : bytes) given_.push_back(std::byte{byte});
  }

 private:
  std::byte next() {
    if (given_.empty()) return generated();
    const std::byte byte = given_.front();
    given_.pop_front();
    return byte;
  }

  // The high byte of a 64-bit mixing generator's output; good enough for tests that look at distributions.
  std::byte generated() {
    std::uint64_t mixed = state_ += 0x9e3779b97f4a7c15;
    mixed = (mixed ^ mixed >> 30) * 0xbf58476d1ce4e5b9;
    mixed = (mixed ^ mixed >> 27) * 0x94d049bb133111eb;
    return static_cast<std::byte>((mixed ^ mixed >> 31) >> 56);
  }

  std::mutex mutex_;
  std::uint64_t state_;
  std::deque<std::byte> given_;
};

}  // namespace test
