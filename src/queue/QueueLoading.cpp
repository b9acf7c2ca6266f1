// Taking records from the head of the queue file.
//
// The head is read in chunks up to a budget and parsed record by record; then the file is rewritten without what was read. Records
// that were taken leave the disk here. The bytes of a record that straddles the budget's end are carried over into the temporary
// file, over which the rest of the file is then copied from offset 0: that record is given up on purpose.
#include <cstdint>
#include <memory>
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVDebugger.h"
#include "companions/KSVUtils.h"
#include "platform/Exception.h"
#include "platform/FileHandle.h"
#include "platform/FileManager.h"
#include "platform/JSONSerialization.h"
#include "queue/FileHandleCloser.h"

using platform::Data;
using platform::FileHandle;
using platform::FileManager;
using platform::JSONSerialization;
using platform::MutableData;
using platform::URL;

namespace {

constexpr std::int32_t kBytesToSubmit = 204800;  // read budget
constexpr std::int32_t kChunkSize = 4096;
constexpr char kNewline = '\n';

/// A handle on a queue file that holds something; null, with its message, when there is nothing to load.
std::shared_ptr<FileHandle> openQueue(const std::optional<URL>& targetFile) {
  const auto fileAttributes = FileManager::defaultManager().attributesOfItemAtPath(targetFile ? targetFile->path() : std::string());
  const bool noEventFile = !fileAttributes && fileAttributes.error().code() == platform::kFileReadNoSuchFile;
  const bool emptyEventFile = fileAttributes && fileAttributes->fileSize == 0;
  if (noEventFile || emptyEventFile) {
    debugTrace("No events on disk, skipping read");
    return nullptr;
  }
  if (!fileAttributes) {
    debugTrace("Error occured when checking file size of stored event queue (code %ld): %@", fileAttributes.error().code(),
               fileAttributes.error().localizedDescription());
    return nullptr;
  }

  auto fileHandle = FileHandle::fileHandleForUpdatingURL(targetFile);
  if (!fileHandle) {
    debugTrace("Event queue seemlingly disappeared on disk, skipping read");
    return nullptr;
  }
  return *std::move(fileHandle);
}

/// The records of the bytes read so far, and the bytes after the last line feed.
class QueueHead {
 public:
  /// Reads the head of the file. False, with its message, when a read failed.
  bool readFrom(FileHandle& fileHandle) {
    std::int32_t sizeRead = 0;
    while (sizeRead <= kBytesToSubmit) {
      Data chunk;
      try {
        chunk = fileHandle.readDataOfLength(kChunkSize);
      } catch (const platform::Exception& exception) {
        debugTrace("Error: Couldn't read chunk of stored JSON data: %@", exception.reason());
        return false;
      }
      if (chunk.empty()) break;
      sizeRead += static_cast<std::int32_t>(chunk.length());
      debugTrace("Read new chunk of %lu bytes, reading from %d", chunk.length(), eventEnd_);
      unparsedBytes_.appendData(chunk);
      takeRecords();
    }
    return true;
  }

  platform::Array takeEvents() { return std::move(events_); }
  std::uint64_t eventCount() const { return events_.count(); }
  Data unparsedBytes() const { return Data(unparsedBytes_.bytes()); }

 private:
  /// Scans the bytes that were not examined yet and keeps what follows the last line feed.
  void takeRecords() {
    std::int32_t eventStart = 0;
    const auto length = static_cast<std::int32_t>(unparsedBytes_.length());
    while (true) {
      const auto next = unparsedBytes_.bytes().find(kNewline, static_cast<std::size_t>(eventEnd_));
      if (next == std::string_view::npos) break;
      eventEnd_ = static_cast<std::int32_t>(next);
      takeRecord(eventStart, eventEnd_);
      eventStart = ++eventEnd_;
    }
    eventEnd_ = length;

    eventEnd_ -= eventStart;
    try {
      unparsedBytes_.setData(
          unparsedBytes_.subdataWithRange(static_cast<std::uint64_t>(eventStart), static_cast<std::uint64_t>(length - eventStart)));
    } catch (const platform::Exception& exception) {
      debugTrace("Error: Invalid range when extracting unparsed bytes: %@", exception.reason());
    }
  }

