// Routes, verification in two steps, the answers, and what the journal says.
#include "devserver/Api.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "devserver/Json.h"

namespace devserver {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;

constexpr std::uint64_t kMaxBehaviourBody = 1024ULL * 1024;
constexpr std::size_t kUserIdLength = 8;
constexpr std::size_t kShareIdLength = 10;
constexpr std::string_view kLettersAndDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

Answer jsonAnswer(int status, const Value& body) { return {status, {{"Content-Type", "application/json"}}, writeJson(body)}; }
Answer textAnswer(int status, std::string body) {
  return {status, {{"Content-Type", "text/plain; charset=utf-8"}}, std::move(body)};
}

/// Letters and digits that follow from the bytes. (The bias of the remainder matters to nobody here.)
std::string lettersAndDigits(const unsigned char* bytes, std::size_t count) {
  std::string text;
  for (std::size_t at = 0; at < count; ++at) text += kLettersAndDigits[bytes[at] % kLettersAndDigits.size()];
  return text;
}

/// The same device of the same application is always the same user.
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

std::string hexOf(const unsigned char* bytes, std::size_t count) {
  std::string text;
  for (std::size_t at = 0; at < count; ++at) text += {"0123456789abcdef"[bytes[at] >> 4], "0123456789abcdef"[bytes[at] & 15]};
  return text;
}

/// True for a Host header field that names this machine: a page elsewhere whose name leads here does not.
bool isLoopbackHost(std::string_view host) {
  const std::string_view name = host.starts_with('[') ? host.substr(0, host.find(']') + 1) : host.substr(0, host.find(':'));
  return name == "localhost" || name == "127.0.0.1" || name == "[::1]";
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

/// The size and hash of a GIF that is not kept.
class Exchange::GifDigest {
 public:
  GifDigest() : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex2(context_, EVP_sha256(), nullptr) != 1) throw std::runtime_error("OpenSSL has no SHA-256");
  }
  ~GifDigest() { EVP_MD_CTX_free(context_); }
  GifDigest(const GifDigest&) = delete;
  GifDigest& operator=(const GifDigest&) = delete;

  void add(std::string_view piece) {
    if (EVP_DigestUpdate(context_, piece.data(), piece.size()) != 1) throw std::runtime_error("OpenSSL cannot hash");
  }
  std::string hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
    unsigned length = 0;
    if (EVP_DigestFinal_ex(context_, hash.data(), &length) != 1) throw std::runtime_error("OpenSSL cannot hash");
    return hexOf(hash.data(), length);
  }

 private:
  EVP_MD_CTX* context_;
};

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

// --- What all connections share.

Api::Api(HawkVerifier::Keys keys, Journal& journal, std::filesystem::path authorityFile, Now now)
    : verifier_(keys),
      journal_(journal),
      authorityFile_(std::move(authorityFile)),
      applications_([&keys] {
        std::vector<std::string> ids;
        for (const auto& [id, key] : keys) ids.push_back(id);
        return ids;
      }()),
      now_(std::move(now)) {}

std::string Api::submitShare(std::string_view app, std::string_view device, Dictionary share) {
  std::lock_guard lock(mutex_);
  std::string code = userIdOf(app, device) + newShareId();
  share.setObjectForKey(Value(code), "id");
  shares_.insert_or_assign(code, std::move(share));
  return code;
}

Array Api::findShares(std::string_view ids) {
  std::lock_guard lock(mutex_);
  Array found;
  while (!ids.empty()) {
    const std::string_view id = ids.substr(0, ids.find(','));
    ids.remove_prefix(std::min(ids.size(), id.size() + 1));
    if (const auto share = shares_.find(id); share != shares_.end()) found.addObject(Value(share->second));
  }
  return found;
}

std::string Api::page() const {
  std::string text = "kestrova-devserver\n\nTrust this certificate authority: " + authorityFile_.string() + "\n\nApplications:\n";
  for (const std::string& id : applications_) text += "  " + id + "\n";
  text += "\nRequests taken: " + std::to_string(taken_.load()) +
          "\n\nAPI:\n"
          "  POST /events                          signed\n"
          "  POST /shares                          signed\n"
          "  GET  /shares?ids=ID,...               not signed\n"
          "  POST /patch-previous-session-started  signed\n"
          "  POST /gifs?shareId=ID                 signed, header only\n"
          "\nThis server:\n"
          "  GET  /dev/records                     what came in since it started\n"
          "  GET  /dev/behaviour                   how it misbehaves\n"
          "  POST /dev/behaviour                   change that\n"
          "  DELETE /dev/behaviour                 behave\n";
  return text;
}

