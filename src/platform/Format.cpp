// Texts of values as %@ prints them, and the formatting of messages.
#include "platform/Format.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "platform/Exception.h"
#include "platform/Value.h"

namespace platform {
namespace {

constexpr std::size_t kSpacesALevel = 4;
/// Deeper levels are indented no more: the text of a value nested without bound must not grow with the square of its depth.
constexpr std::size_t kIndentedLevels = 64;

template <class Number>
std::string shortestText(Number number) {
  char text[32];
  return {text, std::to_chars(text, text + sizeof text, number).ptr};
}

/// Bytes as in `{length = 3, bytes = 0x616263}`; of long ones the first 16 and the last 8.
std::string dataText(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  constexpr std::size_t kWhole = 24, kHead = 16, kTail = 8, kGroup = 4;
  std::string text = "{length = " + std::to_string(bytes.size()) + ", bytes = 0x";
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    if (bytes.size() > kWhole) {
      if (at == kHead) {
        text += " ... ";
        at = bytes.size() - kTail;
      } else if (at != 0 && (at < kHead ? at : at - (bytes.size() - kTail)) % kGroup == 0) {
        text += ' ';
      }
    }
    const auto byte = static_cast<unsigned char>(bytes[at]);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text + '}';
}

/// The text of a value that holds no others, as it prints by itself.
std::string scalarText(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::kNull:
      return "<null>";
    case Value::Kind::kBoolean:
      return value.boolean() ? "1" : "0";
    case Value::Kind::kSigned:
      return shortestText(value.signedInteger());
    case Value::Kind::kUnsigned:
      return shortestText(value.unsignedInteger());
    case Value::Kind::kDouble:
      return shortestText(value.number());
    case Value::Kind::kDate:
      return value.date().description();
    case Value::Kind::kData:
      return dataText(value.data().bytes());
    default:
      return std::string(value.string().view());
  }
}

bool standsUnquoted(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '$' || c == '/' ||
         c == ':' || c == '.';
}

void appendCodeUnit(std::string& out, unsigned unit) {
  constexpr char kDigits[] = "0123456789abcdef";
  out += "\\U";
  for (int shift = 12; shift >= 0; shift -= 4) out += kDigits[unit >> shift & 15];
}

/// The code point at the start of `text` and its length; a byte that starts none counts as U+FFFD.
std::pair<unsigned, std::size_t> firstCodePoint(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (length > text.size() || !isWellFormedUtf8(text.substr(0, length))) return {0xFFFD, 1};
  if (length == 1) return {lead, 1};
  unsigned point = lead & (0x7Fu >> length);
  for (std::size_t at = 1; at < length; ++at) point = point << 6 | (static_cast<unsigned char>(text[at]) & 0x3Fu);
  return {point, length};
}

void appendQuoted(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    const auto [point, length] = firstCodePoint(text);
    text.remove_prefix(length);
    if (point == '\n') {
      out += "\\n";
    } else if (point == '\r') {
      out += "\\r";
    } else if (point == '\t') {
      out += "\\t";
    } else if (point >= 0x10000) {
      appendCodeUnit(out, 0xD800 + ((point - 0x10000) >> 10));
      appendCodeUnit(out, 0xDC00 + ((point - 0x10000) & 0x3FF));
    } else if (point < 0x20 || point >= 0x7F) {
      appendCodeUnit(out, point);
    } else {
      if (point == '"' || point == '\\') out += '\\';
      out += static_cast<char>(point);
    }
  }
  out += '"';
}

void appendText(std::string& out, std::string_view text) {
  if (!text.empty() && std::all_of(text.begin(), text.end(), standsUnquoted))
    out += text;
  else
    appendQuoted(out, text);
}

/// Prints a container as platform row V5 has it, with a list of the containers that are open in place of recursion.
class Printer {
 public:
  std::string print(const Value& container) {
    open(container);
    while (!open_.empty()) step();
    return std::move(out_);
  }

 private:
  struct Open {
    const Value* element = nullptr;  // of an array, the next one
    const Value* elementsEnd = nullptr;
    const Member* member = nullptr;  // of an object, the next one
    const Member* membersEnd = nullptr;
    bool isArray = false;
  };

  void indent(std::size_t levels) { out_.append(kSpacesALevel * std::min(levels, kIndentedLevels), ' '); }

