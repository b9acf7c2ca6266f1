// The kestrova command.
#include <cstdio>

#include "cli/Commands.h"
#include "cli/Options.h"
#include "cli/Report.h"
#include "platform/Exception.h"
#include "platform/linux/StandardDescriptors.h"

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
  platform::holdStandardDescriptors();
  const cli::ParseResult parsed = cli::parseOptions(argc, argv);
  int status = parsed.exitStatus;
  if (parsed.options) {
    try {
      status = run(*parsed.options);
    } catch (const platform::Exception& exception) {
      cli::printError(exception.reason());
      status = cli::kFailed;
    }
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    cli::printError("cannot write the report to standard output");
    if (status == cli::kDelivered) status = cli::kFailed;
  }
  return status;
}
