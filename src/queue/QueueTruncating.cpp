// Cutting an oversized queue file back to its newest records.
//
// Kept is what follows the first line feed at or after the point where 90 % of the limit remain, so that the file begins with a
// whole record. When anything goes wrong the whole queue is given up rather than kept damaged.
#include <cstdint>

#include "client/KSVData.h"
#include "companions/KSVDebugger.h"
#include "companions/KSVUtils.h"
#include "platform/Exception.h"
#include "platform/FileHandle.h"
#include "queue/FileHandleCloser.h"

using platform::Data;
using platform::FileHandle;

namespace {

constexpr std::uint64_t kChunkSize = 4096;
constexpr char kNewline = '\n';

/// File offset of the first line feed at or after `position`, where the handle stands; 0 when there is none.
std::uint64_t findNewline(FileHandle& fileHandle, std::uint64_t position) {
  while (true) {
    const Data chunk = fileHandle.readDataOfLength(kChunkSize);
    if (const auto index = chunk.bytes().find(kNewline); index != std::string_view::npos) return position + index;
    if (chunk.empty()) return 0;
    position += chunk.length();
  }
}

}  // namespace

void KSVData::truncateQueueOnDisk() {
  const auto truncatedFileSize = static_cast<std::int32_t>(0.9 * maxQueueSizeOnDiskInBytes);
  const std::optional<platform::URL> targetFile = jsonFileURL();
  const auto opened = FileHandle::fileHandleForUpdatingURL(targetFile);
  if (!opened) {
    debugTrace("Could not get a file handle to to event queue on disk, will try to delete it entirely");
    deleteFileAndLogAndIgnoreErrors(targetFile);
    debugTrace("Event queue emptied.");
    return;
  }
  FileHandle& fileHandle = **opened;

  // Unsigned on purpose: only a file of exactly the kept size ends here; a smaller one wraps to a start beyond its end.
  const std::uint64_t filesize = fileHandle.seekToEndOfFile();
  const std::uint64_t startSearchForNewlinePosition = filesize - static_cast<std::uint64_t>(std::int64_t{truncatedFileSize});
  if (startSearchForNewlinePosition == 0) return;
  fileHandle.seekToFileOffset(startSearchForNewlinePosition);

  std::uint64_t lastNewlinePosition = 0;
  try {
    lastNewlinePosition = findNewline(fileHandle, startSearchForNewlinePosition);
  } catch (const platform::Exception&) {
    debugTrace("Failed while reading event queue from disk, truncating all events.");
    fileHandle.closeFile();
    deleteFileAndLogAndIgnoreErrors(targetFile);
    debugTrace("Event queue emptied.");
    return;
  }

  Data dataToKeep;
  {
    const FileHandleCloser closeQueue(fileHandle);
    try {
      fileHandle.seekToFileOffset(lastNewlinePosition + 1);
      dataToKeep = fileHandle.readDataToEndOfFile();
    } catch (const platform::Exception&) {
      debugTrace("Failed while reading events to keep into memory. Will try to truncate the entire queue.");
      deleteFileAndLogAndIgnoreErrors(targetFile);
      debugTrace("Entire queue emptied.");
      return;
    }
  }

  const std::optional<platform::URL> tempfileUrl = KSVUtils::createTempfileWithContents(dataToKeep);
  if (!tempfileUrl) {
    debugTrace("Failed to create new tempfile, possibly full filesystem. Will truncate all events.");
    deleteFileAndLogAndIgnoreErrors(targetFile);
    return;
  }
  replaceEventQueueFromTempfile(tempfileUrl);
}
