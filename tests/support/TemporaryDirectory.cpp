// The making and the removal of a temporary directory.
#include "support/TemporaryDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace test {

TemporaryDirectory::TemporaryDirectory() : path_((std::filesystem::temp_directory_path() / "kestrova-test-XXXXXX").string()) {
  if (!::mkdtemp(path_.data())) throw std::system_error(errno, std::generic_category(), path_);
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace test
