// The JSON form of a share.
//
// Dates are numbers, seconds since 1970, so that they come back exactly. JSON null stands for an absent member.
#include "companions/KSVShare.h"

#include <utility>

using platform::Date;
using platform::Dictionary;
using platform::Value;

namespace {

/// Reads members of one object; a member of the wrong kind spoils the reader, an absent one yields absent.
class Reader {
 public:
  explicit Reader(const Dictionary& object) : object_(object) {}

  bool isGood() const { return isGood_; }

  std::optional<std::string> text(std::string_view key) {
    const Value* value = member(key);
    if (!value || !expect(value->isString())) return std::nullopt;
    return std::string(value->string().view());
  }
  std::optional<Dictionary> object(std::string_view key) {
    const Value* value = member(key);
    if (!value || !expect(value->isObject())) return std::nullopt;
    return value->object();
  }
  std::optional<bool> boolean(std::string_view key) {
    const Value* value = member(key);
    if (!value || !expect(value->kind() == Value::Kind::kBoolean)) return std::nullopt;
    return value->boolean();
  }
  std::optional<std::int64_t> integer(std::string_view key) {
    const Value* value = member(key);
    if (!value || !expect(value->kind() == Value::Kind::kSigned)) return std::nullopt;
    return value->signedInteger();
  }
  std::optional<Date> date(std::string_view key) {
    const Value* value = member(key);
    if (!value) return std::nullopt;
    if (value->kind() == Value::Kind::kDouble) return Date::dateWithTimeIntervalSince1970(value->number());
    // A whole number of seconds may be written without a fraction, however large it is.
    if (value->kind() == Value::Kind::kUnsigned)
      return Date::dateWithTimeIntervalSince1970(static_cast<double>(value->unsignedInteger()));
    if (!expect(value->kind() == Value::Kind::kSigned)) return std::nullopt;
    return Date::dateWithTimeIntervalSince1970(static_cast<double>(value->signedInteger()));
  }
  bool expect(bool isAsItShould) {
    isGood_ = isGood_ && isAsItShould;
    return isAsItShould;
  }

 private:
  const Value* member(std::string_view key) const {
    const Value* value = object_.find(key);
    return value && !value->isNull() ? value : nullptr;
  }

  const Dictionary& object_;
  bool isGood_ = true;
};

template <class T>
void setWhenPresent(Dictionary& object, const std::optional<T>& value, const char* key) {
  if (value) object.setObjectForKey(Value(*value), key);
}

std::optional<double> seconds(const std::optional<Date>& date) {
  return date ? std::optional(date->timeIntervalSince1970()) : std::nullopt;
}

Dictionary serialized(const KSVReferralCode& code) {
  Dictionary object;
  setWhenPresent(object, code.userId, "userId");
  setWhenPresent(object, code.shareId, "shareId");
  return object;
}

}  // namespace

Dictionary KSVShare::serialize() const {
  Dictionary object{{"isFallback", isFallback}, {"state", static_cast<std::int64_t>(state)}};
  if (referralCode) object.setObjectForKey(Value(serialized(*referralCode)), "referralCode");
  setWhenPresent(object, seconds(createdAt), "createdAt");
  setWhenPresent(object, seconds(updatedAt), "updatedAt");
  setWhenPresent(object, data, "data");
  if (URL) object.setObjectForKey(Value(URL->absoluteString()), "URL");
  return object;
}

std::shared_ptr<KSVShare> KSVShare::deserialize(const Value& serialized) {
  if (!serialized.isObject()) return nullptr;
  Reader reader(serialized.object());
  auto share = std::make_shared<KSVShare>();
  share->isFallback = reader.boolean("isFallback").value_or(false);
  share->createdAt = reader.date("createdAt");
  share->updatedAt = reader.date("updatedAt");
  share->data = reader.object("data");

  const std::int64_t state = reader.integer("state").value_or(KSVShareStateSent);
  if (reader.expect(state >= KSVShareStateSent && state <= KSVShareStateInstalled))
    share->state = static_cast<KSVShareState>(state);
  if (const auto text = reader.text("URL")) {
    share->URL = platform::URL::URLWithString(*text);
    reader.expect(share->URL.has_value());
  }
  if (const auto object = reader.object("referralCode")) {
    Reader parts(*object);
    share->referralCode = std::make_shared<const KSVReferralCode>(KSVReferralCode{parts.text("userId"), parts.text("shareId")});
    reader.expect(parts.isGood());
  }
  return reader.isGood() ? share : nullptr;
}
