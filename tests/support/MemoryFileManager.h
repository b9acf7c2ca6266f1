// The file system in memory: the twin of the real file manager, for tests and simulations.
//
// Directories, files with hard links, and symbolic links; no owners and no permissions.
// The contract suite holds it to the real one's behaviour. What a power cut would leave is kept beside what is there: a file's
// bytes last when they were synchronised, a name when its directory was.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/FileManager.h"

namespace test {

class MemoryFileManager : public platform::FileManager {
 public:
  /// `folder` is the application's own folder, an absolute path. Dates come from `clock`, or without one from that of the record in
  /// force.
  explicit MemoryFileManager(std::string folder = "/application", std::shared_ptr<platform::Clock> clock = nullptr);
  ~MemoryFileManager() override;

  bool fileExistsAtPath(std::string_view path) override;
  std::expected<platform::FileAttributes, platform::Error> attributesOfItemAtPath(std::string_view path) override;
  std::expected<std::vector<std::string>, platform::Error> contentsOfDirectoryAtPath(std::string_view path) override;
  std::expected<void, platform::Error> copyItemAtURLToURL(const std::optional<platform::URL>& source,
                                                          const std::optional<platform::URL>& target) override;
  std::expected<void, platform::Error> linkItemAtURLToURL(const std::optional<platform::URL>& source,
                                                          const std::optional<platform::URL>& target) override;
  std::expected<void, platform::Error> moveItemAtURLToURL(const std::optional<platform::URL>& source,
                                                          const std::optional<platform::URL>& target) override;
  std::expected<void, platform::Error> removeItemAtURL(const std::optional<platform::URL>& url) override;
  std::expected<void, platform::Error> removeItemAtPath(std::string_view path) override;
  std::expected<platform::URL, platform::Error> replaceItemAtURLWithItemAtURL(const std::optional<platform::URL>& original,
                                                                              const std::optional<platform::URL>& newItem) override;
  std::expected<void, platform::Error> createDirectoryAtURL(const std::optional<platform::URL>& url) override;
  std::expected<platform::URL, platform::Error> applicationSupportDirectory() override;
  std::expected<platform::URL, platform::Error> temporaryDirectory() override;
  std::expected<std::shared_ptr<platform::FileHandle>, platform::Error> openFileHandle(const std::optional<platform::URL>& url,
                                                                                       Access access) override;
  std::expected<void, platform::Error> writeDataWithoutOverwriting(const platform::Data& data,
                                                                   const std::optional<platform::URL>& url) override;
  std::expected<platform::Data, platform::Error> contentsOfURL(const std::optional<platform::URL>& url) override;

  // For tests; these fail only by a wrong use, which throws std::logic_error.

  /// A file's bytes; absent when there is none.
  std::optional<std::string> bytesAtPath(std::string_view path);
  /// Makes the file and its folders, or changes the file where it is.
  void setBytesAtPath(std::string_view path, std::string_view bytes);
  void makeSymbolicLink(std::string_view path, std::string_view target);
  /// The paths of everything that is no directory, sorted.
  std::vector<std::string> allFiles();
  /// All that is there lasts from now on.
  void synchronizeAll();
  /// Only what lasts is left.
  void powerCut();
  /// The same, but what was not synchronised may be there all the same: each name by lot, and of each file's new bytes none, all,
  /// or those up to a point. The lot is drawn from 0 up to, not including, its bound.
  void powerCut(const std::function<std::size_t(std::size_t bound)>& lot);

 private:
  class Disk;
  std::shared_ptr<Disk> disk_;
  std::string folder_;
};

}  // namespace test
