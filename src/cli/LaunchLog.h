// What happened in processes that the transfer service launched: nobody sees their output, so they write it down.
//
// `command-launches.log` in the application's folder, a line with time and process for each message. A file that has grown past
// kMaxBytes becomes `command-launches.log.1` at the next launch.
#pragma once

#include <cstdint>
#include <expected>
#include <string>
#include <string_view>

#include "platform/linux/FileDescriptor.h"

namespace cli {

class LaunchLog {
 public:
  static constexpr std::uint64_t kMaxBytes = std::uint64_t{1024} * 1024;

  static std::expected<LaunchLog, std::string> open();
  /// Any thread. A line that cannot be written is lost.
  void write(std::string_view message) const;

 private:
  explicit LaunchLog(platform::FileDescriptor file) : file_(std::move(file)) {}
  platform::FileDescriptor file_;
};

}  // namespace cli
