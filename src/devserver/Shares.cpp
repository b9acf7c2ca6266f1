// Keeping shares, naming them, and moving their states on.
#include "devserver/Shares.h"

#include <openssl/rand.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/URL.h"

namespace devserver {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;

constexpr std::size_t kUserIdLength = 8;
constexpr std::size_t kShareIdLength = 10;
constexpr std::string_view kLettersAndDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
constexpr std::array<const char*, 4> kStateNames{"sent", "clicked", "opened", "installed"};

/// Letters and digits that follow from the bytes. (The bias of the remainder matters to nobody here.)
std::string lettersAndDigits(const unsigned char* bytes, std::size_t count) {
  std::string text;
  for (std::size_t at = 0; at < count; ++at) text += kLettersAndDigits[bytes[at] % kLettersAndDigits.size()];
  return text;
}

std::string userIdOf(std::string_view app, std::string_view device) {
  const std::string text = std::string(app) + "\n" + std::string(device);
  std::array<unsigned char, SHA256_DIGEST_LENGTH> hash{};
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), hash.data());
  return lettersAndDigits(hash.data(), kUserIdLength);
}

std::string newShareId() {
  std::array<unsigned char, kShareIdLength> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) throw std::runtime_error("OpenSSL has no random bytes");
  return lettersAndDigits(bytes.data(), bytes.size());
}

Value secondsOf(std::chrono::milliseconds time) { return Value(static_cast<double>(time.count()) / 1000); }

bool isNumber(const Value& value) {
  return value.kind() == Value::Kind::kSigned || value.kind() == Value::Kind::kUnsigned || value.kind() == Value::Kind::kDouble;
}
bool isState(const Value& value) {
  return value.kind() == Value::Kind::kSigned && value.signedInteger() >= 0 &&
         value.signedInteger() < static_cast<std::int64_t>(kStateNames.size());
}
bool isURL(const Value& value) { return value.isString() && platform::URL::URLWithString(value.string().view()).has_value(); }

ShareState stateOf(const Dictionary& share) { return static_cast<ShareState>(share.find("state")->signedInteger()); }

std::optional<ShareState> stateNamed(const Value& name) {
  const auto at = name.isString() ? std::ranges::find(kStateNames, name.string().view()) : kStateNames.end();
  if (at == kStateNames.end()) return std::nullopt;
  return static_cast<ShareState>(at - kStateNames.begin());
}

}  // namespace

const char* nameOf(ShareState state) { return kStateNames.at(static_cast<std::size_t>(state)); }

std::string faultOfShare(const Dictionary& share) {
  struct Member {
    const char* name;
    bool (*isRight)(const Value&);
    const char* kind;
  };
  static constexpr std::array kMembers{
      Member{"isFallback", [](const Value& value) { return value.kind() == Value::Kind::kBoolean; }, "no boolean"},
      Member{"state", isState, "no whole number from 0 to 3"},
      Member{"createdAt", isNumber, "no number"},
      Member{"updatedAt", isNumber, "no number"},
      Member{"data", [](const Value& value) { return value.isObject(); }, "no object"},
      Member{"URL", isURL, "no URL"},
      Member{"referralCode", [](const Value& value) { return value.isObject(); }, "no object"},
  };
  for (const Member& member : kMembers) {
    const Value* value = share.find(member.name);
    if (value && !value->isNull() && !member.isRight(*value)) return std::string(member.name) + " is " + member.kind;
  }
  return "";
}

std::string Shares::submit(std::string_view app, std::string_view device, Dictionary share, std::chrono::milliseconds now) {
  const std::string user = userIdOf(app, device);
  const std::string own = newShareId();
  share.setObjectForKey(Value(Dictionary{{"userId", user}, {"shareId", own}}), "referralCode");
  share.setObjectForKey(Value(static_cast<int>(ShareState::kSent)), "state");
  const Value* created = share.find("createdAt");
  if (!created || created->isNull()) share.setObjectForKey(secondsOf(now), "createdAt");
  share.setObjectForKey(secondsOf(now), "updatedAt");
  std::lock_guard lock(mutex_);
  shelf_.put(user + own, std::move(share));
  return user + own;
}

Array Shares::find(std::string_view codes) const {
  std::lock_guard lock(mutex_);
  Array found;
  while (!codes.empty()) {
    const std::string_view code = codes.substr(0, codes.find(','));
    codes.remove_prefix(std::min(codes.size(), code.size() + 1));
    if (const Dictionary* share = shelf_.find(code)) found.addObject(Value(*share));
  }
  return found;
}

Array Shares::all() const {
  std::lock_guard lock(mutex_);
  Array shares;
  for (const std::string& code : shelf_.names()) shares.addObject(Value(*shelf_.find(code)));
  return shares;
}

std::optional<ShareState> Shares::advance(const std::string& code, ShareState state, std::chrono::milliseconds now) {
  std::lock_guard lock(mutex_);
  const Dictionary* share = shelf_.find(code);
  if (!share) return std::nullopt;
  if (stateOf(*share) >= state) return stateOf(*share);
  setState(code, state, now);
  return state;
}

std::expected<void, std::string> Shares::change(const Dictionary& states, std::chrono::milliseconds now) {
  std::lock_guard lock(mutex_);
  std::vector<std::pair<std::string, ShareState>> steps;
  for (const auto& [key, name] : states) {
    const std::string code(key.view());
    const Dictionary* share = shelf_.find(code);
    if (!share) return std::unexpected("there is no share \"" + code + "\"");
    const auto state = stateNamed(name);
    if (!state) return std::unexpected("the state of " + code + " must be \"sent\", \"clicked\", \"opened\" or \"installed\"");
    if (*state < stateOf(*share)) return std::unexpected(code + " is " + nameOf(stateOf(*share)) + " already");
    if (*state > stateOf(*share)) steps.emplace_back(code, *state);
  }
  for (const auto& [code, state] : steps) setState(code, state, now);
  return {};
}

void Shares::setState(const std::string& code, ShareState state, std::chrono::milliseconds now) {
  Dictionary changed = *shelf_.find(code);
  changed.setObjectForKey(Value(static_cast<int>(state)), "state");
  changed.setObjectForKey(secondsOf(now), "updatedAt");
  shelf_.replace(code, std::move(changed));
}

}  // namespace devserver
