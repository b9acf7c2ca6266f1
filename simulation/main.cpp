// The program kestrova-simulate: runs worlds, one for each seed, and tells the story of one that breaks an oracle.
//
//   kestrova-simulate [--seeds N] [--first S]      runs N seeds from S on
//   kestrova-simulate --seed S --story             tells the whole story of one
//   kestrova-simulate --repeat ...                 runs each seed twice and compares the hashes of the two stories
//   kestrova-simulate --mistake NAME ...           with a deliberate mistake, which an oracle must find: fails when none does
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "simulation/Mutation.h"
#include "simulation/World.h"

namespace {

using simulation::Mutation;
using simulation::Result;

struct Options {
  std::uint64_t seeds = 200;
  std::uint64_t first = 1;
  bool isStory = false;
  bool isRepeated = false;
  bool isVerbose = false;
  const simulation::MutationDescription* mistake = nullptr;
};

[[noreturn]] void usage(std::string_view what) {
  std::fprintf(stderr, "kestrova-simulate: %.*s\n", static_cast<int>(what.size()), what.data());
  std::fprintf(stderr,
               "usage: kestrova-simulate [--seeds N] [--first S] [--seed S] [--story] [--repeat] [--figures] [--mistake NAME]\n");
  for (const auto& mistake : simulation::kMutations)
    std::fprintf(stderr, "  --mistake %s: %s\n", std::string(mistake.name).c_str(), std::string(mistake.what).c_str());
  std::exit(2);
}

std::uint64_t numberOf(std::string_view text) {
  std::uint64_t number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || stop != text.data() + text.size()) usage("not a number: " + std::string(text));
  return number;
}

Options readOptions(int count, char** arguments) {
  Options options;
  for (int n = 1; n < count; ++n) {
    const std::string_view name = arguments[n];
    const auto value = [&]() -> std::string_view {
      if (n + 1 >= count) usage(std::string(name) + " wants a value");
      return arguments[++n];
    };
    if (name == "--seeds") {
      options.seeds = numberOf(value());
    } else if (name == "--first") {
      options.first = numberOf(value());
    } else if (name == "--seed") {
      options.first = numberOf(value());
      options.seeds = 1;
    } else if (name == "--story") {
      options.isStory = true;
    } else if (name == "--repeat") {
      options.isRepeated = true;
    } else if (name == "--figures") {
      options.isVerbose = true;
    } else if (name == "--mistake") {
      const std::string_view wanted = value();
      const auto found = std::ranges::find(simulation::kMutations, wanted, &simulation::MutationDescription::name);
      if (found == simulation::kMutations.end()) usage("no such mistake: " + std::string(wanted));
      options.mistake = &*found;
    } else {
      usage("unknown option " + std::string(name));
    }
  }
  if (options.seeds == 0) usage("no seed to run");
  return options;
}

struct Sums {
  std::uint64_t worlds = 0;
  std::uint64_t steps = 0;
  std::uint64_t calls = 0;
  std::uint64_t switches = 0;
  std::uint64_t records = 0;
  std::uint64_t delivered = 0;
  std::uint64_t uploads = 0;
  std::uint64_t lives = 0;
  std::map<std::string, std::uint64_t> faults;
  std::map<std::string, std::uint64_t> paths;
  std::map<std::string, std::uint64_t> operations;

  void add(const Result& result) {
    ++worlds;
    steps += result.steps;
    calls += result.calls;
    switches += result.switches;
    records += result.records;
    delivered += result.delivered;
    uploads += result.uploads;
    lives += result.lives;
    for (const auto& [name, count] : result.faults) faults[name] += count;
    for (const auto& [name, count] : result.paths) paths[name] += count;
    for (const auto& [name, count] : result.operations) operations[name] += count;
  }
};

void print(std::string_view title, const std::map<std::string, std::uint64_t>& counts) {
  std::printf("%s\n", std::string(title).c_str());
  for (const auto& [name, count] : counts) std::printf("  %9llu  %s\n", static_cast<unsigned long long>(count), name.c_str());
}

