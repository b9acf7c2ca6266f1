// The running application as its user sees it.
#pragma once

namespace platform {

class Application {
 public:
  static Application& sharedApplication();
  virtual ~Application() = default;
  /// Shows or hides the network activity indicator: an on/off switch, no counter. Main queue only.
  virtual void setNetworkActivityIndicatorVisible(bool visible) = 0;
  virtual bool isNetworkActivityIndicatorVisible() = 0;
};

}  // namespace platform
