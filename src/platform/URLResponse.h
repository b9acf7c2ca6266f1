// The answer's head: URL, status code and header fields. Immutable.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "platform/Export.h"
#include "platform/URL.h"
#include "platform/URLRequest.h"

namespace platform {

class KESTROVA_EXPORT HTTPURLResponse {
 public:
  HTTPURLResponse(platform::URL url, std::int64_t statusCode, HTTPHeaderFields fields)
      : url_(std::move(url)), statusCode_(statusCode), fields_(std::move(fields)) {}

  const platform::URL& URL() const { return url_; }
  std::int64_t statusCode() const { return statusCode_; }
  const HTTPHeaderFields& allHeaderFields() const { return fields_; }
  /// `<NSHTTPURLResponse> { URL: <url> } { Status Code: 404, Headers {…} }`, header fields sorted by name (platform row V6).
  std::string description() const;

 private:
  platform::URL url_;
  std::int64_t statusCode_;
  HTTPHeaderFields fields_;
};

/// Shared by the completion handler and whoever keeps it; null when no answer came.
using HTTPURLResponseRef = std::shared_ptr<const HTTPURLResponse>;

// Reading an absent response yields 0 and no header (platform row U3).
inline std::int64_t statusCode(const HTTPURLResponseRef& response) { return response ? response->statusCode() : 0; }
inline std::optional<std::string> headerField(const HTTPURLResponseRef& response, std::string_view name) {
  return response ? response->allHeaderFields().objectForKey(name) : std::nullopt;
}

}  // namespace platform
