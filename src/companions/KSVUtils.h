// Small services that the client leans on: times as text, random text, directories and temporary files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Data.h"
#include "platform/Date.h"
#include "platform/URL.h"

/// Class operations only; any thread may call any of them at any time. None raises; failure is an absent result.
class KSVUtils {
 public:
  KSVUtils() = delete;

  /// ISO 8601 in UTC with milliseconds, rounded down: `2026-11-20T20:19:39.123Z`.
  static std::string getIso8601(platform::Date date);
  static std::optional<platform::URL> applicationSupportDirectory();
  /// Characters A-Z, a-z and 0-9 from the secure random source, each equally likely. Empty for a length below 1, and when
  /// the source gives nothing.
  static std::string randomStringWithLength(std::int32_t length);
  /// A new temporary file (mode 0600, made exclusively, on the volume of the Application Support directory) with exactly the data;
  /// empty when the data is absent.
  static std::optional<platform::URL> createTempfileWithContents(const std::optional<platform::Data>& data);
  /// A fresh name in the same directory, at which nothing exists.
  static std::optional<platform::URL> getNewTempfileUrl();
  /// Removes the directory's regular files and links whose last status change lies before the cut-off (a hard link is as old as its
  /// making); folders stay. Yields the URLs of what was removed.
  static std::vector<platform::URL> deleteFilesOlderThanInDirectory(platform::Date cutOff,
                                                                    const std::optional<platform::URL>& directory);
  /// The directory of that name in the Application Support directory, made when missing.
  static std::optional<platform::URL> createDirectoryInApplicationSupport(std::string_view name);
};
