// Submitting shares: what is posted, what each outcome says and does, and how often it is tried.
#include "SharesTest.h"

namespace test {
namespace {

using testing::Pair;

constexpr const char* kResubmitting = "Re-submitting share with adjusted timestamp";
constexpr const char* kGivingUp = "Tried twice without luck, giving up on submitting share";

std::string failure(const std::string& response, const std::string& error) {
  return "Kestrova: Couldn't submit share. Response was: " + response + ", error message is: " + error;
}
/// Both logs, as process.messages() has them.
auto inBothLogs(const std::string& message) { return ElementsAre("system log: " + message, message); }
class ShareSubmission : public SharesTest {
 protected:
  void submit(const std::string& text = "hello") {
    client->submitShare(shareWithText(text));
    process.runAll();
  }
};
class QuietShareSubmission : public QuietSharesTest {};

// What is sent.

TEST_F(ShareSubmission, PostsTheSerializedShareUnderDataWithASignature) {
  submit("grüße 😀");
  ASSERT_EQ(requestCount(), 1U);
  const platform::URLRequest request = requests().at(0);
  EXPECT_EQ(request.HTTPMethod(), "POST");
  EXPECT_EQ(request.URL()->absoluteString(), "https://api.example.com/shares");
  EXPECT_EQ(request.HTTPBody()->bytes(), R"({"data":{"data":{"text":"grüße 😀"},"isFallback":false,"state":0}})");
  EXPECT_EQ(request.valueForHTTPHeaderField("Accept"), "application/vnd.kestrova.v1+json");
  EXPECT_EQ(request.valueForHTTPHeaderField("Content-Type"), "application/vnd.kestrova.v1+json");
  EXPECT_EQ(request.valueForHTTPHeaderField("Content-Length"), std::to_string(request.HTTPBody()->length()));
  EXPECT_THAT(request.valueForHTTPHeaderField("Authorization").value_or(""),
              StartsWith("Hawk id=\"com.example.app\", ts=\"1795205979\""));
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(ShareSubmission, ReturnsAtOnceAndRunsNothingOnTheClientsQueue) {
  client->submitShare(shareWithText("hello"));
  EXPECT_EQ(requestCount(), 1U);
  EXPECT_EQ(process.blocksWaiting(TestProcess::clientQueue()), 0U);
}

TEST_F(ShareSubmission, TheOutcomeIsDealtWithOnTheCompletionQueue) {
  submit();
  process.answer(201, R"({"data":{"id":"abcdefgh1234"}})");
  EXPECT_THAT(delegate->calls, IsEmpty());
  ASSERT_TRUE(process.runOne(ScriptedURLSession::kQueueLabel));
  EXPECT_THAT(delegate->calls, SizeIs(1));
}

TEST_F(ShareSubmission, ATaskKeepsClientAndShareAliveUntilItHasEnded) {
  auto shared = shareWithText("hello");
  const std::weak_ptr<KSVShare> shareAlive = shared;
  const std::weak_ptr<KSVData> clientAlive = client;
  client->submitShare(std::move(shared));
  client.reset();
  inspect.client.reset();
  EXPECT_FALSE(shareAlive.expired());
  EXPECT_FALSE(clientAlive.expired());
  serve(200, "{}");
  EXPECT_TRUE(shareAlive.expired());
  EXPECT_TRUE(clientAlive.expired());
}

TEST_F(ShareSubmission, AShareThatCannotBeWrittenIsReportedAndNotSent) {
  submit("\xFF");
  EXPECT_EQ(requestCount(), 0U);
  ASSERT_THAT(process.messages(), SizeIs(2));
  EXPECT_THAT(process.messages()[0], StartsWith("Serializing post data for patching session-started failed: "));
  EXPECT_EQ(process.messages()[1], "Couldn't build request for /shares, aborting.");
}

TEST_F(ShareSubmission, AShareWithAnInvalidNumberIsReportedAndNotSent) {
  auto made = std::make_shared<KSVShare>();
  made->data = Dictionary{{"n", std::numeric_limits<double>::quiet_NaN()}};
  client->submitShare(made);
  EXPECT_EQ(requestCount(), 0U);
  EXPECT_THAT(process.messages(),
              ElementsAre("Serializing universal link patch event failed: Invalid number value (NaN) in JSON write",
                          "Couldn't build request for /shares, aborting."));
}

TEST_F(ShareSubmission, AnAbsentShareRaisesAtTheCaller) {
  try {
    client->submitShare(nullptr);
    FAIL() << "nothing was raised";
  } catch (const platform::Exception& raise) {
    EXPECT_EQ(raise.name(), platform::kInvalidArgumentException);
  }
  EXPECT_EQ(requestCount(), 0U);
  EXPECT_THAT(process.messages(), IsEmpty());
}

// Success.

TEST_F(ShareSubmission, TheFirstEightCharactersOfTheCodeAreTheUserId) {
  submit();
  serve(201, R"({"data":{"id":"abcdefgh1234"}})");
  EXPECT_THAT(delegate->calls, ElementsAre(Pair("setUserId", Value("abcdefgh"))));
  EXPECT_THAT(process.messages(), ElementsAre("Got referral code through gif upload: abcdefgh1234"));
  EXPECT_EQ(requestCount(), 1U);
}

TEST_F(ShareSubmission, ACodeOfEightCharactersIsTheUserIdAlone) {
  submit();
  serve(200, R"({"data":{"id":"abcdefgh"}})");
  EXPECT_THAT(delegate->calls, ElementsAre(Pair("setUserId", Value("abcdefgh"))));
}

TEST_F(ShareSubmission, CharactersAreCodePointsNotBytes) {
  submit();
  serve(200, R"({"data":{"id":"äöüß😀日本語1234"}})");
  EXPECT_THAT(delegate->calls, ElementsAre(Pair("setUserId", Value("äöüß😀日本語"))));
  EXPECT_THAT(process.messages(), ElementsAre("Got referral code through gif upload: äöüß😀日本語1234"));
}

TEST_F(ShareSubmission, TheDelegateIsToldBeforeTheTrace) {
  struct Delegate final : KSVDelegate {
    explicit Delegate(TestProcess& its) : process(its) {}
    void setUserId(const Value&) override { traceThen = process.messages(); }
    void setAppIdentifier(const Value&) override {}
    void handleEventsFromServer(const Value&) override {}
    TestProcess& process;
    std::vector<std::string> traceThen{"not told"};
  };
  const auto observer = std::make_shared<Delegate>(process);
  client->setDelegate(observer);
  submit();
  serve(200, R"({"data":{"id":"abcdefgh1234"}})");
  EXPECT_THAT(observer->traceThen, IsEmpty());
}

TEST_F(ShareSubmission, WithoutADelegateTheCodeIsTracedAlone) {
  delegate.reset();
  submit();
  serve(200, R"({"data":{"id":"abcdefgh1234"}})");
  EXPECT_THAT(process.messages(), ElementsAre("Got referral code through gif upload: abcdefgh1234"));
  EXPECT_EQ(uncaught(), "nothing");
}

TEST_F(ShareSubmission, AnAnswerWithoutACodeChangesNothingAndSaysNothing) {
  for (const char* body : {"{}", R"({"data":null})", R"({"data":{}})", R"({"data":{"id":null}})", R"({"id":"abcdefgh1234"})"}) {
    submit();
    serve(200, body);
    EXPECT_THAT(delegate->calls, IsEmpty()) << body;
    EXPECT_THAT(process.messages(), IsEmpty()) << body;
    EXPECT_EQ(uncaught(), "nothing") << body;
  }
}

TEST_F(ShareSubmission, EveryStatusBelow400IsASuccess) {
  for (const std::int64_t status : {100, 200, 201, 204, 301, 304, 399}) {
    submit();
    serve(status, "{}");
    EXPECT_THAT(process.messages(), IsEmpty()) << status;
  }
}

TEST_F(ShareSubmission, AnExchangeWithoutAResponseIsASuccessWithStatusNil) {
  submit();
  endWith(platform::Data("{}"), nullptr, std::nullopt);
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(ShareSubmission, AnAnswerThatIsNotJSONIsTraced) {
  for (const char* body : {"", "{", "<html>", "7", "null", "\"abcdefgh1234\"", "{} {}", "\xFF"}) {
    process.clearMessages();
    submit();
    serve(200, body);
    EXPECT_THAT(process.messages(), ElementsAre(kInvalidJSON)) << body;
    EXPECT_THAT(delegate->calls, IsEmpty()) << body;
  }
}

TEST_F(ShareSubmission, AnAnswerWithoutABodyIsTracedLikeAnEmptyOne) {
  submit();
  endWith(std::nullopt, nullptr, std::nullopt);
  EXPECT_THAT(process.messages(), ElementsAre(kInvalidJSON));
}

// Failure.

TEST_F(ShareSubmission, A500IsLoggedOnceAndNotTriedAgain) {
  submit();
  serve(500, "oops", {{"X-Reason", "oops"}});
  ASSERT_THAT(process.messages(), SizeIs(2));
  EXPECT_THAT(process.messages()[1], StartsWith("Kestrova: Couldn't submit share. Response was: <NSHTTPURLResponse> { URL: "
                                                "https://api.example.com/shares } { Status Code: 500, Headers {"));
  EXPECT_THAT(process.messages()[1], testing::EndsWith(", error message is: (null)"));
  EXPECT_EQ(process.messages()[0], "system log: " + process.messages()[1]);
  EXPECT_EQ(requestCount(), 1U);
  EXPECT_EQ(storedSkews(), 0U);
}

TEST_F(ShareSubmission, A400IsAFailureAndA399IsNot) {
  submit();
  serve(399, "{}");
  EXPECT_THAT(process.messages(), IsEmpty());
  submit();
  serve(400, "{}");
  EXPECT_THAT(process.systemLog(), SizeIs(1));
}

TEST_F(ShareSubmission, ALostConnectionIsLoggedWithANullResponse) {
  submit();
  loseConnection(-1009);
  EXPECT_THAT(process.messages(), inBothLogs(failure("(null)", "The Internet connection appears to be offline.")));
  EXPECT_EQ(requestCount(), 1U);
}

TEST_F(ShareSubmission, AnErrorDecidesAlsoBesideAGoodResponse) {
  submit();
  const auto response = std::make_shared<platform::HTTPURLResponse>(*platform::URL::URLWithString("https://api.example.com/shares"),
                                                                    200, platform::HTTPHeaderFields());
  endWith(platform::Data(R"({"data":{"id":"abcdefgh1234"}})"), response, platform::urlError(-1005));
  ASSERT_THAT(process.systemLog(), SizeIs(1));
  EXPECT_THAT(process.systemLog()[0], testing::EndsWith(", error message is: The network connection was lost."));
  EXPECT_THAT(delegate->calls, IsEmpty());
}

TEST_F(ShareSubmission, A401WithoutAChallengeIsAnOrdinaryFailure) {
  submit();
  serve(401, "");
  EXPECT_THAT(process.systemLog(), SizeIs(1));
  EXPECT_EQ(requestCount(), 1U);
}

TEST_F(ShareSubmission, AChallengeWithAnotherStatusIsAnOrdinaryFailure) {
  for (const std::int64_t status : {400, 403, 407, 500}) {
    submit();
    const std::string header = challenge(kServer);
    serve(status, "", {{"www-authenticate", header}});
  }
  EXPECT_THAT(process.systemLog(), SizeIs(4));
  EXPECT_EQ(requestCount(), 4U);
  EXPECT_EQ(storedSkews(), 0U);
}

// The clock correction.

TEST_F(ShareSubmission, AChallengeCorrectsTheClockAndTheShareIsPostedOnceMore) {
  submit();
  refuseAsStale(kServer);
  ASSERT_EQ(requestCount(), 2U);
  EXPECT_EQ(skew(), 100);
  EXPECT_THAT(process.messages(), ElementsAre(kResubmitting, "Adjusting local time by 100"));
  const auto all = requests();
  EXPECT_EQ(all[0].HTTPBody()->bytes(), all[1].HTTPBody()->bytes());
  EXPECT_THAT(all[1].valueForHTTPHeaderField("Authorization").value_or(""), HasSubstr("ts=\"1795206079\""));
  EXPECT_NE(all[0].valueForHTTPHeaderField("Authorization"), all[1].valueForHTTPHeaderField("Authorization"));
  serve(201, R"({"data":{"id":"abcdefgh1234"}})");
  EXPECT_THAT(delegate->calls, ElementsAre(Pair("setUserId", Value("abcdefgh"))));
  EXPECT_EQ(requestCount(), 2U);
  EXPECT_EQ(storedSkews(), 1U);
}

TEST_F(ShareSubmission, TheChallengeIsFoundWhateverTheCaseOfItsName) {
  submit();
  const std::string header = challenge(kServer);
  serve(401, "", {{"WWW-Authenticate", header}});
  EXPECT_EQ(requestCount(), 2U);
}

TEST_F(ShareSubmission, TheShareIsSerializedAnewForEachAttempt) {
  const auto changing = shareWithText("first");
  client->submitShare(changing);
  changing->data = Dictionary{{"text", "second"}};
  refuseAsStale(kServer);
  ASSERT_EQ(requestCount(), 2U);
  EXPECT_THAT(std::string(process.posts()[0].bytes()), HasSubstr("first"));
  EXPECT_THAT(std::string(process.posts()[1].bytes()), HasSubstr("second"));
}

TEST_F(ShareSubmission, TwoChallengesEndWithTwoRequestsAndTwoStoredCorrections) {
  submit();
  refuseAsStale(kServer);
  EXPECT_EQ(skew(), 100);
  refuseAsStale(kServer + 100);
  EXPECT_EQ(skew(), 200);
  EXPECT_EQ(requestCount(), 2U);
  EXPECT_EQ(storedSkews(), 2U);
  EXPECT_THAT(process.messages(), ElementsAre(kResubmitting, "Adjusting local time by 100", kResubmitting, kGivingUp));
  EXPECT_TRUE(process.urlSession().pending().empty());
  EXPECT_THAT(process.systemLog(), IsEmpty());
}

TEST_F(ShareSubmission, AFailureOfTheSecondRequestIsLoggedOnce) {
  submit();
  refuseAsStale(kServer);
  process.clearMessages();
  loseConnection(-1001);
  EXPECT_THAT(process.messages(), inBothLogs(failure("(null)", "The request timed out.")));
  EXPECT_EQ(requestCount(), 2U);
}

TEST_F(ShareSubmission, AChallengeCountsAlsoBesideAnError) {
  submit();
  platform::HTTPHeaderFields fields;
  fields.setValueForField(challenge(kServer), "www-authenticate");
  const auto response = std::make_shared<platform::HTTPURLResponse>(*platform::URL::URLWithString("https://api.example.com/shares"),
                                                                    401, std::move(fields));
  endWith(std::nullopt, response, platform::urlError(-1005));
  EXPECT_EQ(requestCount(), 2U);
}

TEST_F(ShareSubmission, AChallengeThatCannotBeReadEndsItInSilence) {
  for (const std::string& header :
       {std::string("Hawk"), std::string("Basic realm=\"x\""), std::string(), std::string("Hawk error=\"Bad mac\""),
        challenge(kServer, "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA="), challenge(kServer) + ", ts=\"1\""}) {
    const std::size_t before = requestCount();
    submit();
    serve(401, "", {{"www-authenticate", header}});
    EXPECT_EQ(requestCount(), before + 1) << header;
  }
  EXPECT_THAT(process.messages(), IsEmpty());
  EXPECT_EQ(storedSkews(), 0U);
}

TEST_F(ShareSubmission, AThirdAttemptSendsNothing) {
  for (const std::int32_t attempt : {3, 4, std::numeric_limits<std::int32_t>::max()}) {
    inspect.submitShareAttemptNumber(shareWithText("hello"), attempt);
    inspect.submitShareAttemptNumber(nullptr, attempt);
  }
  EXPECT_EQ(requestCount(), 0U);
  EXPECT_THAT(process.messages(), testing::AllOf(SizeIs(6), testing::Each(kGivingUp)));
}

// With the debug flag off.

TEST_F(QuietShareSubmission, TheSystemLogIsWrittenAllTheSame) {
  client->submitShare(shareWithText("hello"));
  loseConnection(-1001);
  EXPECT_THAT(process.messages(), ElementsAre("system log: " + failure("(null)", "The request timed out.")));
}

TEST_F(QuietShareSubmission, NothingElseIsSaid) {
  client->submitShare(shareWithText("\xFF"));
  for (const char* body : {"no JSON", "{}", R"({"data":{"id":"abcdefgh1234"}})"}) {
    client->submitShare(shareWithText("hello"));
    serve(200, body);
  }
  client->submitShare(shareWithText("hello"));
  refuseAsStale(kServer);
  refuseAsStale(kServer);
  EXPECT_THAT(process.messages(), IsEmpty());
  EXPECT_THAT(delegate->calls, ElementsAre(Pair("setUserId", Value("abcdefgh"))));
  EXPECT_EQ(storedSkews(), 2U);
}

// Hostile answers: what ends the process, and what does not.

struct Fault {
  const char* name;
  const char* body;
  const char* reason;  // of the raise
};
void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

class ShareSubmissionFaults : public ShareSubmission, public testing::WithParamInterface<Fault> {};

TEST_P(ShareSubmissionFaults, EndTheProcessWithTheirReason) {
  submit();
  serve(200, GetParam().body);
  EXPECT_EQ(uncaught(), terminated(GetParam().reason));
  EXPECT_THAT(delegate->calls, IsEmpty());
  EXPECT_THAT(process.messages(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Answers, ShareSubmissionFaults,
    testing::Values(Fault{"TopLevelArray", R"([{"data":{"id":"abcdefgh1234"}}])", "-[Value objectForKey:]: sent to an array"},
                    Fault{"DataAnArray", R"({"data":[]})", "-[Value objectForKey:]: sent to an array"},
                    Fault{"DataAString", R"({"data":"abcdefgh1234"})", "-[Value objectForKey:]: sent to a string"},
                    Fault{"DataANumber", R"({"data":7})", "-[Value objectForKey:]: sent to an integer"},
                    Fault{"DataABoolean", R"({"data":false})", "-[Value objectForKey:]: sent to a boolean"},
                    Fault{"IdANumber", R"({"data":{"id":123456789012}})", "-[Value substringToIndex:]: sent to an integer"},
                    Fault{"IdABoolean", R"({"data":{"id":true}})", "-[Value substringToIndex:]: sent to a boolean"},
                    Fault{"IdAnArray", R"({"data":{"id":["abcdefgh1234"]}})", "-[Value substringToIndex:]: sent to an array"},
                    Fault{"IdAnObject", R"({"data":{"id":{}}})", "-[Value substringToIndex:]: sent to an object"},
                    Fault{"IdEmpty", R"({"data":{"id":""}})",
                          "*** -[NSString substringToIndex:]: Index 8 out of bounds; string length 0"},
                    Fault{"IdTooShort", R"({"data":{"id":"äbcdefg"}})",
                          "*** -[NSString substringToIndex:]: Index 8 out of bounds; string length 7"}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_F(ShareSubmission, AFaultIsOneAlsoWithoutADelegate) {
  delegate.reset();
  submit();
  serve(200, R"({"data":{"id":"short"}})");
  EXPECT_EQ(uncaught(), terminated("*** -[NSString substringToIndex:]: Index 8 out of bounds; string length 5"));
}

TEST_F(ShareSubmission, DeepNestingIsInvalidJSON) {
  submit();
  serve(200, nested(100'000));
  EXPECT_THAT(process.messages(), ElementsAre(kInvalidJSON));
  EXPECT_EQ(uncaught(), "nothing");
}

TEST_F(ShareSubmission, TenMegabytesAreReadLikeAnyAnswer) {
  submit();
  const std::string code = "abcdefgh" + std::string(10'000'000, 'x');
  serve(200, R"({"data":{"id":")" + code + R"("}})");
  EXPECT_THAT(delegate->calls, ElementsAre(Pair("setUserId", Value("abcdefgh"))));
  // Of a long line the trace keeps the beginning.
  ASSERT_THAT(process.messages(), SizeIs(1));
  EXPECT_EQ(process.messages()[0].size(), KSVDebugger::kMaxBytes);
  EXPECT_THAT(process.messages()[0].substr(0, 60), StartsWith("Got referral code through gif upload: abcdefghxxx"));
}

}  // namespace
}  // namespace test
