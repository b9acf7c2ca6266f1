// The identifier of this device: one UUID for the application, made at its first launch and kept.
#pragma once

#include "platform/UUID.h"

class KSVIdentityStorage {
 public:
  /// Two processes that ask at once for the first time get the same one. Where it cannot be kept (no folder, full disk) a new one
  /// is made for each asking. Any thread; reads one small file.
  platform::UUID identifier();
};
