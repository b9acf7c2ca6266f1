// The running application as its user sees it.
#pragma once

#include "platform/Export.h"

namespace platform {

class KESTROVA_EXPORT Application {
 public:
  static Application& sharedApplication();
  virtual ~Application() = default;
  /// Shows or hides the network activity indicator: an on/off switch, no counter. Main queue only.
  virtual void setNetworkActivityIndicatorVisible(bool visible) = 0;
  virtual bool isNetworkActivityIndicatorVisible() = 0;
};

}  // namespace platform
