// The server's own pages: the live page and what it reads, the journal, and the controls. Who may use them, and their answers.
#include <algorithm>
#include <charconv>
#include <utility>

#include "devserver/Answers.h"
#include "devserver/Api.h"
#include "devserver/Json.h"
#include "devserver/PageFiles.h"

namespace devserver {
namespace {

using platform::Dictionary;
using platform::Value;

constexpr std::size_t kMaxChunk = 10'000;
constexpr std::size_t kUsualChunk = 1'000;
/// The longest GIF that the page shows.
constexpr std::uint64_t kMaxShownGif = 32ULL * 1024 * 1024;

/// The page takes scripts, styles and pictures from this server alone, and no text of a client ever becomes markup.
constexpr const char* kPagePolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'";

/// True for a Host header field that names this machine: a page elsewhere whose name leads here does not.
bool isLoopbackHost(std::string_view host) {
  const std::string_view name = host.starts_with('[') ? host.substr(0, host.find(']') + 1) : host.substr(0, host.find(':'));
  return name == "localhost" || name == "127.0.0.1" || name == "[::1]";
}

/// What keeps a browser from guessing types and from showing an answer to pages of others.
Answer guarded(Answer answer) {
  answer.fields.insert(answer.fields.end(), {{"X-Content-Type-Options", "nosniff"},
                                             {"Cross-Origin-Resource-Policy", "same-origin"},
                                             {"Referrer-Policy", "no-referrer"},
                                             {"Cache-Control", "no-store"}});
  return answer;
}

Answer pageFileAnswer(std::string_view name) {
  const auto files = pageFiles();
  const auto file = std::ranges::find(files, name, &PageFile::name);
  if (file == files.end()) return errorAnswer(404, "Unknown path");
  Answer answer{200, {{"Content-Type", std::string(mediaTypeOf(name))}}, std::string(file->content)};
  if (name.ends_with(".html")) {
    answer.fields.emplace_back("Content-Security-Policy", kPagePolicy);
    answer.fields.emplace_back("Cross-Origin-Opener-Policy", "same-origin");
    answer.fields.emplace_back("Vary", "Accept");
  }
  return guarded(std::move(answer));
}

/// A number of plain digits, or another one where there is no text; absent for any other text.
std::optional<std::uint64_t> numberOr(const std::optional<std::string>& text, std::uint64_t other) {
  if (!text) return other;
  std::uint64_t number = 0;
  const auto read = std::from_chars(text->data(), text->data() + text->size(), number);
  if (read.ec != std::errc() || read.ptr != text->data() + text->size()) return std::nullopt;
  return number;
}

}  // namespace

std::string_view mediaTypeOf(std::string_view name) {
  if (name.ends_with(".html")) return "text/html; charset=utf-8";
  if (name.ends_with(".css")) return "text/css; charset=utf-8";
  if (name.ends_with(".svg")) return "image/svg+xml";
  return "text/javascript; charset=utf-8";
}

std::string Api::textPage() const {
  std::string text = "kestrova-devserver\n\nTrust this certificate authority: " + authorityFile_.string() + "\n\nApplications:\n";
  for (const std::string& id : applications_) text += "  " + id + "\n";
  text += "\nRequests taken: " + std::to_string(taken_.load()) +
          "\n\nAPI:\n"
          "  POST /events                          signed\n"
          "  POST /shares                          signed\n"
          "  GET  /shares?ids=ID,...               not signed\n"
          "  GET  /s/ID                            a share's link: it was clicked\n"
          "  POST /patch-previous-session-started  signed\n"
          "  GET  /cookie-match                    a signed link\n"
          "  POST /gifs?shareId=ID                 signed, header only\n"
          "\nThis server:\n"
          "  GET  /                                the live page, in a browser\n"
          "  GET  /dev/feed                        what happened, as the live page shows it\n"
          "  GET  /dev/records                     what came in since it started\n"
          "  GET  /dev/behaviour                   how it misbehaves\n"
          "  POST /dev/behaviour                   change that\n"
          "  DELETE /dev/behaviour                 behave\n"
          "  GET  /dev/shares                      the shares it keeps\n"
          "  POST /dev/shares                      move their states on\n"
          "  GET  /dev/sessions                    the newest session-started event of each device\n";
  return text;
}

bool Exchange::mayAskForOwn() const {
  if (!isLoopbackHost(head_.host)) return false;
  // A browser names the page that sends something. What changes something needs the mark
  // too, a field that no page of another origin can send unasked.
  if (head_.origin) return *head_.origin == "https://" + head_.host && (head_.method == "GET" || head_.hasPageMark);
  // It names no page that only reads, but says whether it is from elsewhere. A link to the live page may stand anywhere.
  return head_.fetchSite.empty() || head_.fetchSite == "same-origin" || head_.fetchSite == "none" || route_ == Route::kPage;
}

Reaction Exchange::finishOwn() {
  Reaction reaction =
      !refusal_ && route_ == Route::kLiveFeed ? beginLiveFeed() : Reaction{refusal_ ? *refusal_ : serveOwn(), {}, {}};
  // What the page fetches for itself would drown the requests that it is there to show.
  if (!isReadByPage() || reaction.answer->status != 200) print(reaction.answer->status, "");
  return reaction;
}

Answer Exchange::serveOwn() {
  switch (route_) {
    case Route::kPage:
      return servePage();
    case Route::kPageFile:
      return servePageFile();
    case Route::kFeed:
      return serveFeed();
    case Route::kShownGif:
      return serveShownGif();
    case Route::kBehaviour:
      return serveBehaviour();
    case Route::kShareStates:
      return serveShareStates();
    case Route::kSessions:
      return jsonAnswer(200, Dictionary{{"sessions", api_.sessions_.all()}});
    default:
      return serveRecords();
  }
}

/// For people in a browser the live page, for those at a terminal a text.
Answer Exchange::servePage() const { return head_.acceptsHtml ? pageFileAnswer("index.html") : textAnswer(200, api_.textPage()); }

Answer Exchange::servePageFile() const {
  const std::string_view path = head_.path();
  return pageFileAnswer(path.substr(path.rfind('/') + 1));
}

Answer Exchange::serveRecords() const {
  const auto entries = api_.journal_.entriesAsJson();
  if (!entries) return errorAnswer(500, entries.error());
  return {200, {{"Content-Type", "application/json"}}, "{\"requests\":" + *entries + "}"};
}

Answer Exchange::serveFeed() const {
  const std::uint64_t next = api_.feed_.next();
  const auto before = numberOr(head_.parameter("before"), next);
  const auto limit = numberOr(head_.parameter("limit"), kUsualChunk);
  if (!before || !limit || *limit == 0 || *limit > kMaxChunk)
    return errorAnswer(400, "before must be a number, and limit one from 1 to " + std::to_string(kMaxChunk));
  const Feed::Chunk chunk = api_.feed_.before(*before, *limit);
  const Dictionary frame{{"run", api_.run_}, {"oldest", api_.feed_.oldest()}, {"next", next}};
  std::string text = writeJson(frame);
  text.back() = ',';
  return guarded({200, {{"Content-Type", "application/json"}}, text + "\"items\":" + chunk.items + "}"});
}

Answer Exchange::serveShownGif() const {
  auto content = api_.gifs_.content(head_.parameter("file").value_or(""), kMaxShownGif);
  if (!content) return errorAnswer(404, content.error());
  return guarded({200, {{"Content-Type", "image/gif"}}, *std::move(content)});
}

Reaction Exchange::beginLiveFeed() const {
  const auto after = numberOr(head_.lastEventId ? head_.lastEventId : head_.parameter("after"), api_.feed_.next() - 1);
  if (!after) return {errorAnswer(400, "after must be a number"), {}, {}};
  if (api_.feed_.isClosed()) return {errorAnswer(503, "The server is stopping"), {}, {}};
  platform::Array applications;
  for (const std::string& id : api_.applications_) applications.addObject(Value(id));
  const Dictionary hello{{"run", api_.run_},
                         {"oldest", api_.feed_.oldest()},
                         {"next", api_.feed_.next()},
                         {"applications", applications},
                         {"authority", api_.authorityFile_.string()},
                         {"behaviour", api_.behaviour_.summary()}};
  Answer answer{200, {{"Content-Type", "text/event-stream"}}, "event: hello\ndata: " + writeJson(hello) + "\n\n"};
  // Numbers of another run mean nothing here; the page sees by the run's name that it must begin anew.
  return {guarded(std::move(answer)), std::min(*after, api_.feed_.next() - 1), {}};
}

Answer Exchange::serveBehaviour() {
  if (head_.method == "DELETE") api_.behaviour_.reset();
  if (head_.method == "POST") {
    const auto settings = readJsonObject(body_);
    const auto changed = settings ? api_.behaviour_.change(*settings) : std::unexpected(settings.error());
    if (!changed) return errorAnswer(400, changed.error());
  }
  if (head_.method != "GET") api_.story_.tellBehaviour(api_.now_(), api_.behaviour_.summary());
  return jsonAnswer(200, api_.behaviour_.state());
}

Answer Exchange::serveShareStates() {
  if (head_.method == "POST") {
    const auto states = readJsonObject(body_);
    const auto changed = states ? api_.shares_.change(*states, api_.serverTime()) : std::unexpected(states.error());
    if (!changed) return errorAnswer(400, changed.error());
  }
  return jsonAnswer(200, Dictionary{{"shares", api_.shares_.all()}});
}

}  // namespace devserver
