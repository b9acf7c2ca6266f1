// The development server as a program: what it takes and refuses on the wire, how it misbehaves, how it starts and stops.
//
// Requests are signed by the client's own signer, which shares no code with the server's verifier.
#include "support/DevServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/JSONSerialization.h"
#include "platform/Process.h"
#include "platform/linux/OpenSSLDigest.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/HttpsClient.h"
#include "support/SignedRequest.h"
#include "support/TemporaryDirectory.h"

namespace {

using platform::Dictionary;
using platform::Value;
using test::DevServer;
using test::HttpAnswer;
using test::HttpsClient;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kBatch = R"({"data":[{"event":"opened","eventData":{"sessionId":"s"},"localTime":"2026-11-20T20:19:39.000Z"},)"
                           R"({"event":"shared","eventData":{"n":1.25},"localTime":null}]})";

/// With a batch of two events.
struct Request : test::SignedRequest {
  Request() { body = kBatch; }
};

class DevServerTest : public ::testing::Test {
 protected:
  DevServerTest() {
    process_.digest = std::make_shared<platform::OpenSSLDigest>();
    process_.json = platform::makeRapidJSONSerialization();
  }

  static HttpAnswer exchange(const DevServer& server, const std::string& text) { return test::answerTo(server, text); }
  static HttpAnswer exchange(const DevServer& server, const Request& request) { return exchange(server, wire(request, server)); }
  static HttpAnswer get(const DevServer& server, const std::string& target) {
    return exchange(server, "GET " + target + " HTTP/1.1\r\nHost: " + server.host() + "\r\n\r\n");
  }

  static Value parsed(const std::string& text) {
    const auto value = platform::makeRapidJSONSerialization()->read(platform::Data(text));
    EXPECT_TRUE(value.has_value()) << text;
    return value.value_or(Value());
  }
  static std::string text(const Dictionary& entry, const char* key) {
    const auto value = entry.objectForKey(key);
    return value && value->isString() ? std::string(value->string().view()) : "";
  }
  static std::vector<std::string> verdicts(const DevServer& server) {
    std::vector<std::string> all;
    for (const Dictionary& entry : server.requests()) all.push_back(text(entry, "verdict"));
    return all;
  }
  static void expectRefused(const HttpAnswer& answer, int status, const std::string& reason, const std::string& challenge) {
    EXPECT_EQ(answer.status, status);
    EXPECT_EQ(answer.body, "{\"error\":\"" + reason + "\"}");
    EXPECT_EQ(answer.field("www-authenticate"), challenge);
  }

  platform::Process process_;
  platform::Process::Scope scope_{process_};
};

// --- What is taken.

TEST_F(DevServerTest, GoodBatchIsTakenKeptAndPrinted) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const HttpAnswer answer = exchange(server, Request());
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.field("content-type"), "application/json");
  EXPECT_EQ(answer.body, "{}");

  const auto entries = server.requests();
  ASSERT_EQ(entries.size(), 1U);
  Dictionary entry = entries[0];
  EXPECT_THAT(text(entry, "time"), ::testing::MatchesRegex(R"(....-..-..T..:..:..\....Z)"));
  entry.removeObjectForKey("time");
  EXPECT_EQ(Value(entry), Value(Dictionary{{"app", "com.example.app"},
                                           {"bytes", kBatch.size()},
                                           {"connection", 1},
                                           {"device", Request::kDevice},
                                           {"method", "POST"},
                                           {"path", "/events"},
                                           {"target", "/events"},
                                           {"records", *parsed(kBatch).objectForKey("data")},
                                           {"status", 200},
                                           {"taken", true},
                                           {"verdict", "ok"}}));
  EXPECT_TRUE(server.waitForLine("200 POST /events com.example.app 2 records"));
  EXPECT_EQ(server.takenRecords().size(), 2U);
  EXPECT_EQ(
      get(server, "/dev/records").body, "{\"requests\":[" + [&] {
        std::ifstream file(server.journalFile());
        std::string line;
        std::getline(file, line);
        return line;
      }() + "]}");
}

TEST_F(DevServerTest, ConnectionIsKeptForMoreRequests) {
  DevServer server;
  HttpsClient client(server.port(), server.authorityFile());
  for (int request = 0; request < 3; ++request) {
    ASSERT_TRUE(client.send(wire(Request(), server)));
    const auto answer = client.read();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->status, 200);
    EXPECT_EQ(answer->field("connection"), "");
  }
  // Two at once are answered one after the other.
  ASSERT_TRUE(client.send(wire(Request(), server) + wire(Request(), server)));
  EXPECT_TRUE(client.read().has_value());
  EXPECT_TRUE(client.read().has_value());
  for (const Dictionary& entry : server.requests()) EXPECT_EQ(entry.objectForKey("connection"), Value(1));
  EXPECT_EQ(server.requests().size(), 5U);

  Request last;
  last.moreFields = "Connection: close\r\n";
  ASSERT_TRUE(client.send(wire(last, server)));
  EXPECT_EQ(client.read().value().field("connection"), "close");
  EXPECT_TRUE(client.isClosedByServer());
}

