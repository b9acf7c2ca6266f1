// The debug trace of a running application, passed on over a Unix socket in the application's own folder (unix(7)).
//
// The one who watches makes the socket, so an application that nobody watches makes two system calls for each line and no file.
// Each packet of the SOCK_SEQPACKET connection is a line. The folder is its user's alone, and so is the trace.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Error.h"
#include "platform/Process.h"
#include "platform/TraceSink.h"
#include "platform/linux/FileDescriptor.h"

namespace platform {

/// The application's end.
class TraceSocket final : public TraceSink {
 public:
  /// Of a longer line only the beginning is passed on.
  static constexpr std::size_t kMaxBytes = std::size_t{64} * 1024;

  /// Touches no file.
  explicit TraceSocket(const SystemOptions& options);
  /// A line that the watcher's buffer has no room for is left out; the next that it has room for is preceded by how many were.
  void take(std::string_view line) override;

 private:
  /// Opens the folder that is at the path now: it may have been made, or have taken another one's place, since the line before.
  bool findFolder();
  bool connect();
  bool send(std::string_view line);

  const std::optional<std::string> path_;
  std::mutex mutex_;  // guards what follows
  FileDescriptor folder_;
  dev_t device_ = 0;  // of the folder
  ino_t number_ = 0;
  FileDescriptor socket_;
  bool isConnected_ = false;
  std::uint64_t leftOut_ = 0;
};

/// The watcher's end. Used by one thread at a time.
class TraceListener {
 public:
  using Lines = std::function<void(pid_t process, std::string_view line)>;

  /// Makes the application's folder when it is missing, and the socket in it, with a lock file beside it that stays. Fails with an
  /// error of kPOSIXErrorDomain: EADDRINUSE when somebody else watches already, ENOENT when there is no home.
  static std::expected<TraceListener, Error> open(const SystemOptions& options);
  TraceListener(TraceListener&&) = default;
  TraceListener& operator=(TraceListener&&) = delete;
  /// Takes the socket away.
  ~TraceListener();

  const std::string& path() const { return path_; }
  /// Hands over each line of every process of the application, until `stop` becomes readable. Yields 0 or the system's error
  /// number.
  int follow(const Lines& lines, int stop);

 private:
  TraceListener(std::string path, FileDescriptor lock, FileDescriptor folder, FileDescriptor socket)
      : path_(std::move(path)), lock_(std::move(lock)), folder_(std::move(folder)), socket_(std::move(socket)) {}
  void accept();
  bool receive(int connection, bool hasEnded, const Lines& lines);

  std::string path_;
  FileDescriptor lock_;
  FileDescriptor folder_;
  FileDescriptor socket_;
  std::map<int, std::pair<FileDescriptor, pid_t>> connections_;
};

}  // namespace platform
