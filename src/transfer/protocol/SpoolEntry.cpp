// Entries of the spool folder as a line of JSON, both ways.
#include "transfer/protocol/SpoolEntry.h"

#include <algorithm>

#include "platform/Data.h"
#include "transfer/protocol/Members.h"

namespace transfer {
namespace {

using detail::MemberReader;
using detail::textValue;
using platform::Array;
using platform::Dictionary;
using platform::Value;

constexpr std::string_view kIs = "task";
constexpr std::string_view kTokenSigns = "!#$%&'*+-.^_`|~";  // besides letters and digits (RFC 9110 section 5.6.2)

bool isToken(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char each) {
    return (each >= '0' && each <= '9') || (each >= 'a' && each <= 'z') || (each >= 'A' && each <= 'Z') ||
           kTokenSigns.contains(each);
  });
}

Value headerFieldsValue(const std::vector<std::pair<std::string, std::string>>& headerFields) {
  Array values;
  for (const auto& [name, value] : headerFields) values.addObject(Value(Array{textValue(name), textValue(value)}));
  return values;
}

bool isHeaderField(const Value& value) {
  if (!value.isArray() || value.count() != 2) return false;
  const Array& pair = value.array();
  if (!pair[0].isString() || !pair[1].isString() || !isToken(pair[0].string())) return false;
  // A line end in a value would let it say more than its own field.
  return pair[1].string().view().find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

std::vector<std::pair<std::string, std::string>> readHeaderFields(MemberReader& reader) {
  std::vector<std::pair<std::string, std::string>> fields;
  for (const Array values = reader.array("headerFields"); const Value& value : values) {
    if (!isHeaderField(value)) {
      reader.fail("“headerFields” holds what is no header field");
      return {};
    }
    const Array& pair = value.array();
    fields.emplace_back(pair[0].string().description(), pair[1].string().description());
  }
  return fields;
}

std::string readToken(MemberReader& reader, std::string_view key) {
  std::string token = reader.text(key);
  if (!isToken(token)) reader.fail("“" + std::string(key) + "” is no name of a method");
  return token;
}

void checkKind(MemberReader& reader) {
  if (reader.text("is") != kIs) reader.fail("“is” is unknown");
  if (reader.whole("version") != static_cast<std::uint64_t>(kProtocolVersion)) reader.fail("“version” is unknown");
}

void checkLength(MemberReader& reader, std::string_view key, std::string_view text, std::size_t most) {
  if (text.size() > most) reader.fail("“" + std::string(key) + "” is longer than " + std::to_string(most) + " bytes");
}

void checkLengths(MemberReader& reader, const SpoolEntry& entry) {
  checkLength(reader, "session", entry.session, kMaxSessionBytes);
  checkLength(reader, "url", entry.url, kMaxURLBytes);
  checkLength(reader, "file", entry.file, kMaxPathBytes);
}

std::string reasonForLength() { return "longer than " + std::to_string(kMaxMessageBytes) + " bytes"; }

}  // namespace

bool isSessionIdentifier(std::string_view identifier) {
  return !identifier.empty() && identifier.size() <= kMaxSessionBytes && !identifier.contains('\0') &&
         platform::isWellFormedUtf8(identifier);
}

std::string encode(const SpoolEntry& entry) {
  Dictionary object{{"is", Value(kIs)},
                    {"version", Value(kProtocolVersion)},
                    {"application", detail::applicationValue(entry.application)},
                    {"launchCommand", detail::textsValue(entry.launchCommand)},
                    {"session", textValue(entry.session)},
                    {"task", Value(entry.task)},
                    {"method", textValue(entry.method)},
                    {"url", textValue(entry.url)},
                    {"headerFields", headerFieldsValue(entry.headerFields)},
                    {"file", textValue(entry.file)},
                    {"requestTimeout", detail::numberValue(entry.requestTimeout)},
                    {"resumedAt", detail::numberValue(entry.resumedAt)}};
  if (entry.trustAnchors) object.setObjectForKey(textValue(*entry.trustAnchors), "trustAnchors");
  return detail::lineOf(object);
}

std::expected<SpoolEntry, std::string> decodeSpoolEntry(std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  if (text.size() >= kMaxMessageBytes) return std::unexpected(reasonForLength());
  const std::expected<Dictionary, std::string> object = detail::objectOf(text);
  if (!object) return std::unexpected(object.error());
  MemberReader reader(*object);
  checkKind(reader);
  SpoolEntry entry{.application = reader.application("application"),
                   .launchCommand = reader.command("launchCommand"),
                   .session = reader.nonEmptyText("session"),
                   .task = reader.whole("task"),
                   .method = readToken(reader, "method"),
                   .url = reader.text("url"),
                   .headerFields = readHeaderFields(reader),
                   .file = reader.absolutePath("file"),
                   .trustAnchors = reader.optionalText("trustAnchors"),
                   .requestTimeout = reader.number("requestTimeout"),
                   .resumedAt = reader.number("resumedAt")};
  if (entry.requestTimeout == 0) reader.fail("“requestTimeout” is 0");
  checkLengths(reader, entry);
  if (reader.failure()) return std::unexpected(*reader.failure());
  // Another's way to write numbers may be shorter than ours, and the store keeps ours: it must be able to read it again.
  if (encode(entry).size() > kMaxMessageBytes) return std::unexpected(reasonForLength());
  return entry;
}

}  // namespace transfer