TEST_F(DevServerTest, ChunkedBodyAndLeaveToSendIt) {
  DevServer server;
  HttpsClient client(server.port(), server.authorityFile());
  Request request;
  request.moreFields = "Expect: 100-continue\r\nTransfer-Encoding: chunked\r\n";
  ASSERT_TRUE(client.send(head(request, server, authorization(request, server))));
  EXPECT_EQ(client.read().value().status, 100);
  std::array<char, 32> size{};
  std::snprintf(size.data(), size.size(), "%zx", kBatch.size() - 10);
  ASSERT_TRUE(client.send("a\r\n" + kBatch.substr(0, 10) + "\r\n" + size.data() + "\r\n" + kBatch.substr(10) + "\r\n0\r\n\r\n"));
  EXPECT_EQ(client.read().value().status, 200);
  EXPECT_EQ(server.takenRecords().size(), 2U);
}

TEST_F(DevServerTest, SharesAreKeptAndFoundByTheirCodes) {
  DevServer server;
  Request first;
  first.target = "/shares";
  first.body = R"({"data":{"text":"grüße 日本 😀"}})";
  const HttpAnswer answer = exchange(server, first);
  EXPECT_EQ(answer.status, 201);
  const std::string code(parsed(answer.body).objectForKey("data")->objectForKey("id")->string().view());
  EXPECT_THAT(code, ::testing::MatchesRegex("[A-Za-z0-9]+"));
  EXPECT_EQ(code.size(), 18U);
  EXPECT_EQ(answer.body, R"({"data":{"id":")" + code + R"("}})");
  EXPECT_EQ(text(server.requests().at(0), "id"), code);

  Request second = Request();
  second.target = "/shares";
  second.body = R"({"data":{"text":"two"}})";
  const std::string other(parsed(exchange(server, second).body).objectForKey("data")->objectForKey("id")->string().view());
  EXPECT_EQ(other.substr(0, 8), code.substr(0, 8));  // the same device is the same user
  EXPECT_NE(other, code);

  const HttpAnswer found = get(server, "/shares?ids=" + other + ",unknown," + code);
  EXPECT_EQ(found.status, 200);
  const Value shares = *parsed(found.body).objectForKey("data");
  ASSERT_EQ(shares.count(), 2U);
  const auto expectShare = [](Dictionary share, const std::string& expectedCode, const std::string& expectedText) {
    for (const char* time : {"createdAt", "updatedAt"}) {
      EXPECT_NEAR(static_cast<double>(share.objectForKey(time).value_or(Value(0)).integerValue()),
                  static_cast<double>(std::time(nullptr)), 60);
      share.removeObjectForKey(time);
    }
    const Dictionary parts{{"userId", expectedCode.substr(0, 8)}, {"shareId", expectedCode.substr(8)}};
    EXPECT_EQ(Value(share), Value(Dictionary{{"referralCode", parts}, {"state", 0}, {"text", expectedText}}));
  };
  expectShare(shares.array()[0].object(), other, "two");
  expectShare(shares.array()[1].object(), code, "grüße 日本 😀");
  EXPECT_EQ(get(server, "/shares?ids=").body, R"({"data":[]})");
  expectRefused(get(server, "/shares"), 400, "No ids", "");
}

TEST_F(DevServerTest, SharesAreKeptInBoundedMemory) {
  DevServer server;
  std::vector<std::string> codes;
  // 83 shares of 200 kB are what fits into the 16 MiB that it keeps.
  for (int count = 0; count < 85; ++count) {
    Request request;
    request.target = "/shares";
    request.body = R"({"data":{"data":{"text":")" + std::string(200'000, 'x') + R"("}}})";
    codes.emplace_back(parsed(exchange(server, request).body).objectForKey("data")->objectForKey("id")->string().view());
  }
  const auto isKept = [&](const std::string& code) {
    return parsed(get(server, "/shares?ids=" + code).body).objectForKey("data")->count() == 1;
  };
  EXPECT_FALSE(isKept(codes[0]));
  EXPECT_FALSE(isKept(codes[1]));
  EXPECT_TRUE(isKept(codes[4]));
  EXPECT_TRUE(isKept(codes.back()));
}

TEST_F(DevServerTest, LinkOfAnUnknownShareLeadsNowhere) {
  DevServer server;
  const HttpAnswer answer = get(server, "/s/abcdefgh1");
  EXPECT_EQ(answer.status, 404);
  EXPECT_EQ(answer.body, "This link cannot be used: There is no such share\n");
  EXPECT_THAT(verdicts(server), ElementsAre("There is no such share"));
}

TEST_F(DevServerTest, SessionStartPatchIsTaken) {
  DevServer server;
  Request request;
  request.target = "/patch-previous-session-started";
  request.body = R"({"data":{"eventData":{"link":"x"}}})";
  const HttpAnswer answer = exchange(server, request);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, "{}");
  EXPECT_EQ(server.requests().at(0).objectForKey("data"), parsed(request.body).objectForKey("data"));
}

TEST_F(DevServerTest, GifIsStreamedAndKnownByItsSizeAndHash) {
  DevServer server;
  Request request;
  request.target = "/gifs?shareId=abc123";
  request.signsBody = false;
  request.contentType = "image/gif";
  request.body = std::string(3'000'000, 'g');
  EXPECT_EQ(exchange(server, request).status, 200);
  const Dictionary entry = server.requests().at(0);
  EXPECT_EQ(entry.objectForKey("bytes"), Value(3'000'000));
  EXPECT_EQ(text(entry, "shareId"), "abc123");
  // head -c 3000000 /dev/zero | tr '\0' g | sha256sum
  EXPECT_EQ(text(entry, "sha256"), "bf91b0452c4349e479c839e4b058a70a1f1f08af45475874dde68cfe21d5d878");
  EXPECT_TRUE(server.waitForLine("200 POST /gifs?shareId=abc123 com.example.app 3000000 bytes"));
}

