// Shares over real TLS, against a server that is programmed down to the byte: how many requests it sees, what stands in them, and
// what hostile answers do to the process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "companions/KSVShare.h"
#include "platform/Digest.h"
#include "support/ChildProcess.h"
#include "support/RealClient.h"
#include "support/TlsTestServer.h"

namespace test {
namespace {

using platform::Dictionary;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kKey = "s3cr3t-API-key-0123456789abcdef";
constexpr std::int64_t kServerTime = 1795205979;

std::shared_ptr<const KSVShare> share(const std::string& userId, const std::string& shareId) {
  auto made = std::make_shared<KSVShare>();
  made->referralCode = std::make_shared<const KSVReferralCode>(KSVReferralCode{userId, shareId});
  return made;
}

TlsTestServer::Answer staleChallenge() {
  const std::string ts = std::to_string(kServerTime);
  const std::string tsm =
      platform::Digest::digests().hmac(platform::Digest::Algorithm::kSHA256, kKey, {"hawk.1.ts\n", ts, "\n"}).base64EncodedString();
  return {401, {{"WWW-Authenticate", "Hawk ts=\"" + ts + "\", tsm=\"" + tsm + "\", error=\"Stale timestamp\""}}, ""};
}

/// A client that talks to a server with a script of its own.
struct Wire {
  explicit Wire(TlsTestServer::Script script)
      : server(std::move(script)), client("127.0.0.1:" + std::to_string(server.port()), certificateAuthorityFile()) {}
  TlsTestServer server;
  RealClient client;
};

/// Names of the fields, in the order in which they came.
std::vector<std::string> fieldNames(const TlsTestServer::Request& request) {
  std::vector<std::string> names;
  for (const auto& [name, value] : request.fields) names.push_back(name);
  return names;
}

TEST(Shares, TwoChallengesMakeExactlyTwoRequests) {
  Wire wire(TlsTestServer::answering([](const TlsTestServer::Request&) { return staleChallenge(); }));
  wire.client->submitShare(share("abcdefgh", "1"));
  ASSERT_TRUE(wire.client.waitForMessage("Tried twice without luck, giving up on submitting share"));
  // A third one would have been sent by then: it would come before the patch, on the same session.
  wire.client->patchPreviousSessionStarted(Dictionary{{"n", 1}});
  ASSERT_TRUE(wire.client.waitForMessage("Error: Could not send Universal Link Patch event."));
  const auto requests = wire.server.requests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_EQ(requests[0].target, "/shares");
  EXPECT_EQ(requests[1].target, "/shares");
  EXPECT_EQ(requests[2].target, "/patch-previous-session-started");
  EXPECT_NE(requests[0].field("Authorization"), requests[1].field("Authorization"));
  EXPECT_THAT(requests[1].field("Authorization").value_or(""), HasSubstr("ts=\"17952059"));
  EXPECT_EQ(requests[0].body, requests[1].body);
  EXPECT_EQ(requests[0].field("Content-Length"), std::to_string(requests[0].body.size()));
}

TEST(Shares, ARefusedShareIsSentOnce) {
  Wire wire(TlsTestServer::answering(TlsTestServer::Answer{500, {}, ""}));
  wire.client->submitShare(share("abcdefgh", "1"));
  ASSERT_TRUE(wire.client.waitForMessage("Kestrova: Couldn't submit share. Response was: <NSHTTPURLResponse> { URL: "));
  wire.client->patchPreviousSessionStarted(Dictionary{{"n", 1}});
  ASSERT_TRUE(wire.client.waitForMessage("Error: Could not send Universal Link Patch event."));
  EXPECT_EQ(wire.server.requests().size(), 2U);
}

TEST(Shares, TheRefreshGoesOutUnescapedAndUnsignedWithAcceptAlone) {
  Wire wire(TlsTestServer::answering(
      TlsTestServer::Answer{200, {}, R"({"data":[{"state":2,"referralCode":{"userId":"userbbbb","shareId":"2"}},7]})"}));
  Event called;
  std::vector<std::string> given;
  wire.client->updateSharesFromServerWithCallback(
      KSVShares{share("userbbbb", "2"), share("user+a&a=", "1'"), share("usercccc", "3")}, [&](const KSVShares& shares) {
        for (const auto& updated : shares) given.push_back(updated->referralCode->description());
        called.happen();
      });
  ASSERT_TRUE(called.wait());
  EXPECT_THAT(given, ElementsAre("userbbbb2"));
  ASSERT_EQ(wire.server.requests().size(), 1U);
  const auto request = wire.server.requests()[0];
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.target, "/shares?ids=userbbbb2,user+a&a=1',usercccc3");
  EXPECT_EQ(request.field("Accept"), "application/vnd.kestrova.v1+json");
  EXPECT_THAT(fieldNames(request), testing::UnorderedElementsAre("Host", "Accept", "Accept-Encoding"));
  EXPECT_EQ(request.body, "");
}

// Hostile answers. The client is in a child process, which a fault ends.

enum class Call { kSubmit, kRefresh, kPatch };

struct Hostile {
  const char* name;
  Call call;
  std::string body;
  std::string reason;   // of the raise that ends the process; empty when nothing does
  std::string message;  // otherwise: what the trace says
};
void PrintTo(const Hostile& hostile, std::ostream* out) { *out << hostile.name; }

constexpr const char* kInvalidJSON =
    "Got invalid JSON from server: The data couldn’t be read because it isn’t in the correct format.";

class HostileAnswers : public testing::TestWithParam<Hostile> {
 protected:
  static void makeCall(RealClient& client, Event& called) {
    const auto known = share("abcdefgh", "1");
    if (GetParam().call == Call::kSubmit) client->submitShare(known);
    if (GetParam().call == Call::kRefresh)
      client->updateSharesFromServerWithCallback(KSVShares{known}, [&](const KSVShares&) { called.happen(); });
    if (GetParam().call == Call::kPatch) client->patchPreviousSessionStarted(Dictionary{{"n", 1}});
  }
};

TEST_P(HostileAnswers, EndTheProcessWhereAFaultIsMeantToAndNowhereElse) {
  const Hostile& hostile = GetParam();
  if (isChild()) {
    Event called;  // outlives the client, whose callback may come after the message that is waited for
    Wire wire(TlsTestServer::answering(TlsTestServer::Answer{200, {}, hostile.body}));
    makeCall(wire.client, called);
    if (hostile.message.empty())
      ASSERT_TRUE(called.wait());
    else
      ASSERT_TRUE(wire.client.waitForMessage(hostile.message));
    return;
  }
  const ChildResult child = runThisTestInChild(LeakCheck::kOff);
  if (hostile.reason.empty()) {
    EXPECT_EQ(child.status, "exited with 0") << child.errors;
    return;
  }
  EXPECT_EQ(child.status, "killed by signal 6");
  EXPECT_THAT(child.errors, HasSubstr("*** Terminating app due to uncaught exception 'NSInvalidArgumentException', reason: '" +
                                      hostile.reason + "'"));
}

std::string nested() { return R"({"data":)" + std::string(100'000, '[') + std::string(100'000, ']') + "}"; }
std::string long10MB() { return R"({"data":{"id":null,"filling":")" + std::string(10'000'000, 'x') + R"("}})"; }

INSTANTIATE_TEST_SUITE_P(
    Shares, HostileAnswers,
    testing::Values(
        Hostile{"SubmitTopLevelArray", Call::kSubmit, "[]", "-[Value objectForKey:]: sent to an array", "never"},
        Hostile{"SubmitDataAnArray", Call::kSubmit, R"({"data":[]})", "-[Value objectForKey:]: sent to an array", "never"},
        Hostile{"SubmitIdANumber", Call::kSubmit, R"({"data":{"id":7}})", "-[Value substringToIndex:]: sent to an integer",
                "never"},
        Hostile{"SubmitIdTooShort", Call::kSubmit, R"({"data":{"id":"1234567"}})",
                "*** -[NSString substringToIndex:]: Index 8 out of bounds; string length 7", "never"},
        Hostile{"SubmitNested", Call::kSubmit, nested(), "", kInvalidJSON},
        Hostile{"SubmitId10MB", Call::kSubmit, R"({"data":{"id":")" + std::string(10'000'000, 'x') + R"("}})", "",
                "Got referral code through gif upload: xxxxxxxx"},
        Hostile{"RefreshTopLevelArray", Call::kRefresh, "[]", "-[Value objectForKey:]: sent to an array", ""},
        Hostile{"RefreshDataAString", Call::kRefresh, R"({"data":"text"})",
                "-[Value countByEnumeratingWithState:objects:count:]: sent to a string", ""},
        Hostile{"RefreshDataAnObject", Call::kRefresh, R"({"data":{"a":1}})", "", ""},
        Hostile{"RefreshDataNull", Call::kRefresh, R"({"data":null})", "", ""},
        Hostile{"RefreshBadElements", Call::kRefresh, R"({"data":[null,7,[],"text",{"state":9}]})", "", ""},
        Hostile{"RefreshNested", Call::kRefresh, nested(), "", kInvalidJSON},
        Hostile{"Refresh10MB", Call::kRefresh, long10MB(), "", ""},
        Hostile{"PatchNested", Call::kPatch, nested(), "", "HTTP Response: 200 from sending Universal Link Patch event."},
        Hostile{"Patch10MB", Call::kPatch, long10MB(), "", "HTTP Response: 200 from sending Universal Link Patch event."}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

}  // namespace
}  // namespace test
