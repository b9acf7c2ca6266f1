// Files of a test: their bytes as they are, and bytes to put into them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace test {

/// The file's bytes; none when it cannot be read.
inline std::string contentOf(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

/// What begins as a GIF does, with bytes of all values after that, other ones for each seed.
inline std::string gifOf(std::size_t bytes, std::uint32_t seed = 1) {
  std::string gif = "GIF89a";
  for (std::uint32_t state = seed; gif.size() < bytes; gif += static_cast<char>(state >> 24U)) state = state * 1664525 + 1013904223;
  return gif;
}

}  // namespace test
