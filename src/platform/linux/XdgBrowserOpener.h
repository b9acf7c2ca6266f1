// The desktop's way of opening an address: the program xdg-open, which knows the user's browser.
#pragma once

#include <memory>

#include "platform/BrowserOpener.h"
#include "platform/DispatchQueue.h"

namespace platform {

/// Starts `xdg-open ADDRESS`, found on PATH, without a shell: in a session of its own, with none of this process's descriptors and
/// /dev/null for the standard ones, the usual handling of signals, and this process's environment. The browser has the address when
/// the program ends with status 0. False for a program that is missing or fails, for an address that is not http or https (another
/// program would open it), and when the host has taken the program's end for itself (SIGCHLD ignored, or a wait for any child).
///
/// Where xdg-open stays until the browser ends, the completion comes as late; the thread of the queue that waits is gone then too.
class XdgBrowserOpener final : public BrowserOpener {
 public:
  /// `queues` must outlive this; each opening waits on a queue of its own.
  explicit XdgBrowserOpener(DispatchQueues& queues);
  /// Waits for nobody: openings under way are reported as failed, and what was started goes on.
  ~XdgBrowserOpener() override;
  XdgBrowserOpener(const XdgBrowserOpener&) = delete;
  XdgBrowserOpener& operator=(const XdgBrowserOpener&) = delete;

  void openURL(const URL& url, Completion completion) override;

 private:
  class Closing;

  DispatchQueues& queues_;
  const std::shared_ptr<Closing> closing_;
};

}  // namespace platform
