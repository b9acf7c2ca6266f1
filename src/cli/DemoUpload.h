// The demo's chapter about uploads: an application that is killed half way, a service that finishes, a launch for the outcome.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "cli/ChildProcess.h"
#include "cli/Interruption.h"

namespace cli {

struct UploadDemo {
  /// What the server lets through in a second, so that half way is a moment that can be met, also on a busy machine.
  static constexpr const char* kReadRate = "1000000";

  std::filesystem::path programs;     // the folder of kestrova and kestrova-transferd
  std::filesystem::path folder;       // for files of the demo
  std::filesystem::path gifs;         // where the server keeps what it took
  std::filesystem::path journal;      // the server's
  std::filesystem::path application;  // the application's folder
  std::vector<std::string> options;   // of the command, before its name
  Environment environment;            // with the transfer service's folder
  const Interruption* interruption = nullptr;
};

/// Why it failed; nothing when all went as told. Throws Interrupted when it is to stop.
std::optional<std::string> showUpload(const UploadDemo& demo);

/// Ends the applications that were launched, and the service: at the demo's end, as any command of the same application may start
/// one once there was an upload. What fails is told.
void endUploads(const UploadDemo& demo);

}  // namespace cli
