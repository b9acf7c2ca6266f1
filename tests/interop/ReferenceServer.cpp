// The client against a server that trusts no code of this project: every signature is checked by the scheme's reference library.
//
// The server runs in node, from the packages that `npm ci` puts into node_modules; without them these tests fail.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "companions/KSVShare.h"
#include "platform/URLSession.h"
#include "platform/UserDefaults.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/DevServer.h"
#include "support/Event.h"
#include "support/Program.h"
#include "support/RealClient.h"
#include "support/RecordingBrowserOpener.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

using platform::Dictionary;
using platform::Value;

/// The reference server on a free port, with certificates that the development server has made for this machine.
class ReferenceServer {
 public:
  explicit ReferenceServer(int clockOffset = 0) {
    DevServer maker(state_.path(), {});
    fault_ = maker.fault();
    maker.stop();
    std::ofstream(state_.path() + "/credentials.json") << "{\"" << DevServer::kAppId << "\": \"" << DevServer::kSecret << "\"}";
    program_ = std::make_unique<Program>(
        "node", std::vector<std::string>{std::string(KESTROVA_SOURCE_DIR) + "/tests/interop/hawk-server.mjs", "--cert",
                                         state_.path() + "/server.pem", "--key", state_.path() + "/server.key", "--credentials",
                                         state_.path() + "/credentials.json", "--offset", std::to_string(clockOffset)});
    if (program_->waitForLines(1)) port_ = entry(0).objectForKey("port")->integerValue();
  }

  /// What kept it from starting; empty when it runs.
  std::string fault() const { return port_ == 0 ? fault_ + program_->errors() + "; run npm ci" : fault_; }
  std::string host() const { return "localhost:" + std::to_string(port_); }
  std::string authorityFile() const { return state_.path() + "/ca.pem"; }
  /// Waits for so many requests and gives what the server says of the last of them.
  Dictionary request(std::size_t number) {
    EXPECT_TRUE(program_->waitForLines(number + 1)) << program_->errors();
    return entry(number);
  }

 private:
  Dictionary entry(std::size_t line) {
    const auto lines = program_->outputLines();
    if (line >= lines.size()) return {};
    const auto value = platform::makeRapidJSONSerialization()->read(platform::Data(lines[line]));
    return value && value->isObject() ? value->object() : Dictionary();
  }

  TemporaryDirectory state_;
  std::unique_ptr<Program> program_;
  std::int64_t port_ = 0;
  std::string fault_;
};

void expectAccepted(const Dictionary& request, const std::string& path, std::optional<std::int64_t> records) {
  EXPECT_EQ(request.objectForKey("path"), Value(path));
  EXPECT_EQ(request.objectForKey("authenticated"), Value(true)) << request.description();
  EXPECT_EQ(request.objectForKey("records"), records ? Value(*records) : Value());
}

TEST(ReferenceServer, AcceptsBatchesOfEvents) {
  ReferenceServer server;
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  for (int n = 0; n < 10; ++n) client->createEventWithData("grüße 😀", Dictionary{{"n", n}, {"text", "\"\\\n日本"}});
  ASSERT_TRUE(client.waitForMessage("Events successfully sent to server"));
  expectAccepted(server.request(1), "/events", 10);
}

TEST(ReferenceServer, ItsStaleChallengeCorrectsTheClient) {
  for (const int offset : {-86400, 3600}) {
    ReferenceServer server(offset);
    ASSERT_EQ(server.fault(), "");
    RealClient client(server.host(), server.authorityFile());
    client->createEvent(RealClient::kSessionStarted);
    ASSERT_TRUE(client.waitForMessage("Events successfully sent to server"));
    EXPECT_EQ(server.request(1).objectForKey("error"), Value("Stale timestamp"));
    expectAccepted(server.request(2), "/events", 1);
    EXPECT_NEAR(static_cast<double>(client.skew()), offset, 30);
  }
}

/// Sends a request as the client has built it, and waits for its answer's status.
std::int64_t statusOf(platform::URLRequest request) {
  Event answered;
  std::int64_t status = 0;
  platform::URLSession::sharedSession()
      .dataTaskWithRequestCompletionHandler(
          std::move(request),
          [&](std::optional<platform::Data>, platform::HTTPURLResponseRef response, std::optional<platform::Error>) {
            status = platform::statusCode(response);
            answered.happen();
          })
      ->resume();
  EXPECT_TRUE(answered.wait());
  return status;
}

