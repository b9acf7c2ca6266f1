// The step at which to die, and the count of those before it.
#include "transfer/linux/DieAt.h"

#include <signal.h>
#include <stdlib.h>

#include <atomic>
#include <charconv>
#include <string>

namespace transfer {
namespace {

struct Fate {
  std::string step;
  std::atomic<int> left{0};
};

Fate& fate() {
  static Fate the;
  return the;
}

}  // namespace

void readDieAt() {
  const char* text = secure_getenv("KESTROVA_TRANSFERD_DIE_AT");
  if (!text) return;
  const std::string_view all(text);
  const std::size_t colon = all.find(':');
  int count = 1;
  if (colon != std::string_view::npos) std::from_chars(all.data() + colon + 1, all.data() + all.size(), count);
  fate().step = all.substr(0, colon);
  fate().left = count;
}

void dieAt(std::string_view step) {
  if (step.empty() || step != fate().step) return;
  if (--fate().left == 0) (void)raise(SIGKILL);
}

}  // namespace transfer
