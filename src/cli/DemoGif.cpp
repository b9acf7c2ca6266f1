// Writing of GIF89a (www.w3.org/Graphics/GIF/spec-gif89a.txt), without compression.
//
// Pixels are written as LZW codes of nine bits each. A clear code before the table would need a tenth bit keeps the codes at nine.
#include "cli/DemoGif.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

namespace cli {
namespace {

constexpr unsigned kBitsOfPixel = 8;
constexpr unsigned kBitsOfCode = 9;
constexpr unsigned kClear = 256;
constexpr unsigned kEnd = 257;
constexpr int kPixelsBetweenClears = 250;
constexpr std::size_t kLongestBlock = 255;

void addShort(std::string& gif, unsigned value) {
  gif += static_cast<char>(value & 0xFFU);
  gif += static_cast<char>(value >> 8U);
}

/// Codes of nine bits, the low bits first.
class Codes {
 public:
  void add(unsigned code) {
    bits_ |= code << count_;
    for (count_ += kBitsOfCode; count_ >= 8; count_ -= 8) {
      bytes_ += static_cast<char>(bits_ & 0xFFU);
      bits_ >>= 8U;
    }
  }
  std::string take() {
    if (count_ > 0) bytes_ += static_cast<char>(bits_);
    return std::move(bytes_);
  }

 private:
  std::string bytes_;
  unsigned bits_ = 0;
  unsigned count_ = 0;
};

/// Numbers that follow no pattern and are the same in every run.
class Noise {
 public:
  unsigned next() {
    state_ = state_ * 1664525U + 1013904223U;
    return state_ >> 24U;
  }

 private:
  std::uint32_t state_ = 1;
};

std::string pixels(std::size_t count, Noise& noise) {
  Codes codes;
  for (std::size_t at = 0; at < count; ++at) {
    if (at % kPixelsBetweenClears == 0) codes.add(kClear);
    codes.add(noise.next());
  }
  codes.add(kEnd);
  return codes.take();
}

void addBlocks(std::string& gif, std::string_view bytes) {
  for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes.size(), kLongestBlock))) {
    const std::string_view block = bytes.substr(0, kLongestBlock);
    gif += static_cast<char>(block.size());
    gif += block;
  }
  gif += '\0';
}

void addFrame(std::string& gif, std::uint16_t width, std::uint16_t height, Noise& noise) {
  constexpr unsigned kHundredths = 10;
  gif += "\x21\xF9\x04";  // graphic control: how long the frame is shown
  gif += '\0';
  addShort(gif, kHundredths);
  gif += std::string(2, '\0');
  gif += '\x2C';  // image: the whole screen, no colours of its own
  addShort(gif, 0);
  addShort(gif, 0);
  addShort(gif, width);
  addShort(gif, height);
  gif += '\0';
  gif += static_cast<char>(kBitsOfPixel);
  addBlocks(gif, pixels(std::size_t{width} * height, noise));
}

}  // namespace

std::string makeAnimatedGif(std::uint16_t width, std::uint16_t height, int frames) {
  std::string gif = "GIF89a";
  addShort(gif, width);
  addShort(gif, height);
  gif += "\xF7";  // 256 colours for all frames, of eight bits
  gif += std::string(2, '\0');
  for (int shade = 0; shade < 256; ++shade) gif += std::string(3, static_cast<char>(shade));
  gif += "\x21\xFF\x0BNETSCAPE2.0\x03\x01";  // for ever
  gif += std::string(3, '\0');
  Noise noise;
  for (int frame = 0; frame < frames; ++frame) addFrame(gif, width, height, noise);
  return gif + '\x3B';
}

}  // namespace cli