// --- What is refused.

TEST_F(DevServerTest, RefusalsOfTheHeaderNameTheirReason) {
  DevServer server;
  const Request request;
  const auto withHeader = [&](const std::string& value) { return exchange(server, head(request, server, value, 0)); };
  expectRefused(withHeader(""), 401, "No Authorization header", "Hawk");
  expectRefused(withHeader("Basic dXNlcjpwYXNz"), 401, "Not the Hawk scheme", "Hawk");
  expectRefused(withHeader("Hawk nonsense"), 400, "Bad header format", "");
  expectRefused(withHeader(R"(Hawk id="a", ts="1")"), 400, "Missing attributes", "");
  expectRefused(withHeader(R"(Hawk id="a", ts="x", nonce="n", mac="m")"), 400, "Bad attribute value: ts", "");

  Request unknown;
  unknown.id = "com.example.unknown";
  expectRefused(exchange(server, unknown), 401, "Unknown credentials", "Hawk error=\"Unknown credentials\"");
  Request forged;
  forged.key = "another secret";
  expectRefused(exchange(server, forged), 401, "Bad mac", "Hawk error=\"Bad mac\"");
  const std::string value = authorization(request, server);
  expectRefused(exchange(server, head(request, server, value + "\r\nAuthorization: " + value, 0)), 400,
                "Host must stand once, and Authorization no more than once", "");
  EXPECT_TRUE(server.takenRecords().empty());
  EXPECT_TRUE(server.waitForLine("401 POST /events com.example.unknown Unknown credentials"));
  EXPECT_TRUE(server.waitForLine("401 POST /events com.example.app Bad mac"));
  EXPECT_TRUE(server.waitForLine("401 POST /events No Authorization header"));
}

TEST_F(DevServerTest, RefusalsOfTheBodyNameTheirReason) {
  DevServer server;
  Request unhashed;
  unhashed.signsBody = false;
  expectRefused(exchange(server, unhashed), 401, "Missing required payload hash", "Hawk error=\"Missing required payload hash\"");
  Request changed;
  const std::string value = authorization(changed, server);
  changed.body[10] = 'X';
  expectRefused(exchange(server, head(changed, server, value, changed.body.size()) + changed.body), 401, "Bad payload hash",
                "Hawk error=\"Bad payload hash\"");
  Request otherType;
  otherType.contentType = "text/plain";
  expectRefused(exchange(server, otherType), 401, "Bad payload hash", "Hawk error=\"Bad payload hash\"");
  EXPECT_TRUE(server.takenRecords().empty());
}

TEST_F(DevServerTest, NonceIsGoodOnce) {
  DevServer server;
  const std::string text = wire(Request(), server);
  EXPECT_EQ(exchange(server, text).status, 200);
  expectRefused(exchange(server, text), 401, "Invalid nonce", "Hawk error=\"Invalid nonce\"");
  EXPECT_EQ(server.takenRecords().size(), 2U);
  EXPECT_THAT(verdicts(server), ElementsAre("ok", "Invalid nonce"));
}

TEST_F(DevServerTest, StaleRequestIsChallengedWithATimeThatCanBeVerified) {
  DevServer server({"--clock-offset", "-3600"});
  ASSERT_EQ(server.fault(), "");
  Request request;
  const HttpAnswer answer = exchange(server, request);
  EXPECT_EQ(answer.status, 401);
  EXPECT_EQ(answer.body, R"({"error":"Stale timestamp"})");
  EXPECT_TRUE(server.waitForLine("401 POST /events com.example.app Stale timestamp"));
  const auto time = signer(request, server).getTimestampSkew(answer.field("www-authenticate"));
  ASSERT_TRUE(time.has_value()) << answer.field("www-authenticate");
  EXPECT_NEAR(time->timeIntervalSince1970(), static_cast<double>(std::time(nullptr) - 3600), 60);

  request.ahead = -3600;
  request.nonce = Request::nextNonce();
  EXPECT_EQ(exchange(server, request).status, 200);
  EXPECT_THAT(verdicts(server), ElementsAre("Stale timestamp", "ok"));
}

TEST_F(DevServerTest, UnknownSenderIsRefusedBeforeItsBodyIsRead) {
  DevServer server;
  Request forged;
  forged.key = "another secret";
  HttpsClient client(server.port(), server.authorityFile());
  ASSERT_TRUE(client.send(head(forged, server, authorization(forged, server), forged.body.size())));
  expectRefused(client.read().value(), 401, "Bad mac", "Hawk error=\"Bad mac\"");
  // The body may follow, is thrown away, and the connection is good for the next request.
  ASSERT_TRUE(client.send(forged.body + wire(Request(), server)));
  EXPECT_EQ(client.read().value().status, 200);
}

TEST_F(DevServerTest, UnknownSenderOfALongBodyLosesTheConnection) {
  DevServer server;
  Request forged;
  forged.key = "another secret";
  HttpsClient client(server.port(), server.authorityFile());
  ASSERT_TRUE(client.send(head(forged, server, authorization(forged, server), 50'000'000)));
  const HttpAnswer answer = client.read().value();
  EXPECT_EQ(answer.status, 401);
  EXPECT_EQ(answer.field("connection"), "close");
  EXPECT_TRUE(client.isClosedByServer());
}

