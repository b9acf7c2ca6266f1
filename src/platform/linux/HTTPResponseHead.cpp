// Lines of an answer's head.
#include "platform/linux/HTTPResponseHead.h"

#include <charconv>

namespace platform {
namespace {

std::string_view trimmed(std::string_view text) {
  const auto begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t\r\n") + 1 - begin);
}

}  // namespace

bool HTTPResponseHead::addLine(std::string_view line) {
  bytes_ += line.size();
  if (bytes_ > kMaxBytes || ++lines_ > kMaxFields) return false;
  if (complete_) return true;  // a trailer
  if (line.starts_with("HTTP/"))
    startAnswer(line);
  else if (line.starts_with(' ') || line.starts_with('\t'))
    continueField(line);
  else if (trimmed(line).empty())
    complete_ = statusCode_ >= 200;
  else
    addField(line);
  return true;
}

void HTTPResponseHead::startAnswer(std::string_view statusLine) {
  fields_ = {};
  lastName_.clear();
  statusCode_ = 0;
  const auto blank = statusLine.find(' ');
  if (blank == std::string_view::npos) return;
  const std::string_view code = trimmed(statusLine.substr(blank)).substr(0, 3);
  std::from_chars(code.data(), code.data() + code.size(), statusCode_);
}

void HTTPResponseHead::addField(std::string_view line) {
  lastName_.clear();
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return;
  lastName_ = trimmed(line.substr(0, colon));
  fields_.addValueForField(trimmed(line.substr(colon + 1)), lastName_, ", ");
}

/// A folded line goes on with the value before it (RFC 9112 section 5.2).
void HTTPResponseHead::continueField(std::string_view line) {
  if (!lastName_.empty() && fields_.objectForKey(lastName_)) fields_.addValueForField(trimmed(line), lastName_, " ");
}

}  // namespace platform
