// Reading, keeping and using up of the misbehaviour settings.
#include "devserver/Behaviour.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>

#include "devserver/Json.h"
#include "platform/UTF8.h"

namespace devserver {
namespace {

using platform::Dictionary;
using platform::Value;
using Outcome = std::expected<void, std::string>;

constexpr std::int64_t kMaxCount = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kMaxClockOffset = 100LL * 366 * 86400;
constexpr std::int64_t kMaxDelay = 3'600'000;
constexpr std::array<const char*, 3> kTsmNames{"good", "wrong", "missing"};

/// A whole number within bounds.
Outcome readNumber(const Value& value, const std::string& name, std::int64_t least, std::int64_t most, std::int64_t& result) {
  if (value.kind() != Value::Kind::kSigned || value.signedInteger() < least || value.signedInteger() > most)
    return std::unexpected(name + " must be a whole number from " + std::to_string(least) + " to " + std::to_string(most));
  result = value.signedInteger();
  return {};
}

/// The members of a setting, each of which must have one of the names.
Outcome requireMembers(const Value& value, const std::string& setting, std::initializer_list<std::string_view> names) {
  if (!value.isObject()) return std::unexpected(setting + " must be an object");
  for (const auto& [key, member] : value.object())
    if (std::ranges::find(names, key.view()) == names.end())
      return std::unexpected(setting + " has no member \"" + std::string(key.view()) + "\"");
  return {};
}

/// How many requests a setting is for: its "next", or one.
Outcome readNext(const Dictionary& object, const std::string& setting, std::int64_t& left) {
  left = 1;
  const Value* next = object.find("next");
  return next ? readNumber(*next, setting + "'s next", 0, kMaxCount, left) : Outcome();
}

bool isToken(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
  });
}

std::string lowered(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return result;
}

/// The header fields of an answer. A text that would break the answer's framing is refused: then nobody knew what was tested.
Outcome readFields(const Value& value, std::vector<std::pair<std::string, std::string>>& fields) {
  if (!value.isObject()) return std::unexpected("answer's headers must be an object of texts");
  for (const auto& [key, member] : value.object()) {
    const std::string name(key.view());
    if (!isToken(name)) return std::unexpected("\"" + name + "\" is no header field name");
    if (lowered(name) == "content-length" || lowered(name) == "transfer-encoding")
      return std::unexpected(name + " is the server's own to set");
    if (!member.isString() || member.string().view().find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos)
      return std::unexpected("the value of " + name + " must be a text of one line");
    fields.emplace_back(name, member.string().view());
  }
  return {};
}

/// A body is sent as it stands when it is a text, and as JSON when it is an object or array.
Outcome readBody(const Value& value, std::string& body) {
  if (value.isString())
    body = std::string(value.string().view());
  else if (value.isObject() || value.isArray())
    body = writeJson(value);
  else
    return std::unexpected("answer's body must be a text, an object or an array");
  return {};
}

Dictionary stateOf(const Answer& answer, std::int64_t left) {
  Dictionary headers;
  for (const auto& [name, value] : answer.fields) headers.setObjectForKey(Value(value), name);
  return {{"status", answer.status}, {"headers", headers}, {"body", answer.body}, {"next", left}};
}

}  // namespace

const char* Misbehaviour::name() const {
  switch (kind) {
    case Kind::kDrop:
      return "drop";
    case Kind::kAnswer:
      return "answer";
    case Kind::kStatus:
      return "status";
    case Kind::kStale:
      return "stale";
    case Kind::kNone:
      break;
  }
  return "";
}

const std::vector<std::string>& behaviourNames() {
  static const std::vector<std::string> kNames{"clock-offset", "delay",      "drop",        "status",   "answer",
                                               "stale",        "directives", "close-every", "read-rate"};
  return kNames;
}

