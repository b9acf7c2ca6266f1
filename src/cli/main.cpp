// The kestrova command.
#include "cli/Commands.h"
#include "cli/Options.h"
#include "cli/Report.h"
#include "platform/Exception.h"

namespace {

int run(const cli::Options& options) {
  switch (options.command) {
    case cli::Command::kEvent:
      return cli::runEvent(options);
    case cli::Command::kEvents:
      return cli::runEvents(options);
    case cli::Command::kFlush:
      return cli::runFlush(options);
    case cli::Command::kQueue:
      return cli::runQueue(options);
    case cli::Command::kStatus:
      return cli::runStatus(options);
    case cli::Command::kDemo:
      return cli::runDemo();
  }
  return cli::kFailed;
}

}  // namespace

int main(int argc, char** argv) {
  const cli::ParseResult parsed = cli::parseOptions(argc, argv);
  if (!parsed.options) return parsed.exitStatus;
  try {
    return run(*parsed.options);
  } catch (const platform::Exception& exception) {
    cli::printError(exception.reason());
    return cli::kFailed;
  }
}
