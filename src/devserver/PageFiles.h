// The live page's files (the folder page/), which the build puts into the program.
#pragma once

#include <span>
#include <string_view>

namespace devserver {

struct PageFile {
  std::string_view name;
  std::string_view content;
};

/// All of them; defined in a source file that the build makes of the folder.
std::span<const PageFile> pageFiles();

/// The media type of a file of that name.
std::string_view mediaTypeOf(std::string_view name);

}  // namespace devserver
