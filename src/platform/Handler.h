// Calling a handler that a caller gave.
#pragma once

#include <utility>

#include "platform/Exception.h"

namespace platform {

/// Calls it; an absent handler raises NSInvalidArgumentException (platform row Q2).
template <class Handler, class... Arguments>
void call(Handler& handler, Arguments&&... arguments) {
  if (!handler) throw Exception(kInvalidArgumentException, "An absent handler was called");
  handler(std::forward<Arguments>(arguments)...);
}

}  // namespace platform
