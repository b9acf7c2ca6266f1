// New files that lie on the disk before anybody learns of them.
//
// A file that must not be seen half written gets a name that nobody can guess, is written, and then given the name by which it is
// known; the folder is brought to the disk last.
#pragma once

#include <cstddef>
#include <expected>
#include <string>
#include <string_view>

#include "platform/Error.h"
#include "platform/SecureRandom.h"

namespace platform {

/// That many random bytes in lower-case hexadecimal. Any thread.
std::string randomHexadecimal(SecureRandom& random, std::size_t bytes);

/// Writes a new file, mode 0600, that lies on the disk when this returns; its folder is not synchronised. Fails with an error of
/// the file rules, also where anything has that name; what a failed write has left is removed. Any thread.
std::expected<void, Error> writeNewFile(const std::string& path, std::string_view bytes);

/// Brings a folder's entries to the disk. Fails with an error of the file rules. Any thread.
std::expected<void, Error> synchronizeFolder(const std::string& path);

}  // namespace platform