TEST_F(DevServerTest, StaleGifIsRefusedBeforeItsBodyIsRead) {
  DevServer server;
  Request request;
  request.target = "/gifs?shareId=abc123";
  request.signsBody = false;
  request.ahead = 3600;  // the past has eight days
  HttpsClient client(server.port(), server.authorityFile());
  ASSERT_TRUE(client.send(head(request, server, authorization(request, server), 1'000'000)));
  EXPECT_EQ(client.read().value().body, R"({"error":"Stale timestamp"})");
}

TEST_F(DevServerTest, HugeBodyIsRefused) {
  DevServer server;
  const Request request;
  constexpr std::size_t kLimit = 64 * 1024 * 1024;
  HttpsClient announced(server.port(), server.authorityFile());
  ASSERT_TRUE(announced.send(head(request, server, authorization(request, server), kLimit + 1)));
  expectRefused(announced.read().value(), 413, "Body too long", "");
  EXPECT_TRUE(announced.isClosedByServer());

  Request chunked;
  chunked.moreFields = "Transfer-Encoding: chunked\r\n";
  HttpsClient unannounced(server.port(), server.authorityFile());
  ASSERT_TRUE(unannounced.send(head(chunked, server, authorization(chunked, server))));
  const std::string chunk = "100000\r\n" + std::string(0x100000, ' ') + "\r\n";
  for (std::size_t sent = 0; sent <= kLimit; sent += 0x100000) ASSERT_TRUE(unannounced.send(chunk));
  expectRefused(unannounced.read().value(), 413, "Body too long", "");
  EXPECT_THAT(verdicts(server), ElementsAre("Body too long", "Body too long"));
}

TEST_F(DevServerTest, BodyThatIsNoBatchIsRefused) {
  DevServer server;
  const std::vector<std::pair<std::string, std::string>> cases{
      {"", "The body is empty"},
      {"[]", R"(The body is no object with the one member \"data\")"},
      {R"({"data":[],"more":1})", R"(The body is no object with the one member \"data\")"},
      {R"({"data":{}})", R"(\"data\" is no array of event records)"},
      {R"({"data":[1]})", "Event record 0 is no object"},
      {R"({"data":[{"event":"a","eventData":{},"localTime":""},{"event":"a","eventData":{}}]})", "Event record 1 has no localTime"},
      {R"({"data":[{"eventData":{},"localTime":""}]})", "Event record 0 has no event"},
      {R"({"data":[{"event":"a","localTime":""}]})", "Event record 0 has no eventData"},
      {R"({"data":[{"event":"a","eventData":{},"localTime":"","x":1}]})",
       "Event record 0 has more than localTime, event and eventData"},
      {R"({"data":[{"event":1,"eventData":{},"localTime":""}]})", "Event record 0 has an event that is no text"},
      {R"({"data":[{"event":"a","eventData":[],"localTime":""}]})", "Event record 0 has eventData that is no object"},
  };
  for (const auto& [body, reason] : cases) {
    Request request;
    request.body = body;
    expectRefused(exchange(server, request), 400, reason, "");
  }
  Request noJson;
  noJson.body = "{";
  EXPECT_THAT(exchange(server, noJson).body, HasSubstr("The body is not JSON: "));
  EXPECT_TRUE(server.takenRecords().empty());

  Request patch;
  patch.target = "/patch-previous-session-started";
  patch.body = R"({"data":{"eventData":1}})";
  expectRefused(exchange(server, patch), 400, R"(\"data\" is no object with the one member \"eventData\", an object)", "");
  Request share;
  share.target = "/shares";
  share.body = R"({"data":[]})";
  expectRefused(exchange(server, share), 400, R"(\"data\" is no object)", "");
  share.nonce = Request::nextNonce();
  share.body = R"({"data":{"state":4}})";
  expectRefused(exchange(server, share), 400, "The share's state is no whole number from 0 to 3", "");
  share.nonce = Request::nextNonce();
  share.body = std::string(256 * 1024 + 1, ' ');
  expectRefused(exchange(server, share), 413, "Body too long", "");
  Request gif;
  gif.target = "/gifs";
  gif.signsBody = false;
  expectRefused(exchange(server, gif), 400, "No shareId", "");
}

TEST_F(DevServerTest, UnknownPathsAndWrongMethods) {
  DevServer server;
  expectRefused(get(server, "/nothing"), 404, "Unknown path", "");
  expectRefused(get(server, "/events/"), 404, "Unknown path", "");
  const HttpAnswer wrong = get(server, "/events");
  expectRefused(wrong, 405, "Wrong method", "");
  EXPECT_EQ(wrong.field("allow"), "POST");
  Request put;
  put.method = "PUT";
  put.target = "/shares";
  EXPECT_EQ(exchange(server, put).field("allow"), "POST, GET");
  const HttpAnswer page = get(server, "/");
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.field("content-type"), "text/plain; charset=utf-8");
  EXPECT_THAT(page.body, HasSubstr(server.authorityFile()));
  EXPECT_THAT(page.body, HasSubstr("com.example.app"));
}

