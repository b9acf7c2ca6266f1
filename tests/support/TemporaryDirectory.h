// A directory of the real file system that is gone with everything in it at the end of the scope.
#pragma once

#include <string>

namespace test {

class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  /// Absolute, without a trailing slash.
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace test