// --- One request: the header.

Exchange::Exchange(Api& api, RequestHead head) : api_(api), head_(std::move(head)) {
  route();
  if (refusal_) return;
  if (head_.isAmbiguous)
    refuse(400, "Host must stand once, and Authorization no more than once");
  else if (isOwn() && (head_.hasOrigin || !isLoopbackHost(head_.host)))
    refuse(403, "For programs on this machine only");
  else if (hasTextBody() || route_ == Route::kGif)
    verifyHeader();
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
      Entry{"/dev/records", "GET", Route::kRecords},
      Entry{"/dev/behaviour", "GET", Route::kBehaviour},
      Entry{"/dev/behaviour", "POST", Route::kBehaviour},
      Entry{"/dev/behaviour", "DELETE", Route::kBehaviour},
      Entry{"/events", "POST", Route::kEvents},
      Entry{"/shares", "POST", Route::kSubmitShare},
      Entry{"/shares", "GET", Route::kFindShares},
      Entry{"/patch-previous-session-started", "POST", Route::kPatch},
      Entry{"/gifs", "POST", Route::kGif},
  };
  std::string allowed;
  for (const Entry& entry : kEntries) {
    if (entry.path != head_.path()) continue;
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
  refusal_ = jsonAnswer(status, Dictionary{{"error", reason}});
  if (!challenge.empty()) refusal_->fields.emplace_back("WWW-Authenticate", std::move(challenge));
  verdict_ = std::move(reason);
}

void Exchange::verifyHeader() {
  auto ticket = api_.verifier_.verifyHeader({head_.method, head_.target, head_.host, head_.authorization});
  if (!ticket) return refuse(ticket.error());
  ticket_ = *std::move(ticket);
  if (route_ != Route::kGif) return;
  // A GIF is signed by its header alone, so all of it can be judged before the first byte of the body.
  if (auto fresh = api_.verifier_.verifyFreshness(*ticket_, api_.serverTime()); !fresh) return refuse(fresh.error());
  const auto share = head_.parameter("shareId");
  if (!share || share->empty()) return refuse(400, "No shareId");
  details_.setObjectForKey(Value(*share), "shareId");
  gif_ = std::make_unique<GifDigest>();
}

Exchange::Plan Exchange::plan() const {
  if (refusal_) return {};
  if (route_ == Route::kGif) return {true, kMaxGif};
  if (route_ == Route::kBehaviour) return {head_.method == "POST", kMaxBehaviourBody};
  return {hasTextBody(), kMaxTextBody};
}

// --- One request: the body.

void Exchange::take(std::string_view piece) {
  bodyBytes_ += piece.size();
  if (gif_)
    gif_->add(piece);
  else
    body_.append(piece);
}

void Exchange::refuseLongBody() { refuse(413, "Body too long"); }

void Exchange::abandon() {
  verdict_ = "Body incomplete";
  if (isOwn()) return print(0, "");
  record(0, "");
  print(0, "");
}

void Exchange::verifyBody() {
  if (auto right = HawkVerifier::verifyPayload(*ticket_, head_.contentType, body_); !right) return refuse(right.error());
  if (auto fresh = api_.verifier_.verifyFreshness(*ticket_, api_.serverTime()); !fresh) refuse(fresh.error());
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
  return {};
}

void Exchange::examine() {
  if (gif_) details_.setObjectForKey(Value(gif_->hex()), "sha256");
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
  if (isOwn()) {
    Answer answer = refusal_ ? *refusal_ : serveOwn();
    print(answer.status, "");
    return {std::move(answer), {}};
  }
  if (!refusal_ && hasTextBody()) verifyBody();
  examine();

  const Misbehaviour misbehaviour = api_.behaviour_.take(ticket_.has_value());
  Reaction reaction =
      misbehaviour.kind != Misbehaviour::Kind::kNone ? misbehave(misbehaviour) : Reaction{refusal_ ? *refusal_ : serveApi(), {}};
  reaction.delay = api_.behaviour_.delay();
  if (!record(reaction.answer ? reaction.answer->status : 0, misbehaviour.name()))
    reaction.answer = jsonAnswer(500, Dictionary{{"error", "The journal cannot be written"}});
  print(reaction.answer ? reaction.answer->status : 0, misbehaviour.name());
  return reaction;
}