  void open(const Value& container) {
    Open opened;
    opened.isArray = container.isArray();
    if (opened.isArray) {
      opened.element = container.array().begin();
      opened.elementsEnd = container.array().end();
    } else {
      opened.member = container.object().begin();
      opened.membersEnd = container.object().end();
    }
    indent(open_.size());
    out_ += opened.isArray ? "(\n" : "{\n";
    open_.push_back(opened);
  }

  void step() {
    Open& current = open_.back();
    if (current.element != current.elementsEnd) {
      indent(open_.size());
      printInside(*current.element++);
    } else if (current.member != current.membersEnd) {
      indent(open_.size());
      const Member& member = *current.member++;
      appendText(out_, member.key);
      out_ += " = ";
      printInside(member.value);
    } else {
      indent(open_.size() - 1);
      out_ += current.isArray ? ')' : '}';
      open_.pop_back();
      if (!open_.empty()) endValue();
    }
  }

  void printInside(const Value& value) {
    if (value.isArray() || value.isObject()) return open(value);
    const bool isNumber = value.kind() == Value::Kind::kBoolean || value.kind() == Value::Kind::kSigned ||
                          value.kind() == Value::Kind::kUnsigned || value.kind() == Value::Kind::kDouble;
    if (isNumber)
      out_ += scalarText(value);
    else
      appendText(out_, scalarText(value));
    endValue();
  }

  /// What follows a value on its line.
  void endValue() {
    const Open& current = open_.back();
    if (!current.isArray)
      out_ += ";\n";
    else
      out_ += current.element != current.elementsEnd ? ",\n" : "\n";
  }

  std::string out_;
  std::vector<Open> open_;
};

/// A placeholder: its conversion letter and whether 64 bits are meant; `length` is 0 when it is none that is known.
struct Placeholder {
  char conversion = 0;
  bool isLong = false;
  std::size_t length = 0;
};

/// Reads the placeholder behind a percent sign.
Placeholder placeholderAt(std::string_view text) {
  std::size_t longs = 0;
  while (longs < text.size() && longs < 2 && text[longs] == 'l') ++longs;
  if (longs == text.size()) return {};
  const char c = text[longs];
  const bool known = c == 'd' || c == 'i' || c == 'u' || (longs == 0 && (c == '@' || c == '%'));
  return known ? Placeholder{c, longs > 0, longs + 1} : Placeholder{};
}

std::string integerText(const Placeholder& placeholder, std::int64_t integer) {
  if (placeholder.conversion == 'u')
    return placeholder.isLong ? shortestText(static_cast<std::uint64_t>(integer))
                              : shortestText(static_cast<std::uint32_t>(integer));
  return placeholder.isLong ? shortestText(integer) : shortestText(static_cast<std::int32_t>(integer));
}

[[noreturn]] void raiseFormat(std::string_view format, const char* fault) {
  throw Exception(kInvalidArgumentException, "*** stringWithFormat: " + std::string(fault) + " in \"" + std::string(format) + "\"");
}

}  // namespace

std::string Value::description() const { return isArray() || isObject() ? Printer().print(*this) : scalarText(*this); }

std::string stringWithFormat(std::string_view format, std::initializer_list<FormatArgument> arguments) {
  using Sort = FormatArgument::Sort;
  std::string out;
  const FormatArgument* next = arguments.begin();
  for (std::size_t at = 0; at < format.size();) {
    const std::size_t percent = std::min(format.find('%', at), format.size());
    out += format.substr(at, percent - at);
    if (percent == format.size()) break;
    const Placeholder placeholder = placeholderAt(format.substr(percent + 1));
    if (placeholder.length == 0) raiseFormat(format, "unknown placeholder");
    at = percent + 1 + placeholder.length;
    if (placeholder.conversion == '%') {
      out += '%';
      continue;
    }
    if (next == arguments.end()) raiseFormat(format, "placeholder without an argument");
    const FormatArgument& argument = *next++;
    const bool isInteger = argument.sort_ == Sort::kSigned || argument.sort_ == Sort::kUnsigned;
    if (isInteger == (placeholder.conversion == '@')) raiseFormat(format, "argument of another sort");
    if (isInteger)
      out += integerText(placeholder, argument.integer_);
    else if (argument.sort_ == Sort::kAbsent)
      out += "(null)";
    else if (argument.sort_ == Sort::kText)
      out += argument.text_;
    else
      out += argument.describe_(argument.object_);
  }
  return out;
}

}  // namespace platform
