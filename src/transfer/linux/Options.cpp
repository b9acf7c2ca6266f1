// Parsing of the service's command line.
#include "transfer/linux/Options.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/linux/UsageErrors.h"

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
      ->check(
          [](const std::string& path) { return path.starts_with('/') ? std::string() : "\"" + path + "\" is no absolute path"; });
  app.add_option("--idle-seconds", options.idleSeconds, "End after so long with nothing to do (default 60)")
      ->type_name("N")
      ->check(platform::usage::numberFrom(0.0, 1e9));
  app.add_option("--max-uploads", options.maxUploads, "Uploads at once, 1000 at most (default 8)")
      ->type_name("N")
      ->check(platform::usage::numberFrom<std::int64_t>(1, 1000));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return {std::nullopt, app.exit(error)};
    (void)std::fprintf(stderr, "kestrova-transferd: %s\n", platform::usage::refusalFor(app, error).c_str());
    return {std::nullopt, 2};
  }
  return {options, 0};
}

}  // namespace transfer
