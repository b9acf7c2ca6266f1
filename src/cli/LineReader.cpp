// Lines from a descriptor, read while nobody asked to stop.
#include "cli/LineReader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace cli {

std::expected<LineReader, std::string> LineReader::open(const std::string& path) {
  const int descriptor = path == "-" ? dup(STDIN_FILENO) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return std::unexpected(std::string(std::strerror(errno)));
  struct stat status{};
  if (fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode)) {
    close(descriptor);
    return std::unexpected(std::string(std::strerror(EISDIR)));
  }
  return LineReader(descriptor, eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

LineReader::LineReader(LineReader&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      wake_(std::exchange(other.wake_, -1)),
      buffer_(std::move(other.buffer_)),
      position_(other.position_),
      atEnd_(other.atEnd_),
      error_(std::move(other.error_)) {}

LineReader::~LineReader() {
  if (descriptor_ >= 0) close(descriptor_);
  if (wake_ >= 0) close(wake_);
}

void LineReader::stop() const {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(wake_, &one, sizeof one);
}

LineReader::Filled LineReader::fill() {
  std::array<pollfd, 2> polled{pollfd{descriptor_, POLLIN, 0}, pollfd{wake_, POLLIN, 0}};
  while (poll(polled.data(), polled.size(), -1) < 0) {
    if (errno == EINTR) continue;
    error_ = std::strerror(errno);
    return Filled::kEnd;
  }
  if (polled[1].revents != 0) return Filled::kStopped;

  std::array<char, 65536> chunk;
  const auto length = read(descriptor_, chunk.data(), chunk.size());
  if (length < 0) error_ = std::strerror(errno);
  if (length <= 0) return Filled::kEnd;
  buffer_.erase(0, position_);
  position_ = 0;
  buffer_.append(chunk.data(), static_cast<std::size_t>(length));
  return Filled::kMore;
}

std::optional<LineReader::Line> LineReader::next() {
  Line line;
  for (std::size_t searched = position_;;) {
    const auto end = buffer_.find('\n', searched);
    if (end != std::string::npos) {
      if (!line.isTooLong)
        line = {.text = buffer_.substr(position_, std::min(end - position_, kMaxLine)), .isTooLong = end - position_ > kMaxLine};
      position_ = end + 1;
      return line;
    }
    if (buffer_.size() - position_ > kMaxLine) {
      if (!line.isTooLong) line = {.text = buffer_.substr(position_, kMaxLine), .isTooLong = true};
      position_ = buffer_.size();
    }
    const std::size_t pending = buffer_.size() - position_;
    const Filled filled = atEnd_ ? Filled::kEnd : fill();
    if (filled == Filled::kMore) {
      searched = position_ + pending;
      continue;
    }
    atEnd_ = true;
    const std::string rest = std::exchange(buffer_, {}).substr(std::exchange(position_, 0));
    if (filled == Filled::kStopped || (rest.empty() && !line.isTooLong)) return std::nullopt;
    if (!line.isTooLong) line.text = rest;
    return line;
  }
}

}  // namespace cli
