// The service's command line.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace transfer {

struct Options {
  bool background = false;
  bool status = false;
  std::optional<std::string> directory;
  double idleSeconds = 60;
  std::size_t maxUploads = 8;
};

struct ParseResult {
  std::optional<Options> options;  // absent: there is nothing more to do
  int exitStatus = 0;
};

/// Prints help, version and complaints itself.
ParseResult parseOptions(int argc, char** argv);

}  // namespace transfer
