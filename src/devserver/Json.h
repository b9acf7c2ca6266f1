// JSON text to values and back, for bodies, files and options. Any thread.
#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace devserver {

/// The object or array that the text holds, or what is wrong with it.
std::expected<platform::Value, std::string> readJson(std::string_view text);
/// As readJson, and the text must hold an object.
std::expected<platform::Dictionary, std::string> readJsonObject(std::string_view text);
/// Any one JSON value, a bare number or string too: what stands as an option on a command line.
std::expected<platform::Value, std::string> readJsonScalar(std::string_view text);
/// Compact text. The value must have come from readJson or hold nothing that JSON cannot carry.
std::string writeJson(const platform::Value& value);

}  // namespace devserver
