// Collects the head of an HTTP/1.1 answer from its lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/URLRequest.h"

namespace platform {

/// Keeps the fields of the final answer only: those of interim answers (1xx) are dropped, trailers are ignored.
class HTTPResponseHead {
 public:
  // A head grows on the server's word alone; these bounds are far above any honest one. Interim answers and trailers count too.
  static constexpr std::size_t kMaxBytes = 256 * 1024;
  static constexpr std::size_t kMaxFields = 1000;

  /// One line as it came, line end included. False once the answer is past a bound.
  bool addLine(std::string_view line);

  /// True when the empty line after the final answer's fields has come.
  bool isComplete() const { return complete_; }
  std::int64_t statusCode() const { return statusCode_; }
  const HTTPHeaderFields& fields() const { return fields_; }

 private:
  void startAnswer(std::string_view statusLine);
  void addField(std::string_view line);
  void continueField(std::string_view line);

  std::size_t bytes_ = 0;
  std::size_t lines_ = 0;
  std::int64_t statusCode_ = 0;
  bool complete_ = false;
  std::string lastName_;
  HTTPHeaderFields fields_;
};

}  // namespace platform
