// Keeping, hashing and telling the lines.
#include "simulation/Story.h"

#include <cstdio>

namespace simulation {

void Story::add(std::string_view line) {
  std::string text = std::to_string(step_) + " ";
  text.append(line.substr(0, 600));  // a batch's or a file's text would drown the rest
  for (const char c : text) hash_ = (hash_ ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  hash_ = (hash_ ^ '\n') * 0x100000001b3;
  ++lines_;
  if (isTold_) std::printf("%s\n", text.c_str());
  tail_.push_back(std::move(text));
  if (tail_.size() > kTail) tail_.pop_front();
}

void Story::fault(std::string_view kind, std::string_view what) {
  ++faults_[std::string(kind)];
  add("  ! " + std::string(kind) + (what.empty() ? "" : ": " + std::string(what)));
}

void Story::path(std::string_view name, std::string_view what) {
  ++paths_[std::string(name)];
  add("  = " + std::string(name) + (what.empty() ? "" : ": " + std::string(what)));
}

}  // namespace simulation
