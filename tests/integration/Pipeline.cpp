// The whole pipeline over real TLS: events go in at one end, and the development server, or one that is programmed down to the
// byte, says what came out at the other.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Digest.h"
#include "platform/JSONSerialization.h"
#include "support/ChildProcess.h"
#include "support/DevServer.h"
#include "support/Event.h"
#include "support/RealClient.h"
#include "support/TlsTestServer.h"

namespace test {
namespace {

using platform::Dictionary;
using platform::Value;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kSent = "Events successfully sent to server";
constexpr const char* kResubmitting = "Re-submitting share with adjusted timestamp";

std::vector<int> numbers(const std::vector<Value>& records) {
  std::vector<int> found;
  for (const Value& record : records) found.push_back(record.objectForKey("eventData")->objectForKey("n")->intValue());
  return found;
}
std::vector<int> upTo(int last) {
  std::vector<int> all(static_cast<std::size_t>(last));
  for (int n = 1; n <= last; ++n) all[static_cast<std::size_t>(n - 1)] = n;
  return all;
}
void createEvents(RealClient& client, int first, int last) {
  for (int n = first; n <= last; ++n) client->createEventWithData("gif-viewed", Dictionary{{"n", n}});
}

/// The messages that tell of outcomes.
std::vector<std::string> outcomes(const RealClient& client) {
  std::vector<std::string> kept;
  for (const std::string& message : client.messages())
    if (message == kSent || message == kResubmitting || message.starts_with("Couldn't submit") || message.starts_with("Tried") ||
        message.starts_with("Got invalid"))
      kept.push_back(message);
  return kept;
}

std::string challengeFor(std::int64_t time) {
  const std::string ts = std::to_string(time);
  const std::string tsm = platform::Digest::digests()
                              .hmac(platform::Digest::Algorithm::kSHA256, DevServer::kSecret, {"hawk.1.ts\n", ts, "\n"})
                              .base64EncodedString();
  return "Hawk ts=\"" + ts + "\", tsm=\"" + tsm + "\", error=\"Stale timestamp\"";
}

std::size_t threads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

// Against the development server.

TEST(Pipeline, BatchesOfTenAreDeliveredAndVerified) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  createEvents(client, 1, 10);
  ASSERT_TRUE(client.waitForMessage(kSent));
  createEvents(client, 11, 20);
  ASSERT_TRUE(client.waitForMessage(kSent, 2));
  createEvents(client, 21, 25);
  EXPECT_EQ(numbers(server.takenRecords()), upTo(20));
  ASSERT_EQ(server.requests().size(), 2U);
  client->sendEventQueueToServer();
  ASSERT_TRUE(client.waitForMessage(kSent, 3));
  EXPECT_EQ(numbers(server.takenRecords()), upTo(25));
  EXPECT_EQ(client.queueFile(), std::nullopt);
}

TEST(Pipeline, ASessionStartIsSentAtOnceWithWhatWaits) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  createEvents(client, 1, 2);
  client->createEventWithData(RealClient::kSessionStarted, Dictionary{{"n", 3}});
  ASSERT_TRUE(client.waitForMessage(kSent));
  EXPECT_EQ(numbers(server.takenRecords()), upTo(3));
}

TEST(Pipeline, TheServersDirectivesReachTheDelegate) {
  class Delegate final : public KSVDelegate {
   public:
    void setUserId(const Value& userId) override { told.push_back("userId " + userId.description()); }
    void setAppIdentifier(const Value& appIdentifier) override { told.push_back("appIdentifier " + appIdentifier.description()); }
    void handleEventsFromServer(const Value& notifications) override {
      told.push_back("notifications " + std::to_string(notifications.count()));
    }
    std::vector<std::string> told;
  };
  DevServer server(
      {"--directives", R"({"referralCode":"abcdefgh","urlPath":"/app","notifications":[{},{}],"matchQuality":"exact"})"});
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  const auto delegate = std::make_shared<Delegate>();
  client->setDelegate(delegate);
  client->createEvent(RealClient::kSessionStarted);
  ASSERT_TRUE(client.waitForMessage("Got matchQuality = exact from server"));
  EXPECT_THAT(delegate->told, ElementsAre("userId abcdefgh", "appIdentifier /app", "notifications 2"));
}

