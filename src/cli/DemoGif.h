// An animated GIF for the demo: valid, and as large as noise is.
#pragma once

#include <cstdint>
#include <string>

namespace cli {

/// Frames of that size in pixels, each different, shown in a loop.
std::string makeAnimatedGif(std::uint16_t width, std::uint16_t height, int frames);

}  // namespace cli
