// How a target says that what it saw is wrong: one line on standard error, and the end of the process, which the fuzzer reports
// with the input.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace fuzz {

[[noreturn]] inline void fail(std::string_view what) {
  std::fprintf(stderr, "FINDING: %.*s\n", static_cast<int>(what.size()), what.data());
  std::abort();
}

inline void check(bool isRight, std::string_view what) {
  if (!isRight) fail(what);
}

}  // namespace fuzz
