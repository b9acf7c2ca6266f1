// JSON text to values and back, by the platform's own reader and writer.
#include "devserver/Json.h"

#include <memory>
#include <stdexcept>

#include "platform/Data.h"
#include "platform/linux/RapidJSONSerialization.h"

namespace devserver {

using platform::Data;
using platform::Dictionary;
using platform::Value;

std::expected<Value, std::string> readJson(std::string_view text) {
  auto value = platform::makeRapidJSONSerialization()->read(Data(text));
  if (!value) return std::unexpected(value.error().debugDescription());
  return *std::move(value);
}

std::expected<Dictionary, std::string> readJsonObject(std::string_view text) {
  const auto value = readJson(text);
  if (!value) return std::unexpected(value.error());
  if (!value->isObject()) return std::unexpected("The text is no JSON object.");
  return value->object();
}

std::expected<Value, std::string> readJsonScalar(std::string_view text) {
  const auto list = readJson("[" + std::string(text) + "]");
  if (!list || list->array().count() != 1) return std::unexpected("The text is no single JSON value.");
  return list->array()[0];
}

std::string writeJson(const Value& value) {
  const auto text = platform::makeRapidJSONSerialization()->write(value);
  if (!text) throw std::logic_error("a value cannot be written as JSON: " + text.error().localizedDescription());
  return std::string(text->bytes());
}

}  // namespace devserver
