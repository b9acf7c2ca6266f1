// The real services of this machine, put together.
#include "platform/Process.h"
#include "platform/linux/AbortingUncaughtException.h"
#include "platform/linux/CurlURLSession.h"
#include "platform/linux/DesktopApplication.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/GetrandomSecureRandom.h"
#include "platform/linux/MainBundle.h"
#include "platform/linux/OpenSSLDigest.h"
#include "platform/linux/PosixFileManager.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "platform/linux/SyslogSystemLog.h"
#include "platform/linux/SystemClock.h"
#include "platform/linux/ThreadQueues.h"

namespace platform {

std::unique_ptr<Process> makeSystemProcess(SystemOptions options) {
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
  return process;
}

}  // namespace platform
