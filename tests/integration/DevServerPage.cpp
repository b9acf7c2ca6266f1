// The live page's side of the development server: its files, the feed of what happened, the stream, and who may use them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Process.h"
#include "platform/linux/OpenSSLDigest.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/DevServer.h"
#include "support/HttpsClient.h"
#include "support/SignedRequest.h"

namespace {

using platform::Dictionary;
using platform::Value;
using test::DevServer;
using test::HttpAnswer;
using test::HttpsClient;
using test::SignedRequest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kBatch = R"({"data":[{"event":"opened","eventData":{"sessionId":"s1"},"localTime":"2026-11-20T20:19:39.000Z"}]})";

class DevServerPage : public ::testing::Test {
 protected:
  explicit DevServerPage(const std::vector<std::string>& arguments = {}) : server_(arguments) {
    process_.digest = std::make_shared<platform::OpenSSLDigest>();
  }

  /// A signed POST as a client sends it, of one event where nothing else is said; of an upload the header alone is signed.
  std::string signedPost(SignedRequest request) const {
    if (request.body.empty()) request.body = kBatch;
    request.signsBody = !request.target.starts_with("/gifs");
    return test::wire(request, server_);
  }
  HttpAnswer exchange(const std::string& text) const { return test::answerTo(server_, text); }
  HttpAnswer ask(const std::string& line, const std::string& fields = "", const std::string& body = "") const {
    return exchange(line + " HTTP/1.1\r\nHost: " + server_.host() + "\r\n" + fields +
                    (body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") + "\r\n" + body);
  }
  HttpAnswer get(const std::string& target, const std::string& fields = "") const { return ask("GET " + target, fields); }
  static Dictionary parsed(const std::string& text) {
    const auto value = platform::makeRapidJSONSerialization()->read(platform::Data(text));
    EXPECT_TRUE(value && value->isObject()) << text;
    return value && value->isObject() ? value->object() : Dictionary();
  }
  /// The feed's items, newest first.
  std::vector<Dictionary> items() const {
    std::vector<Dictionary> all;
    const Dictionary page = parsed(get("/dev/feed").body);
    for (const Value& item : page.find("items")->array()) all.push_back(item.object());
    return all;
  }
  static std::string text(const Dictionary& object, const char* key) {
    const auto value = object.objectForKey(key);
    return value && value->isString() ? std::string(value->string().view()) : "";
  }
  std::vector<std::string> kinds() const {
    std::vector<std::string> all;
    for (const Dictionary& item : items()) all.push_back(text(item, "kind"));
    return all;
  }
  /// What the newest request's step is told to be.
  std::string told(const char* step) const {
    const Dictionary newest = items().front();
    const auto checks = newest.objectForKey("checks");
    for (const Value& check : checks->array())
      if (text(check.object(), "step") == step) return text(check.object(), "state") + ": " + text(check.object(), "say");
    return "none";
  }

  platform::Process process_;
  platform::Process::Scope scope_{process_};
  DevServer server_;
};

// --- The page.

TEST_F(DevServerPage, BrowserGetsThePageAndATerminalTheText) {
  const HttpAnswer page = get("/", "Accept: text/html,application/xhtml+xml\r\n");
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.field("content-type"), "text/html; charset=utf-8");
  EXPECT_THAT(page.body, HasSubstr("<title>Kestrova development server</title>"));
  EXPECT_EQ(page.field("content-security-policy"),
            "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; "
            "form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'");
  EXPECT_EQ(page.field("x-content-type-options"), "nosniff");
  EXPECT_EQ(page.field("cache-control"), "no-store");
  EXPECT_EQ(get("/").field("content-type"), "text/plain; charset=utf-8");
}

TEST_F(DevServerPage, ItsFilesHaveTheirTypes) {
  EXPECT_EQ(get("/dev/page/main.js").field("content-type"), "text/javascript; charset=utf-8");
  EXPECT_EQ(get("/dev/page/style.css").field("content-type"), "text/css; charset=utf-8");
  EXPECT_EQ(get("/dev/page/icon.svg").field("content-type"), "image/svg+xml");
  EXPECT_EQ(get("/dev/page/../../etc/passwd").status, 404);
  EXPECT_EQ(get("/dev/page/nothing.js").body, R"({"error":"Unknown path"})");
}

TEST_F(DevServerPage, NothingOfItComesFromElsewhere) {
  for (const char* file : {"index.html", "style.css", "main.js", "store.js", "list.js", "details.js", "charts.js", "faults.js",
                           "dom.js", "words.js"}) {
    const HttpAnswer answer = get(std::string("/dev/page/") + file);
    EXPECT_EQ(answer.status, 200) << file;
    EXPECT_THAT(answer.body, Not(::testing::ContainsRegex("(src|href|url|import|fetch)[^\n]*https?://"))) << file;
    EXPECT_THAT(answer.body, Not(HasSubstr("innerHTML"))) << file;
  }
}

// --- The feed.

TEST_F(DevServerPage, FeedIsPagedNewestFirst) {
  EXPECT_THAT(items(), ::testing::IsEmpty());
  EXPECT_EQ(exchange(signedPost({})).status, 200);
  EXPECT_THAT(kinds(), ElementsAre("batch", "event"));
  const Dictionary event = items().at(1);
  EXPECT_EQ(text(event, "name"), "opened");
  EXPECT_EQ(text(event, "session"), "s1");
  EXPECT_EQ(text(event, "device"), SignedRequest::kDevice);
  EXPECT_EQ(text(event, "app"), DevServer::kAppId);
  EXPECT_EQ(text(event, "time"), "2026-11-20T20:19:39.000Z");

  const Dictionary newest = parsed(get("/dev/feed?limit=1").body);
  EXPECT_EQ(newest.objectForKey("oldest"), Value(1));
  EXPECT_EQ(newest.objectForKey("next"), Value(3));
  EXPECT_EQ(newest.objectForKey("items")->count(), 1U);
  const Dictionary older = parsed(get("/dev/feed?before=2").body);
  EXPECT_EQ(older.objectForKey("items")->array()[0].objectForKey("n"), Value(1));
  EXPECT_EQ(newest.objectForKey("run"), older.objectForKey("run"));
  for (const char* query : {"limit=0", "limit=10001", "limit=x", "before=-1", "before="})
    EXPECT_EQ(get(std::string("/dev/feed?") + query).body, R"({"error":"before must be a number, and limit one from 1 to 10000"})");
}

TEST_F(DevServerPage, EachRefusalIsExplained) {
  exchange(signedPost({.key = "another secret"}));
  EXPECT_THAT(told("signature"), HasSubstr("wrong: The MAC does not fit the text"));
  const auto checks = items().front().objectForKey("checks");
  EXPECT_THAT(text(checks->array()[2].object(), "text"),
              HasSubstr("\nPOST\n/events\nlocalhost\n" + std::to_string(server_.port())));

  std::string changed = signedPost({});
  changed.replace(changed.find("opened"), 6, "closed");
  exchange(changed);
  EXPECT_EQ(told("payload"), "wrong: The hash does not fit the body: " + std::to_string(kBatch.size()) +
                                 " bytes, sent as \"application/vnd.kestrova.v1+json\". Either differs from what was signed.");

  const std::string twice = signedPost({});
  exchange(twice);
  EXPECT_EQ(told("nonce"), "right: The nonce is new.");
  const auto number = items().front().objectForKey("n");
  exchange(twice);
  EXPECT_THAT(told("nonce"),
              HasSubstr("wrong: The nonce was used before: number " + std::to_string(number->integerValue()) + ", at "));

  exchange(signedPost({.ahead = -3600}));
  EXPECT_THAT(told("clock"), ::testing::MatchesRegex("wrong: The signature's time is 360[0-9]\\.[0-9] s behind the server; "
                                                     "60 s to either side are allowed\\."));
  exchange("POST /events HTTP/1.1\r\nHost: localhost\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(told("header"), "wrong: The Authorization header cannot be used: No Authorization header.");
}

TEST_F(DevServerPage, NonceIsFirstUsedByTheRequestThatUsedItUp) {
  const std::string good = signedPost({});
  std::string spoilt = good;
  spoilt.replace(spoilt.find("opened"), 6, "closed");
  exchange(spoilt);  // refused for its hash before anybody looks at the nonce
  exchange(good);
  const std::string number = std::to_string(items().front().objectForKey("n")->integerValue());
  exchange(spoilt);
  exchange(good);
  EXPECT_THAT(told("nonce"), HasSubstr("wrong: The nonce was used before: number " + number + ", at "));
}

TEST_F(DevServerPage, NeitherSecretNorMacIsInTheFeed) {
  const std::string good = signedPost({});
  const std::string bad = signedPost({.key = "another secret"});
  exchange(good);
  exchange(bad);
  const std::string feed = get("/dev/feed").body;
  EXPECT_THAT(feed, Not(HasSubstr(DevServer::kSecret)));
  for (const std::string& request : {good, bad}) {
    const auto mac = request.find("mac=\"") + 5;
    EXPECT_THAT(feed, Not(HasSubstr(request.substr(mac, request.find('"', mac) - mac))));
  }
}

TEST_F(DevServerPage, RetryAndClockCorrectionAreTold) {
  ASSERT_EQ(server_.misbehave(R"({"status": 500})"), "");
  exchange(signedPost({}));
  exchange(signedPost({}));
  EXPECT_THAT(kinds(), ElementsAre("batch", "batch", "event", "behaviour"));
  EXPECT_EQ(items().at(0).objectForKey("again"), Value(3));
  EXPECT_EQ(items().at(1).objectForKey("misbehaviour"), Value("status"));
  EXPECT_EQ(items().at(1).objectForKey("behaviour")->objectForKey("status"), Value());

  ASSERT_EQ(server_.misbehave(R"({"clock-offset": 3600})"), "");
  exchange(signedPost({.body = R"({"data":[]})"}));
  exchange(signedPost({.body = R"({"data":[]})", .ahead = 3600}));
  EXPECT_THAT(kinds(), ElementsAre("batch", "clock", "batch", "behaviour", "batch", "batch", "event", "behaviour"));
  EXPECT_NEAR(static_cast<double>(items().at(1).objectForKey("seconds")->integerValue()), 3600, 5);
}

TEST_F(DevServerPage, UploadThatWasSignedDaysAgoIsNoCorrectionOfTheClock) {
  exchange(signedPost({.ahead = -3600}));
  EXPECT_EQ(exchange(signedPost({.target = "/gifs?shareId=abc", .ahead = -3 * 86400})).status, 200);
  EXPECT_THAT(kinds(), ElementsAre("upload", "batch", "event"));
  exchange(signedPost({.body = R"({"data":[]})"}));
  EXPECT_THAT(kinds(), ElementsAre("batch", "clock", "upload", "batch", "event"));
  EXPECT_NEAR(static_cast<double>(items().at(1).objectForKey("seconds")->integerValue()), 3600, 5);
}

TEST_F(DevServerPage, GifsAreShownByTheirNames) {
  const std::string gif = "GIF89a;";
  EXPECT_EQ(exchange(signedPost({.target = "/gifs?shareId=abc", .body = gif})).status, 200);
  EXPECT_EQ(text(items().front(), "kind"), "upload");
  EXPECT_EQ(text(items().front(), "file"), "000001.gif");
  const HttpAnswer shown = get("/dev/gif?file=000001.gif");
  EXPECT_EQ(shown.body, gif);
  EXPECT_EQ(shown.field("content-type"), "image/gif");
  EXPECT_EQ(shown.field("x-content-type-options"), "nosniff");
  for (const char* name : {"000002.gif", "../000001.gif", "%2e%2e/secret", "", "1.gif"})
    EXPECT_EQ(get(std::string("/dev/gif?file=") + name).body, R"({"error":"There is no such GIF"})") << name;
}

TEST_F(DevServerPage, LongMisbehaviourIsToldInShortHoweverManyRequestsUseItUp) {
  const std::string answer = R"("answer": {"status": 503, "headers": {"X-Long": ")" + std::string(20'000, 'h') +
                             R"("}, "body": ")" + std::string(500'000, 'b') + R"(", "next": 9})";
  const std::string directives = R"("directives": {"long": ")" + std::string(20'000, 'd') + R"("})";
  ASSERT_EQ(server_.misbehave("{" + answer + ", " + directives + "}"), "");
  for (int count = 0; count < 3; ++count) EXPECT_EQ(get("/shares?ids=x").body.size(), 500'000U);
  ASSERT_EQ(kinds().size(), 4U);
  EXPECT_LT(get("/dev/feed").body.size(), 20'000U);
  const Dictionary state = items().front().objectForKey("behaviour")->object();
  EXPECT_EQ(state.objectForKey("answer"), Value(Dictionary{{"status", 503}, {"bodyBytes", 500'000}, {"next", 6}}));
  EXPECT_EQ(state.objectForKey("directives"), std::nullopt);
  EXPECT_EQ(state.objectForKey("directivesBytes"), Value(20'011));
  EXPECT_EQ(text(state, "directivesBeginning"), R"({"long":")" + std::string(1024 - 9, 'd'));
}

TEST_F(DevServerPage, RequestThatIsRefusedForItsHostHasNoWrongMac) {
  std::string request = signedPost({});
  const std::string host = "Host: " + server_.host();
  exchange(std::string(request).replace(request.find(host), host.size(), "Host: localhost:port"));
  EXPECT_EQ(told("request"), "wrong: It was refused before anybody looked at its signature: Invalid Host header.");
  EXPECT_EQ(told("signature"), "unreached: The MAC was not looked at.");
  exchange(std::string(request).insert(request.find(host), host + "\r\n"));
  EXPECT_EQ(told("signature"), "unreached: The MAC was not looked at.");
  // com.example.app\\1795206039\\m\\ in base64url
  get("/cookie-match?bewit=Y29tLmV4YW1wbGUuYXBwXDE3OTUyMDYwMzlcbVw", "Authorization: Hawk\r\n");
  EXPECT_EQ(told("request"), "wrong: It was refused before anybody looked at its signature: Multiple authentications.");
  EXPECT_EQ(told("signature"), "unreached: The MAC was not looked at.");
}

TEST_F(DevServerPage, UploadIsJudgedByTheTimeAtWhichItBegan) {
  const std::string request = signedPost({.target = "/gifs?shareId=abc", .body = "GIF89a;"});
  const auto end = request.find("\r\n\r\n");
  HttpsClient client(server_.port(), server_.authorityFile());
  ASSERT_TRUE(client.send(request.substr(0, end) + "\r\nExpect: 100-continue\r\n\r\n"));
  ASSERT_EQ(client.read().value_or(HttpAnswer()).status, 100);  // it has been judged
  ASSERT_EQ(server_.misbehave(R"({"clock-offset": 7200})"), "");
  ASSERT_TRUE(client.send(request.substr(end + 4)));
  ASSERT_EQ(client.read().value_or(HttpAnswer()).status, 200);
  EXPECT_THAT(told("clock"), ::testing::MatchesRegex("right: The signature's time is [0-9][0-9]?\\.[0-9] s [a-z ]*the server; "
                                                     "an upload may be 8 days behind and 60 s ahead\\."));
  EXPECT_EQ(told("nonce"), "right: No upload with this nonce was taken before.");
}

class DevServerPageOfStrictUploads : public DevServerPage {
 protected:
  DevServerPageOfStrictUploads() : DevServerPage({"--strict-uploads"}) {}
};

TEST_F(DevServerPageOfStrictUploads, UploadIsToldToBeGoodForAMinute) {
  const std::string request = signedPost({.target = "/gifs?shareId=abc", .body = "GIF89a;"});
  EXPECT_EQ(exchange(request).status, 200);
  EXPECT_EQ(told("nonce"), "right: The nonce is new.");
  EXPECT_THAT(told("clock"), ::testing::EndsWith("; 60 s to either side are allowed."));
  const std::string number = std::to_string(items().front().objectForKey("n")->integerValue());
  EXPECT_EQ(exchange(request).status, 401);
  EXPECT_THAT(told("nonce"), HasSubstr("wrong: The nonce was used before: number " + number + ", at "));
}

// --- The stream.

TEST_F(DevServerPage, StreamTellsWhatIsThereAndWhatComes) {
  exchange(signedPost({}));
  HttpsClient stream(server_.port(), server_.authorityFile());
  ASSERT_TRUE(stream.send("GET /dev/feed/live?after=1 HTTP/1.1\r\nHost: " + server_.host() + "\r\n\r\n"));
  ASSERT_TRUE(stream.waitFor("event: hello\ndata: {"));
  EXPECT_THAT(stream.received(), HasSubstr("Content-Type: text/event-stream\r\n"));
  ASSERT_TRUE(stream.waitFor("\nid: 2\ndata: [{"));
  EXPECT_THAT(stream.received(), Not(HasSubstr("\"n\":1,")));
  ASSERT_EQ(server_.misbehave(R"({"drop": 1})"), "");
  ASSERT_TRUE(stream.waitFor("\nid: 3\ndata: [{"));
  EXPECT_THAT(stream.received(), HasSubstr(R"("kind":"behaviour","n":3})"));
}

TEST_F(DevServerPage, StreamGoesOnWhereItBrokeOff) {
  exchange(signedPost({}));
  HttpsClient stream(server_.port(), server_.authorityFile());
  ASSERT_TRUE(stream.send("GET /dev/feed/live?after=0 HTTP/1.1\r\nHost: " + server_.host() + "\r\nLast-Event-ID: 1\r\n\r\n"));
  ASSERT_TRUE(stream.waitFor("\nid: 2\ndata: [{"));
  EXPECT_THAT(stream.received(), Not(HasSubstr(R"("kind":"event")")));
  EXPECT_EQ(get("/dev/feed/live?after=x").body, R"({"error":"after must be a number"})");
}

TEST_F(DevServerPage, ServerStopsWhileAStreamIsOpen) {
  HttpsClient stream(server_.port(), server_.authorityFile());
  ASSERT_TRUE(stream.send("GET /dev/feed/live HTTP/1.1\r\nHost: " + server_.host() + "\r\n\r\n"));
  ASSERT_TRUE(stream.waitFor("event: hello"));
  EXPECT_EQ(server_.stop(), "exited with 0");
}

// --- Who may use it.

TEST_F(DevServerPage, OrdersComeFromProgramsAndFromThePageItselfAlone) {
  const std::string own = "Origin: https://" + server_.host() + "\r\n";
  const std::string mark = "X-Kestrova-Page: 1\r\n";
  const std::string order = R"({"drop": 0})";
  const auto statusOf = [&](const std::string& fields) { return ask("POST /dev/behaviour", fields, order).status; };
  EXPECT_EQ(statusOf(""), 200);
  EXPECT_EQ(statusOf(own + mark), 200);
  EXPECT_EQ(statusOf(own), 403);
  EXPECT_EQ(statusOf("Origin: https://a.example\r\n" + mark), 403);
  EXPECT_EQ(statusOf("Origin: http://localhost:3000\r\n" + mark), 403);
  EXPECT_EQ(statusOf("Origin: null\r\n" + mark), 403);
  EXPECT_EQ(ask("DELETE /dev/behaviour", "Origin: https://a.example\r\n").status, 403);
  EXPECT_EQ(ask("POST /dev/behaviour", "Sec-Fetch-Site: cross-site\r\n", order).status, 403);
}

TEST_F(DevServerPage, PagesOfOthersCannotReadItButMayLinkToIt) {
  for (const char* target :
       {"/dev/feed", "/dev/feed/live?after=x", "/dev/page/main.js", "/dev/records", "/dev/gif?file=000001.gif"})
    for (const char* site : {"cross-site", "same-site"})
      EXPECT_EQ(get(target, std::string("Sec-Fetch-Site: ") + site + "\r\n").status, 403) << target << " " << site;
  EXPECT_EQ(get("/dev/page/main.js", "Origin: https://" + server_.host() + "\r\n").status, 200);  // as browsers ask for modules
  EXPECT_EQ(get("/dev/feed", "Sec-Fetch-Site: same-origin\r\n").status, 200);
  EXPECT_EQ(get("/dev/feed", "Sec-Fetch-Site: none\r\n").status, 200);
  EXPECT_EQ(get("/", "Accept: text/html\r\nSec-Fetch-Site: cross-site\r\n").status, 200);
}

TEST_F(DevServerPage, WhatThePageReadsIsNotInTheLog) {
  get("/dev/feed");
  get("/dev/page/main.js");
  get("/dev/page/nothing.js");
  ASSERT_TRUE(server_.waitForLine("404 GET /dev/page/nothing.js"));
  EXPECT_THAT(server_.lines(), Not(::testing::Contains(HasSubstr("GET /dev/feed"))));
  EXPECT_THAT(server_.lines(), Not(::testing::Contains(HasSubstr("main.js"))));
}

}  // namespace
