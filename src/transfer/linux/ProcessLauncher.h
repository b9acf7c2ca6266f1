// Launches applications for their sessions' events.
//
// The command is run as it is, without a shell, as the service's own user, in a session of its own, with / as its working directory
// and /dev/null for its three standard descriptors; it inherits no other descriptor, no blocked signal and no handler. It has the
// service's environment, with KESTROVA_BACKGROUND_SESSION (the session's identifier), KESTROVA_TRANSFER_DIR, and SSL_CERT_FILE when
// the session's task named trust anchors. It goes on when the service ends.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>

#include "platform/linux/FileDescriptor.h"
#include "transfer/core/Surroundings.h"
#include "transfer/linux/EventLoop.h"

namespace transfer {

class ProcessLauncher final : public Launcher {
 public:
  using Ended = std::function<void(ApplicationId, const std::string& session)>;

  /// `ended` is called on the loop's thread. The loop must outlive the launcher.
  ProcessLauncher(EventLoop& loop, std::string transferFolder, Ended ended)
      : loop_(loop), transferFolder_(std::move(transferFolder)), ended_(std::move(ended)) {}
  ~ProcessLauncher() override;
  ProcessLauncher(const ProcessLauncher&) = delete;
  ProcessLauncher& operator=(const ProcessLauncher&) = delete;

  std::expected<void, platform::Error> launch(ApplicationId application, const std::vector<std::string>& command,
                                              const std::string& session, const std::optional<std::string>& trustAnchors) override;

 private:
  void processEnded(int descriptor);

  EventLoop& loop_;
  const std::string transferFolder_;
  const Ended ended_;
  struct Running {
    ApplicationId application;
    std::string session;
    platform::FileDescriptor process;
  };
  std::map<int, Running> running_;  // by the process's descriptor
};

}  // namespace transfer
