// The real services of this machine, put together.
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "platform/Process.h"
#include "platform/linux/AbortingUncaughtException.h"
#include "platform/linux/CurlURLSession.h"
#include "platform/linux/DesktopApplication.h"
#include "platform/linux/Environment.h"
#include "platform/linux/FileTransferSpool.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/GetrandomSecureRandom.h"
#include "platform/linux/MainBundle.h"
#include "platform/linux/OpenSSLDigest.h"
#include "platform/linux/PosixFileManager.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "platform/linux/SocketTransferLink.h"
#include "platform/linux/SyslogSystemLog.h"
#include "platform/linux/SystemClock.h"
#include "platform/linux/ThreadQueues.h"
#include "platform/linux/TraceSocket.h"
#include "platform/linux/TransferDirectory.h"
#include "platform/linux/TransferIdentity.h"
#include "platform/linux/TransferServiceProcess.h"
#include "platform/linux/TransferSessions.h"
#include "platform/linux/XdgBrowserOpener.h"

namespace platform {
namespace {

/// The service works in another folder, so a path in it would lead elsewhere.
std::optional<std::string> trustAnchorsForService() {
  const auto named = environmentText("SSL_CERT_FILE");
  if (!named) return std::nullopt;
  std::error_code failed;
  const std::filesystem::path whole = std::filesystem::absolute(*named, failed);
  return failed ? named : std::optional(whole.string());
}

std::shared_ptr<BackgroundURLSessions> makeBackgroundSessions(const SystemOptions& options, const Process& process) {
  const auto directory = options.transferDirectory ? options.transferDirectory : TransferDirectory::pathFromEnvironment();
  auto identity = std::make_shared<TransferIdentity>(options, process.secureRandom);
  TransferSessions::Surroundings surroundings;
  surroundings.link = makeSocketTransferLink(options, directory, identity);
  surroundings.spool = std::make_shared<FileTransferSpool>(directory, identity, options.launchCommand, process.secureRandom);
  surroundings.clock = process.clock;
  surroundings.queues = process.queues;
  TransferSessions::Settings settings;
  settings.identifierOfLaunch = environmentText(kLaunchSessionVariable);
  settings.trustAnchors = trustAnchorsForService();
  if (options.requestTimeout > 0) settings.requestTimeout = options.requestTimeout;
  return std::make_shared<TransferSessions>(std::move(surroundings), std::move(settings));
}

}  // namespace

std::unique_ptr<Process> makeSystemProcess(const SystemOptions& options) {
  auto process = std::make_unique<Process>();
  process->systemLog = std::make_shared<SyslogSystemLog>();
  process->uncaughtException = std::make_shared<AbortingUncaughtException>(process->systemLog);
  process->clock = std::make_shared<SystemClock>();
  process->secureRandom = std::make_shared<GetrandomSecureRandom>();
  process->digest = std::make_shared<OpenSSLDigest>();
  process->json = makeRapidJSONSerialization();
  process->bundle = std::make_shared<MainBundle>(options.bundleIdentifier);
  process->fileManager = makePosixFileManager(options);
  process->userDefaults = makeFileUserDefaults(options, process->json);
  process->queues = std::make_shared<ThreadQueues>(process->uncaughtException);
  process->application = std::make_shared<DesktopApplication>();
  process->urlSession = makeCurlURLSession(options, *process->queues);
  process->backgroundSessions = makeBackgroundSessions(options, *process);
  process->browserOpener = std::make_shared<XdgBrowserOpener>(*process->queues);
  process->traceSink = std::make_shared<TraceSocket>(options);
  return process;
}

}  // namespace platform
