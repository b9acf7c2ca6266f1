// The JSON service: RapidJSON's event reader into Values, and the platform's own writer.
//
// The reader runs with its iterative parser and hands numbers over as their text: they are read here, because an integer must keep
// all its 64 bits and a double must be the nearest one. RapidJSON stops at a NUL and lets a lone second surrogate pass; both are
// caught here.
#include "platform/linux/RapidJSONSerialization.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <span>
#include <vector>

#include "platform/JSONWriter.h"

namespace platform {
namespace {

using rapidjson::SizeType;

Error unreadable(std::size_t position, const std::string& detail) {
  return Error(kCocoaErrorDomain, kPropertyListReadCorrupt, "The data couldn’t be read because it isn’t in the correct format.",
               detail + " Byte " + std::to_string(position) + ".");
}

/// Whether a number that no double holds is too large for one, rather than too small: by the decimal place of its first digit.
bool isTooLarge(std::string_view text) {
  if (text.front() == '-') text.remove_prefix(1);
  const std::string_view mantissa = text.substr(0, text.find_first_of("eE"));
  const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
  const std::size_t first = mantissa.find_first_of("123456789");
  if (first == std::string_view::npos) return false;
  std::string_view exponent = text.substr(std::min(mantissa.size() + 1, text.size()));
  if (exponent.starts_with('+')) exponent.remove_prefix(1);
  std::int64_t shift = 0;
  if (std::from_chars(exponent.data(), exponent.data() + exponent.size(), shift).ec == std::errc::result_out_of_range)
    return !exponent.starts_with('-');
  // The exponent may be any 64-bit number: the places are compared with it, as a sum of the two may not fit.
  return shift > static_cast<std::int64_t>(first) - static_cast<std::int64_t>(point);
}

/// The double that is nearest to a JSON number; absent when it would be infinite.
std::optional<Value> nearestDouble(std::string_view text) {
  double number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec == std::errc() && std::isfinite(number)) return Value(number);
  if (isTooLarge(text)) return std::nullopt;
  return Value(text.front() == '-' ? -0.0 : 0.0);
}

/// Signed 64-bit, else unsigned 64-bit, else double (platform row J9). A negative zero is a double, or it would lose its sign.
std::optional<Value> numberOf(std::string_view text) {
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  if (text == "-0") return Value(-0.0);
  std::int64_t integer = 0;
  if (const auto result = std::from_chars(begin, end, integer); result.ec == std::errc() && result.ptr == end)
    return Value(integer);
  std::uint64_t large = 0;
  if (const auto result = std::from_chars(begin, end, large); result.ec == std::errc() && result.ptr == end) return Value(large);
  return nearestDouble(text);
}

/// Builds the value from the reader's events. Finished values wait on a stack until the container around them ends and takes them.
class ValueBuilder {
 public:
  ValueBuilder() {  // room for what an ordinary text needs
    values_.reserve(16);
    keys_.reserve(16);
    members_.reserve(16);
  }

  const std::string& fault() const { return fault_; }
  Value take() { return std::move(values_.back()); }

  // NOLINTBEGIN(readability-identifier-naming): RapidJSON's names
  bool Null() { return add(Value()); }
  bool Bool(bool boolean) { return add(Value(boolean)); }
  bool RawNumber(const char* text, SizeType length, bool) {
    std::optional<Value> number = numberOf({text, length});
    return number ? add(*std::move(number)) : fail("Number too big to be stored in double.");
  }
  bool String(const char* text, SizeType length, bool) {
    const std::string_view bytes(text, length);
    return isWellFormedUtf8(bytes) ? add(Value(bytes)) : fail("The surrogate pair in string is invalid.");
  }
  bool Key(const char* text, SizeType length, bool) {
    const std::string_view bytes(text, length);
    if (!isWellFormedUtf8(bytes)) return fail("The surrogate pair in string is invalid.");
    keys_.emplace_back(bytes);
    return true;
  }
  bool StartObject() { return enter(); }
  bool StartArray() { return enter(); }
  bool EndObject(SizeType count) {
    --depth_;
    members_.clear();
    for (std::size_t at = 0; at < count; ++at)
      members_.push_back({std::move(keys_[keys_.size() - count + at]), std::move(values_[values_.size() - count + at])});
    keys_.resize(keys_.size() - count);
    values_.resize(values_.size() - count);
    return add(Dictionary::fromMembers(std::span(members_)));
  }
  bool EndArray(SizeType count) {
    --depth_;
    Array array = Array::fromValues(std::span(values_).last(count));
    values_.resize(values_.size() - count);
    return add(std::move(array));
  }

  // The reader names these too; with numbers as text it calls none of them.
  bool Int(int number) { return add(Value(number)); }
  bool Uint(unsigned number) { return add(Value(number)); }
  bool Int64(std::int64_t number) { return add(Value(number)); }
  bool Uint64(std::uint64_t number) { return add(Value(number)); }
  bool Double(double number) { return add(Value(number)); }
  // NOLINTEND(readability-identifier-naming)

 private:
  bool add(Value value) {
    values_.push_back(std::move(value));
    return true;
  }
  bool enter() { return ++depth_ <= kMaxJSONDepth || fail("Too many nested arrays or dictionaries."); }
  bool fail(const char* fault) {
    fault_ = fault;
    return false;
  }

  std::vector<Value> values_;
  std::vector<platform::String> keys_;  // of the objects that are open
  std::vector<Member> members_;
  int depth_ = 0;
  std::string fault_;
};

class RapidJSONSerialization final : public JSONSerialization {
 public:
  std::expected<Data, Error> write(const Value& object) override {
    std::expected<String, Error> text = JSONTextOfValue(object);
    if (!text) return std::unexpected(std::move(text).error());
    return Data(*std::move(text));
  }

  std::expected<Value, Error> read(const Data& data) override {
    constexpr unsigned kFlags =
        rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag | rapidjson::kParseNumbersAsStringsFlag;
    const std::string_view text = data.bytes();
    if (text.size() > std::numeric_limits<SizeType>::max()) return std::unexpected(unreadable(0, "The text is too long."));
    rapidjson::MemoryStream stream(text.data(), text.size());
    rapidjson::Reader reader;
    ValueBuilder builder;
    const rapidjson::ParseResult result = reader.Parse<kFlags>(stream, builder);
    if (result.IsError())
      return std::unexpected(unreadable(
          result.Offset(), builder.fault().empty() ? std::string(rapidjson::GetParseError_En(result.Code())) : builder.fault()));
    if (stream.Tell() != text.size()) return std::unexpected(unreadable(stream.Tell(), "A NUL follows the document root."));
    Value value = builder.take();
    if (!value.isArray() && !value.isObject())
      return std::unexpected(unreadable(0, "The document root is neither an object nor an array."));
    return value;
  }
};

}  // namespace

std::shared_ptr<JSONSerialization> makeRapidJSONSerialization() { return std::make_shared<RapidJSONSerialization>(); }

}  // namespace platform