TEST(Pipeline, A500IsWrittenBackAndGoesOutLaterFirst) {
  DevServer server({"--status", R"({"code": 500, "next": 1})"});
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  createEvents(client, 1, 10);
  ASSERT_TRUE(client.waitForMessage("Couldn't submit events, got 500: <NSHTTPURLResponse> { URL: https://" + server.host() +
                                    "/events } { Status Code: 500, Headers {"));
  const auto queue = client.queueFile();
  ASSERT_TRUE(queue);
  EXPECT_EQ(std::ranges::count(*queue, '\n'), 10);
  EXPECT_EQ(server.requests().size(), 1U);

  createEvents(client, 11, 20);
  ASSERT_TRUE(client.waitForMessage(kSent));
  EXPECT_EQ(numbers(server.takenRecords()), upTo(20));
  EXPECT_EQ(client.queueFile(), "");
}

TEST(Pipeline, ARefusedConnectionIsWrittenBack) {
  std::string host;
  std::string authority;
  TemporaryDirectory state;
  {
    DevServer server(state.path(), {});
    ASSERT_EQ(server.fault(), "");
    host = server.host();
    authority = server.authorityFile();
    server.stop();
  }
  RealClient client(host, authority);
  createEvents(client, 1, 10);
  ASSERT_TRUE(client.waitForMessage("Couldn't submit events: "));
  EXPECT_THAT(outcomes(client), ElementsAre("Couldn't submit events: Could not connect to the server."));
  EXPECT_EQ(std::ranges::count(client.queueFile().value_or(""), '\n'), 10);
}

TEST(Pipeline, ATimeOutIsWrittenBack) {
  DevServer server({"--delay", "60000"});
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile(), 0.5);
  createEvents(client, 1, 10);
  ASSERT_TRUE(client.waitForMessage("Couldn't submit events: "));
  EXPECT_THAT(outcomes(client), ElementsAre("Couldn't submit events: The request timed out."));
  EXPECT_EQ(std::ranges::count(client.queueFile().value_or(""), '\n'), 10);
}

TEST(Pipeline, AWrongDeviceClockHealsItselfWithOneRetry) {
  DevServer server({"--clock-offset", "3600"});
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  createEvents(client, 1, 10);
  ASSERT_TRUE(client.waitForMessage(kSent));
  EXPECT_THAT(outcomes(client), ElementsAre(kResubmitting, kSent));
  EXPECT_EQ(numbers(server.takenRecords()), upTo(10));
  EXPECT_EQ(server.requests().size(), 2U);
  EXPECT_NEAR(static_cast<double>(client.skew()), 3600, 30);

  createEvents(client, 11, 20);
  ASSERT_TRUE(client.waitForMessage(kSent, 2));
  EXPECT_EQ(server.requests().size(), 3U) << "the next batch is right at once";
}

TEST(Pipeline, TwoChallengesEndWithTwoRequestsAndADroppedBatch) {
  DevServer server({"--stale", R"({"tsm": "good", "next": 2})"});
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  createEvents(client, 1, 10);
  ASSERT_TRUE(client.waitForMessage("Tried to submit events twice with error, giving up"));
  EXPECT_THAT(outcomes(client), ElementsAre(kResubmitting, kResubmitting, "Tried to submit events twice with error, giving up"));
  EXPECT_EQ(server.requests().size(), 2U);
  EXPECT_EQ(client.queueFile(), std::nullopt);
}

