// Property-list values in JSON: what JSON cannot say is wrapped (docs/formats/user-defaults.md).
#pragma once

#include <optional>
#include <string_view>

#include "platform/Value.h"

namespace platform {

/// Raises NSInvalidArgumentException for null, for a container that holds one, and for a value that is nested too deeply to be read
/// back.
void expectPropertyListValue(const Value& value, std::string_view key);

/// The value in kinds and texts that JSON has. Raises as expectPropertyListValue for a value that has no such form.
Value encodedPropertyList(const Value& value);
/// The value that was encoded; absent for what encodedPropertyList does not make.
std::optional<Value> decodedPropertyList(const Value& encoded);

}  // namespace platform
