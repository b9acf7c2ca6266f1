// The JSON service: RapidJSON's event reader into Values, and the platform's own writer.
#pragma once

#include <memory>

#include "platform/JSONSerialization.h"

namespace platform {

/// Keeps nothing between calls; any thread.
std::shared_ptr<JSONSerialization> makeRapidJSONSerialization();

}  // namespace platform
