// Routes, verification in two steps, the answers, and what the journal says.
#include "devserver/Api.h"

#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>
#include <utility>

#include "devserver/Answers.h"
#include "devserver/Json.h"

namespace devserver {
namespace {

using platform::Dictionary;
using platform::Value;

constexpr std::uint64_t kMaxBehaviourBody = 1024ULL * 1024;
/// Where the links of shares lead; the share's code follows.
constexpr std::string_view kShareLinks = "/s/";
/// Where the live page's files are; a file's name follows.
constexpr std::string_view kPageFiles = "/dev/page/";

/// A name that no other run has.
std::string randomName() {
  std::array<unsigned char, 8> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) throw std::runtime_error("OpenSSL has no random bytes");
  std::string name;
  for (const unsigned char byte : bytes) name += {"0123456789abcdef"[byte >> 4U], "0123456789abcdef"[byte & 15U]};
  return name;
}

/// A query's value with its escapes undone; what is no escape stays as it is.
std::string percentDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t at = 0; at < text.size(); ++at) {
    unsigned byte = 0;
    const std::string_view digits = text.substr(std::min(at + 1, text.size()), 2);
    const bool isEscape =
        text[at] == '%' && digits.size() == 2 && std::from_chars(digits.begin(), digits.end(), byte, 16).ptr == digits.end();
    decoded += isEscape ? static_cast<char>(byte) : text[at];
    if (isEscape) at += 2;
  }
  return decoded;
}

/// What is wrong with an event record; empty when nothing is.
std::string faultOf(const Value& record) {
  if (!record.isObject()) return "is no object";
  const Dictionary& object = record.object();
  for (const char* key : {"localTime", "event", "eventData"})
    if (!object.find(key)) return std::string("has no ") + key;
  if (object.count() != 3) return "has more than localTime, event and eventData";
  if (!object.find("event")->isString()) return "has an event that is no text";
  if (!object.find("eventData")->isObject()) return "has eventData that is no object";
  return "";
}

}  // namespace

std::optional<std::string> RequestHead::parameter(std::string_view name) const {
  std::string_view rest = std::string_view(target).substr(path().size());
  while (!rest.empty()) {
    rest.remove_prefix(1);  // the question mark or ampersand
    const std::string_view pair = rest.substr(0, rest.find('&'));
    rest.remove_prefix(pair.size());
    const auto equals = pair.find('=');
    if (equals != std::string_view::npos && pair.substr(0, equals) == name) return std::string(pair.substr(equals + 1));
  }
  return std::nullopt;
}

std::string RequestHead::shownTarget() const {
  constexpr std::string_view kName = "bewit=";
  std::string shown = target;
  for (auto at = shown.find(kName); at != std::string::npos; at = shown.find(kName, at + 1)) {
    const auto value = at + kName.size();
    shown.replace(value, std::min(shown.find('&', value), shown.size()) - value, "-");
  }
  return shown;
}

// --- What all connections share.

Api::Api(HawkVerifier::Keys keys, Journal& journal, Gifs& gifs, Uploads uploads, std::filesystem::path authorityFile, Now now)
    : verifier_(keys),
      journal_(journal),
      gifs_(gifs),
      uploads_(uploads),
      authorityFile_(std::move(authorityFile)),
      applications_([&keys] {
        std::vector<std::string> ids;
        for (const auto& [id, key] : keys) ids.push_back(id);
        return ids;
      }()),
      now_(std::move(now)),
      run_(randomName()) {}

// --- One request: the header.

Exchange::Exchange(Api& api, RequestHead head) : api_(api), head_(std::move(head)), judgedAt_(api.serverTime()) {
  route();
  if (refusal_) return;
  if (head_.isAmbiguous)
    refuse(400, "Host must stand once, and Authorization no more than once");
  else if (isOwn() && !mayAskForOwn())
    refuse(403, "For programs on this machine only");
  else if (hasTextBody() || route_ == Route::kGif)
    verifyHeader();
  else if (route_ == Route::kCookieMatch)
    verifyLink();
}

Exchange::~Exchange() = default;

