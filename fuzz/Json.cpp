// JSON both ways: texts read beside a second parser, values written and read back.
//
// Input: a JSON text; or, behind a '!', a small program that builds a value of whatever JSON has and has not, one byte an order.
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "common/Check.h"
#include "common/Input.h"
#include "common/SecondJSON.h"
#include "platform/Exception.h"
#include "platform/JSONSerialization.h"
#include "platform/linux/RapidJSONSerialization.h"

namespace {

using platform::Array;
using platform::Data;
using platform::Dictionary;
using platform::Value;

platform::JSONSerialization& json() {
  static const auto kJson = platform::makeRapidJSONSerialization();
  return *kJson;
}

/// A value and what writing it has to end with.
struct Built {
  Value value;
  bool hasForeignKind = false;  // a date, data, or a number that is not finite: a raise
  bool hasIllFormedText = false;

  void takeFaults(const Built& part) {
    hasForeignKind = hasForeignKind || part.hasForeignKind;
    hasIllFormedText = hasIllFormedText || part.hasIllFormedText;
  }
};

std::uint64_t eightBytes(fuzz::Input& input) {
  std::uint64_t number = 0;
  const std::string_view bytes = input.bytes(sizeof number);
  std::memcpy(&number, bytes.data(), bytes.size());
  return number;
}

Built text(fuzz::Input& input) {
  const std::string_view bytes = input.bytes(input.byte());
  return {.value = Value(bytes), .hasIllFormedText = !platform::isWellFormedUtf8(bytes)};
}

Built real(fuzz::Input& input) {
  const auto number = std::bit_cast<double>(eightBytes(input));
  return {.value = Value(number), .hasForeignKind = !std::isfinite(number)};
}

/// Puts the last values of the stack into a container: an array, or an object under the texts that follow.
Built container(fuzz::Input& input, std::vector<Built>& stack, bool isArray) {
  Built whole;
  Array array;
  Dictionary object;
  for (std::size_t count = std::min<std::size_t>(input.byte(), stack.size()); count > 0; --count) {
    Built part = stack.back();
    stack.pop_back();
    if (isArray) {
      array.addObject(part.value);
    } else {
      const Built key = text(input);
      if (object.find(key.value.string())) continue;
      whole.takeFaults(key);
      object.setObjectForKey(part.value, key.value.string());
    }
    whole.takeFaults(part);
  }
  whole.value = isArray ? Value(array) : Value(object);
  return whole;
}

Built next(fuzz::Input& input, std::vector<Built>& stack) {
  switch (const std::uint8_t order = input.byte()) {
    case 'n':
      return {};
    case 't':
    case 'f':
      return {.value = Value(order == 't')};
    case 'i':
      return {.value = Value(static_cast<std::int64_t>(eightBytes(input)))};
    case 'u':
      return {.value = Value(eightBytes(input))};
    case 'r':
      return real(input);
    case 'd':
      return {.value = Value(platform::Date()), .hasForeignKind = true};
    case 'b':
      return {.value = Value(Data("bytes")), .hasForeignKind = true};
    case 's':
      return text(input);
    default:
      return container(input, stack, order != 'o');
  }
}

/// An integer-valued double is written without a fraction and reads back as an integer: the same number of another kind.
void checkRoundTrip(const Value& value, const Data& written) {
  const auto second = fuzz::readBySecondParser(written.bytes());
  const auto first = json().read(written);
  fuzz::check(first.has_value() == second.has_value(), "the parsers disagree on what was written");
  if (!first) return;  // deeper than what is read
  fuzz::check(*first == value, "what was written reads back as another value");
  fuzz::check(fuzz::isIdentical(*first, *second), "the parsers read what was written differently");
  fuzz::check(json().write(*first).value() == written, "what was read back is written differently");
  fuzz::check(written.bytes().find('\n') == std::string_view::npos, "a line feed stands in a written text");
}

int depthOf(const Value& value) {
  int deepest = 0;
  if (value.isArray())
    for (const Value& element : value.array()) deepest = std::max(deepest, depthOf(element));
  if (value.isObject())
    for (const platform::Member& member : value.object()) deepest = std::max(deepest, depthOf(member.value));
  return value.isArray() || value.isObject() ? deepest + 1 : 0;
}

void writeBuilt(fuzz::Input& input) {
  std::vector<Built> stack;
  while (!input.isAtEnd()) stack.push_back(next(input, stack));
  if (stack.empty()) return;
  const Built& built = stack.back();
  const bool isContainer = built.value.isArray() || built.value.isObject();
  try {
    const auto written = json().write(built.value);
    fuzz::check(isContainer, "a scalar was written");
    fuzz::check(written || built.hasIllFormedText, "a well-formed value was not written");
    if (!written) return;
    fuzz::check(!built.hasForeignKind && !built.hasIllFormedText, "what JSON has no form for was written");
    if (depthOf(built.value) <= platform::kMaxJSONDepth)
      fuzz::check(json().read(*written).has_value(), "a written text is not read");
    checkRoundTrip(built.value, *written);
  } catch (const platform::Exception& exception) {
    fuzz::check(!isContainer || built.hasForeignKind, "writing raised: " + exception.reason());
  }
}

void readText(std::string_view text) {
  const auto first = json().read(Data(text));
  const auto second = fuzz::readBySecondParser(text);
  fuzz::check(!first || second, "only the second parser refuses the text");
  fuzz::check(first || !second, "only the second parser takes the text");
  if (!first) {
    fuzz::check(first.error().code() == platform::kPropertyListReadCorrupt, "a refusal has another code");
    return;
  }
  fuzz::check(fuzz::isIdentical(*first, *second), "the parsers read different values");
  const auto written = json().write(*first);
  fuzz::check(written.has_value(), "what was read cannot be written");
  checkRoundTrip(*first, *written);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  if (input.rest().starts_with('!')) {
    input.byte();
    writeBuilt(input);
  } else {
    readText(input.rest());
  }
  return 0;
}
