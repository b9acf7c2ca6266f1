// A mutable HTTP request: URL, method, header fields, body.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Data.h"
#include "platform/Export.h"
#include "platform/URL.h"

namespace platform {

/// Header fields in the order they were set; look-up ignores case (platform rows U6 and U7).
class KESTROVA_EXPORT HTTPHeaderFields {
 public:
  using Field = std::pair<std::string, std::string>;

  /// The value, or absent. Of a response, equal names are joined with `, `.
  std::optional<std::string> objectForKey(std::string_view name) const;
  /// Replaces, or removes when absent. A value (or name) with CR, LF or NUL is refused and leaves the field as it was.
  void setValueForField(const std::optional<std::string>& value, std::string_view name);
  /// Appends to an existing value after `separator`, else sets; refuses as setValueForField does.
  void addValueForField(std::string_view value, std::string_view name, std::string_view separator);

  std::vector<Field>::const_iterator begin() const { return fields_.begin(); }
  std::vector<Field>::const_iterator end() const { return fields_.end(); }
  std::size_t count() const { return fields_.size(); }

 private:
  std::vector<Field> fields_;
};

class KESTROVA_EXPORT URLRequest {
 public:
  /// A GET request; the URL may be absent, the task then ends with -1002.
  explicit URLRequest(std::optional<platform::URL> url) : url_(std::move(url)) {}

  const std::optional<platform::URL>& URL() const { return url_; }
  const std::string& HTTPMethod() const { return method_; }
  void setHTTPMethod(std::string method) { method_ = std::move(method); }

  const HTTPHeaderFields& allHTTPHeaderFields() const { return fields_; }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const { return fields_.objectForKey(name); }
  void setValueForHTTPHeaderField(const std::optional<std::string>& value, std::string_view name) {
    fields_.setValueForField(value, name);
  }
  /// Joins with `,` when the field is there already.
  void addValueForHTTPHeaderField(std::string_view value, std::string_view name) { fields_.addValueForField(value, name, ","); }

  const std::optional<Data>& HTTPBody() const { return body_; }
  void setHTTPBody(std::optional<Data> body) { body_ = std::move(body); }

 private:
  std::optional<platform::URL> url_;
  std::string method_ = "GET";
  HTTPHeaderFields fields_;
  std::optional<Data> body_;
};

}  // namespace platform
