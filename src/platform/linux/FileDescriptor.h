// A file descriptor that closes itself, and the system's file calls taken to their end.
//
// Every operation goes on after an interruption by a signal and after a partial transfer, and yields 0 or the system's error
// number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <string>
#include <string_view>
#include <utility>

namespace platform {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~FileDescriptor() { close(); }

  /// `flags` as for open(2); close-on-exec is added. Files it creates have mode 0600.
  static std::expected<FileDescriptor, int> open(const std::string& path, int flags);

  int get() const { return descriptor_; }
  bool isOpen() const { return descriptor_ >= 0; }
  /// Yields the error of a write that only closing brings to light. A second close is harmless.
  int close() noexcept;

  int writeAll(std::string_view bytes) const;
  int writeAllAt(std::string_view bytes, std::uint64_t offset) const;
  /// Fills `buffer` from `offset` on as far as the file goes; yields the number of bytes.
  std::expected<std::size_t, int> readAt(char* buffer, std::size_t length, std::uint64_t offset) const;
  /// Everything from `offset` to the end.
  std::expected<std::string, int> readToEnd(std::uint64_t offset) const;
  /// Appends everything from this file's position on to `target`, inside the kernel where it can. What a failed copy wrote stays.
  int copyAllTo(const FileDescriptor& target) const;
  /// Content and size are on the disk after this.
  int synchronize() const;

 private:
  int descriptor_ = -1;
};

/// Brings a directory's entries to the disk; file systems without that notion succeed.
int synchronizeDirectory(const FileDescriptor& directory);

}  // namespace platform