Outcome Behaviour::applyAnswer(Settings& settings, const Value& value) {
  if (auto known = requireMembers(value, "answer", {"status", "headers", "body", "next"}); !known) return known;
  const Dictionary& object = value.object();
  Answer answer;
  std::int64_t status = 200;
  if (const Value* member = object.find("status"))
    if (auto read = readNumber(*member, "answer's status", 200, 999, status); !read) return read;
  answer.status = static_cast<int>(status);
  if (const Value* member = object.find("headers"))
    if (auto read = readFields(*member, answer.fields); !read) return read;
  if (const Value* member = object.find("body"))
    if (auto read = readBody(*member, answer.body); !read) return read;
  settings.answer = std::move(answer);
  return readNext(object, "answer", settings.answersLeft);
}

Outcome Behaviour::applyStatus(Settings& settings, const Value& value) {
  const Dictionary object = value.isObject() ? value.object() : Dictionary{{"code", value}};
  if (auto known = requireMembers(object, "status", {"code", "next"}); !known) return known;
  std::int64_t code = 0;
  if (auto read = readNumber(object.objectForKey("code").value_or(Value()), "status's code", 200, 999, code); !read) return read;
  settings.status = static_cast<int>(code);
  return readNext(object, "status", settings.statusesLeft);
}

Outcome Behaviour::applyStale(Settings& settings, const Value& value) {
  if (auto known = requireMembers(value, "stale", {"time", "tsm", "next"}); !known) return known;
  const Dictionary& object = value.object();
  std::optional<std::string> staleTime;
  if (const Value* member = object.find("time")) {
    std::int64_t seconds = 0;
    if (auto read = readNumber(*member, "stale's time", 0, std::numeric_limits<std::int64_t>::max(), seconds); !read) return read;
    staleTime = std::to_string(seconds);
  }
  Tsm tsm = Tsm::kGood;
  if (const Value* member = object.find("tsm")) {
    const auto name = member->isString() ? std::ranges::find(kTsmNames, member->string().view()) : kTsmNames.end();
    if (name == kTsmNames.end()) return std::unexpected("stale's tsm must be \"good\", \"wrong\" or \"missing\"");
    tsm = static_cast<Tsm>(name - kTsmNames.begin());
  }
  settings.staleTime = std::move(staleTime);
  settings.tsm = tsm;
  return readNext(object, "stale", settings.stalesLeft);
}

Outcome Behaviour::applyNumber(Settings& settings, std::string_view name, const Value& value) {
  struct Entry {
    std::string_view name;
    std::int64_t least;
    std::int64_t most;
    std::int64_t Settings::* field;
  };
  static constexpr std::array kEntries{
      Entry{"clock-offset", -kMaxClockOffset, kMaxClockOffset, &Settings::clockOffset},
      Entry{"delay", 0, kMaxDelay, &Settings::delay}, Entry{"close-every", 0, kMaxCount, &Settings::closeEvery},
      Entry{"read-rate", 0, kMaxCount, &Settings::readRate}, Entry{"drop", 0, kMaxCount, &Settings::drop}};
  const auto* const entry = std::ranges::find(kEntries, name, &Entry::name);
  if (entry == kEntries.end()) return std::unexpected("there is no setting \"" + std::string(name) + "\"");
  return readNumber(value.isNull() ? Value(0) : value, std::string(name), entry->least, entry->most, settings.*entry->field);
}

Outcome Behaviour::applyDirectives(Settings& settings, const Value& value) {
  if (!value.isNull() && !value.isObject()) return std::unexpected("directives must be an object");
  settings.directives = value.isNull() ? Dictionary() : value.object();
  return {};
}

Outcome Behaviour::apply(Settings& settings, std::string_view name, const Value& value) {
  const bool off = value.isNull();
  if (name == "status") return off ? (settings.statusesLeft = 0, Outcome()) : applyStatus(settings, value);
  if (name == "answer") return off ? (settings.answersLeft = 0, Outcome()) : applyAnswer(settings, value);
  if (name == "stale") return off ? (settings.stalesLeft = 0, Outcome()) : applyStale(settings, value);
  if (name == "directives") return applyDirectives(settings, value);
  return applyNumber(settings, name, value);
}

