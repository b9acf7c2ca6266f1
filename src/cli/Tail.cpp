// Following the debug trace of a running application.
#include <fmt/format.h>
#include <sys/eventfd.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "cli/Commands.h"
#include "cli/Host.h"
#include "cli/Report.h"
#include "cli/StopSignals.h"
#include "companions/KSVUtils.h"
#include "platform/Date.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/FileErrors.h"
#include "platform/linux/TraceSocket.h"

namespace cli {
namespace {

/// The line for a terminal: a trace holds texts of servers, which must not steer it or forge a line.
std::string withoutControls(std::string_view line) {
  std::string shown;
  for (const char c : line) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isControl = byte < 0x20 || byte == 0x7F;
    shown += isControl ? fmt::format("\\x{:02x}", byte) : std::string(1, c);
  }
  return shown;
}

/// False when nobody reads standard output any more.
bool printTraceLine(pid_t process, std::string_view line, bool json) {
  const std::string time = KSVUtils::getIso8601(platform::Date::date());
  if (json)
    printJSON({{"time", time}, {"process", static_cast<std::int64_t>(process)}, {"line", std::string(line)}});
  else
    printLine(fmt::format("{} [{}] {}", time, process, withoutControls(line)));
  return std::fflush(stdout) == 0;
}

}  // namespace

int runTail(const Options& options) {
  StopSignals signals;
  const Host host(options);
  const auto stop =
      std::make_shared<platform::FileDescriptor>(::eventfd(0, EFD_CLOEXEC));  // the signals' thread outlives this call
  auto listener = platform::TraceListener::open(systemOptionsOf(options));
  if (!stop->isOpen() || !listener) {
    const bool isTaken = !listener && listener.error().code() == EADDRINUSE;
    printError("cannot follow the trace: " + (listener  ? platform::systemErrorText(errno)
                                              : isTaken ? "another `kestrova tail` follows this application already"
                                                        : listener.error().localizedDescription()));
    return kFailed;
  }
  const auto end = [stop] { (void)stop->writeAll(std::string_view("\1\0\0\0\0\0\0\0", sizeof(std::uint64_t))); };
  signals.onStop(end);
  printError("following " + listener->path() + "; lines come while the application runs with its debug flag on");
  const auto show = [&](pid_t process, std::string_view line) {
    if (!printTraceLine(process, line, options.json)) end();
  };
  const int error = listener->follow(show, stop->get());
  if (error == 0) return kDelivered;
  printError("cannot follow the trace any more: " + platform::systemErrorText(error));
  return kFailed;
}

}  // namespace cli
