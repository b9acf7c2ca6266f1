// What the command line and the environment asked for.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace cli {

/// Exit statuses; the first that applies of lost, kept, bad input and delivered.
enum ExitStatus : int { kDelivered = 0, kFailed = 1, kBadInput = 2, kKept = 3, kLost = 4 };

enum class Command {
  kEvent,
  kEvents,
  kFlush,
  kQueue,
  kStatus,
  kDoctor,
  kTail,
  kShareSubmit,
  kShareRefresh,
  kShareList,
  kPatch,
  kCookieMatch,
  kUpload,
  kUploads,
  kUploadsCancel,
  kHandleEvents,
  kDemo
};

struct Options {
  Command command = Command::kStatus;

  std::optional<std::string> apiHost;
  std::string apiVersion = "1";
  std::optional<std::string> bundleId;
  std::optional<std::string> home;
  std::optional<std::string> secret;  // from a file or the environment, never from the command line
  double timeout = 30;                // seconds
  bool debug = false;
  bool json = false;

  std::string eventName;                 // event
  std::optional<std::string> eventData;  // event: a JSON object
  std::string inputFile;                 // events: a path, or - for standard input

  std::string jsonData;                    // share submit, patch: a JSON object
  std::optional<std::string> shareURL;     // share submit
  std::vector<std::string> referralCodes;  // share refresh

  std::string uploadFile;             // upload
  std::string shareId;                // upload
  std::optional<std::string> userId;  // upload
  bool wait = false;                  // upload
  std::string uploadSession;          // uploads cancel
};

/// Reads arguments and environment. Either the options, or the status to exit with at once: 0 after --help, 2 after a message about
/// what is wrong.
struct ParseResult {
  std::optional<Options> options;
  int exitStatus = 0;
};
ParseResult parseOptions(int argc, char** argv);

}  // namespace cli