Reaction Exchange::misbehave(const Misbehaviour& misbehaviour) const {
  if (misbehaviour.kind == Misbehaviour::Kind::kDrop) return {};
  if (misbehaviour.kind != Misbehaviour::Kind::kStale) return {misbehaviour.answer, {}};
  const auto now = std::chrono::floor<std::chrono::seconds>(api_.serverTime()).count();
  const std::string time = misbehaviour.time.value_or(std::to_string(now));
  Answer answer = jsonAnswer(401, Dictionary{{"error", "Stale timestamp"}});
  answer.fields.emplace_back("WWW-Authenticate", staleChallenge(ticket_->key, time, misbehaviour.tsm));
  return {std::move(answer), {}};
}

Answer Exchange::serveOwn() {
  if (route_ == Route::kPage) return textAnswer(200, api_.page());
  if (route_ == Route::kBehaviour) return serveBehaviour();
  const auto entries = api_.journal_.entriesAsJson();
  if (!entries) return jsonAnswer(500, Dictionary{{"error", entries.error()}});
  return {200, {{"Content-Type", "application/json"}}, "{\"requests\":" + *entries + "}"};
}

Answer Exchange::serveBehaviour() {
  if (head_.method == "DELETE") api_.behaviour_.reset();
  if (head_.method == "POST") {
    const auto settings = readJsonObject(body_);
    const auto changed = settings ? api_.behaviour_.change(*settings) : std::unexpected(settings.error());
    if (!changed) return jsonAnswer(400, Dictionary{{"error", changed.error()}});
  }
  return jsonAnswer(200, api_.behaviour_.state());
}

Answer Exchange::serveApi() {
  switch (route_) {
    case Route::kEvents:
      return jsonAnswer(200, api_.behaviour_.directives());
    case Route::kSubmitShare: {
      const HawkAttributes& from = ticket_->attributes;
      const std::string code = api_.submitShare(from.id, from.ext.value_or(""), posted_.object());
      details_.setObjectForKey(Value(code), "id");
      return jsonAnswer(201, Dictionary{{"data", Dictionary{{"id", code}}}});
    }
    case Route::kFindShares:
      return jsonAnswer(200, Dictionary{{"data", api_.findShares(*head_.parameter("ids"))}});
    default:
      return jsonAnswer(200, Dictionary());
  }
}

// --- What is kept and shown of it.

bool Exchange::record(int status, const char* misbehaviour) {
  const bool taken = verdict_ == "ok" && status >= 200 && status <= 299;
  Dictionary entry = details_;
  entry.addEntriesFromDictionary({{"time", timeText()},
                                  {"connection", head_.connection},
                                  {"method", head_.method},
                                  {"path", std::string(head_.path())},
                                  {"target", head_.target},
                                  {"status", status},
                                  {"verdict", verdict_},
                                  {"taken", taken},
                                  {"bytes", bodyBytes_}});
  if (*misbehaviour) entry.setObjectForKey(Value(misbehaviour), "misbehaviour");
  // Who it claims to come from, whether or not that is true: the verdict tells.
  if (const auto claimed = parseHawkAuthorization(head_.authorization)) {
    entry.setObjectForKey(Value(claimed->id), "app");
    if (claimed->ext) entry.setObjectForKey(Value(*claimed->ext), "device");
  }
  if (const auto appended = api_.journal_.append(entry); !appended) {
    printError(appended.error());
    return false;
  }
  if (taken) ++api_.taken_;
  return true;
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
  std::string line = timeText() + " " + (status ? std::to_string(status) : "---") + " " + head_.method + " " + head_.target;
  if (const auto claimed = parseHawkAuthorization(head_.authorization)) line += " " + claimed->id;
  if (const std::string text = remark(); !text.empty()) line += " " + text;
  if (!misbehaviour.empty()) line += " (" + std::string(misbehaviour) + ")";
  printLine(line);
}

}  // namespace devserver