TEST_F(DevServerTest, MalformedAndOversizedHeadersAreRefused) {
  DevServer server;
  EXPECT_EQ(exchange(server, "nonsense\r\n\r\n").status, 400);
  EXPECT_EQ(exchange(server, "GET /\xc3\xa4 HTTP/1.1\r\nHost: localhost\r\n\r\n").status, 400);
  EXPECT_EQ(exchange(server, "GET / HTTP/1.1\r\n\r\n").status, 400);
  EXPECT_EQ(exchange(server, "GET / HTTP/1.1\r\nHost: localhost\r\nX: " + std::string(20'000, 'x') + "\r\n\r\n").status, 431);
  EXPECT_EQ(get(server, "/").status, 200);
}

TEST_F(DevServerTest, OwnPagesAreForProgramsOfThisMachine) {
  DevServer server;
  const std::string port = std::to_string(server.port());
  for (const std::string target :
       {"/", "/dev/records", "/dev/behaviour", "/dev/shares", "/dev/sessions", "/dev/feed", "/dev/page/index.html"}) {
    EXPECT_EQ(exchange(server, "GET " + target + " HTTP/1.1\r\nHost: rebound.example:" + port + "\r\n\r\n").status, 403) << target;
    EXPECT_EQ(exchange(server, "GET " + target + " HTTP/1.1\r\nHost: localhost\r\nOrigin: https://a.example\r\n\r\n").status, 403);
    EXPECT_EQ(exchange(server, "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + port + "\r\n\r\n").status, 200) << target;
  }
}

TEST_F(DevServerTest, ConnectionThatSaysNothingIsClosed) {
  DevServer server({"--idle-timeout", "2"});
  ASSERT_EQ(server.fault(), "");
  HttpsClient silent(server.port(), server.authorityFile());
  EXPECT_TRUE(silent.isClosedByServer());
  const Request request;
  HttpsClient halfway(server.port(), server.authorityFile());
  ASSERT_TRUE(halfway.send(head(request, server, authorization(request, server), request.body.size()) + "{"));
  EXPECT_TRUE(halfway.isClosedByServer());
  EXPECT_THAT(verdicts(server), ElementsAre("Body incomplete"));
  EXPECT_TRUE(server.waitForLine("--- POST /events com.example.app Body incomplete"));
}

// --- Misbehaviour.

TEST_F(DevServerTest, StatusForTheNextRequests) {
  DevServer server({"--status", R"({"code": 503, "next": 2})"});
  ASSERT_EQ(server.fault(), "");
  EXPECT_EQ(exchange(server, Request()).status, 503);
  EXPECT_EQ(get(server, "/").status, 200);  // its own pages behave
  EXPECT_EQ(exchange(server, Request()).status, 503);
  EXPECT_EQ(exchange(server, Request()).status, 200);
  const auto entries = server.requests();
  ASSERT_EQ(entries.size(), 3U);
  EXPECT_EQ(text(entries[0], "verdict"), "ok");
  EXPECT_EQ(text(entries[0], "misbehaviour"), "status");
  EXPECT_EQ(entries[0].objectForKey("taken"), Value(false));
  EXPECT_EQ(entries[0].objectForKey("records")->count(), 2U);
  EXPECT_EQ(entries[2].objectForKey("misbehaviour"), std::nullopt);
  EXPECT_EQ(server.takenRecords().size(), 2U);
  EXPECT_TRUE(server.waitForLine("503 POST /events com.example.app 2 records (status)"));
}

TEST_F(DevServerTest, WholeAnswerForTheNextRequest) {
  DevServer server;
  ASSERT_EQ(
      server.misbehave(R"({"answer": {"status": 307, "headers": {"Location": "/shares", "x-Odd": "a, b"}, "body": "see there"}})"),
      "");
  const HttpAnswer answer = exchange(server, Request());
  EXPECT_EQ(answer.status, 307);
  EXPECT_EQ(answer.fields,
            (std::map<std::string, std::string>{
                {"location", "/shares"}, {"x-odd", "a, b"}, {"content-length", "9"}, {"date", answer.field("date")}}));
  EXPECT_EQ(answer.body, "see there");
  ASSERT_EQ(server.misbehave(R"({"answer": {"status": 204}})"), "");
  const HttpAnswer empty = exchange(server, Request());
  EXPECT_EQ(empty.status, 204);
  EXPECT_EQ(empty.fields, (std::map<std::string, std::string>{{"date", empty.field("date")}}));
  ASSERT_EQ(server.misbehave(R"({"answer": {"body": [1]}})"), "");
  EXPECT_EQ(exchange(server, Request()).body, "[1]");
  EXPECT_EQ(exchange(server, Request()).body, "{}");
}

TEST_F(DevServerTest, DroppedConnection) {
  DevServer server({"--drop", "1"});
  ASSERT_EQ(server.fault(), "");
  HttpsClient client(server.port(), server.authorityFile());
  ASSERT_TRUE(client.send(wire(Request(), server)));
  EXPECT_TRUE(client.isClosedByServer());
  EXPECT_TRUE(server.waitForLine("--- POST /events com.example.app 2 records (drop)"));
  EXPECT_EQ(server.requests().at(0).objectForKey("status"), Value(0));
  EXPECT_EQ(server.requests().at(0).objectForKey("taken"), Value(false));
  EXPECT_EQ(exchange(server, Request()).status, 200);
}

TEST_F(DevServerTest, KeptConnectionDroppedAtItsSecondRequest) {
  DevServer server;
  HttpsClient client(server.port(), server.authorityFile());
  ASSERT_TRUE(client.send(wire(Request(), server)));
  ASSERT_TRUE(client.read().has_value());
  ASSERT_EQ(server.misbehave(R"({"drop": 1})"), "");
  ASSERT_TRUE(client.send(wire(Request(), server)));
  EXPECT_TRUE(client.isClosedByServer());
  EXPECT_EQ(server.requests().size(), 2U);
}

TEST_F(DevServerTest, ConnectionClosedAfterEachSecondRequest) {
  DevServer server({"--close-every", "2"});
  ASSERT_EQ(server.fault(), "");
  HttpsClient client(server.port(), server.authorityFile());
  for (int request = 0; request < 2; ++request) {
    ASSERT_TRUE(client.send(wire(Request(), server)));
    EXPECT_EQ(client.read().value().field("connection"), "");  // unannounced
  }
  EXPECT_TRUE(client.isClosedByServer());
  EXPECT_EQ(server.takenRecords().size(), 4U);
}

TEST_F(DevServerTest, StaleChallengeWithAGivenTime) {
  DevServer server;
  const auto challenged = [&](const std::string& settings) {
    EXPECT_EQ(server.misbehave(settings), "");
    const HttpAnswer answer = exchange(server, Request());
    EXPECT_EQ(answer.status, 401);
    return answer.field("www-authenticate");
  };
  EXPECT_EQ(challenged(R"({"stale": {"time": 1795205979}})"),
            R"(Hawk ts="1795205979", tsm="36RU/lEX7qPLiEF2nEmzMCDF0JxudvQ2nnFBg0GbqiE=", error="Stale timestamp")");
  const KSVHawkAuth hawk = signer(Request(), server);
  EXPECT_EQ(hawk.getTimestampSkew(challenged(R"({"stale": {"time": 1795205979, "tsm": "wrong"}})")), std::nullopt);
  EXPECT_EQ(challenged(R"({"stale": {"time": 1795205979, "tsm": "missing"}})"), R"(Hawk ts="1795205979", error="Stale timestamp")");
  const auto own = hawk.getTimestampSkew(challenged(R"({"clock-offset": 7200, "stale": {}})"));
  ASSERT_TRUE(own.has_value());
  EXPECT_NEAR(own->timeIntervalSince1970(), static_cast<double>(std::time(nullptr) + 7200), 60);
  for (const Dictionary& entry : server.requests()) EXPECT_EQ(text(entry, "misbehaviour"), "stale");

  // Without an application there is no key to sign a challenge with: it waits for a request that has one.
  ASSERT_EQ(server.misbehave(R"({"clock-offset": 0, "stale": {}})"), "");
  Request unknown;
  unknown.id = "com.example.unknown";
  expectRefused(exchange(server, unknown), 401, "Unknown credentials", "Hawk error=\"Unknown credentials\"");
  EXPECT_THAT(exchange(server, Request()).field("www-authenticate"), HasSubstr("tsm="));
}

TEST_F(DevServerTest, DirectivesAnswerEvents) {
  DevServer server({"--directives", R"({"referralCode": "abcdefgh", "features": 3})"});
  ASSERT_EQ(server.fault(), "");
  EXPECT_EQ(exchange(server, Request()).body, R"({"features":3,"referralCode":"abcdefgh"})");
  ASSERT_EQ(server.misbehave(R"({"directives": null})"), "");
  EXPECT_EQ(exchange(server, Request()).body, "{}");
}

TEST_F(DevServerTest, DelayComesBeforeTheAnswer) {
  DevServer server({"--delay", "300"});
  ASSERT_EQ(server.fault(), "");
  const std::string text = wire(Request(), server);
  HttpsClient client(server.port(), server.authorityFile());
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(client.send(text));
  EXPECT_TRUE(server.waitForLine("200 POST /events"));
  EXPECT_EQ(client.read().value().status, 200);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

TEST_F(DevServerTest, BehaviourIsShownAndReset) {
  DevServer server({"--status", "500"});
  ASSERT_EQ(server.fault(), "");
  EXPECT_THAT(get(server, "/dev/behaviour").body, HasSubstr(R"("status":{"code":500,"next":1})"));
  EXPECT_EQ(server.misbehave(R"({"delays": 1})"), R"({"error":"there is no setting \"delays\""})");
  EXPECT_THAT(server.misbehave("nonsense"), HasSubstr("error"));
  const HttpAnswer reset = exchange(server, "DELETE /dev/behaviour HTTP/1.1\r\nHost: localhost\r\n\r\n");
  EXPECT_EQ(reset.status, 200);
  EXPECT_THAT(reset.body, HasSubstr(R"("status":null)"));
  EXPECT_EQ(exchange(server, Request()).status, 200);
}

// --- Certificates.

TEST_F(DevServerTest, SecondStartKeepsTheAuthorityAndTheJournal) {
  test::TemporaryDirectory state;
  std::string authority;
  {
    DevServer server(state.path(), {});
    ASSERT_EQ(server.fault(), "");
    EXPECT_THAT(server.lines(), ::testing::Contains("a new certificate authority was made"));
    EXPECT_EQ(exchange(server, Request()).status, 200);
    EXPECT_EQ(server.stop(), "exited with 0");
    EXPECT_TRUE(std::filesystem::copy_file(server.authorityFile(), state.path() + "/copy.pem"));
  }
  DevServer server(state.path(), {});
  ASSERT_EQ(server.fault(), "");
  EXPECT_THAT(server.lines(), Not(::testing::Contains("a new certificate authority was made")));
  HttpsClient client(server.port(), state.path() + "/copy.pem");
  EXPECT_EQ(client.fault(), "");
  EXPECT_EQ(get(server, "/dev/records").body, R"({"requests":[]})");
  EXPECT_EQ(exchange(server, Request()).status, 200);
  EXPECT_EQ(server.requests().size(), 2U);
}

TEST_F(DevServerTest, ItsNameAndAuthorityAreVerifiedByClients) {
  DevServer server;
  DevServer another;
  EXPECT_EQ(HttpsClient(server.port(), server.authorityFile(), "wrong.localhost").fault(), "hostname mismatch");
  EXPECT_EQ(HttpsClient(server.port(), another.authorityFile()).fault(), "unable to get local issuer certificate");
}

/// Whether this machine has the loopback address of IPv6.
bool hasIPv6() {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  const int descriptor = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool bound = descriptor >= 0 && ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  if (descriptor >= 0) ::close(descriptor);
  return bound;
}

TEST_F(DevServerTest, CurlTrustsItByTheEnvironmentOnEveryAddress) {
  DevServer server;
  std::vector<std::string> addresses{"localhost", "127.0.0.1"};
  if (hasIPv6()) addresses.emplace_back("[::1]");
  for (const std::string& address : addresses) {
    const std::string command = "env -u CURL_CA_BUNDLE -u SSL_CERT_DIR SSL_CERT_FILE='" + server.authorityFile() +
                                "' curl -sS -g --noproxy '*' -o /dev/null -w '%{http_code}' https://" + address + ":" +
                                std::to_string(server.port()) + "/ 2>&1";
    FILE* output = ::popen(command.c_str(), "r");
    ASSERT_NE(output, nullptr);
    std::array<char, 256> line{};
    EXPECT_NE(std::fgets(line.data(), line.size(), output), nullptr);
    EXPECT_STREQ(line.data(), "200") << address;
    EXPECT_EQ(::pclose(output), 0);
  }
}

// --- The time that it tells.

TEST_F(DevServerTest, EveryAnswerTellsTheServersTime) {
  DevServer server({"--clock-offset", "-86400"});
  const auto expectDate = [](const HttpAnswer& answer, int status) {
    EXPECT_EQ(answer.status, status);
    std::tm time{};
    ASSERT_NE(::strptime(answer.field("date").c_str(), "%a, %d %b %Y %H:%M:%S GMT", &time), nullptr) << answer.field("date");
    EXPECT_NEAR(static_cast<double>(::timegm(&time)), static_cast<double>(std::time(nullptr) - 86400), 60);
  };
  Request request;
  request.ahead = -86400;
  expectDate(exchange(server, request), 200);
  expectDate(exchange(server, Request()), 401);
  expectDate(get(server, "/"), 200);
  expectDate(get(server, "/nowhere"), 404);
  expectDate(exchange(server, "nonsense\r\n\r\n"), 400);
  ASSERT_EQ(server.misbehave(R"({"answer": {"status": 204}})"), "");
  expectDate(exchange(server, Request()), 204);
  HttpsClient stream(server.port(), server.authorityFile());
  ASSERT_TRUE(stream.send("GET /dev/feed/live HTTP/1.1\r\nHost: " + server.host() + "\r\n\r\n"));
  ASSERT_TRUE(stream.waitFor("event: hello"));
  EXPECT_THAT(stream.received(), HasSubstr("\r\nDate: "));
}

TEST_F(DevServerTest, OrderedAnswerMayTellATimeOfItsOwn) {
  DevServer server;
  ASSERT_EQ(server.misbehave(R"({"answer": {"headers": {"date": "yesterday"}, "body": "late"}})"), "");
  HttpsClient client(server.port(), server.authorityFile());
  ASSERT_TRUE(client.send(wire(Request(), server)));
  ASSERT_TRUE(client.waitFor("late"));
  EXPECT_THAT(client.received(), HasSubstr("\r\ndate: yesterday\r\n"));
  EXPECT_THAT(client.received(), Not(HasSubstr("Date: ")));
}

// --- Starting and stopping.

TEST_F(DevServerTest, ReadyFileTellsWhereItIs) {
  test::TemporaryDirectory directory;
  const std::string file = directory.path() + "/ready.json";
  std::ofstream(file) << "of an earlier run";
  DevServer server({"--ready-file", file});
  ASSERT_EQ(server.fault(), "");
  std::ifstream stream(file);
  std::string line;
  std::getline(stream, line);
  EXPECT_EQ(line, R"({"caFile":")" + server.authorityFile() + R"(","port":)" + std::to_string(server.port()) +
                      R"(,"url":"https://localhost:)" + std::to_string(server.port()) + R"("})");
  EXPECT_THAT(server.lines(), ::testing::Contains("ready " + line));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 1);  // no temporary file stays
}

TEST_F(DevServerTest, StopsCleanlyOnBothSignalsWithConnectionsOpen) {
  for (const int signal : {SIGTERM, SIGINT}) {
    DevServer server({"--delay", "3600000"});
    ASSERT_EQ(server.fault(), "");
    HttpsClient idle(server.port(), server.authorityFile());
    HttpsClient halfway(server.port(), server.authorityFile());
    const Request request;
    ASSERT_TRUE(halfway.send(head(request, server, authorization(request, server), request.body.size()) + "{"));
    HttpsClient delayed(server.port(), server.authorityFile());
    ASSERT_TRUE(delayed.send(wire(Request(), server)));
    ASSERT_TRUE(server.waitForLine("200 POST /events"));
    EXPECT_EQ(server.stop(signal), "exited with 0");
    EXPECT_EQ(server.errors(), "");
    EXPECT_EQ(server.lines().back(), "stopped");
  }
}

TEST_F(DevServerTest, SecretIsShownNowhere) {
  DevServer server;
  const std::string value = authorization(Request(), server);
  exchange(server, Request());
  Request forged;
  forged.key = "another";
  exchange(server, forged);
  std::string all =
      get(server, "/").body + get(server, "/dev/records").body + get(server, "/dev/behaviour").body + get(server, "/dev/feed").body;
  EXPECT_EQ(server.stop(), "exited with 0");
  for (const std::string& line : server.lines()) all += line;
  all += server.errors();
  EXPECT_THAT(all, Not(HasSubstr(DevServer::kSecret)));
  EXPECT_THAT(all, Not(HasSubstr("mac=")));
}

TEST_F(DevServerTest, AppsFileNamesSeveralApplications) {
  test::TemporaryDirectory directory;
  const std::string file = directory.path() + "/apps.json";
  std::ofstream(file) << R"({"com.example.one": "first", "com.example.two": "second"})";
  DevServer server({"--apps", file});
  ASSERT_EQ(server.fault(), "");
  Request one;
  one.id = "com.example.one";
  one.key = "first";
  EXPECT_EQ(exchange(server, one).status, 200);
  Request two;
  two.id = "com.example.two";
  two.key = "second";
  EXPECT_EQ(exchange(server, two).status, 200);
  one.key = "second";
  EXPECT_EQ(exchange(server, one).status, 401);
}

class DevServerStart : public DevServerTest {
 protected:
  /// What a server that cannot start says, without the hint at --help.
  static std::string refusal(const std::vector<std::string>& arguments) {
    DevServer server(arguments);
    EXPECT_NE(server.fault(), "");
    EXPECT_EQ(server.waitForEnd(), "exited with 2");
    const std::string errors = server.errors();
    return errors.substr(0, errors.find('\n'));
  }
  std::string file(const std::string& name, const std::string& content) const {
    std::ofstream(directory_.path() + "/" + name) << content;
    return directory_.path() + "/" + name;
  }

  test::TemporaryDirectory directory_;
};

TEST_F(DevServerStart, TakenPort) {
  DevServer server;
  const std::string port = std::to_string(server.port());
  EXPECT_EQ(refusal({"--port", port}), "kestrova-devserver: cannot listen on port " + port + ": Address already in use");
}

TEST_F(DevServerStart, UnreadableFiles) {
  const std::string missing = directory_.path() + "/missing";
  EXPECT_EQ(refusal({"--app", "a", "--secret-file", missing}),
            "kestrova-devserver: cannot read " + missing + ": No such file or directory");
  EXPECT_EQ(refusal({"--apps", missing}), "kestrova-devserver: cannot read " + missing + ": No such file or directory");
  EXPECT_EQ(refusal({"--directives", "@" + missing}), "kestrova-devserver: cannot read " + missing + ": No such file or directory");
  EXPECT_EQ(refusal({"--journal", missing + "/journal"}),
            "kestrova-devserver: cannot open the journal " + missing + "/journal: No such file or directory");
  EXPECT_EQ(refusal({"--ready-file", missing + "/ready"}),
            "kestrova-devserver: cannot write " + missing + "/ready: No such file or directory");
}

TEST_F(DevServerStart, ApplicationsThatAreNone) {
  EXPECT_EQ(refusal({"--app", "a"}), "kestrova-devserver: each --app needs its own --secret-file");
  const std::string empty = file("empty", "\n");
  EXPECT_EQ(refusal({"--app", "a", "--secret-file", empty}), "kestrova-devserver: " + empty + " holds no secret");
  const std::string secret = file("secret", "x");
  EXPECT_EQ(refusal({"--app", "a\"b", "--secret-file", secret}),
            "kestrova-devserver: 'a\"b' is no application id: printable ASCII without quotes and backslashes");
  EXPECT_EQ(refusal({"--app", "a", "--secret-file", secret, "--app", "a", "--secret-file", secret}),
            "kestrova-devserver: the application a is given twice");
  const std::string apps = file("apps", R"({"a": "hidden)");
  EXPECT_EQ(refusal({"--apps", apps}),
            "kestrova-devserver: " + apps + R"( is no JSON object of the form {"com.example.app": "the secret"})");
  const std::string number = file("number", R"({"a": 1})");
  EXPECT_EQ(refusal({"--apps", number}), "kestrova-devserver: " + number + ": the secret of a is no text");
  EXPECT_EQ(refusal({"--apps", file("none", "{}")}),
            "kestrova-devserver: no application: name one with --app ID --secret-file FILE, or more with --apps FILE");
}

TEST_F(DevServerStart, MalformedOptions) {
  EXPECT_EQ(refusal({"--port", "70000"}), "kestrova-devserver: --port: \"70000\" is no whole number from 0 to 65535");
  EXPECT_EQ(refusal({"--idle-timeout", "0"}), "kestrova-devserver: --idle-timeout: \"0\" is no number from 0.05 to 3600");
  EXPECT_EQ(refusal({"--status", "many"}),
            "kestrova-devserver: --status: The text is no single JSON value. Quote it for the shell.");
  EXPECT_EQ(refusal({"--delay", "-1"}), "kestrova-devserver: delay must be a whole number from 0 to 3600000");
  EXPECT_EQ(refusal({"--stale", R"({"tsm": "bad"})"}), R"(kestrova-devserver: stale's tsm must be "good", "wrong" or "missing")");
  EXPECT_EQ(refusal({"--derectives", "{}"}), "kestrova-devserver: there is no option --derectives; did you mean \"--directives\"?");
}

TEST_F(DevServerStart, HelpHasExamples) {
  DevServer server({"--help"});
  EXPECT_EQ(server.waitForEnd(), "exited with 0");
  EXPECT_THAT(server.lines(), ::testing::Contains("Examples:"));
  EXPECT_THAT(server.lines(), ::testing::Contains(HasSubstr("--clock-offset")));
}

}  // namespace
