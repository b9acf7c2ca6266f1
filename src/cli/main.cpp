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
    case cli::Command::kDoctor:
      return cli::runDoctor(options);
    case cli::Command::kTail:
      return cli::runTail(options);
    case cli::Command::kShareSubmit:
      return cli::runShareSubmit(options);
    case cli::Command::kShareRefresh:
      return cli::runShareRefresh(options);
    case cli::Command::kShareList:
      return cli::runShareList(options);
    case cli::Command::kPatch:
      return cli::runPatch(options);
    case cli::Command::kCookieMatch:
      return cli::runCookieMatch(options);
    case cli::Command::kUpload:
      return cli::runUpload(options);
    case cli::Command::kUploads:
      return cli::runUploads(options);
    case cli::Command::kUploadsCancel:
      return cli::runUploadsCancel(options);
    case cli::Command::kHandleEvents:
      return cli::runHandleEvents(options);
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
