// The file system of this machine.
#pragma once

#include <memory>

#include "platform/Process.h"

namespace platform {

/// Touches no file until it is asked to; the application's directories are made when they are first asked for and whenever they are
/// missing then.
std::shared_ptr<FileManager> makePosixFileManager(const SystemOptions& options);

}  // namespace platform
