// The user defaults in one file of the application's folder (docs/formats/user-defaults.md).
#pragma once

#include <cstdint>
#include <memory>

#include "platform/Process.h"

namespace platform {

/// Milliseconds of a clock that only goes forward.
using CoarseClock = std::int64_t (*)();

/// Touches no file until the first use. `json` writes and reads the file; `clock` says when to look for another process's changes
/// (the system's coarse clock by default, which is read without entering the kernel).
std::shared_ptr<UserDefaults> makeFileUserDefaults(const SystemOptions& options, std::shared_ptr<JSONSerialization> json,
                                                   CoarseClock clock = nullptr);

}  // namespace platform
