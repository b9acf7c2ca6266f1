// Opening an address in the system's browser.
#pragma once

#include <functional>

#include "platform/Export.h"
#include "platform/URL.h"

namespace platform {

class KESTROVA_EXPORT BrowserOpener {
 public:
  /// Whether the browser took the address.
  using Completion = std::move_only_function<void(bool didOpen)>;

  static BrowserOpener& browserOpener();
  virtual ~BrowserOpener() = default;
  /// Hands the address to the browser and returns at once. The completion runs at most once, on any thread but never inside this
  /// call; with false where there is no browser. It may take as long as it likes, or never come: who waits sets a bound. Must not
  /// raise. Any thread.
  virtual void openURL(const URL& url, Completion completion) = 0;
};

}  // namespace platform
