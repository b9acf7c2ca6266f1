// What happened in a simulated world, line by line, and how often each kind of fault did.
//
// A line holds nothing that differs between two runs of one seed: no address, no real time. The hash over all lines is the proof.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>

namespace simulation {

class Story {
 public:
  static constexpr std::size_t kTail = 250;  // lines that are kept

  explicit Story(bool isTold) : isTold_(isTold) {}

  void setStep(std::uint64_t step) { step_ = step; }
  void add(std::string_view line);
  /// A fault of that kind happens.
  void fault(std::string_view kind, std::string_view what = {});
  /// A way that the contract names was taken.
  void path(std::string_view name, std::string_view what = {});

  std::uint64_t hash() const { return hash_; }
  std::uint64_t lines() const { return lines_; }
  const std::deque<std::string>& tail() const { return tail_; }
  const std::map<std::string, std::uint64_t>& faults() const { return faults_; }
  const std::map<std::string, std::uint64_t>& paths() const { return paths_; }

 private:
  const bool isTold_;
  std::uint64_t step_ = 0;
  std::uint64_t hash_ = 0xcbf29ce484222325;
  std::uint64_t lines_ = 0;
  std::deque<std::string> tail_;
  std::map<std::string, std::uint64_t> faults_;
  std::map<std::string, std::uint64_t> paths_;
};

}  // namespace simulation
