// Refreshing shares: who is asked for, how, and what the callback is given.
#include "SharesTest.h"

namespace test {
namespace {

constexpr const char* kNoShares = "No shares given for update, ignoring";
constexpr const char* kNoUser = "No shares with userId known, skipping update";

/// What the callback was given: the identifiers of the shares, call by call.
struct Callback {
  KSVShareUpdateCallback function() {
    return [this](const KSVShares& shares) {
      std::string text;
      for (const auto& share : shares) text += (share->referralCode ? share->referralCode->description() : "no code") + ";";
      calls.push_back(text);
    };
  }
  std::vector<std::string> calls;
};

class ShareRefresh : public SharesTest {
 protected:
  void refresh(const std::optional<KSVShares>& shares) {
    client->updateSharesFromServerWithCallback(shares, callback.function());
    process.runAll();
  }
  void refreshOne() { refresh(KSVShares{share("abcdefgh", "1")}); }

  std::string failure(const std::string& error, const std::string& response) {
    return "Could not get updated shares: " + error + ", response was: " + response;
  }

  Callback callback;
};
class QuietShareRefresh : public QuietSharesTest {};

// Who is asked for.

TEST_F(ShareRefresh, WithoutSharesNothingIsAsked) {
  refresh(std::nullopt);
  refresh(KSVShares{});
  EXPECT_THAT(process.messages(), ElementsAre(kNoShares, kNoShares));
  EXPECT_EQ(requestCount(), 0U);
  EXPECT_THAT(callback.calls, IsEmpty());
}

TEST_F(ShareRefresh, WithoutAKnownUserNothingIsAsked) {
  refresh(KSVShares{share(std::nullopt, "1"), std::make_shared<KSVShare>(), nullptr});
  EXPECT_THAT(process.messages(), ElementsAre(kNoUser));
  EXPECT_EQ(requestCount(), 0U);
  EXPECT_THAT(callback.calls, IsEmpty());
}

TEST_F(ShareRefresh, ThreeSharesMakeOneRequestWithTwoCommasInTheirOrder) {
  refresh(KSVShares{share("userbbbb", "2"), share("useraaaa", "1"), share("usercccc", "3")});
  ASSERT_EQ(requestCount(), 1U);
  EXPECT_EQ(requests()[0].URL()->absoluteString(), "https://api.example.com/shares?ids=userbbbb2,useraaaa1,usercccc3");
  EXPECT_THAT(process.messages(), ElementsAre("Updating shares: userbbbb2,useraaaa1,usercccc3"));
}

TEST_F(ShareRefresh, OnlySharesWithAUserAreAskedForAndDuplicatesAreKept) {
  refresh(KSVShares{share(std::nullopt, "1"), share("abcdefgh", std::nullopt), std::make_shared<KSVShare>(), nullptr,
                    share("abcdefgh", "2"), share("abcdefgh", "2")});
  EXPECT_EQ(requests().at(0).URL()->query(), "ids=abcdefgh,abcdefgh2,abcdefgh2");
}

TEST_F(ShareRefresh, AnEmptyUserIdentifierIsKnownAllTheSame) {
  refresh(KSVShares{share("", "1")});
  EXPECT_EQ(requests().at(0).URL()->query(), "ids=1");
}

TEST_F(ShareRefresh, IdentifiersAreNotEscaped) {
  refresh(KSVShares{share("a+b&c=d/", "?e:f@%41"), share("g,h", "!")});
  EXPECT_EQ(requests().at(0).URL()->absoluteString(), "https://api.example.com/shares?ids=a+b&c=d/?e:f@%41,g,h!");
}

TEST_F(ShareRefresh, AnIdentifierThatIsNoURLTextEndsInAFailure) {
  refresh(KSVShares{share("a b", "ä")});
  process.runAll();
  EXPECT_EQ(requestCount(), 0U) << "what has no URL goes nowhere";
  EXPECT_THAT(process.messages(), ElementsAre("Updating shares: a bä", failure("unsupported URL", "(null)")));
  EXPECT_THAT(callback.calls, ElementsAre(""));
}

TEST_F(ShareRefresh, TheRequestIsAGetWithAcceptAlone) {
  refreshOne();
  const platform::URLRequest request = requests().at(0);
  EXPECT_EQ(request.HTTPMethod(), "GET");
  EXPECT_EQ(request.HTTPBody(), std::nullopt);
  EXPECT_EQ(request.valueForHTTPHeaderField("Accept"), "application/vnd.kestrova.v1+json");
  EXPECT_EQ(request.allHTTPHeaderFields().count(), 1U);
}

TEST_F(ShareRefresh, ManySharesAreAskedForInOneRequest) {
  KSVShares shares;
  std::string expected = "ids=";
  for (int n = 0; n < 5000; ++n) {
    shares.push_back(share("user", std::to_string(n)));
    expected += (n ? ",user" : "user") + std::to_string(n);
  }
  refresh(shares);
  ASSERT_EQ(requestCount(), 1U);
  EXPECT_EQ(requests()[0].URL()->query(), expected);
}

// What the callback is given.

TEST_F(ShareRefresh, TheCallbackRunsOnceOnTheCompletionQueueWithTheServersOrder) {
  refreshOne();
  process.clearMessages();
  process.answer(200, R"({"data":[{"referralCode":{"userId":"userbbbb","shareId":"2"},"state":2},)"
                      R"({"state":"not a state"},{"referralCode":{"userId":"useraaaa","shareId":"1"}}]})");
  EXPECT_THAT(callback.calls, IsEmpty());
  ASSERT_TRUE(process.runOne(ScriptedURLSession::kQueueLabel));
  process.runAll();
  EXPECT_THAT(callback.calls, ElementsAre("userbbbb2;useraaaa1;"));
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(ShareRefresh, TheSharesAreFreshAndWhole) {
  const auto known = share("abcdefgh", "1");
  KSVShares updated;
  client->updateSharesFromServerWithCallback(KSVShares{known}, [&](const KSVShares& shares) { updated = shares; });
  serve(200, R"({"data":[{"referralCode":{"userId":"abcdefgh","shareId":"1"},"state":3,"isFallback":true,"data":{"n":1}}]})");
  ASSERT_THAT(updated, SizeIs(1));
  EXPECT_NE(updated[0], known);
  EXPECT_EQ(updated[0]->state, KSVShareStateInstalled);
  EXPECT_TRUE(updated[0]->isFallback);
  EXPECT_EQ(known->state, KSVShareStateSent);
}

TEST_F(ShareRefresh, ElementsThatAreNoShareArePassedOver) {
  refreshOne();
  serve(200, R"({"data":[null,7,true,"text",[],[{}],{"state":9},{"referralCode":{"userId":"abcdefgh"}},{"URL":"\u0000"}]})");
  EXPECT_THAT(callback.calls, ElementsAre("abcdefgh;"));
  EXPECT_EQ(uncaught(), "nothing");
}

TEST_F(ShareRefresh, WhereThereAreNoSharesTheCallbackGetsNone) {
  for (const char* body : {"{}", R"({"data":null})", R"({"data":[]})", R"({"data":{}})",
                           R"({"data":{"referralCode":{"userId":"abcdefgh"},"state":1}})", R"({"shares":[{}]})"}) {
    callback.calls.clear();
    refreshOne();
    process.clearMessages();
    serve(200, body);
    EXPECT_THAT(callback.calls, ElementsAre("")) << body;
    EXPECT_THAT(process.messages(), IsEmpty()) << body;
    EXPECT_EQ(uncaught(), "nothing") << body;
  }
}

TEST_F(ShareRefresh, EveryStatusBelow400IsASuccess) {
  for (const std::int64_t status : {200, 204, 304, 399}) {
    refreshOne();
    process.clearMessages();
    serve(status, "{}");
    EXPECT_THAT(process.messages(), IsEmpty()) << status;
  }
  EXPECT_THAT(callback.calls, SizeIs(4));
}

// Failure.

TEST_F(ShareRefresh, AFailureGivesNoSharesAndIsTracedErrorFirst) {
  refreshOne();
  process.clearMessages();
  serve(404, R"({"data":[{}]})", {{"X-Reason", "gone"}});
  EXPECT_THAT(callback.calls, ElementsAre(""));
  EXPECT_THAT(process.messages(), ElementsAre(testing::AllOf(
                                      StartsWith("Could not get updated shares: (null), response was: <NSHTTPURLResponse> { URL: "
                                                 "https://api.example.com/shares?ids=abcdefgh1 } { Status Code: 404, Headers {"),
                                      HasSubstr("gone"))));
}

TEST_F(ShareRefresh, A400IsAFailure) {
  refreshOne();
  process.clearMessages();
  serve(400, R"({"data":[{}]})");
  EXPECT_THAT(callback.calls, ElementsAre(""));
  EXPECT_THAT(process.messages(), SizeIs(1));
}

TEST_F(ShareRefresh, ALostConnectionGivesNoShares) {
  refreshOne();
  process.clearMessages();
  loseConnection(-1009);
  EXPECT_THAT(callback.calls, ElementsAre(""));
  EXPECT_THAT(process.messages(), ElementsAre(failure("The Internet connection appears to be offline.", "(null)")));
  EXPECT_THAT(process.systemLog(), IsEmpty());
}

TEST_F(ShareRefresh, AChallengeIsAnOrdinaryFailure) {
  refreshOne();
  process.clearMessages();
  refuseAsStale(kServer);
  EXPECT_THAT(callback.calls, ElementsAre(""));
  EXPECT_THAT(process.messages(), ElementsAre(StartsWith("Could not get updated shares: (null), response was: ")));
  EXPECT_EQ(requestCount(), 1U);
  EXPECT_EQ(storedSkews(), 0U);
}

TEST_F(ShareRefresh, AnAnswerThatIsNotJSONGivesNoShares) {
  for (const char* body : {"", "[", "7", "null", "<html>"}) {
    callback.calls.clear();
    refreshOne();
    process.clearMessages();
    serve(200, body);
    EXPECT_THAT(callback.calls, ElementsAre("")) << body;
    EXPECT_THAT(process.messages(), ElementsAre(kInvalidJSON)) << body;
  }
}

TEST_F(ShareRefresh, AnAnswerWithoutABodyGivesNoShares) {
  refreshOne();
  process.clearMessages();
  endWith(std::nullopt, nullptr, std::nullopt);
  EXPECT_THAT(process.messages(), ElementsAre(kInvalidJSON));
  EXPECT_THAT(callback.calls, ElementsAre(""));
}

TEST_F(QuietShareRefresh, NothingIsSaidWithTheDebugFlagOff) {
  Callback callback;
  client->updateSharesFromServerWithCallback(std::nullopt, callback.function());
  client->updateSharesFromServerWithCallback(KSVShares{share(std::nullopt, "1")}, callback.function());
  for (const std::int64_t status : {200, 404}) {
    client->updateSharesFromServerWithCallback(KSVShares{share("abcdefgh", "1")}, callback.function());
    serve(status, "no JSON");
  }
  EXPECT_THAT(process.messages(), IsEmpty());
  EXPECT_THAT(callback.calls, ElementsAre("", ""));
}

// The callback itself.

TEST_F(ShareRefresh, AnAbsentCallbackIsNotMissedWhereItIsNotCalled) {
  client->updateSharesFromServerWithCallback(std::nullopt, nullptr);
  client->updateSharesFromServerWithCallback(KSVShares{share(std::nullopt, "1")}, nullptr);
  process.runAll();
  EXPECT_EQ(uncaught(), "nothing");
}

class ShareRefreshWithoutACallback : public ShareRefresh, public testing::WithParamInterface<const char*> {};

TEST_P(ShareRefreshWithoutACallback, EndsTheProcessWhenItsTurnComes) {
  client->updateSharesFromServerWithCallback(KSVShares{share("abcdefgh", "1")}, nullptr);
  EXPECT_EQ(uncaught(), "nothing");
  if (std::string_view(GetParam()) == "lost")
    loseConnection(-1009);
  else
    serve(200, GetParam());
  EXPECT_EQ(uncaught(), terminated("An absent handler was called"));
}

INSTANTIATE_TEST_SUITE_P(Outcomes, ShareRefreshWithoutACallback, testing::Values("lost", "no JSON", R"({"data":[{}]})"));

TEST_F(ShareRefresh, TheTaskKeepsTheCallbackAndNotTheClient) {
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  const std::weak_ptr<KSVData> alive = client;
  client->updateSharesFromServerWithCallback(KSVShares{share("abcdefgh", "1")}, [held](const KSVShares&) {});
  held.reset();
  client.reset();
  inspect.client.reset();
  EXPECT_TRUE(alive.expired()) << "it needs nothing of the client";
  EXPECT_FALSE(watched.expired());
  serve(200, "{}");
  EXPECT_TRUE(watched.expired());
}

// Hostile answers.

struct Fault {
  const char* name;
  const char* body;
  const char* reason;
};
void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

class ShareRefreshFaults : public ShareRefresh, public testing::WithParamInterface<Fault> {};

TEST_P(ShareRefreshFaults, EndTheProcessWithTheirReason) {
  refreshOne();
  serve(200, GetParam().body);
  EXPECT_EQ(uncaught(), terminated(GetParam().reason));
  EXPECT_THAT(callback.calls, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Answers, ShareRefreshFaults,
    testing::Values(
        Fault{"TopLevelArray", "[]", "-[Value objectForKey:]: sent to an array"},
        Fault{"DataAString", R"({"data":"text"})", "-[Value countByEnumeratingWithState:objects:count:]: sent to a string"},
        Fault{"DataANumber", R"({"data":7})", "-[Value countByEnumeratingWithState:objects:count:]: sent to an integer"},
        Fault{"DataADouble", R"({"data":7.5})", "-[Value countByEnumeratingWithState:objects:count:]: sent to a floating number"},
        Fault{"DataABoolean", R"({"data":true})", "-[Value countByEnumeratingWithState:objects:count:]: sent to a boolean"}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_F(ShareRefresh, DeepNestingIsInvalidJSON) {
  refreshOne();
  process.clearMessages();
  serve(200, "{\"data\":" + nested(100'000) + "}");
  EXPECT_THAT(process.messages(), ElementsAre(kInvalidJSON));
  EXPECT_THAT(callback.calls, ElementsAre(""));
}

TEST_F(ShareRefresh, TenMegabytesOfElementsAreSorted) {
  std::string body = R"({"data":[)";
  while (body.size() < 10'000'000) body += R"(7,"text",[[]],{"state":"?"},)";
  refreshOne();
  serve(200, body + R"({"referralCode":{"userId":"abcdefgh"}}]})");
  EXPECT_THAT(callback.calls, ElementsAre("abcdefgh;"));
}

}  // namespace
}  // namespace test
