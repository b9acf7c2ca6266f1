// The JSON form of a share: deserialize judged by the form's own table, and serialize as its inverse.
//
// Input: a JSON text. What is no JSON is given as a text to deserialize.
#include <cstdint>
#include <cstring>
#include <string>

#include "common/Check.h"
#include "common/Input.h"
#include "common/SecondJSON.h"
#include "companions/KSVShare.h"
#include "platform/linux/RapidJSONSerialization.h"

namespace {

using platform::Data;
using platform::Value;
using Kind = Value::Kind;

bool isNullOr(const Value* value, Kind kind) { return !value || value->isNull() || value->kind() == kind; }

bool isReferralCode(const Value* code) {
  if (!isNullOr(code, Kind::kObject)) return false;
  if (!code || code->isNull()) return true;
  return isNullOr(code->object().find("userId"), Kind::kString) && isNullOr(code->object().find("shareId"), Kind::kString);
}

bool isState(const Value* state) {
  return isNullOr(state, Kind::kSigned) &&
         (!state || state->isNull() || (state->signedInteger() >= 0 && state->signedInteger() <= 3));
}

bool isDate(const Value* date) {
  return isNullOr(date, Kind::kSigned) || isNullOr(date, Kind::kUnsigned) || isNullOr(date, Kind::kDouble);
}

bool isURL(const Value* url) {
  return isNullOr(url, Kind::kString) && (!url || url->isNull() || platform::URL::URLWithString(url->string().view()).has_value());
}

/// By the table of the form.
bool isShare(const Value& value) {
  if (!value.isObject()) return false;
  const platform::Dictionary& object = value.object();
  return isReferralCode(object.find("referralCode")) && isNullOr(object.find("isFallback"), Kind::kBoolean) &&
         isState(object.find("state")) && isDate(object.find("createdAt")) && isDate(object.find("updatedAt")) &&
         isNullOr(object.find("data"), Kind::kObject) && isURL(object.find("URL"));
}

/// A member of the serialized form against the one it came from.
void checkMember(const platform::Dictionary& before, const platform::Dictionary& after, const char* key) {
  const Value* const given = before.find(key);
  const Value* const kept = after.find(key);
  if (!given || given->isNull()) {
    fuzz::check(!kept || std::strcmp(key, "isFallback") == 0 || std::strcmp(key, "state") == 0, "a member came from nowhere");
    return;
  }
  fuzz::check(kept != nullptr, "a member was lost");
  // A whole number of seconds becomes a floating-point one, the nearest.
  const bool isSigned = given->kind() == Kind::kSigned;
  const bool isWholeDate = kept->kind() == Kind::kDouble && (isSigned || given->kind() == Kind::kUnsigned);
  const Value rounded =
      !isWholeDate ? *given
                   : Value(isSigned ? static_cast<double>(given->signedInteger()) : static_cast<double>(given->unsignedInteger()));
  fuzz::check(*kept == rounded, "a member changed");
}

void checkRoundTrip(const Value& value, const KSVShare& share) {
  const platform::Dictionary serialized = share.serialize();
  for (const char* const key : {"isFallback", "state", "createdAt", "updatedAt", "data", "URL"})
    checkMember(value.object(), serialized, key);

  const auto json = platform::makeRapidJSONSerialization();
  const auto text = json->write(Value(serialized));
  fuzz::check(text.has_value(), "a share cannot be written");
  const auto reread = json->read(*text);
  fuzz::check(reread.has_value(), "a written share is not read");
  const auto again = KSVShare::deserialize(*reread);
  fuzz::check(again != nullptr, "a share's own form is no share");
  fuzz::check(again->serialize() == serialized, "a share's form changed on the way");
  const bool hasCode = share.referralCode != nullptr;
  fuzz::check(hasCode == (again->referralCode != nullptr), "a referral code was lost or made");
  if (hasCode) fuzz::check(*share.referralCode == *again->referralCode, "a referral code changed");
  fuzz::check(share.createdAt == again->createdAt && share.updatedAt == again->updatedAt, "a date changed");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = fuzz::Input(data, size).rest();
  const Value value = fuzz::readBySecondParser(text).value_or(Value(text));
  const auto share = KSVShare::deserialize(value);
  fuzz::check((share != nullptr) == isShare(value), share ? "no share was taken for one" : "a share was refused");
  if (share) checkRoundTrip(value, *share);
  return 0;
}