void print(const Sums& sums, bool isVerbose) {
  std::uint64_t faults = 0;
  for (const auto& [name, count] : sums.faults) faults += count;
  std::printf(
      "%llu worlds: %llu steps, %llu calls, %llu switches inside blocks, %llu lives, %llu events (%llu delivered), %llu uploads, "
      "%llu faults\n",
      static_cast<unsigned long long>(sums.worlds), static_cast<unsigned long long>(sums.steps),
      static_cast<unsigned long long>(sums.calls), static_cast<unsigned long long>(sums.switches),
      static_cast<unsigned long long>(sums.lives), static_cast<unsigned long long>(sums.records),
      static_cast<unsigned long long>(sums.delivered), static_cast<unsigned long long>(sums.uploads),
      static_cast<unsigned long long>(faults));
  if (!isVerbose) return;
  print("faults", sums.faults);
  print("named paths taken", sums.paths);
  print("calls", sums.operations);
}

void tellEnd(std::uint64_t seed, const Result& result, const Options& options) {
  std::printf("the end of the story of seed %llu:\n", static_cast<unsigned long long>(seed));
  for (const std::string& line : result.tail) std::printf("%s\n", line.c_str());
  std::printf("\nSeed %llu: %s\nRepeat it with: kestrova-simulate --seed %llu --story%s%s\n", static_cast<unsigned long long>(seed),
              result.violation.c_str(), static_cast<unsigned long long>(seed), options.mistake ? " --mistake " : "",
              options.mistake ? std::string(options.mistake->name).c_str() : "");
}

bool isExpected(const Options& options, const std::string& oracle) {
  std::string_view wanted = options.mistake->oracles;
  while (!wanted.empty()) {
    const std::size_t end = std::min(wanted.find('|'), wanted.size());
    if (wanted.substr(0, end) == oracle) return true;
    wanted.remove_prefix(std::min(end + 1, wanted.size()));
  }
  return false;
}

// A deliberate mistake is found when the oracle that is meant for it breaks.
int endOfMistake(const Options& options, std::uint64_t seed, const Result& result) {
  if (!isExpected(options, *result.oracle)) {
    tellEnd(seed, result, options);
    std::printf("The mistake “%s” broke another oracle than it should.\n", std::string(options.mistake->name).c_str());
    return 1;
  }
  std::printf("The mistake “%s” (%s) was found at seed %llu: %s\n", std::string(options.mistake->name).c_str(),
              std::string(options.mistake->what).c_str(), static_cast<unsigned long long>(seed),
              result.violation.substr(0, 300).c_str());
  return 0;
}

Result runWorld(std::uint64_t seed, const Options& options, simulation::Crew& crew, bool isTold) {
  simulation::World world(seed, isTold, options.mistake ? options.mistake->mutation : Mutation::kNone, crew);
  return world.run();
}

int run(const Options& options) {
  simulation::Crew crew;
  Sums sums;
  for (std::uint64_t seed = options.first; seed < options.first + options.seeds; ++seed) {
    const Result result = runWorld(seed, options, crew, options.isStory);
    sums.add(result);
    if (options.isRepeated && runWorld(seed, options, crew, false).hash != result.hash) {
      std::printf("Seed %llu told two stories.\n", static_cast<unsigned long long>(seed));
      return 1;
    }
    if (!result.oracle) continue;
    if (options.mistake) return endOfMistake(options, seed, result);
    tellEnd(seed, result, options);
    return 1;
  }
  print(sums, options.isVerbose);
  if (options.mistake) std::printf("The mistake “%s” was not found.\n", std::string(options.mistake->name).c_str());
  return options.mistake ? 1 : 0;
}

}  // namespace

int main(int count, char** arguments) {
  std::setvbuf(stdout, nullptr, _IOFBF, 1 << 16);
  return run(readOptions(count, arguments));
}
