// Header fields of requests and responses.
#include "platform/URLRequest.h"

#include <algorithm>

namespace platform {
namespace {

char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) { return lowered(x) == lowered(y); });
}

/// RFC 9110 section 5.6.2. Anything else in a name could end the name, the line or the whole head early.
bool isToken(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) {
    const char l = lowered(c);
    return (l >= 'a' && l <= 'z') || (c >= '0' && c <= '9') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
  });
}

bool isFieldValue(std::string_view text) { return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos; }

auto named(std::string_view name) {
  return [name](const HTTPHeaderFields::Field& field) { return equalIgnoringCase(field.first, name); };
}

}  // namespace

std::optional<std::string> HTTPHeaderFields::objectForKey(std::string_view name) const {
  const auto field = std::ranges::find_if(fields_, named(name));
  return field == fields_.end() ? std::nullopt : std::optional(field->second);
}

void HTTPHeaderFields::setValueForField(const std::optional<std::string>& value, std::string_view name) {
  if (!value) {
    std::erase_if(fields_, named(name));
    return;
  }
  if (!isToken(name) || !isFieldValue(*value)) return;
  const auto field = std::ranges::find_if(fields_, named(name));
  if (field == fields_.end())
    fields_.emplace_back(name, *value);
  else
    *field = Field(name, *value);
}

void HTTPHeaderFields::addValueForField(std::string_view value, std::string_view name, std::string_view separator) {
  const auto field = std::ranges::find_if(fields_, named(name));
  if (field == fields_.end())
    setValueForField(std::string(value), name);
  else if (isFieldValue(value))
    field->second.append(separator).append(value);
}

}  // namespace platform
