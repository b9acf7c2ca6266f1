// Boost.JSON's event parser into Values. It says what is JSON; numbers are taken as their texts and read by the C library, because
// its own are up to two steps off.
#include "common/SecondJSON.h"

#include <algorithm>
#include <bit>
#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/src.hpp>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "platform/JSONSerialization.h"

namespace fuzz {
namespace {

namespace json = boost::json;
using platform::Array;
using platform::Dictionary;
using platform::Value;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// The parser refuses an exponent that no int holds, even of a zero. Six digits already say the same of any number that is short
/// enough to be an input.
std::string withShortExponents(std::string_view text) {
  std::string shortened;
  bool isInString = false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    shortened += text[at];
    if (isInString && text[at] == '\\' && at + 1 < text.size())
      shortened += text[++at];
    else if (text[at] == '"')
      isInString = !isInString;
    if (isInString || (text[at] != 'e' && text[at] != 'E')) continue;
    if (at + 1 < text.size() && (text[at + 1] == '+' || text[at + 1] == '-')) shortened += text[++at];
    std::size_t end = at + 1;
    while (end < text.size() && isDigit(text[end])) ++end;
    std::string_view digits = text.substr(at + 1, end - at - 1);
    while (digits.size() > 1 && digits.front() == '0') digits.remove_prefix(1);
    shortened += digits.size() > 6 ? std::string_view("999999") : digits;
    at = end - 1;
  }
  return shortened;
}

bool isInteger(std::string_view text) { return text.find_first_of(".eE") == std::string_view::npos; }

/// The first parser judges a number by its exponent before it looks at the digits, so that it refuses a zero whose exponent no
/// double has, and a small number that begins as one beyond the doubles.
bool isRoundabout(const std::string& text) {
  const auto exponent = text.find_first_of("eE");
  const auto point = std::min(text.find('.'), exponent);
  if (std::abs(std::strtod(text.substr(0, point).c_str(), nullptr)) >= 1.7976931348623157e308) return true;
  if (exponent == std::string::npos || text.find_first_of("123456789") < exponent) return false;
  const auto decimals = static_cast<long long>(exponent - point) - (point == exponent ? 0 : 1);
  return std::atoll(text.c_str() + exponent + 1) > 308 + decimals;
}

/// Absent when the number is beyond a double, or is refused with these.
std::optional<Value> numberOf(const std::string& text) {
  if (isRoundabout(text)) return std::nullopt;
  if (isInteger(text) && text != "-0") {
    errno = 0;
    const long long whole = std::strtoll(text.c_str(), nullptr, 10);
    if (errno == 0) return Value(static_cast<std::int64_t>(whole));
    errno = 0;
    const unsigned long long large = std::strtoull(text.c_str(), nullptr, 10);
    if (errno == 0 && text.front() != '-') return Value(static_cast<std::uint64_t>(large));
  }
  const double number = std::strtod(text.c_str(), nullptr);
  return std::isinf(number) ? std::nullopt : std::optional(Value(number));
}

/// Builds the value. The names are the parser's.
struct Builder {
  static constexpr std::size_t max_object_size = std::size_t(-1);
  static constexpr std::size_t max_array_size = std::size_t(-1);
  static constexpr std::size_t max_key_size = std::size_t(-1);
  static constexpr std::size_t max_string_size = std::size_t(-1);

  struct Open {
    bool isArray = false;
    Array array;
    Dictionary object;
    std::string key;
  };

  std::vector<Open> open;
  std::string text;
  std::optional<Value> document;
  bool hasHugeNumber = false;

