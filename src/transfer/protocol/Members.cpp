// Members of JSON objects: read with suspicion, written without failure.
#include "transfer/protocol/Members.h"

#include <algorithm>
#include <cmath>

#include "platform/Data.h"
#include "platform/JSONSerialization.h"

namespace transfer::detail {
namespace {

using platform::Array;
using platform::Data;
using platform::Dictionary;
using platform::Value;

std::string quoted(std::string_view key) { return "“" + std::string(key) + "”"; }

bool isNumber(const Value& value) {
  return value.kind() == Value::Kind::kSigned || value.kind() == Value::Kind::kUnsigned || value.kind() == Value::Kind::kDouble;
}

double asNumber(const Value& value) {
  if (value.kind() == Value::Kind::kSigned) return static_cast<double>(value.signedInteger());
  if (value.kind() == Value::Kind::kUnsigned) return static_cast<double>(value.unsignedInteger());
  return value.number();
}

// NUL would cut a text short wherever the system takes it for an end.
bool isCleanText(const Value& value) { return value.isString() && value.string().view().find('\0') == std::string_view::npos; }

bool isHexadecimal(std::string_view text) {
  return std::ranges::all_of(
      text, [](char each) { return (each >= '0' && each <= '9') || (each >= 'a' && each <= 'f') || (each >= 'A' && each <= 'F'); });
}

/// Length of the character at the front; 0 when there is none.
std::size_t characterLength(std::string_view text) {
  for (std::size_t length = 1; length <= std::min<std::size_t>(4, text.size()); ++length)
    if (platform::isWellFormedUtf8(text.substr(0, length))) return length;
  return 0;
}

std::string repaired(std::string_view text) {
  std::string repaired;
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    if (length == 0) {
      repaired += "\xEF\xBF\xBD";
    } else {
      repaired += text.substr(0, length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return repaired;
}

}  // namespace

const Value* MemberReader::member(std::string_view key) {
  const Value* const value = object_.find(key);
  if (!value) fail(quoted(key) + " is missing");
  return value;
}

std::string MemberReader::text(std::string_view key) {
  const Value* const value = member(key);
  if (!value) return {};
  if (isCleanText(*value)) return value->string().description();
  fail(quoted(key) + " is no text");
  return {};
}

std::string MemberReader::nonEmptyText(std::string_view key) {
  std::string text = this->text(key);
  if (text.empty()) fail(quoted(key) + " is empty");
  return text;
}

std::optional<std::string> MemberReader::optionalText(std::string_view key) {
  return has(key) ? std::optional(text(key)) : std::nullopt;
}

std::string MemberReader::absolutePath(std::string_view key) {
  std::string path = text(key);
  if (!path.starts_with('/')) fail(quoted(key) + " is no absolute path");
  return path;
}

std::vector<std::string> MemberReader::texts(std::string_view key) {
  std::vector<std::string> texts;
  for (const Array values = array(key); const Value& value : values) {
    if (!isCleanText(value)) {
      fail(quoted(key) + " holds what is no text");
      return {};
    }
    texts.push_back(value.string().description());
  }
  return texts;
}

std::vector<std::string> MemberReader::command(std::string_view key) {
  std::vector<std::string> command = texts(key);
  if (!command.empty() && !command.front().starts_with('/')) fail(quoted(key) + " does not begin with an absolute path");
  return command;
}

std::uint64_t MemberReader::whole(std::string_view key) {
  const Value* const value = member(key);
  if (!value) return 0;
  if (value->kind() == Value::Kind::kUnsigned) return value->unsignedInteger();
  if (value->kind() == Value::Kind::kSigned && value->signedInteger() >= 0)
    return static_cast<std::uint64_t>(value->signedInteger());
  fail(quoted(key) + " is no whole number of 64 bits");
  return 0;
}

std::int64_t MemberReader::wholeUpTo(std::string_view key, std::int64_t most) {
  const std::uint64_t number = whole(key);
  if (number <= static_cast<std::uint64_t>(most)) return static_cast<std::int64_t>(number);
  fail(quoted(key) + " is above " + std::to_string(most));
  return 0;
}

bool MemberReader::boolean(std::string_view key) {
  const Value* const value = member(key);
  if (!value) return false;
  if (value->kind() == Value::Kind::kBoolean) return value->boolean();
  fail(quoted(key) + " is neither true nor false");
  return false;
}

double MemberReader::number(std::string_view key) {
  const Value* const value = member(key);
  if (!value) return 0;
  const double number = isNumber(*value) ? asNumber(*value) : -1;
  if (std::isfinite(number) && number >= 0) return number;
  fail(quoted(key) + " is no number from 0 on");
  return 0;
}

std::optional<double> MemberReader::optionalNumber(std::string_view key) {
  return has(key) ? std::optional(number(key)) : std::nullopt;
}

Dictionary MemberReader::object(std::string_view key) {
  const Value* const value = member(key);
  if (!value) return {};
  if (value->isObject()) return value->object();
  fail(quoted(key) + " is no object");
  return {};
}

Array MemberReader::array(std::string_view key) {
  const Value* const value = member(key);
  if (!value) return {};
  if (value->isArray()) return value->array();
  fail(quoted(key) + " is no array");
  return {};
}

ApplicationIdentity MemberReader::application(std::string_view key) {
  MemberReader part(object(key));
  if (failure_) return {};
  ApplicationIdentity application{
      .identifier = part.nonEmptyText("identifier"), .folder = part.absolutePath("folder"), .token = part.text("token")};
  if (application.token.size() != 64 || !isHexadecimal(application.token)) part.fail("“token” is not 64 hexadecimal digits");
  takeFailure(part);
  return application;
}

std::optional<platform::Error> MemberReader::optionalError(std::string_view key) {
  if (!has(key)) return std::nullopt;
  MemberReader part(object(key));
  if (failure_) return std::nullopt;
  std::string domain = part.text("domain");
  const Value* const code = part.member("code");
  if (code && code->kind() != Value::Kind::kSigned) part.fail("“code” is no whole number of 64 bits");
  std::string description = part.text("description");
  takeFailure(part);
  if (failure_) return std::nullopt;
  return platform::Error(std::move(domain), code->signedInteger(), std::move(description));
}

std::expected<Dictionary, std::string> objectOf(std::string_view text) {
  if (text.find('\n') != std::string_view::npos) return std::unexpected("a line feed inside");
  if (text.find('\0') != std::string_view::npos) return std::unexpected("a NUL inside");
  if (!platform::isWellFormedUtf8(text)) return std::unexpected("not UTF-8");
  const std::expected<Value, platform::Error> value = platform::JSONSerialization::JSONObjectWithData(Data(text));
  if (!value) return std::unexpected("not JSON");
  if (!value->isObject()) return std::unexpected("no JSON object");
  return value->object();
}

Value textValue(std::string_view text) { return platform::isWellFormedUtf8(text) ? Value(text) : Value(repaired(text)); }

Value textsValue(const std::vector<std::string>& texts) {
  Array values;
  for (const std::string& text : texts) values.addObject(textValue(text));
  return values;
}

Value applicationValue(const ApplicationIdentity& application) {
  return Dictionary{{"identifier", textValue(application.identifier)},
                    {"folder", textValue(application.folder)},
                    {"token", textValue(application.token)}};
}

Value errorValue(const platform::Error& error) {
  return Dictionary{{"domain", textValue(error.domain())},
                    {"code", Value(error.code())},
                    {"description", textValue(error.localizedDescription())}};
}

Value numberValue(double number) { return std::isfinite(number) ? Value(number) : Value(0); }

std::string lineOf(const Dictionary& object) {
  // Every text is well-formed and every number finite by now, so nothing is left that could fail.
  return std::string(platform::JSONSerialization::dataWithJSONObject(Value(object)).value().bytes()) + "\n";
}

}  // namespace transfer::detail
