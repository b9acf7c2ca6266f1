// A file that is uploaded, read a piece at a time.
//
// The length is that of the file when it was opened. When the last piece is read the file must still be there under its name, the
// same one, and as long as it was: a file that changes its length or goes away while it is sent ends the upload with an error that
// says so.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/HTTPBodySource.h"

namespace transfer {

class FileBodySource : public platform::HTTPBodySource {
 public:
  /// Fails when there is no such file, when it cannot be read, and when it is no plain file.
  static std::expected<FileBodySource, platform::Error> open(const std::string& path);

  std::uint64_t length() const override { return length_; }
  std::expected<std::size_t, platform::Error> readAt(char* buffer, std::size_t size, std::uint64_t offset) override;
  void wasSent(std::uint64_t bytes) override {
    if (sent_) sent_(bytes);
  }
  /// Whom to tell of what was sent, on the thread that reads.
  void tellOfSent(std::function<void(std::uint64_t)> sent) { sent_ = std::move(sent); }

 private:
  FileBodySource(std::string path, platform::FileDescriptor file, std::uint64_t length, dev_t device, ino_t inode)
      : path_(std::move(path)), file_(std::move(file)), length_(length), device_(device), inode_(inode) {}
  std::expected<void, platform::Error> check() const;
  platform::Error changeError(const std::string& change) const;

  std::string path_;
  platform::FileDescriptor file_;
  std::uint64_t length_;
  dev_t device_;
  ino_t inode_;
  std::function<void(std::uint64_t)> sent_;
};

}  // namespace transfer