void Exchange::route() {
  struct Entry {
    std::string_view path;
    std::string_view method;
    Route route;
  };
  static constexpr std::array kEntries{
      Entry{"/", "GET", Route::kPage},
      Entry{kPageFiles, "GET", Route::kPageFile},
      Entry{"/dev/feed", "GET", Route::kFeed},
      Entry{"/dev/feed/live", "GET", Route::kLiveFeed},
      Entry{"/dev/gif", "GET", Route::kShownGif},
      Entry{"/dev/records", "GET", Route::kRecords},
      Entry{"/dev/behaviour", "GET", Route::kBehaviour},
      Entry{"/dev/behaviour", "POST", Route::kBehaviour},
      Entry{"/dev/behaviour", "DELETE", Route::kBehaviour},
      Entry{"/dev/shares", "GET", Route::kShareStates},
      Entry{"/dev/shares", "POST", Route::kShareStates},
      Entry{"/dev/sessions", "GET", Route::kSessions},
      Entry{"/events", "POST", Route::kEvents},
      Entry{"/shares", "POST", Route::kSubmitShare},
      Entry{"/shares", "GET", Route::kFindShares},
      Entry{kShareLinks, "GET", Route::kShareLink},
      Entry{"/cookie-match", "GET", Route::kCookieMatch},
      Entry{"/patch-previous-session-started", "POST", Route::kPatch},
      Entry{"/gifs", "POST", Route::kGif},
  };
  std::string allowed;
  for (const Entry& entry : kEntries) {
    const bool isFolder = entry.path == kShareLinks || entry.path == kPageFiles;
    if (entry.path != head_.path() && !(isFolder && head_.path().starts_with(entry.path))) continue;
    if (entry.method == head_.method) {
      route_ = entry.route;
      return;
    }
    allowed += (allowed.empty() ? "" : ", ") + std::string(entry.method);
  }
  if (allowed.empty()) return refuse(404, "Unknown path");
  refuse(405, "Wrong method");
  refusal_->fields.emplace_back("Allow", allowed);
}

void Exchange::refuse(int status, std::string reason, std::string challenge) {
  refusal_ = isForBrowsers() ? textAnswer(status, "This link cannot be used: " + reason + "\n")
                             : jsonAnswer(status, Dictionary{{"error", reason}});
  if (!challenge.empty()) refusal_->fields.emplace_back("WWW-Authenticate", std::move(challenge));
  verdict_ = std::move(reason);
}

void Exchange::verifyHeader() {
  auto ticket = api_.verifier_.verifyHeader({head_.method, head_.target, head_.host, head_.authorization});
  if (!ticket) return refuse(ticket.error());
  ticket_ = *std::move(ticket);
  isSigned_ = true;
  if (route_ == Route::kGif) beginGif();
}

void Exchange::verifyFreshness() {
  const auto fresh = api_.verifier_.verifyFreshness(*ticket_, judgeNow());
  isNonceUsedUp_ = fresh || fresh.error().reason != "Invalid nonce";
  if (!fresh) refuse(fresh.error());
}

void Exchange::beginGif() {
  // A GIF is signed by its header alone, so all of it can be judged before the first byte of the body.
  if (api_.uploads_ == Api::Uploads::kStrict)
    verifyFreshness();
  else if (const auto fresh = api_.verifier_.verifyUpload(*ticket_, judgeNow()); !fresh)
    refuse(fresh.error());
  if (refusal_) return;
  const auto share = head_.parameter("shareId");
  if (!share || share->empty()) return refuse(400, "No shareId");
  details_.setObjectForKey(Value(*share), "shareId");
  auto intake = api_.gifs_.begin();
  if (!intake) return refuse(507, intake.error());
  gif_ = *std::move(intake);
}

void Exchange::verifyLink() {
  const auto bewit = api_.verifier_.verifyLink({head_.method, head_.target, head_.host, head_.authorization}, judgeNow());
  if (!bewit) return refuse(bewit.error());
  isSigned_ = true;
  const auto device = head_.parameter("deviceId");
  if (percentDecoded(head_.parameter("appRDNS").value_or("")) != bewit->id)
    return refuse(400, "It names another application than its signature");
  if (!device || device->empty()) refuse(400, "It names no device");
}

