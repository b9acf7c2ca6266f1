// The few things that the server does with files. Failures are texts that name the file and the system's reason.
#pragma once

#include <expected>
#include <filesystem>
#include <string>
#include <string_view>

namespace devserver {

/// Makes a folder, and those above it that are missing, for the user alone (0700). One that exists stays as it is.
std::expected<void, std::string> makePrivateFolder(const std::filesystem::path& folder);
/// The whole content of a file.
std::expected<std::string, std::string> readFile(const std::filesystem::path& file);
/// Puts a file of mode 0600 in place, whole or not at all, whatever was there before.
std::expected<void, std::string> replaceFile(const std::filesystem::path& file, std::string_view content);

}  // namespace devserver
