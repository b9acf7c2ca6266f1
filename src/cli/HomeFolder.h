// Where an application's state lies, looked at without making it.
#pragma once

#include <optional>
#include <string>

#include "cli/Options.h"

namespace cli {

/// The application's folder while it is not there: nothing was ever kept under its identifier. Absent when it is there, and when
/// it could not be made, or that cannot be told.
std::optional<std::string> folderNotYetMade(const Options& options);

/// What a look into a folder that is not there says of it.
std::string nothingKeptIn(const std::string& folder);

/// Why the application's folder can be neither found nor made, as a sentence without its end.
std::string folderFault(const Options& options);

}  // namespace cli
