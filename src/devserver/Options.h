// The command line of kestrova-devserver.
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>

#include "devserver/HawkVerifier.h"
#include "platform/Value.h"

namespace devserver {

struct Options {
  std::uint16_t port = 8443;
  std::filesystem::path state;
  std::filesystem::path journal;
  std::optional<std::filesystem::path> readyFile;
  std::optional<std::filesystem::path> gifs;  // absent: a temporary folder
  bool strictUploads = false;
  HawkVerifier::Keys keys;
  platform::Dictionary behaviour;  // as Behaviour::change takes it
  std::chrono::milliseconds idleTimeout{60'000};
};

/// The options, or the exit status of a program that ends here: it has said why, or has shown its help.
std::expected<Options, int> parseOptions(int argc, const char* const* argv);

}  // namespace devserver
