// The patch of a session start, and the cookie match as the client hands it on.
#include "SharesTest.h"
#include "companions/KSVCookieMatch.h"

namespace test {
namespace {

constexpr const char* kIgnoring = "No eventData to send with patch, ignoring";
constexpr const char* kPatching = "Patching previous session-started with data '{\n    n = 1;\n}'";
constexpr const char* kAborting = "Couldn't build valid session-started patch request, aborting";

std::string failure(const std::string& response, const std::string& error) {
  return "Error: Could not send Universal Link Patch event. Response was: " + response + ", error message is: " + error;
}
std::string response(int status) {
  return "HTTP Response: " + std::to_string(status) + " from sending Universal Link Patch event.";
}

class SessionStartPatch : public SharesTest {
 protected:
  void patch(const std::optional<Dictionary>& eventData = Dictionary{{"n", 1}}) {
    client->patchPreviousSessionStarted(eventData);
    process.runAll();
  }
  /// What the outcome said.
  std::vector<std::string> afterwards() {
    auto all = process.messages();
    if (!all.empty()) all.erase(all.begin());
    return all;
  }
};
class QuietSessionStartPatch : public QuietSharesTest {};

TEST_F(SessionStartPatch, WithoutDataNothingIsSent) {
  patch(std::nullopt);
  patch(Dictionary());
  EXPECT_THAT(process.messages(), ElementsAre(kIgnoring, kIgnoring));
  EXPECT_EQ(requestCount(), 0U);
}

TEST_F(SessionStartPatch, PostsTheDataUnchangedAndSigned) {
  patch(Dictionary{{"n", 1}, {"nothing", nullptr}, {"text", "grüße"}});
  ASSERT_EQ(requestCount(), 1U);
  const platform::URLRequest request = requests().at(0);
  EXPECT_EQ(request.HTTPMethod(), "POST");
  EXPECT_EQ(request.URL()->absoluteString(), "https://api.example.com/patch-previous-session-started");
  EXPECT_EQ(request.HTTPBody()->bytes(), R"({"data":{"eventData":{"n":1,"nothing":null,"text":"grüße"}}})");
  EXPECT_THAT(request.valueForHTTPHeaderField("Authorization").value_or(""),
              StartsWith("Hawk id=\"com.example.app\", ts=\"1795205979\""));
  EXPECT_EQ(request.valueForHTTPHeaderField("Content-Length"), std::to_string(request.HTTPBody()->length()));
  EXPECT_THAT(process.messages(),
              ElementsAre("Patching previous session-started with data '{\n    n = 1;\n    nothing = \"<null>\";\n    text = "
                          "\"gr\\U00fc\\U00dfe\";\n}'"));
}

TEST_F(SessionStartPatch, ReturnsAtOnceAndTouchesNoQueue) {
  client->patchPreviousSessionStarted(Dictionary{{"n", 1}});
  EXPECT_EQ(requestCount(), 1U);
  EXPECT_EQ(process.blocksWaiting(TestProcess::clientQueue()), 0U);
  EXPECT_EQ(process.queueFile(), std::nullopt);
}

TEST_F(SessionStartPatch, DataThatCannotBeWrittenIsReportedAndNotSent) {
  patch(Dictionary{{"text", "\xFF"}});
  EXPECT_EQ(requestCount(), 0U);
  ASSERT_THAT(process.messages(), SizeIs(3));
  EXPECT_THAT(process.messages()[0], StartsWith("Patching previous session-started with data '"));
  EXPECT_THAT(process.messages()[1], StartsWith("Serializing post data for patching session-started failed: "));
  EXPECT_EQ(process.messages()[2], kAborting);
}

TEST_F(SessionStartPatch, DataThatIsNotJSONIsReportedAndNotSent) {
  patch(Dictionary{{"n", std::numeric_limits<double>::infinity()}});
  EXPECT_EQ(requestCount(), 0U);
  ASSERT_THAT(process.messages(), SizeIs(3));
  EXPECT_EQ(process.messages()[1], "Serializing universal link patch event failed: Invalid number value (infinite) in JSON write");
  EXPECT_EQ(process.messages()[2], kAborting);
}

TEST_F(SessionStartPatch, A399IsASuccessAndA400IsNot) {
  patch();
  EXPECT_THAT(process.messages(), ElementsAre(kPatching));
  serve(399, "");
  EXPECT_THAT(afterwards(), ElementsAre(response(399)));
  process.clearMessages();
  patch();
  serve(400, "");
  EXPECT_THAT(afterwards(),
              ElementsAre(testing::AllOf(
                  StartsWith("Error: Could not send Universal Link Patch event. Response was: <NSHTTPURLResponse> { URL: "
                             "https://api.example.com/patch-previous-session-started } { Status Code: 400, Headers {"),
                  testing::EndsWith(", error message is: (null)"))));
  EXPECT_THAT(process.systemLog(), IsEmpty());
}

TEST_F(SessionStartPatch, TheAnswersBodyIsNotRead) {
  for (const char* body : {"", "[]", "7", R"({"data":{"id":7},"referralCode":"abcdefgh"})"}) {
    process.clearMessages();
    patch();
    serve(200, body);
    EXPECT_THAT(afterwards(), ElementsAre(response(200))) << body;
  }
  EXPECT_EQ(process.plan().count("JSON.read"), 0U);
  EXPECT_THAT(delegate->calls, IsEmpty());
  EXPECT_EQ(uncaught(), "nothing");
}

TEST_F(SessionStartPatch, DeepAndLongAnswersAreLeftAlone) {
  for (const std::string& body : {nested(100'000), std::string(10'000'000, '[')}) {
    process.clearMessages();
    patch();
    serve(200, body);
    EXPECT_THAT(afterwards(), ElementsAre(response(200)));
  }
}

TEST_F(SessionStartPatch, AChallengeIsAnOrdinaryFailure) {
  patch();
  refuseAsStale(kServer);
  EXPECT_THAT(afterwards(), ElementsAre(StartsWith("Error: Could not send Universal Link Patch event. Response was: ")));
  EXPECT_EQ(requestCount(), 1U);
  EXPECT_EQ(storedSkews(), 0U);
}

TEST_F(SessionStartPatch, ALostConnectionIsTracedAndNothingIsKept) {
  patch();
  loseConnection(-1009);
  EXPECT_THAT(afterwards(), ElementsAre(failure("(null)", "The Internet connection appears to be offline.")));
  EXPECT_EQ(requestCount(), 1U);
  EXPECT_EQ(process.queueFile(), std::nullopt);
}

TEST_F(SessionStartPatch, TheTaskDoesNotHoldTheClient) {
  const std::weak_ptr<KSVData> alive = client;
  patch();
  client.reset();
  inspect.client.reset();
  EXPECT_TRUE(alive.expired());
  serve(200, "");
  EXPECT_THAT(afterwards(), ElementsAre(response(200)));
}

TEST_F(QuietSessionStartPatch, NothingIsSaidWithTheDebugFlagOff) {
  client->patchPreviousSessionStarted(std::nullopt);
  client->patchPreviousSessionStarted(Dictionary{{"text", "\xFF"}});
  for (const std::int64_t status : {200, 500}) {
    client->patchPreviousSessionStarted(Dictionary{{"n", 1}});
    serve(status, "");
  }
  EXPECT_THAT(process.messages(), IsEmpty());
  EXPECT_EQ(requestCount(), 2U);
}

// The cookie match, as far as the client has to do with it; the rest is in KSVCookieMatchTest.cpp.

class CookieMatch : public SharesTest {
 protected:
  std::vector<bool> outcomes;
  KSVData::CookieMatchCompletion noting() {
    return [this](bool didComplete) { outcomes.push_back(didComplete); };
  }
};

TEST_F(CookieMatch, TheClientsIdentityIsHandedOver) {
  client->tryCookieMatchWithCompletion(noting());
  process.runAll();
  ASSERT_THAT(process.browser().opened(), SizeIs(1));
  EXPECT_THAT(
      process.browser().opened()[0].absoluteString(),
      StartsWith("https://api.example.com/cookie-match?appRDNS=com.example.app&deviceId=" + *inspect.deviceId() + "&bewit="));
}

TEST_F(CookieMatch, TrueIsPassedOnAsTrueAndFalseAsFalseOnce) {
  for (const bool didOpen : {true, false}) {
    client->tryCookieMatchWithCompletion(noting());
    process.runAll();
    process.browser().answer(process.browser().opened().size() - 1, didOpen);
    process.runAll();
    process.browser().answer(process.browser().opened().size() - 1, true);
    process.runAll();
  }
  EXPECT_THAT(outcomes, ElementsAre(true, false));
  EXPECT_THAT(process.messages(), IsEmpty());
  EXPECT_EQ(requestCount(), 0U);
  EXPECT_EQ(storedSkews(), 0U);
}

TEST_F(CookieMatch, ItReturnsBeforeAnythingIsOpened) {
  client->tryCookieMatchWithCompletion(noting());
  EXPECT_THAT(process.browser().opened(), IsEmpty());
  EXPECT_THAT(outcomes, IsEmpty());
}

TEST_F(CookieMatch, AClientWithoutASecretOpensNothing) {
  process.makeClient(std::nullopt)->tryCookieMatchWithCompletion(noting());
  process.runAll();
  EXPECT_THAT(process.browser().opened(), IsEmpty());
  EXPECT_THAT(outcomes, ElementsAre(false));
}

TEST_F(CookieMatch, AnAbsentHandlerEndsTheProcessWhenItIsCalled) {
  client->tryCookieMatchWithCompletion(nullptr);
  process.runAll();
  EXPECT_EQ(uncaught(), "nothing");
  process.browser().answer(0, true);
  process.runAll();
  EXPECT_EQ(uncaught(), terminated("An absent handler was called"));
}

TEST_F(CookieMatch, TheHandlerIsHeldUntilItHasRun) {
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  client->tryCookieMatchWithCompletion([held = std::move(held)](bool) {});
  process.runAll();
  EXPECT_FALSE(watched.expired());
  process.browser().answer(0, true);
  process.runAll();
  EXPECT_TRUE(watched.expired());
}

}  // namespace
}  // namespace test
