// The text form of a response.
#include "platform/URLResponse.h"

#include "platform/Value.h"

namespace platform {

std::string HTTPURLResponse::description() const {
  Dictionary fields;
  for (const auto& [name, value] : fields_) fields.setObjectForKey(Value(value), name);
  return "<NSHTTPURLResponse> { URL: " + url_.description() + " } { Status Code: " + std::to_string(statusCode_) + ", Headers " +
         fields.description() + " }";
}

}  // namespace platform
