// Reading of events from text.
#include "cli/EventInput.h"

#include <utility>

#include "platform/JSONSerialization.h"

namespace cli {
namespace {

std::expected<platform::Dictionary, std::string> parseObject(std::string_view text) {
  const auto value = platform::JSONSerialization::JSONObjectWithData(platform::Data(text));
  if (!value) {
    std::string detail = value.error().debugDescription();
    if (detail.ends_with('.')) detail.pop_back();  // the sentence goes on
    return std::unexpected(detail.empty() ? "not valid JSON" : "not valid JSON: " + detail);
  }
  if (!value->isObject()) return std::unexpected("not a JSON object");
  return value->object();
}

}  // namespace

std::expected<platform::Dictionary, std::string> parseEventData(std::string_view text) { return parseObject(text); }

std::expected<InputEvent, std::string> parseEventLine(std::string_view line) {
  const auto object = parseObject(line);
  if (!object) return std::unexpected(object.error());

  const auto event = object->objectForKey("event");
  if (!event) return std::unexpected("\"event\" is missing");
  if (!event->isString() || event->string().length() == 0) return std::unexpected("\"event\" is not a name");
  InputEvent result;
  result.name = event->string().view();

  const auto data = object->objectForKey("data");
  if (data && !data->isNull()) {
    if (!data->isObject()) return std::unexpected("\"data\" is not a JSON object");
    result.data = data->object();
  }
  for (const auto& [key, value] : *object) {
    if (key.view() != "event" && key.view() != "data") return std::unexpected("unknown key \"" + std::string(key.view()) + "\"");
  }
  return result;
}

}  // namespace cli