  void takeRecord(std::int32_t start, std::int32_t end) {
    Data jsonData;
    try {
      jsonData = unparsedBytes_.subdataWithRange(static_cast<std::uint64_t>(start), static_cast<std::uint64_t>(end - start));
    } catch (const platform::Exception& exception) {
      debugTrace("Error: Invalid range when reading bytes from JSON data: %@", exception.reason());
      return;
    }
    try {
      if (auto event = JSONSerialization::JSONObjectWithData(jsonData)) {
        events_.addObject(*std::move(event));
      } else {
        debugTrace("Failed to parse JSON in file: %@", jsonData.utf8String());
      }
    } catch (const platform::Exception& exception) {
      debugTrace("Error: Failed to parse json and add to return value: %@", exception.reason());
    }
  }

  platform::Array events_;
  MutableData unparsedBytes_;
  std::int32_t eventEnd_ = 0;  // index of the first byte that was not examined yet
};

}  // namespace

std::optional<KSVData::Events> KSVData::getSavedJsonData() {
  const std::optional<URL> targetFile = jsonFileURL();
  const std::shared_ptr<FileHandle> fileHandle = openQueue(targetFile);
  if (!fileHandle) return Events();
  debugTrace("Loading events from file: %@", targetFile->path());

  QueueHead head;
  if (!head.readFrom(*fileHandle)) return std::nullopt;
  rewriteQueueWithoutHead(targetFile, *fileHandle, head.unparsedBytes(), head.eventCount());
  return head.takeEvents();
}

void KSVData::rewriteQueueWithoutHead(const std::optional<URL>& targetFile, FileHandle& fileHandle, const Data& unparsedBytes,
                                      std::uint64_t eventsRead) {
  FileManager& fileManager = FileManager::defaultManager();

  std::optional<URL> tempfileUrl = KSVUtils::createTempfileWithContents(unparsedBytes);
  if (!tempfileUrl) {
    debugTrace(
        "Failed to create temp file, will try to delete the queue first and see if that frees up enough space/file handles to "
        "continue");
    fileHandle.closeFile();
    if (const auto removed = fileManager.removeItemAtURL(targetFile); !removed) {
      debugTrace("Failed to remove queue, return events parsed and re-attempt this later: %@",
                 removed.error().localizedDescription());
      return;
    }
    tempfileUrl = KSVUtils::createTempfileWithContents(unparsedBytes);
    if (!tempfileUrl) {
      debugTrace("Failed to create temp file also after deleting the queue");
      return;
    }
  }

  const auto tempfileHandle = FileHandle::fileHandleForWritingToURL(tempfileUrl);
  if (tempfileHandle) {
    if (!copyRestOfQueue(fileHandle, **tempfileHandle, tempfileUrl)) return;
  } else {
    debugTrace("Failed to get file handle for temp file for event queue: %@", tempfileHandle.error().localizedDescription());
    fileHandle.closeFile();
    if (const auto removed = fileManager.removeItemAtURL(targetFile); !removed) {
      debugTrace("Failed to remove event queue after failing to get file handle for temp file: %@",
                 removed.error().localizedDescription());
      replaceEventQueueFromTempfile(tempfileUrl);
      return;
    }
  }

  replaceEventQueueFromTempfile(tempfileUrl);
  debugTrace("Read %lu events from disk", eventsRead);
}

/// Copies what was not read over the carried bytes, from offset 0 on. False when that failed; the queue is then what had been
/// copied.
bool KSVData::copyRestOfQueue(FileHandle& fileHandle, FileHandle& tempfileHandle, const std::optional<URL>& tempfileUrl) {
  const FileHandleCloser closeTempfile(tempfileHandle);
  const FileHandleCloser closeQueue(fileHandle);
  try {
    Data chunk;
    do {
      chunk = fileHandle.readDataOfLength(kChunkSize);
      tempfileHandle.writeData(chunk);
    } while (!chunk.empty());
    return true;
  } catch (const platform::Exception&) {
    debugTrace("Reading event queue or writing to temp file failed, will replace queue with whatever we managed to read");
    tempfileHandle.closeFile();
    replaceEventQueueFromTempfile(tempfileUrl);
    return false;
  }
}