TEST(Pipeline, AChallengeThatIsNotTheServersDropsTheBatchWithoutAWord) {
  for (const char* stale : {R"({"tsm": "wrong", "next": 1})", R"({"tsm": "missing", "next": 1})"}) {
    DevServer server({"--stale", stale});
    ASSERT_EQ(server.fault(), "");
    RealClient client(server.host(), server.authorityFile());
    createEvents(client, 1, 10);
    ASSERT_TRUE(server.waitForLine("401 POST /events"));
    createEvents(client, 11, 20);
    ASSERT_TRUE(client.waitForMessage(kSent)) << stale;
    EXPECT_THAT(outcomes(client), ElementsAre(kSent)) << stale;
    EXPECT_EQ(client.skew(), 0) << stale;
    EXPECT_EQ(server.requests().size(), 2U) << stale;
    EXPECT_EQ(numbers(server.takenRecords()).front(), 11) << stale;
  }
}

// Against a server that a test programs.

TlsTestServer::Script answersThat(std::vector<TlsTestServer::Answer> answers) {
  return TlsTestServer::answering([answers = std::move(answers), next = std::make_shared<std::atomic<std::size_t>>(0)](
                                      const TlsTestServer::Request&) { return answers[std::min((*next)++, answers.size() - 1)]; });
}
std::string hostOf(const TlsTestServer& server) { return "localhost:" + std::to_string(server.port()); }

TEST(Pipeline, TheChallengesHeaderNameMayBeCapitalisedInAnyWay) {
  for (const char* name : {"www-authenticate", "WWW-Authenticate", "WWW-AUTHENTICATE"}) {
    std::optional<std::string> challenge;
    TlsTestServer server(TlsTestServer::answering([&](const TlsTestServer::Request& request) {
      if (request.connection == 0 && !challenge) {
        challenge = challengeFor(1795205979);
        return TlsTestServer::Answer{401, {{name, *challenge}}, ""};
      }
      return TlsTestServer::Answer{200, {}, "{}"};
    }));
    RealClient client(hostOf(server), certificateAuthorityFile());
    createEvents(client, 1, 10);
    ASSERT_TRUE(client.waitForMessage(kSent)) << name;
    EXPECT_EQ(server.requests().size(), 2U) << name;
    EXPECT_EQ(server.requests()[0].body, server.requests()[1].body) << name;
    EXPECT_NE(server.requests()[0].field("authorization"), server.requests()[1].field("authorization")) << name;
  }
}

TEST(Pipeline, A204WithAnEmptyBodyIsASuccessWithInvalidJSON) {
  TlsTestServer server(answersThat({{204, {}, ""}}));
  RealClient client(hostOf(server), certificateAuthorityFile());
  createEvents(client, 1, 10);
  ASSERT_TRUE(client.waitForMessage("Got invalid JSON"));
  EXPECT_THAT(outcomes(client), ElementsAre(kSent,
                                            "Got invalid JSON from server: The data couldn’t be read because it isn’t in the "
                                            "correct format."));
  EXPECT_EQ(client.queueFile(), std::nullopt);
}

TEST(Pipeline, ARedirectIsFollowedWithoutTheSignature) {
  TlsTestServer server(answersThat({{307, {{"Location", "/elsewhere"}}, ""}, {200, {}, "{}"}}));
  RealClient client(hostOf(server), certificateAuthorityFile());
  createEvents(client, 1, 10);
  ASSERT_TRUE(client.waitForMessage(kSent));
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_TRUE(requests[0].field("authorization"));
  EXPECT_EQ(requests[1].target, "/elsewhere");
  EXPECT_EQ(requests[1].method, "POST");
  EXPECT_FALSE(requests[1].field("authorization"));
  EXPECT_EQ(requests[1].body, requests[0].body);
}

