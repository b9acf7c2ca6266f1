// An input taken apart from its front: numbers and lines first, the rest as it stands. So a seed can be written by hand.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace fuzz {

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  bool isAtEnd() const { return rest_.empty(); }
  /// 0 when there is none.
  std::uint8_t byte() {
    if (rest_.empty()) return 0;
    const auto taken = static_cast<std::uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    return taken;
  }
  /// What stands before the next line feed, which goes too; all that is left when there is none.
  std::string_view line() {
    const std::string_view taken = rest_.substr(0, rest_.find('\n'));
    rest_.remove_prefix(std::min(rest_.size(), taken.size() + 1));
    return taken;
  }
  std::string_view bytes(std::size_t count) {
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(taken.size());
    return taken;
  }
  std::string_view rest() const { return rest_; }

 private:
  std::string_view rest_;
};

}  // namespace fuzz

/// What a target does with one input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
