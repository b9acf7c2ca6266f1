// The queue file: where it is, how it is replaced, how a file is removed.
//
// event-queue.json holds one compact JSON record a line, each ended by a line feed, oldest first. It is never written in place: new
// content is built in a temporary file and put over it in one atomic replacement, so that a crash leaves the old file or the new
// one.
#include "client/KSVData.h"
#include "companions/KSVDebugger.h"
#include "companions/KSVUtils.h"
#include "platform/FileManager.h"
#include "platform/Format.h"
#include "platform/SystemLog.h"

using platform::FileManager;

std::optional<platform::URL> KSVData::jsonFileURL() {
  const auto directory = KSVUtils::applicationSupportDirectory();
  return directory ? std::optional(directory->URLByAppendingPathComponent("event-queue.json")) : std::nullopt;
}

bool KSVData::replaceEventQueueFromTempfile(const std::optional<platform::URL>& tempfileUrl) {
  const auto replaced = FileManager::defaultManager().replaceItemAtURLWithItemAtURL(jsonFileURL(), tempfileUrl);
  if (replaced) return true;

  debugTrace("Replacing event queue with temp queue failed: %@", replaced.error().localizedDescription());
  if (const auto removed = FileManager::defaultManager().removeItemAtURL(tempfileUrl); !removed) {
    debugTrace("Failed while recovering from event queue replacement failure, could not delete the tempfile: %@",
               removed.error().localizedDescription());
  }
  return false;
}

bool KSVData::deleteFileAndLogAndIgnoreErrors(const std::optional<platform::URL>& fileToDelete) {
  const auto removed = FileManager::defaultManager().removeItemAtURL(fileToDelete);
  if (removed) return true;

  const auto path = fileToDelete ? std::optional(fileToDelete->path()) : std::nullopt;
  const std::string message =
      platform::stringWithFormat("Could not delete file '%@', error was: %@", {path, removed.error().localizedDescription()});
  platform::SystemLog::systemLog().log(message);
  debugTrace("%@", message);
  return false;
}
