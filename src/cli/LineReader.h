// Lines of a file or of standard input, from a read that a request to stop can end.
#pragma once

#include <cstddef>
#include <expected>
#include <optional>
#include <string>

namespace cli {

class LineReader {
 public:
  /// Opens a path, or standard input for `-`; else the system's word on why not.
  static std::expected<LineReader, std::string> open(const std::string& path);

  LineReader(LineReader&& other) noexcept;
  LineReader& operator=(LineReader&&) = delete;
  ~LineReader();

  /// A longer line is no event: the server takes no body of that size. What follows its first bytes is read and dropped.
  static constexpr std::size_t kMaxLine = std::size_t{16} * 1024 * 1024;

  struct Line {
    std::string text;        // without the line feed
    bool isTooLong = false;  // the text is its beginning then
  };

  /// The next line, the last one also when it has no line feed; absent at the end, on a read error, and once `stop` has ended a
  /// wait: what was read of a line until then is dropped.
  std::optional<Line> next();
  /// Ends a `next` that is waiting, from another thread.
  void stop() const;
  /// What the system said when reading failed, empty otherwise.
  const std::string& error() const { return error_; }

 private:
  LineReader(int descriptor, int wake) : descriptor_(descriptor), wake_(wake) {}
  enum class Filled { kMore, kEnd, kStopped };
  Filled fill();

  int descriptor_;
  int wake_;
  std::string buffer_;
  std::size_t position_ = 0;
  bool atEnd_ = false;
  std::string error_;
};

}  // namespace cli
