// JSON text of a value: one growing block, and a list of the open containers in place of recursion.
#include "platform/JSONWriter.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory_resource>
#include <vector>

#include "platform/Data.h"
#include "platform/Exception.h"

namespace platform {
namespace {

[[noreturn]] void raise(const char* reason) { throw Exception(kInvalidArgumentException, reason); }

/// What stands for a byte in JSON text: nothing for one that stands for itself, else the letter of its short form, or 'u'.
constexpr std::array<char, 256> kEscapes = [] {
  std::array<char, 256> escapes{};
  for (std::size_t control = 0; control < 0x20; ++control) escapes[control] = 'u';
  escapes['\b'] = 'b';
  escapes['\t'] = 't';
  escapes['\n'] = 'n';
  escapes['\f'] = 'f';
  escapes['\r'] = 'r';
  escapes['"'] = '"';
  escapes['\\'] = '\\';
  return escapes;
}();

/// Some bit set when any of eight bytes is a control character, a quotation mark, a backslash or not ASCII. (A borrow between bytes
/// can only come from a byte that is itself such a one, so that it never hides one and never invents one.)
std::uint64_t unusualBytes(std::uint64_t eight) {
  constexpr std::uint64_t kOnes = 0x0101010101010101u;
  constexpr std::uint64_t kHighs = 0x8080808080808080u;
  const std::uint64_t quotes = eight ^ (kOnes * '"');
  const std::uint64_t backslashes = eight ^ (kOnes * '\\');
  return (eight | (eight - kOnes * 0x20) | (quotes - kOnes) | (backslashes - kOnes)) & kHighs;
}

bool isPlain(const char* eightBytes) {
  std::uint64_t eight;
  std::memcpy(&eight, eightBytes, sizeof eight);
  return unusualBytes(eight) == 0;
}

/// How many bytes at the start certainly stand for themselves.
std::size_t plainPrefix(std::string_view text) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  std::size_t at = 0;
  while (text.size() - at >= kWord && isPlain(text.data() + at)) at += kWord;
  if (at > 0 && text.size() - at < kWord && isPlain(text.data() + text.size() - kWord)) return text.size();
  while (at < text.size() && kEscapes[static_cast<unsigned char>(text[at])] == 0 && static_cast<unsigned char>(text[at]) < 0x80)
    ++at;
  return at;
}

class Writer {
 public:
  std::expected<String, Error> write(const Value& top) {
    if (!top.isArray() && !top.isObject()) raise("Invalid top-level type in JSON write");
    open(top);
    while (!open_.empty() && !illFormed_) step();
    if (!illFormed_) return out_.take();
    return std::unexpected(Error(kCocoaErrorDomain, kPropertyListWriteInvalid,
                                 "The data couldn’t be written because it isn’t in the correct format.",
                                 "A string is not well-formed UTF-8, at byte " + std::to_string(out_.length()) + " of the text."));
  }

 private:
  struct Open {
    const Value* element = nullptr;  // of an array, the next one
    const Value* elementsEnd = nullptr;
    const Member* member = nullptr;  // of an object, the next one
    const Member* membersEnd = nullptr;
    bool isArray = false;
    bool isFirst = true;
  };

  void open(const Value& container) {
    Open& opened = open_.emplace_back();
    opened.isArray = container.isArray();
    out_.push(opened.isArray ? '[' : '{');
    if (opened.isArray) {
      opened.element = container.array().begin();
      opened.elementsEnd = container.array().end();
    } else {
      opened.member = container.object().begin();
      opened.membersEnd = container.object().end();
    }
  }

  /// Writes the innermost container's next value, or its end.
  void step() {
    Open& current = open_.back();
    if (current.element == current.elementsEnd && current.member == current.membersEnd) {
      out_.push(current.isArray ? ']' : '}');
      open_.pop_back();
      return;
    }
    if (!current.isFirst) out_.push(',');
    current.isFirst = false;
    if (current.isArray) return writeValue(*current.element++);
    const Member& member = *current.member++;
    writeString(member.key);
    out_.push(':');
    if (!illFormed_) writeValue(member.value);
  }

  void writeValue(const Value& value) {
    switch (value.kind()) {
      case Value::Kind::kNull:
        return out_.append("null");
      case Value::Kind::kBoolean:
        return out_.append(value.boolean() ? "true" : "false");
      case Value::Kind::kSigned:
        return writeNumber(value.signedInteger());
      case Value::Kind::kUnsigned:
        return writeNumber(value.unsignedInteger());
      case Value::Kind::kDouble:
        return writeDouble(value.number());
      case Value::Kind::kString:
        return writeString(value.string());
      case Value::Kind::kArray:
      case Value::Kind::kObject:
        return open(value);
      case Value::Kind::kDate:
        raise("Invalid type in JSON write (NSDate)");
      case Value::Kind::kData:
        raise("Invalid type in JSON write (NSData)");
    }
  }

  template <class Number>
  void writeNumber(Number number) {
    constexpr std::size_t kLongest = 32;
    char* const at = out_.room(kLongest);
    out_.grown(static_cast<std::size_t>(std::to_chars(at, at + kLongest, number).ptr - at));
  }

  void writeDouble(double number) {
    if (std::isnan(number)) raise("Invalid number value (NaN) in JSON write");
    if (std::isinf(number)) raise("Invalid number value (infinite) in JSON write");
    writeNumber(number);
  }

  void writeString(std::string_view text) {
    out_.push('"');
    const std::size_t plain = plainPrefix(text);
    out_.append(text.substr(0, plain));
    if (plain < text.size()) writeRest(text, plain);
    out_.push('"');
  }

  /// The string from its first unusual byte on.
  void writeRest(std::string_view text, std::size_t from) {
    if (!isWellFormedUtf8(text)) {
      illFormed_ = true;
      return;
    }
    std::size_t copied = from;
    for (std::size_t at = from; at < text.size(); ++at) {
      const char escape = kEscapes[static_cast<unsigned char>(text[at])];
      if (escape == 0) continue;
      out_.append(text.substr(copied, at - copied));
      copied = at + 1;
      writeEscape(escape, text[at]);
    }
    out_.append(text.substr(copied));
  }

  void writeEscape(char escape, char byte) {
    constexpr char kDigits[] = "0123456789abcdef";
    out_.push('\\');
    out_.push(escape);
    if (escape != 'u') return;
    out_.append("00");
    out_.push(kDigits[byte >> 4]);
    out_.push(kDigits[byte & 15]);
  }

  static constexpr std::size_t kOpenWithoutAllocating = 12;

  StringBuilder out_;
  alignas(Open) std::array<std::byte, kOpenWithoutAllocating * sizeof(Open)> space_;
  std::pmr::monotonic_buffer_resource resource_{space_.data(), space_.size()};
  std::pmr::vector<Open> open_{&resource_};
  bool illFormed_ = false;
};

}  // namespace

std::expected<String, Error> JSONTextOfValue(const Value& value) { return Writer().write(value); }

}  // namespace platform
