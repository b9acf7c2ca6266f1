// The link to the transfer service over its Unix socket.
//
// One thread, started by the first connect, does all of it: connecting, starting the service when nobody answers, reading and
// writing. It blocks the host's signals and stands still once the process exits. In a child made by fork the link does nothing.
//
// While the listener needs the service, tries go on for good: the first waits are short, as a service that was just started answers
// soon; each is twice the one before, up to a minute. What a person can do something about goes to the system log, each cause once
// until a connection stands: a folder that cannot be used, a program that cannot be started or ends at once, a service that refuses
// the application, one that talks nonsense. The last two will not pass soon, so the next try comes after the longest wait, unless
// somebody asks for a connection anew.
#pragma once

#include <poll.h>

#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Process.h"
#include "platform/linux/TransferIdentity.h"
#include "platform/linux/TransferSessions.h"

namespace platform {

/// The time that passes for the link's thread, so that a test can let it pass by hand.
class LinkTime {
 public:
  virtual ~LinkTime() = default;
  virtual std::chrono::steady_clock::time_point now() = 0;
  /// As poll(2): returns when a descriptor has something or that many milliseconds are over; -1 waits for a descriptor
  /// alone.
  virtual void wait(std::span<pollfd> watched, int limit) = 0;
};

/// `directory` is the folder shared with the service, absent when there is no home. Without a time the machine's own counts. Starts
/// nothing and touches no file.
std::shared_ptr<TransferLink> makeSocketTransferLink(const SystemOptions& options, std::optional<std::string> directory,
                                                     std::shared_ptr<TransferIdentity> identity,
                                                     std::shared_ptr<LinkTime> time = nullptr);

}  // namespace platform
