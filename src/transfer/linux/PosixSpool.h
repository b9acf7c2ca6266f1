// The spool folder on the disk.
//
// Only plain files of the service's own user are taken for tasks; a symbolic link, a pipe, a folder, or a file that is somebody
// else's or that others may write is refused with its reason.
#pragma once

#include <string>
#include <utility>

#include "transfer/core/Surroundings.h"

namespace transfer {

class PosixSpool final : public Spool {
 public:
  /// The folder must be there.
  explicit PosixSpool(std::string folder) : folder_(std::move(folder)) {}

  std::vector<std::string> names() override;
  std::expected<std::string, platform::Error> read(const std::string& name) override;
  std::expected<void, platform::Error> remove(const std::string& name) override;
  /// Moves it into `refused/`, with a file beside it that holds the reason.
  void setAside(const std::string& name, std::string_view reason) override;

  const std::string& folder() const { return folder_; }
  /// Removes the unfinished files of applications that died while they wrote them, once they are a day old.
  void removeLeftovers();

 private:
  std::string pathOf(const std::string& name) const { return folder_ + "/" + name; }
  std::expected<void, platform::Error> synchronize(const std::string& folder) const;

  const std::string folder_;
};

}  // namespace transfer
