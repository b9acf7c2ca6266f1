// The file system, as the shared file manager gives it.
//
// Failures are errors of kCocoaErrorDomain with the codes and texts of platform rows F3 and F4 and the system's error underneath;
// an absent URL fails like a missing file (F9). Any thread may call any operation.
#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Data.h"
#include "platform/Date.h"
#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/FileHandle.h"
#include "platform/URL.h"

namespace platform {

struct KESTROVA_EXPORT FileAttributes {
  enum class Type { kRegular, kDirectory, kSymbolicLink, kOther };
  std::uint64_t fileSize = 0;  // bytes
  Type type = Type::kRegular;
  Date modificationDate;           // last change of the content
  Date attributeModificationDate;  // last status change, which making a link renews (platform row D2)
};

class KESTROVA_EXPORT FileManager {
 public:
  static FileManager& defaultManager();
  virtual ~FileManager() = default;

  virtual bool fileExistsAtPath(std::string_view path) = 0;
  /// A missing file fails with 260, as reading does. A symbolic link is described as itself.
  virtual std::expected<FileAttributes, Error> attributesOfItemAtPath(std::string_view path) = 0;
  /// Names (not paths) of a directory's entries, without `.` and `..`, in no particular order.
  virtual std::expected<std::vector<std::string>, Error> contentsOfDirectoryAtPath(std::string_view path) = 0;

  /// Copies, links or moves to a name that must be free, else 516 (platform row F5). A copy of a file is made by the kernel where
  /// it can, mode 0600, exclusively; what a failed copy had written stays. A link is a hard link; a symbolic link is linked as
  /// itself. Linking and moving work within one volume, where the application's directories all lie.
  virtual std::expected<void, Error> copyItemAtURLToURL(const std::optional<URL>& source, const std::optional<URL>& target) = 0;
  virtual std::expected<void, Error> linkItemAtURLToURL(const std::optional<URL>& source, const std::optional<URL>& target) = 0;
  virtual std::expected<void, Error> moveItemAtURLToURL(const std::optional<URL>& source, const std::optional<URL>& target) = 0;
  /// Removes a file, a link or an empty directory; 4 when nothing is there (platform row F7).
  virtual std::expected<void, Error> removeItemAtURL(const std::optional<URL>& url) = 0;
  virtual std::expected<void, Error> removeItemAtPath(std::string_view path) = 0;
  /// Puts the item at `newItem` in the place of `original` in one step, also when there is no original; survives a power cut. After
  /// success the new item's old name is gone, after failure the original is untouched (platform row F6). No backup name, options 0.
  /// Yields the resulting URL.
  virtual std::expected<URL, Error> replaceItemAtURLWithItemAtURL(const std::optional<URL>& original,
                                                                  const std::optional<URL>& newItem) = 0;
  /// With intermediates, mode 0700; succeeds when it is there already.
  virtual std::expected<void, Error> createDirectoryAtURL(const std::optional<URL>& url) = 0;

  /// The application's own Application Support directory, made when missing (platform row D1).
  virtual std::expected<URL, Error> applicationSupportDirectory() = 0;
  /// The application's own directory for temporary files, made when missing; on the Application Support directory's volume.
  virtual std::expected<URL, Error> temporaryDirectory() = 0;

  // The services behind FileHandle and Data; call those.
  enum class Access { kReading, kWriting, kUpdating };
  virtual std::expected<std::shared_ptr<FileHandle>, Error> openFileHandle(const std::optional<URL>& url, Access access) = 0;
  virtual std::expected<void, Error> writeDataWithoutOverwriting(const Data& data, const std::optional<URL>& url) = 0;
  virtual std::expected<Data, Error> contentsOfURL(const std::optional<URL>& url) = 0;
};

}  // namespace platform