Exchange::Plan Exchange::plan() const {
  if (refusal_) return {};
  if (route_ == Route::kGif) return {true, kMaxGif};
  if (route_ == Route::kSubmitShare) return {true, kMaxShareBody};
  if (route_ == Route::kBehaviour || route_ == Route::kShareStates) return {head_.method == "POST", kMaxBehaviourBody};
  return {hasTextBody(), kMaxTextBody};
}

// --- One request: the body.

bool Exchange::take(std::string_view piece) {
  bodyBytes_ += piece.size();
  if (!gif_) {
    body_.append(piece);
    return true;
  }
  const auto added = gif_->add(piece);
  if (!added) refuse(507, added.error());
  return added.has_value();
}

void Exchange::refuseLongBody() { refuse(413, "Body too long"); }

void Exchange::abandon() {
  verdict_ = "Body incomplete";
  gif_.reset();
  if (isOwn()) return print(0, "");
  record(0, "");
  tell(std::nullopt, "");
  print(0, "");
}

void Exchange::verifyBody() {
  hash_ = hawkPayloadHash(head_.contentType, body_);
  if (auto right = HawkVerifier::verifyPayloadHash(*ticket_, *hash_); !right) return refuse(right.error());
  verifyFreshness();
}

std::expected<Value, std::string> Exchange::readPosted() const {
  const auto body = readJson(body_);
  if (!body) return std::unexpected("The body is not JSON: " + body.error());
  const Value* data = body->isObject() ? body->object().find("data") : nullptr;
  if (!data || body->object().count() != 1) return std::unexpected("The body is no object with the one member \"data\"");
  return *data;
}

std::expected<void, std::string> Exchange::checkPosted(const Value& data) {
  if (route_ == Route::kEvents) {
    if (!data.isArray()) return std::unexpected("\"data\" is no array of event records");
    std::size_t number = 0;
    for (const Value& eventRecord : data.array()) {
      const std::string fault = faultOf(eventRecord);
      if (!fault.empty()) return std::unexpected("Event record " + std::to_string(number) + " " + fault);
      ++number;
    }
    return {};
  }
  if (!data.isObject()) return std::unexpected("\"data\" is no object");
  if (route_ == Route::kPatch) {
    const Value* eventData = data.object().find("eventData");
    if (!eventData || !eventData->isObject() || data.object().count() != 1)
      return std::unexpected("\"data\" is no object with the one member \"eventData\", an object");
  }
  if (route_ == Route::kSubmitShare)
    if (const std::string fault = faultOfShare(data.object()); !fault.empty()) return std::unexpected("The share's " + fault);
  return {};
}

void Exchange::examine() {
  if (gif_) details_.setObjectForKey(Value(gif_->hash()), "sha256");
  if (!hasTextBody() || body_.empty()) {
    if (!refusal_ && hasTextBody()) refuse(400, "The body is empty");
    if (!refusal_ && route_ == Route::kFindShares && !head_.parameter("ids")) refuse(400, "No ids");
    return;
  }
  auto data = readPosted();
  if (data) {
    posted_ = *data;
    details_.setObjectForKey(posted_, route_ == Route::kEvents ? "records" : "data");
  }
  if (refusal_) return;
  if (!data) return refuse(400, data.error());
  if (const auto right = checkPosted(*data); !right) refuse(400, right.error());
}

// --- One request: the answer.

Reaction Exchange::finish() {
  if (isOwn()) return finishOwn();
  if (!refusal_ && hasTextBody()) verifyBody();
  examine();

  const Misbehaviour misbehaviour = api_.behaviour_.take(ticket_.has_value());
  Reaction reaction = misbehaviour.kind != Misbehaviour::Kind::kNone ? misbehave(misbehaviour)
                                                                     : Reaction{refusal_ ? *refusal_ : serveApi(), {}, {}};
  reaction.delay = api_.behaviour_.delay();
  if (gif_ && !keepGif(reaction.answer ? reaction.answer->status : 0)) reaction.answer = refusal_;
  if (!record(reaction.answer ? reaction.answer->status : 0, misbehaviour.name())) {
    if (gif_) gif_->discard();
    reaction.answer = jsonAnswer(500, Dictionary{{"error", "The journal cannot be written"}});
  }
  tell(reaction.answer, misbehaviour.name());
  print(reaction.answer ? reaction.answer->status : 0, misbehaviour.name());
  return reaction;
}

