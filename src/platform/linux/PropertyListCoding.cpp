// The wrapping of dates, data and the other things that JSON has no form for.
//
// A wrapper is an object with one key that begins with '$'. An object of the application's own with such a key, or with a key that
// is not UTF-8, is written as a list of its entries, so that nothing the application stores can be taken for a wrapper. Recursion
// is bounded by the depth that JSON is read to.
#include "platform/linux/PropertyListCoding.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

#include "platform/Exception.h"
#include "platform/JSONSerialization.h"

namespace platform {
namespace {

constexpr std::string_view kDate = "$date";      // seconds since 1970
constexpr std::string_view kData = "$data";      // base64
constexpr std::string_view kString = "$string";  // base64 of bytes that are not UTF-8
constexpr std::string_view kReal = "$real";      // a floating-point number whose text would read back as an integer, or as nothing
constexpr std::string_view kObject = "$object";  // a list of [key, value]

// The file itself has up to four levels: the document, and its values as an object or as a wrapped list of entries.
constexpr int kMaxEncodedDepth = kMaxJSONDepth - 4;

[[noreturn]] void refuse(const char* what) {
  throw Exception(kInvalidArgumentException, std::string("Attempt to store ") + what + " in a property list");
}

Value wrapped(std::string_view name, Value content) {
  Dictionary wrapper;
  wrapper.setObjectForKey(std::move(content), String(name));
  return wrapper;
}

Value encodedText(const String& text) {
  return isWellFormedUtf8(text.view()) ? Value(text) : wrapped(kString, Data(text).base64EncodedString());
}

// A number, or the name of one that JSON cannot tell from another or cannot write.
Value numberOrName(double number) {
  if (std::isnan(number)) return "nan";
  if (std::isinf(number)) return number > 0 ? "inf" : "-inf";
  if (number == 0 && std::signbit(number)) return "-0";
  return number;
}

std::optional<double> realFrom(const Value& numberOrName) {
  switch (numberOrName.kind()) {
    case Value::Kind::kDouble:
      return numberOrName.number();
    case Value::Kind::kSigned:
      return static_cast<double>(numberOrName.signedInteger());
    case Value::Kind::kUnsigned:
      return static_cast<double>(numberOrName.unsignedInteger());
    case Value::Kind::kString: {
      const std::string_view name = numberOrName.string();
      if (name == "nan") return std::numeric_limits<double>::quiet_NaN();
      if (name == "inf") return std::numeric_limits<double>::infinity();
      if (name == "-inf") return -std::numeric_limits<double>::infinity();
      if (name == "-0") return -0.0;
      return std::nullopt;
    }
    default:
      return std::nullopt;
  }
}

Value encodedReal(double number) {
  const bool hasFraction = std::isfinite(number) && std::trunc(number) != number;
  return hasFraction ? Value(number) : wrapped(kReal, numberOrName(number));
}

bool needsListOfEntries(const Dictionary& object) {
  return std::any_of(object.begin(), object.end(), [](const Member& member) {
    return member.key.view().starts_with('$') || !isWellFormedUtf8(member.key.view());
  });
}

Value encode(const Value& value, int depthLeft);

int oneLevelLess(int depthLeft, int levels = 1) {
  if (depthLeft < levels) refuse("a value that is nested too deeply");
  return depthLeft - levels;
}

Value encodedArray(const Array& array, int depthLeft) {
  const int inside = oneLevelLess(depthLeft);
  Array encoded;
  encoded.reserve(array.count());
  for (const Value& element : array) encoded.addObject(encode(element, inside));
  return encoded;
}

Value encodedObject(const Dictionary& object, int depthLeft) {
  if (needsListOfEntries(object)) {
    const int inside = oneLevelLess(depthLeft, 3);
    Array entries;
    for (const auto& [key, value] : object) entries.addObject(Value(Array{encode(key, inside), encode(value, inside)}));
    return wrapped(kObject, std::move(entries));
  }
  const int inside = oneLevelLess(depthLeft);
  Dictionary encoded;
  encoded.reserve(object.count());
  for (const auto& [key, value] : object) encoded.setObjectForKey(encode(value, inside), key);
  return encoded;
}

Value encode(const Value& value, int depthLeft) {
  switch (value.kind()) {
    case Value::Kind::kNull:
      refuse("null");
    case Value::Kind::kBoolean:
    case Value::Kind::kSigned:
    case Value::Kind::kUnsigned:
      return value;
    case Value::Kind::kDouble:
      return encodedReal(value.number());
    case Value::Kind::kString:
      return encodedText(value.string());
    case Value::Kind::kDate:
      return wrapped(kDate, numberOrName(value.date().timeIntervalSince1970()));
    case Value::Kind::kData:
      return wrapped(kData, value.data().base64EncodedString());
    case Value::Kind::kArray:
      return encodedArray(value.array(), depthLeft);
    case Value::Kind::kObject:
      return encodedObject(value.object(), depthLeft);
  }
  refuse("a value of an unknown kind");
}

int sixBits(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  return c == '+' ? 62 : c == '/' ? 63 : -1;
}

// Strict: padded, no line breaks, as Data writes it.
std::optional<std::string> bytesFromBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
  std::string bytes;
  std::uint32_t bits = 0;
  int count = 0;
  for (const char c : text.substr(0, text.size() - padding)) {
    const int six = sixBits(c);
    if (six < 0) return std::nullopt;
    bits = (bits << 6) | static_cast<std::uint32_t>(six);
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes += static_cast<char>((bits >> count) & 0xFF);
  }
  return bytes;
}

std::optional<Value> decodedEntries(const Value& entries) {
  if (!entries.isArray()) return std::nullopt;
  Dictionary object;
  for (const Value& entry : entries.array()) {
    if (!entry.isArray() || entry.count() != 2) return std::nullopt;
    const std::optional<Value> key = decodedPropertyList(entry.array()[0]);
    const std::optional<Value> value = decodedPropertyList(entry.array()[1]);
    if (!key || !key->isString() || !value) return std::nullopt;
    object.setObjectForKey(*value, key->string());
  }
  return object;
}

std::optional<Value> unwrapped(std::string_view name, const Value& content) {
  if (name == kObject) return decodedEntries(content);
  if (name == kDate || name == kReal) {
    const std::optional<double> number = realFrom(content);
    if (!number) return std::nullopt;
    return name == kReal ? Value(*number) : Value(Date::dateWithTimeIntervalSince1970(*number));
  }
  if (!content.isString() || (name != kData && name != kString)) return std::nullopt;
  const std::optional<std::string> bytes = bytesFromBase64(content.string());
  if (!bytes) return std::nullopt;
  return name == kData ? Value(Data(std::string_view(*bytes))) : Value(*bytes);
}

std::optional<Value> decodedObject(const Dictionary& encoded) {
  if (needsListOfEntries(encoded)) {
    const Member& only = *encoded.begin();
    return encoded.count() == 1 ? unwrapped(only.key, only.value) : std::nullopt;
  }
  Dictionary object;
  object.reserve(encoded.count());
  for (const auto& [key, inside] : encoded) {
    const std::optional<Value> value = decodedPropertyList(inside);
    if (!value) return std::nullopt;
    object.setObjectForKey(*value, key);
  }
  return object;
}

std::optional<Value> decodedArray(const Array& encoded) {
  Array array;
  array.reserve(encoded.count());
  for (const Value& inside : encoded) {
    const std::optional<Value> value = decodedPropertyList(inside);
    if (!value) return std::nullopt;
    array.addObject(*value);
  }
  return array;
}

}  // namespace

void expectPropertyListValue(const Value& value, std::string_view key) {
  try {
    (void)encode(value, kMaxEncodedDepth);
  } catch (const Exception& exception) {
    throw Exception(exception.name(), exception.reason() + " for the key '" + std::string(key) + "'");
  }
}

Value encodedPropertyList(const Value& value) { return encode(value, kMaxJSONDepth); }

std::optional<Value> decodedPropertyList(const Value& encoded) {
  if (encoded.isNull()) return std::nullopt;
  if (encoded.isArray()) return decodedArray(encoded.array());
  if (encoded.isObject()) return decodedObject(encoded.object());
  return encoded;
}

}  // namespace platform
