// Closes a file handle at the end of a scope, however the scope is left.
#pragma once

#include "platform/FileHandle.h"

class FileHandleCloser {
 public:
  explicit FileHandleCloser(platform::FileHandle& handle) : handle_(handle) {}
  // What is no failure of the platform passes to the caller, also from here.
  ~FileHandleCloser() noexcept(false) { handle_.closeFile(); }
  FileHandleCloser(const FileHandleCloser&) = delete;
  FileHandleCloser& operator=(const FileHandleCloser&) = delete;

 private:
  platform::FileHandle& handle_;
};