TEST(Pipeline, WhatGoesOutIsTheRequestsOwnFieldsAndThreeMore) {
  TlsTestServer server(answersThat({{200, {}, "{}"}}));
  RealClient client(hostOf(server), certificateAuthorityFile());
  createEvents(client, 1, 10);
  ASSERT_TRUE(client.waitForMessage(kSent));
  const TlsTestServer::Request request = server.requests().at(0);
  std::vector<std::string> names;
  for (const auto& [name, value] : request.fields) names.push_back(name);
  std::ranges::sort(names);
  EXPECT_THAT(names, ElementsAre("Accept", "Accept-Encoding", "Authorization", "Content-Length", "Content-Type", "Host"));
  EXPECT_EQ(request.field("host"), hostOf(server));
  EXPECT_EQ(request.field("content-length"), std::to_string(request.body.size()));
}

TEST(Pipeline, AnAnswerThatIsNoObjectEndsTheProcessWithItsReason) {
  if (isChild()) {
    TlsTestServer server(answersThat({{200, {}, "[]"}}));
    RealClient client(hostOf(server), certificateAuthorityFile());
    createEvents(client, 1, 10);
    (void)client.waitForMessage("never said");
    return;
  }
  const ChildResult child = runThisTestInChild();
  EXPECT_EQ(child.status, "killed by signal 6");
  EXPECT_THAT(child.errors, HasSubstr("*** Terminating app due to uncaught exception 'NSInvalidArgumentException', reason: '"));
}

TEST(Pipeline, AKeptAliveConnectionThatClosesUnansweredIsWrittenBackAndNotSentAgain) {
  TlsTestServer server([](TlsTestServer::Connection& connection) {
    for (int request = 0; connection.readRequest(); ++request) {
      if (connection.number() == 0 && request == 1) return connection.drop();
      connection.send(TlsTestServer::Answer{200, {}, "{}"});
    }
  });
  RealClient client(hostOf(server), certificateAuthorityFile());
  createEvents(client, 1, 10);
  ASSERT_TRUE(client.waitForMessage(kSent));
  createEvents(client, 11, 20);
  ASSERT_TRUE(client.waitForMessage("Couldn't submit events: "));
  EXPECT_THAT(outcomes(client), ElementsAre(kSent, "Couldn't submit events: The network connection was lost."));
  EXPECT_EQ(server.requests().size(), 2U);
  EXPECT_EQ(std::ranges::count(client.queueFile().value_or(""), '\n'), 10);
}

TEST(Pipeline, AnUnknownAuthorityAndAWrongHostAreRefused) {
  for (const auto certificate : {TlsTestServer::Certificate::kUnknownAuthority, TlsTestServer::Certificate::kWrongHost}) {
    TlsTestServer server(answersThat({{200, {}, "{}"}}), {.certificate = certificate});
    RealClient client(hostOf(server), certificateAuthorityFile());
    createEvents(client, 1, 10);
    ASSERT_TRUE(client.waitForMessage("Couldn't submit events: "));
    EXPECT_THAT(outcomes(client),
                ElementsAre("Couldn't submit events: The certificate for this server is invalid. You might be connecting to "
                            "a server that is pretending to be “localhost” which could put your confidential "
                            "information at risk."));
    EXPECT_THAT(server.requests(), IsEmpty());
    EXPECT_EQ(std::ranges::count(client.queueFile().value_or(""), '\n'), 10);
  }
}

// Life and death.

TEST(Pipeline, WhenTheClientIsGoneItsQueuesThreadIsGone) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  createEvents(client, 1, 10);  // starts the threads of the session and of the first client's queue
  ASSERT_TRUE(client.waitForMessage(kSent));
  const std::size_t before = threads();

  std::shared_ptr<KSVData> second = KSVData::initWithSecret(DevServer::kSecret);
  second->createEvent("opened");
  second->createEvent(RealClient::kSessionStarted);
  ASSERT_TRUE(client.waitForMessage(kSent, 2));
  EXPECT_EQ(threads(), before + 1);
  const std::weak_ptr<KSVData> dropped = std::exchange(second, nullptr);
  EXPECT_TRUE(becomes([&] { return dropped.expired() && threads() == before; }));
}

}  // namespace
}  // namespace test
