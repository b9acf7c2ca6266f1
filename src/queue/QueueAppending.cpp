// Appending a batch to the queue file: a private copy grows by the batch and takes the file's place.
#include <cstdint>
#include <string>

#include "client/KSVData.h"
#include "companions/KSVDebugger.h"
#include "companions/KSVUtils.h"
#include "platform/Exception.h"
#include "platform/FileHandle.h"
#include "platform/FileManager.h"
#include "platform/JSONSerialization.h"

using platform::Data;
using platform::FileHandle;
using platform::FileManager;
using platform::JSONSerialization;

namespace {

/// The record's JSON text; absent, with its message, for a record that cannot be written: it is dropped, the others are still
/// saved.
std::optional<Data> serialized(const platform::Value& event) {
  try {
    auto eventAsJSON = JSONSerialization::dataWithJSONObject(event);
    if (eventAsJSON) return *std::move(eventAsJSON);
    debugTrace("Internal error occured while serializing event as json, ignoring this event: %@",
               eventAsJSON.error().localizedDescription());
  } catch (const platform::Exception& exception) {
    debugTrace("Programming error occured while serializing event as json, ignoring this event: %@", exception.reason());
  }
  return std::nullopt;
}

/// Writes every record and its line feed. False, with its messages and the temporary file removed, when a write failed.
bool writeRecords(const platform::Array& queue, FileHandle& fileHandle, const std::optional<platform::URL>& tempfileUrl) {
  const Data newline("\n");
  for (const platform::Value& event : queue) {
    const std::optional<Data> eventAsJSON = serialized(event);
    if (!eventAsJSON) continue;
    try {
      fileHandle.writeData(*eventAsJSON);
      fileHandle.writeData(newline);
    } catch (const platform::Exception& exception) {
      debugTrace("Failed to write data to temporary event queue, probably full file system: %@", exception.reason());
      fileHandle.closeFile();
      if (const auto removed = FileManager::defaultManager().removeItemAtURL(tempfileUrl); !removed) {
        debugTrace("Another error occured while cleaning up after the writing error: %@", removed.error().localizedDescription());
      }
      return false;
    }
  }
  return true;
}

}  // namespace

void KSVData::saveQueueToFile(const Events& queue) {
  std::optional<platform::URL> targetFile = jsonFileURL();
  debugTrace("Writing %li events to %@", static_cast<std::int64_t>(queue.count()), targetFile);
  FileManager& fileManager = FileManager::defaultManager();

  std::optional<platform::URL> tempfileUrl;
  if (targetFile && fileManager.fileExistsAtPath(targetFile->path())) {
    tempfileUrl = KSVUtils::getNewTempfileUrl();
    if (const auto copied = fileManager.copyItemAtURLToURL(targetFile, tempfileUrl); !copied) {
      debugTrace("Copying existing event queue to temp borked: %@", copied.error().localizedDescription());
      return;
    }
  } else {
    tempfileUrl = KSVUtils::createTempfileWithContents(std::nullopt);
  }

  const auto fileHandle = FileHandle::fileHandleForWritingToURL(tempfileUrl);
  if (!fileHandle) {
    debugTrace("Borked while getting filehandle to tempfile, will discard current queue: %@",
               fileHandle.error().localizedDescription());
    deleteFileAndLogAndIgnoreErrors(tempfileUrl);
    return;
  }

  std::uint64_t filesize = 0;  // of the queue before this append
  try {
    filesize = (*fileHandle)->seekToEndOfFile();
  } catch (const platform::Exception&) {
    debugTrace("Failed while seeking in tempfile, discarding queue.");
    deleteFileAndLogAndIgnoreErrors(tempfileUrl);
    return;
  }

  if (!writeRecords(queue, **fileHandle, tempfileUrl)) return;
  (*fileHandle)->closeFile();

  // A copy that could not be put in place is left where it is.
  const auto replaced = fileManager.replaceItemAtURLWithItemAtURL(targetFile, tempfileUrl);
  if (!replaced) {
    debugTrace("Replacing event queue with new queue BORKED with error: %@", replaced.error().localizedDescription());
    return;
  }

  // The size before this append decides, so that a queue may exceed its limit until the next one.
  if (filesize > static_cast<std::uint64_t>(std::int64_t{maxQueueSizeOnDiskInBytes})) {
    debugTrace("Truncating file on disk");
    truncateQueueOnDisk();
  }
}
