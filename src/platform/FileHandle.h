// The classic file handle: a position of its own, operations that raise.
//
// Every operation but closeFile raises NSFileHandleOperationException on failure, reason
// `*** -[NSConcreteFileHandle writeData:]: No space left on device` (platform row F1), also on a closed handle. Bytes go straight
// to the system; nothing is buffered here. A handle is used by one thread at a time and closes itself when it is dropped.
#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/URL.h"

namespace platform {

class KESTROVA_EXPORT FileHandle {
 public:
  /// Opens an existing file at offset 0; neither creates nor truncates. A missing file fails with 4 for writing and updating and
  /// 260 for reading, an absent URL with 4 (platform rows F2, F3, F9).
  static std::expected<std::shared_ptr<FileHandle>, Error> fileHandleForWritingToURL(const std::optional<URL>& url);
  static std::expected<std::shared_ptr<FileHandle>, Error> fileHandleForUpdatingURL(const std::optional<URL>& url);
  static std::expected<std::shared_ptr<FileHandle>, Error> fileHandleForReadingFromURL(const std::optional<URL>& url);

  virtual ~FileHandle() = default;

  /// Moves to the end and returns its offset, the file's size in bytes.
  virtual std::uint64_t seekToEndOfFile() = 0;
  /// Any offset is taken, also beyond the end and above 2^63-1, where reads give nothing (platform row F8).
  virtual void seekToFileOffset(std::uint64_t offset) = 0;
  /// Up to `length` bytes from the position; empty at the end.
  virtual Data readDataOfLength(std::uint64_t length) = 0;
  virtual Data readDataToEndOfFile() = 0;
  /// Writes all the bytes at the position.
  virtual void writeData(const Data& data) = 0;
  /// Brings what was written to the disk.
  virtual void synchronizeFile() = 0;
  /// Never raises; a second one is harmless.
  virtual void closeFile() = 0;
};

}  // namespace platform