  bool add(Value value) {
    if (open.empty()) {
      document = std::move(value);
    } else if (Open& inner = open.back(); inner.isArray) {
      inner.array.addObject(std::move(value));
    } else if (!inner.object.find(inner.key)) {
      inner.object.setObjectForKey(std::move(value), platform::String(inner.key));
    }
    return true;
  }
  bool addNumber(json::string_view last) {
    text.append(last.data(), last.size());
    std::optional<Value> number = numberOf(std::exchange(text, std::string()));
    if (!number) hasHugeNumber = true;
    return add(number.value_or(Value()));
  }
  bool part(json::string_view piece) {
    text.append(piece.data(), piece.size());
    return true;
  }
  bool close() {
    Open ended = std::move(open.back());
    open.pop_back();
    return add(ended.isArray ? Value(std::move(ended.array)) : Value(std::move(ended.object)));
  }

  bool on_document_begin(json::error_code&) { return true; }
  bool on_document_end(json::error_code&) { return true; }
  bool on_object_begin(json::error_code&) { return open.emplace_back(), true; }
  bool on_object_end(std::size_t, json::error_code&) { return close(); }
  bool on_array_begin(json::error_code&) { return open.emplace_back().isArray = true; }
  bool on_array_end(std::size_t, json::error_code&) { return close(); }
  bool on_key_part(json::string_view piece, std::size_t, json::error_code&) { return part(piece); }
  bool on_key(json::string_view piece, std::size_t, json::error_code&) {
    part(piece);
    open.back().key = std::exchange(text, std::string());
    return true;
  }
  bool on_string_part(json::string_view piece, std::size_t, json::error_code&) { return part(piece); }
  bool on_string(json::string_view piece, std::size_t, json::error_code&) {
    part(piece);
    return add(Value(std::exchange(text, std::string())));
  }
  bool on_number_part(json::string_view piece, json::error_code&) { return part(piece); }
  bool on_int64(std::int64_t, json::string_view piece, json::error_code&) { return addNumber(piece); }
  bool on_uint64(std::uint64_t, json::string_view piece, json::error_code&) { return addNumber(piece); }
  bool on_double(double, json::string_view piece, json::error_code&) { return addNumber(piece); }
  bool on_bool(bool boolean, json::error_code&) { return add(Value(boolean)); }
  bool on_null(json::error_code&) { return add(Value()); }
  bool on_comment_part(json::string_view, json::error_code&) { return true; }
  bool on_comment(json::string_view, json::error_code&) { return true; }
};

bool isSameNumber(double a, double b) {
  return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b) || (std::isnan(a) && std::isnan(b));
}

bool haveSameElements(const Array& a, const Array& b) {
  if (a.count() != b.count()) return false;
  for (std::size_t at = 0; at < a.count(); ++at)
    if (!isIdentical(a[at], b[at])) return false;
  return true;
}

bool haveSameMembers(const Dictionary& a, const Dictionary& b) {
  if (a.count() != b.count()) return false;
  for (auto left = a.begin(), right = b.begin(); left != a.end(); ++left, ++right)
    if (left->key != right->key || !isIdentical(left->value, right->value)) return false;
  return true;
}

}  // namespace

std::optional<Value> readBySecondParser(std::string_view original) {
  const std::string text = withShortExponents(original);
  json::parse_options options;
  options.max_depth = platform::kMaxJSONDepth;
  json::basic_parser<Builder> parser(options);
  json::error_code error;
  const std::size_t consumed = parser.write_some(false, text.data(), text.size(), error);
  const Builder& built = parser.handler();
  if (error || consumed != text.size() || built.hasHugeNumber || !built.document) return std::nullopt;
  if (!built.document->isArray() && !built.document->isObject()) return std::nullopt;
  return built.document;
}

bool isIdentical(const Value& a, const Value& b) {
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case Value::Kind::kDouble:
      return isSameNumber(a.number(), b.number());
    case Value::Kind::kDate:
      return isSameNumber(a.date().timeIntervalSince1970(), b.date().timeIntervalSince1970());
    case Value::Kind::kArray:
      return haveSameElements(a.array(), b.array());
    case Value::Kind::kObject:
      return haveSameMembers(a.object(), b.object());
    default:
      return a == b;
  }
}

}  // namespace fuzz
