// The classic file handle over a file descriptor.
//
// The position is the handle's own and every transfer names it, so that seeking costs no system call and takes any offset (platform
// row F8).
#pragma once

#include "platform/FileHandle.h"
#include "platform/linux/FileDescriptor.h"

namespace platform {

class PosixFileHandle final : public FileHandle {
 public:
  explicit PosixFileHandle(FileDescriptor file) : file_(std::move(file)) {}

  std::uint64_t seekToEndOfFile() override;
  void seekToFileOffset(std::uint64_t offset) override;
  Data readDataOfLength(std::uint64_t length) override;
  Data readDataToEndOfFile() override;
  void writeData(const Data& data) override;
  void synchronizeFile() override;
  void closeFile() override;

 private:
  void expectOpen(const char* operation) const;

  FileDescriptor file_;
  std::uint64_t position_ = 0;
};

}  // namespace platform
