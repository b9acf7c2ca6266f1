// JSON text of a value (platform rows J1 to J6), written straight into the block that the text is handed over in.
#pragma once

#include <expected>

#include "platform/Error.h"
#include "platform/String.h"
#include "platform/Value.h"

namespace platform {

/// Compact UTF-8 text with the keys in the order of their bytes. The fault that comes first in that order decides: a date, data,
/// NaN or an infinity raises NSInvalidArgumentException, a string that is not well-formed UTF-8 fails with code 3852. A top level
/// that is no object or array raises before anything else. Any thread; neither recurses nor bounds the depth.
std::expected<String, Error> JSONTextOfValue(const Value& value);

}  // namespace platform
