// Closes a file handle at the end of a scope, however the scope is left.
#pragma once

#include "platform/FileHandle.h"

class FileHandleCloser {
 public:
  explicit FileHandleCloser(platform::FileHandle& handle) : handle_(handle) {}
  ~FileHandleCloser() { handle_.closeFile(); }
  FileHandleCloser(const FileHandleCloser&) = delete;
  FileHandleCloser& operator=(const FileHandleCloser&) = delete;

 private:
  platform::FileHandle& handle_;
};