/// What is not answered as taken leaves no file, and its header may come again.
bool Exchange::keepGif(int status) {
  if (refusal_ || status < 200 || status > 299) return true;
  if (api_.uploads_ == Api::Uploads::kRepeatable) {
    if (auto spent = api_.verifier_.spend(*ticket_); !spent) return refuse(spent.error()), false;
    isNonceUsedUp_ = true;
  }
  const auto name = gif_->keep();
  if (!name) return refuse(507, name.error()), false;
  details_.setObjectForKey(Value(*name), "file");
  return true;
}

Reaction Exchange::misbehave(const Misbehaviour& misbehaviour) const {
  if (misbehaviour.kind == Misbehaviour::Kind::kDrop) return {};
  if (misbehaviour.kind != Misbehaviour::Kind::kStale) return {misbehaviour.answer, {}, {}};
  const auto now = std::chrono::floor<std::chrono::seconds>(api_.serverTime()).count();
  const std::string time = misbehaviour.time.value_or(std::to_string(now));
  Answer answer = jsonAnswer(401, Dictionary{{"error", "Stale timestamp"}});
  answer.fields.emplace_back("WWW-Authenticate", staleChallenge(ticket_->key, time, misbehaviour.tsm));
  return {std::move(answer), {}, {}};
}

Answer Exchange::serveApi() {
  switch (route_) {
    case Route::kEvents:
      api_.sessions_.note(ticket_->attributes.id, ticket_->attributes.ext.value_or(""), posted_.array());
      return jsonAnswer(200, api_.behaviour_.directives());
    case Route::kSubmitShare:
      return serveSubmittedShare();
    case Route::kFindShares:
      return jsonAnswer(200, Dictionary{{"data", api_.shares_.find(*head_.parameter("ids"))}});
    case Route::kShareLink:
      return serveShareLink();
    case Route::kCookieMatch:
      return textAnswer(200, "This device is matched. This page may be closed.\n");
    case Route::kPatch:
      return servePatch();
    default:
      return jsonAnswer(200, Dictionary());
  }
}

Answer Exchange::serveSubmittedShare() {
  const HawkAttributes& from = ticket_->attributes;
  const std::string code = api_.shares_.submit(from.id, from.ext.value_or(""), posted_.object(), api_.serverTime());
  details_.setObjectForKey(Value(code), "id");
  return jsonAnswer(201, Dictionary{{"data", Dictionary{{"id", code}}}});
}

Answer Exchange::serveShareLink() {
  const std::string code(head_.path().substr(kShareLinks.size()));
  const auto state = api_.shares_.advance(code, ShareState::kClicked, api_.serverTime());
  if (!state) {
    refuse(404, "There is no such share");
    return *refusal_;
  }
  details_.setObjectForKey(Value(code), "id");
  return textAnswer(200, "The share " + code + " is " + nameOf(*state) + ".\n");
}

Answer Exchange::servePatch() {
  const HawkAttributes& from = ticket_->attributes;
  const auto event = api_.sessions_.patch(from.id, from.ext.value_or(""), posted_.object().find("eventData")->object());
  details_.setObjectForKey(event ? Value(*event) : Value(), "patched");
  return jsonAnswer(200, Dictionary());
}

// --- What is kept and shown of it.

Exchange::Sender Exchange::claimedSender() const {
  if (route_ == Route::kCookieMatch) {
    const auto link = parseHawkLink(head_.target);
    if (!link) return {};
    return {link->bewit.id, head_.parameter("deviceId")};
  }
  auto claimed = parseHawkAuthorization(head_.authorization);
  if (!claimed) return {};
  return {std::move(claimed->id), std::move(claimed->ext)};
}

Dictionary Exchange::entryOf(int status, const char* misbehaviour) const {
  const bool taken = verdict_ == "ok" && status >= 200 && status <= 299;
  Dictionary entry = details_;
  entry.addEntriesFromDictionary({{"time", timeText()},
                                  {"connection", head_.connection},
                                  {"method", head_.method},
                                  {"path", std::string(head_.path())},
                                  {"target", head_.shownTarget()},
                                  {"status", status},
                                  {"verdict", verdict_},
                                  {"taken", taken},
                                  {"bytes", bodyBytes_}});
  if (*misbehaviour) entry.setObjectForKey(Value(misbehaviour), "misbehaviour");
  const Sender sender = claimedSender();
  if (sender.app) entry.setObjectForKey(Value(*sender.app), "app");
  if (sender.device) entry.setObjectForKey(Value(*sender.device), "device");
  return entry;
}

