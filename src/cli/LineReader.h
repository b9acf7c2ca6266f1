// Lines of a file or of standard input, from a read that a request to stop can end.
#pragma once

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

  /// The next line without its line feed, the last one also when it has none; absent at the end, on a read error, and from `stop`
  /// on.
  std::optional<std::string> next();
  /// Ends a `next` that is waiting, from another thread.
  void stop() const;
  /// What the system said when reading failed, empty otherwise.
  const std::string& error() const { return error_; }

 private:
  LineReader(int descriptor, int wake) : descriptor_(descriptor), wake_(wake) {}
  bool fill();

  int descriptor_;
  int wake_;
  std::string buffer_;
  std::size_t position_ = 0;
  bool atEnd_ = false;
  std::string error_;
};

}  // namespace cli
