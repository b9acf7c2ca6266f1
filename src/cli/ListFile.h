// The files of the command's own in the application's folder: each holds a JSON object with one list, such as {"shares": [...]}.
//
// A file is replaced in one step, so that a reader finds the old list or the new one. What goes wrong is a text for the user that
// begins with the file's path.
#pragma once

#include <expected>
#include <string>

#include "platform/Value.h"

namespace cli {

/// The path of a file in the application's folder; what is wrong with that folder.
std::expected<std::string, std::string> pathOfListFile(const char* name);

/// The file's list, which is the member of that name; empty when there is no file.
std::expected<platform::Array, std::string> readListFile(const std::string& path, const char* list);

std::expected<void, std::string> writeListFile(const std::string& path, const char* list, const platform::Array& elements);

}  // namespace cli