bool Exchange::record(int status, const char* misbehaviour) {
  const Dictionary entry = entryOf(status, misbehaviour);
  if (const auto appended = api_.journal_.append(entry); !appended) {
    printError(appended.error());
    return false;
  }
  if (entry.objectForKey("taken") == Value(true)) ++api_.taken_;
  return true;
}

const char* Exchange::kind() const {
  switch (route_) {
    case Route::kEvents:
      return "batch";
    case Route::kSubmitShare:
      return "share";
    case Route::kFindShares:
      return "lookup";
    case Route::kShareLink:
      return "link";
    case Route::kCookieMatch:
      return "match";
    case Route::kPatch:
      return "patch";
    case Route::kGif:
      return "upload";
    default:
      return "other";
  }
}

std::string Exchange::nonceKey() const {
  return ticket_ ? ticket_->attributes.id + "\n" + ticket_->attributes.nonce + "\n" + ticket_->attributes.ts : "";
}

/// A body that comes again is signed anew, but for that of an upload.
std::string Exchange::identity() const {
  if (!ticket_ || body_.empty()) return route_ == Route::kGif ? nonceKey() : "";
  const HawkAttributes& from = ticket_->attributes;
  return from.id + "\n" + from.ext.value_or("") + "\n" + head_.target + "\n" + hash_.value_or("");
}

Judged Exchange::judged() const {
  Judged request;
  request.method = head_.method;
  request.target = head_.target;
  request.host = head_.host;
  request.contentType = head_.contentType;
  if (head_.authorization) request.authorization = *head_.authorization;
  request.verdict = verdict_;
  request.isSigned = isSigned_;
  request.hash = hash_;
  request.bodyBytes = body_.size();
  request.isUpload = route_ == Route::kGif;
  request.isRepeatable = request.isUpload && api_.uploads_ == Api::Uploads::kRepeatable;
  request.serverTime = judgedAt_;
  if (ticket_) request.firstUse = api_.story_.firstUseOf(nonceKey());
  return request;
}

void Exchange::tell(const std::optional<Answer>& answer, const char* misbehaviour) const {
  Happening happening;
  happening.at = api_.now_();
  happening.kind = kind();
  happening.entry = entryOf(answer ? answer->status : 0, misbehaviour);
  if (hasTextBody() || route_ == Route::kGif) happening.checks = checksOfHeader(judged(), api_.applications_);
  if (route_ == Route::kCookieMatch) happening.checks = checksOfLink(judged(), api_.applications_);
  happening.identity = identity();
  if (isNonceUsedUp_) happening.nonce = nonceKey();
  // An upload is signed once and may be sent days later: its time says nothing about the device's clock now.
  if (ticket_ && route_ != Route::kGif) happening.clock = std::chrono::seconds(std::stoll(ticket_->attributes.ts)) - happening.at;
  happening.isChallenged = answer && std::ranges::any_of(answer->fields, [](const auto& field) {
                             return field.first == "WWW-Authenticate" && field.second.starts_with("Hawk ts=");
                           });
  if (*misbehaviour) happening.behaviour = api_.behaviour_.summary();
  api_.story_.tell(happening);
}

std::string Exchange::remark() const {
  if (verdict_ != "ok") return verdict_;
  if (route_ == Route::kEvents) {
    const std::uint64_t count = posted_.count();
    return std::to_string(count) + (count == 1 ? " record" : " records");
  }
  if (route_ == Route::kGif) return std::to_string(bodyBytes_) + " bytes";
  return "";
}

void Exchange::print(int status, std::string_view misbehaviour) const {
  std::string line = timeText() + " " + (status ? std::to_string(status) : "---") + " " + head_.method + " " + head_.shownTarget();
  if (const Sender sender = claimedSender(); sender.app) line += " " + *sender.app;
  if (const std::string text = remark(); !text.empty()) line += " " + text;
  if (!misbehaviour.empty()) line += " (" + std::string(misbehaviour) + ")";
  printLine(line);
}

}  // namespace devserver