TEST(ReferenceServer, AcceptsEveryOtherKindOfSignedRequest) {
  ReferenceServer server;
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  KSVDataInspector inspect = client.inspect();

  const Dictionary share{{"data", Dictionary{{"text", "grüße 日本 😀"}}}};
  EXPECT_LT(statusOf(*inspect.buildAuthenticatedRequestPathBody("POST", "/shares", share)), 400);
  expectAccepted(server.request(1), "/shares", std::nullopt);

  const Dictionary patch{{"data", Dictionary{{"eventData", Dictionary{{"a", nullptr}}}}}};
  EXPECT_LT(statusOf(*inspect.buildAuthenticatedRequestPathBody("POST", "/patch-previous-session-started", patch)), 400);
  expectAccepted(server.request(2), "/patch-previous-session-started", std::nullopt);

  platform::URLRequest gif = inspect.buildRequestForApi("/gifs?shareId=abc123");
  gif.setHTTPMethod("POST");
  gif.addValueForHTTPHeaderField("image/gif", "Content-Type");
  gif.setValueForHTTPHeaderField(inspect.authHeaderForDataRequest(std::nullopt, gif), "Authorization");
  gif.setHTTPBody(platform::Data("GIF89a, and so on"));
  EXPECT_LT(statusOf(gif), 400);
  EXPECT_EQ(server.request(3).objectForKey("authenticated"), Value(true)) << server.request(3).description();
}

// Shares, by the client's own operations.

std::shared_ptr<const KSVShare> shareOf(const std::string& userId) {
  auto share = std::make_shared<KSVShare>();
  share->referralCode = std::make_shared<const KSVReferralCode>(KSVReferralCode{userId, "1"});
  share->data = Dictionary{{"text", "grüße 日本 😀"}};
  return share;
}

TEST(ReferenceServer, AcceptsASubmittedShareAndAPatch) {
  ReferenceServer server;
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  client->submitShare(shareOf("abcdefgh"));
  ASSERT_TRUE(client.waitForMessage("Got referral code through gif upload: abcdefgh1"));
  expectAccepted(server.request(1), "/shares", std::nullopt);
  client->patchPreviousSessionStarted(Dictionary{{"text", "grüße"}});
  ASSERT_TRUE(client.waitForMessage("HTTP Response: 200 from sending Universal Link Patch event."));
  expectAccepted(server.request(2), "/patch-previous-session-started", std::nullopt);
}

TEST(ReferenceServer, SeesNoAuthorizationOnTheRefresh) {
  ReferenceServer server;
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  Event called;
  client->updateSharesFromServerWithCallback(KSVShares{shareOf("abcdefgh"), shareOf("ijklmnop")},
                                             [&](const KSVShares&) { called.happen(); });
  ASSERT_TRUE(called.wait());
  EXPECT_EQ(server.request(1).objectForKey("path"), Value("/shares?ids=abcdefgh1,ijklmnop1"));
  EXPECT_EQ(server.request(1).objectForKey("authorization"), Value(false));
}

/// The match link that a client of the host makes; its clock is corrected by that many seconds.
std::string matchLink(RealClient& client, std::int64_t skew) {
  const auto browser = std::make_shared<RecordingBrowserOpener>();
  client.process().browserOpener = browser;
  client.process().userDefaults->setObjectForKey(Value(skew), RealClient::kSkewKey);
  Event ended;
  client->tryCookieMatchWithCompletion([&](bool) { ended.happen(); });
  while (browser->opened().empty()) std::this_thread::yield();
  browser->answer(0, true);
  EXPECT_TRUE(ended.wait());
  return browser->opened().at(0).absoluteString();
}

std::int64_t statusOfLink(const std::string& link) { return statusOf(platform::URLRequest(platform::URL::URLWithString(link))); }

TEST(ReferenceServer, TakesTheMatchLinkForAMinute) {
  ReferenceServer server;
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  const std::string link = matchLink(client, 0);
  EXPECT_EQ(statusOfLink(link), 200);
  EXPECT_EQ(server.request(1).objectForKey("authenticated"), Value(true)) << server.request(1).description();
  // Signed for a minute that ended a moment ago.
  EXPECT_EQ(statusOfLink(matchLink(client, -61)), 401);
  EXPECT_EQ(server.request(2).objectForKey("error"), Value("Access expired"));
}

TEST(ReferenceServer, RefusesAMatchLinkThatWasTamperedWith) {
  ReferenceServer server;
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  std::string link = matchLink(client, 0);
  const auto device = link.find("&deviceId=") + 10;
  link[device] = link[device] == '0' ? '1' : '0';
  EXPECT_EQ(statusOfLink(link), 401);
  EXPECT_EQ(server.request(1).objectForKey("error"), Value("Bad mac"));
}

TEST(ReferenceServer, RefusesAnotherSecret) {
  ReferenceServer server;
  ASSERT_EQ(server.fault(), "");
  RealClient client(server.host(), server.authorityFile());
  client.inspect().appSecret() = "another secret";
  client->createEvent(RealClient::kSessionStarted);
  EXPECT_EQ(server.request(1).objectForKey("authenticated"), Value(false));
  EXPECT_EQ(server.request(1).objectForKey("error"), Value("Bad mac"));
}

}  // namespace
}  // namespace test
