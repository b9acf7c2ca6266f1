// Errors of file operations: the system's error number becomes a code of kCocoaErrorDomain with a text for people.
//
// Codes and texts are platform rows F3, F4 and F9; the system's error stays underneath in kPOSIXErrorDomain. The in-memory file
// system of the tests makes its errors here too, so that both speak alike.
#pragma once

#include <string>
#include <string_view>

#include "platform/Error.h"
#include "platform/Exception.h"

namespace platform {

/// Opening for reading, reading, listing or describing the item at `path` failed.
Error fileReadingError(int systemError, std::string_view path);
/// Opening for writing, creating, saving or replacing the item at `path` failed. `creating` says that the item need not have been
/// there, so that ENOENT speaks of its folder.
Error fileWritingError(int systemError, std::string_view path, bool creating);
Error fileRemovalError(int systemError, std::string_view path);
/// `verb` is what could not be done, as in "couldn't be linked".
Error fileTransferError(std::string_view verb, int systemError, std::string_view source, std::string_view target);
/// An absent URL, and one that names no file, fails like a missing file.
Error absentFileURLError();

/// `*** -[NSConcreteFileHandle writeData:]: No space left on device`.
Exception fileHandleException(std::string_view operation, int systemError);

/// The system's English text for an error number, whatever locale the host has set.
std::string systemErrorText(int systemError);

/// `path` without trailing slashes, which would make the system follow a symbolic link; the root stays.
std::string_view withoutTrailingSlashes(std::string_view path);
/// `/a/b` for `/a/b/c`, `/` for `/a`, `.` for `a`.
std::string parentOfPath(std::string_view path);
/// `c` for `/a/b/c`, `/` for the root.
std::string nameOfPath(std::string_view path);

}  // namespace platform
