// What the environment says to the platform's services.
#pragma once

#include <stdlib.h>

#include <optional>
#include <string>

namespace platform {

/// An environment variable's text; absent when it is not set, is empty, or must not be trusted (the program has more rights than
/// whoever started it).
inline std::optional<std::string> environmentText(const char* name) {
  const char* text = secure_getenv(name);
  return text && *text ? std::optional<std::string>(text) : std::nullopt;
}

}  // namespace platform
