// Reading of events from text, one JSON object a line.
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace cli {

struct InputEvent {
  std::string name;
  std::optional<platform::Dictionary> data;
};

/// One event, or what is wrong with the text.
std::expected<InputEvent, std::string> parseEventLine(std::string_view line);
/// The text of an event's data, or what is wrong with it.
std::expected<platform::Dictionary, std::string> parseEventData(std::string_view text);

}  // namespace cli