Outcome Behaviour::change(const Dictionary& settings) {
  std::lock_guard lock(mutex_);
  Settings changed = settings_;
  for (const auto& [name, value] : settings)
    if (auto applied = apply(changed, name, value); !applied) return applied;
  settings_ = std::move(changed);
  return {};
}

void Behaviour::reset() {
  std::lock_guard lock(mutex_);
  settings_ = Settings();
}

Dictionary Behaviour::state() const {
  std::lock_guard lock(mutex_);
  const Settings& now = settings_;
  Dictionary state{{"clock-offset", now.clockOffset},
                   {"delay", now.delay},
                   {"close-every", now.closeEvery},
                   {"read-rate", now.readRate},
                   {"directives", now.directives},
                   {"drop", now.drop},
                   {"status", nullptr},
                   {"answer", nullptr},
                   {"stale", nullptr}};
  if (now.statusesLeft > 0) state.setObjectForKey(Value(Dictionary{{"code", now.status}, {"next", now.statusesLeft}}), "status");
  if (now.answersLeft > 0) state.setObjectForKey(Value(stateOf(now.answer, now.answersLeft)), "answer");
  if (now.stalesLeft > 0) {
    Dictionary stale{{"tsm", kTsmNames[static_cast<std::size_t>(now.tsm)]}, {"next", now.stalesLeft}};
    if (now.staleTime) stale.setObjectForKey(Value(std::stoll(*now.staleTime)), "time");
    state.setObjectForKey(Value(stale), "stale");
  }
  return state;
}

Dictionary Behaviour::summary() const {
  Dictionary summary = state();
  if (const auto answer = summary.objectForKey("answer"); answer->isObject()) {
    const std::size_t bytes = answer->objectForKey("body")->string().length();
    summary.setObjectForKey(
        Value(
            Dictionary{{"status", *answer->objectForKey("status")}, {"next", *answer->objectForKey("next")}, {"bodyBytes", bytes}}),
        "answer");
  }
  const std::string directives = writeJson(*summary.objectForKey("directives"));
  if (directives.size() <= kMaxDirectives) return summary;
  summary.removeObjectForKey("directives");
  summary.setObjectForKey(Value(platform::beginningOf(directives, kMaxDirectives)), "directivesBeginning");
  summary.setObjectForKey(Value(directives.size()), "directivesBytes");
  return summary;
}

Misbehaviour Behaviour::take(bool canChallenge) {
  using Kind = Misbehaviour::Kind;
  std::lock_guard lock(mutex_);
  Settings& now = settings_;
  if (now.drop > 0) return --now.drop, Misbehaviour{Kind::kDrop, {}, {}};
  if (now.answersLeft > 0) return --now.answersLeft, Misbehaviour{Kind::kAnswer, now.answer, {}};
  if (now.statusesLeft > 0) return --now.statusesLeft, Misbehaviour{Kind::kStatus, Answer{now.status, {}, ""}, {}};
  if (now.stalesLeft > 0 && canChallenge) return --now.stalesLeft, Misbehaviour{Kind::kStale, {}, now.staleTime, now.tsm};
  return {};
}

std::chrono::seconds Behaviour::clockOffset() const {
  std::lock_guard lock(mutex_);
  return std::chrono::seconds(settings_.clockOffset);
}

std::chrono::milliseconds Behaviour::delay() const {
  std::lock_guard lock(mutex_);
  return std::chrono::milliseconds(settings_.delay);
}

Dictionary Behaviour::directives() const {
  std::lock_guard lock(mutex_);
  return settings_.directives;
}

std::int64_t Behaviour::readRate() const {
  std::lock_guard lock(mutex_);
  return settings_.readRate;
}

std::int64_t Behaviour::closeEvery() const {
  std::lock_guard lock(mutex_);
  return settings_.closeEvery;
}

}  // namespace devserver
