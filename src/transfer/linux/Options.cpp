// Parsing of the service's command line.
#include "transfer/linux/Options.h"

#include <CLI/CLI.hpp>

namespace transfer {

ParseResult parseOptions(int argc, char** argv) {
  Options options;
  CLI::App app("Uploads files for applications, also when they are gone. There is one service for each user.",
               "kestrova-transferd");
  app.set_version_flag("--version", "kestrova-transferd " KESTROVA_VERSION);
  app.add_flag("--background", options.background, "Become a daemon; return when the service answers");
  app.add_flag("--status", options.status, "Say whether the service runs, and end");
  app.add_option("--directory", options.directory,
                 "The service's folder (default KESTROVA_TRANSFER_DIR, else the user's state folder)")
      ->type_name("DIR")
      ->check([](const std::string& path) { return path.starts_with('/') ? std::string() : "must be an absolute path"; });
  app.add_option("--idle-seconds", options.idleSeconds, "End after so long with nothing to do (default 60)")
      ->type_name("N")
      ->check(CLI::Range(0.0, 1e9).description(""));
  app.add_option("--max-uploads", options.maxUploads, "Uploads at once, 1000 at most (default 8)")
      ->type_name("N")
      ->check(CLI::Range(1, 1000).description(""));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return {std::nullopt, app.exit(error) == 0 ? 0 : 2};
  }
  return {options, 0};
}

}  // namespace transfer
