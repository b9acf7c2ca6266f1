// The request format of every endpoint: what is on a request, what is signed, and what happens when a body cannot be written.
#include <regex>

#include "ApiTest.h"

namespace test {
namespace {

constexpr const char* kMediaType = "application/vnd.kestrova.v1+json";

class AuthenticatedRequests : public ApiTest {
 protected:
  /// The value of one attribute of an Authorization header, absent when it has none.
  static std::optional<std::string> attribute(const std::string& header, const std::string& name) {
    std::smatch match;
    if (!std::regex_search(header, match, std::regex("(?:^Hawk |, )" + name + "=\"([^\"]*)\""))) return std::nullopt;
    return match[1];
  }
  static std::string authorization(const platform::URLRequest& request) {
    return request.valueForHTTPHeaderField("Authorization").value_or("");
  }
  static std::vector<std::string> fieldNames(const platform::URLRequest& request) {
    std::vector<std::string> names;
    for (const auto& [name, value] : request.allHTTPHeaderFields()) names.push_back(name);
    return names;
  }
  /// A signature made here, from what the header says and what it should have signed.
  std::string macOver(const std::string& header, const std::string& method, const std::string& uri, const std::string& host,
                      const std::string& port) {
    const std::string text = "hawk.1.header\n" + *attribute(header, "ts") + "\n" + *attribute(header, "nonce") + "\n" + method +
                             "\n" + uri + "\n" + host + "\n" + port + "\n" + attribute(header, "hash").value_or("") + "\n" +
                             *inspect.deviceId() + "\n";
    return platform::Digest::digests()
        .hmac(platform::Digest::Algorithm::kSHA256, TestProcess::kSecret, {text})
        .base64EncodedString();
  }
};

TEST_F(AuthenticatedRequests, TheVendorMediaTypeCarriesTheVersion) {
  EXPECT_EQ(inspect.getApiVersion(), kMediaType);
  process.process().constants.apiVersionString = "2.1";
  EXPECT_EQ(inspect.getApiVersion(), "application/vnd.kestrova.v2.1+json");
}

TEST_F(AuthenticatedRequests, APlainRequestHasTheURLAndAcceptOnly) {
  const auto request = inspect.buildRequestForApi("/shares?ids=a,b c");
  EXPECT_EQ(request.HTTPMethod(), "GET");
  EXPECT_THAT(fieldNames(request), ElementsAre("Accept"));
  EXPECT_EQ(request.valueForHTTPHeaderField("Accept"), kMediaType);
  EXPECT_EQ(request.HTTPBody(), std::nullopt);
  EXPECT_EQ(request.URL(), std::nullopt) << "the path is not escaped, and a blank makes no URL";
  EXPECT_EQ(inspect.buildRequestForApi("/shares?ids=a,b").URL()->absoluteString(), "https://api.example.com/shares?ids=a,b");
}

TEST_F(AuthenticatedRequests, AnAuthenticatedRequestHasItsFieldsInOrder) {
  const auto request = inspect.buildAuthenticatedRequestPathBody("POST", "/events", {{"data", Array{}}});
  ASSERT_TRUE(request);
  EXPECT_EQ(request->URL()->absoluteString(), "https://api.example.com/events");
  EXPECT_EQ(request->HTTPMethod(), "POST");
  EXPECT_THAT(fieldNames(*request), ElementsAre("Accept", "Content-Length", "Content-Type", "Authorization"));
  EXPECT_EQ(request->valueForHTTPHeaderField("Accept"), kMediaType);
  EXPECT_EQ(request->valueForHTTPHeaderField("Content-Type"), kMediaType);
  EXPECT_EQ(request->valueForHTTPHeaderField("Content-Length"), "11");
  EXPECT_EQ(request->HTTPBody()->bytes(), R"({"data":[]})");
}

TEST_F(AuthenticatedRequests, AnEmptyBodyIsTwoBytes) {
  const auto request = inspect.buildAuthenticatedRequestPathBody("POST", "/events", {});
  EXPECT_EQ(request->HTTPBody()->bytes(), "{}");
  EXPECT_EQ(request->valueForHTTPHeaderField("Content-Length"), "2");
}

TEST_F(AuthenticatedRequests, ContentLengthCountsBytes) {
  const auto request = inspect.buildAuthenticatedRequestPathBody("POST", "/shares", {{"t", "grüße 😀"}});
  EXPECT_EQ(request->HTTPBody()->bytes(), R"({"t":"grüße 😀"})");
  EXPECT_EQ(request->valueForHTTPHeaderField("Content-Length"), "20");
}

TEST_F(AuthenticatedRequests, TheSignatureCoversMethodUriHostPortHashAndExt) {
  const auto request = inspect.buildAuthenticatedRequestPathBody("POST", "/events", {{"data", Array{}}});
  const std::string header = authorization(*request);
  EXPECT_EQ(attribute(header, "id"), "com.example.app");
  EXPECT_EQ(attribute(header, "ts"), "1795205979");
  EXPECT_EQ(attribute(header, "ext"), inspect.deviceId());
  EXPECT_EQ(attribute(header, "nonce")->size(), 8U);
  const std::string payload = std::string("hawk.1.payload\n") + kMediaType + "\n{\"data\":[]}\n";
  EXPECT_EQ(attribute(header, "hash"),
            platform::Digest::digests().hash(platform::Digest::Algorithm::kSHA256, {payload}).base64EncodedString());
  EXPECT_EQ(attribute(header, "mac"), macOver(header, "POST", "/events", "api.example.com", "443"));
}

TEST_F(AuthenticatedRequests, TheSignedUriIsPathAndQuery) {
  for (const std::string path : {"/shares?ids=a,b", "/events", "/a?", "/a?b=%20+c"}) {
    const auto request = inspect.buildAuthenticatedRequestPathBody("GET", path, {});
    const std::string header = authorization(*request);
    EXPECT_EQ(attribute(header, "mac"), macOver(header, "GET", path, "api.example.com", "443")) << path;
  }
}

TEST_F(AuthenticatedRequests, TheSignedPathIsPercentDecoded) {
  const auto request = inspect.buildAuthenticatedRequestPathBody("GET", "/a%20b?c=%20", {});
  const std::string header = authorization(*request);
  EXPECT_EQ(attribute(header, "mac"), macOver(header, "GET", "/a b?c=%20", "api.example.com", "443"));
}

TEST_F(AuthenticatedRequests, AnExplicitPortIsSigned) {
  for (const auto& [host, name, port] :
       {std::tuple("localhost:8443", "localhost", "8443"), std::tuple("localhost:443", "localhost", "443"),
        std::tuple("localhost:0", "localhost", "443"), std::tuple("localhost", "localhost", "443")}) {
    process.process().constants.apiHost = host;
    const auto request = inspect.buildAuthenticatedRequestPathBody("POST", "/events", {});
    const std::string header = authorization(*request);
    EXPECT_EQ(attribute(header, "mac"), macOver(header, "POST", "/events", name, port)) << host;
  }
}

TEST_F(AuthenticatedRequests, TwoBuildsDifferInNonceAndMacOnly) {
  const auto first = inspect.buildAuthenticatedRequestPathBody("POST", "/events", {{"a", 1}});
  const auto second = inspect.buildAuthenticatedRequestPathBody("POST", "/events", {{"a", 1}});
  const std::string one = authorization(*first);
  const std::string two = authorization(*second);
  EXPECT_NE(attribute(one, "nonce"), attribute(two, "nonce"));
  for (const char* name : {"id", "ts", "hash", "ext"}) EXPECT_EQ(attribute(one, name), attribute(two, name)) << name;
}

TEST_F(AuthenticatedRequests, TheTimestampIsTheCorrectedTime) {
  process.userDefaults().setObjectForKey(Value(-3600), TestProcess::kSkewKey);
  const auto request = inspect.buildAuthenticatedRequestPathBody("POST", "/events", {});
  EXPECT_EQ(attribute(authorization(*request), "ts"), "1795202379");
  EXPECT_THAT(process.messages(), ElementsAre("Adjusting local time by -3600"));
}

TEST_F(AuthenticatedRequests, WithoutAPayloadThereIsNoHashAlthoughTheSignerHasAContentType) {
  platform::URLRequest request = inspect.buildRequestForApi("/gifs?shareId=abc123");
  request.setHTTPMethod("POST");
  request.addValueForHTTPHeaderField("image/gif", "Content-Type");
  const auto header = inspect.authHeaderForDataRequest(std::nullopt, request);
  ASSERT_TRUE(header);
  EXPECT_EQ(attribute(*header, "hash"), std::nullopt);
  EXPECT_EQ(attribute(*header, "mac"), macOver(*header, "POST", "/gifs?shareId=abc123", "api.example.com", "443"));
  EXPECT_EQ(request.valueForHTTPHeaderField("Authorization"), std::nullopt) << "nothing is set on the request itself";
}

TEST_F(AuthenticatedRequests, TheSignerIsConfiguredButNotForARequest) {
  const KSVHawkAuth auth = inspect.getHawkAuth();
  EXPECT_EQ(auth.contentType(), kMediaType);
  EXPECT_EQ(auth.ext(), inspect.deviceId());
  EXPECT_EQ(auth.credentials()->hawkId(), "com.example.app");
  EXPECT_EQ(auth.credentials()->key(), TestProcess::kSecret);
  EXPECT_EQ(auth.credentials()->algorithm(), KSVCryptoAlgorithmSHA256);
  EXPECT_EQ(auth.nonce(), "");
  EXPECT_EQ(auth.payload(), std::nullopt);
}

TEST_F(AuthenticatedRequests, WithoutASecretTheRequestIsBuiltUnsigned) {
  KSVDataInspector unsignedClient(process.makeClient(std::nullopt));
  const auto request = unsignedClient.buildAuthenticatedRequestPathBody("POST", "/events", {});
  ASSERT_TRUE(request);
  EXPECT_EQ(request->valueForHTTPHeaderField("Authorization"), std::nullopt);
}

TEST_F(AuthenticatedRequests, AHostThatMakesNoURLStillMakesARequest) {
  process.process().constants.apiHost = "no host";
  const auto request = inspect.buildAuthenticatedRequestPathBody("POST", "/events", {});
  ASSERT_TRUE(request);
  EXPECT_EQ(request->URL(), std::nullopt);
}

// Bodies that cannot be written.

TEST_F(AuthenticatedRequests, AValueThatIsNoJSONTypeYieldsNoRequest) {
  EXPECT_FALSE(inspect.buildAuthenticatedRequestPathBody("POST", "/shares", {{"d", platform::Date()}}));
  EXPECT_THAT(process.messages(),
              ElementsAre("Serializing universal link patch event failed: Invalid type in JSON write (NSDate)"));
}

TEST_F(AuthenticatedRequests, ASerialiserThatFailsYieldsNoRequest) {
  process.plan().fail("JSON.write", nth(1), someError());
  EXPECT_FALSE(inspect.buildAuthenticatedRequestPathBody("POST", "/events", {}));
  EXPECT_THAT(process.messages(),
              ElementsAre("Serializing post data for patching session-started failed: It went wrong on purpose."));
}

TEST_F(AuthenticatedRequests, ASerialiserThatRaisesYieldsNoRequest) {
  process.plan().raise("JSON.write", nth(1), someException());
  EXPECT_FALSE(inspect.buildAuthenticatedRequestPathBody("POST", "/events", {}));
  EXPECT_THAT(process.messages(), ElementsAre("Serializing universal link patch event failed: raised on purpose"));
}

TEST_F(AuthenticatedRequests, AnExceptionOfAnotherKindPassesThrough) {
  process.plan().throwStandard("JSON.write", nth(1));
  EXPECT_THROW(inspect.buildAuthenticatedRequestPathBody("POST", "/events", {}), std::runtime_error);
}

TEST_F(AuthenticatedRequests, OnlyTheSerialisationIsGuarded) {
  process.process().constants.apiHost = std::nullopt;
  EXPECT_THROW(inspect.buildAuthenticatedRequestPathBody("POST", "/events", {}), platform::Exception);
}

TEST_F(AuthenticatedRequests, WithDebugOffNothingIsStored) {
  process.process().debug = false;
  EXPECT_FALSE(inspect.buildAuthenticatedRequestPathBody("POST", "/shares", {{"d", platform::Date()}}));
  EXPECT_THAT(process.messages(), IsEmpty());
}

TEST_F(AuthenticatedRequests, NothingThatIsSecretReachesALog) {
  process.userDefaults().setObjectForKey(Value(5), TestProcess::kSkewKey);
  inspect.sendEvents({record(1)});
  process.answer(401, "", {{"www-authenticate", challenge(static_cast<std::int64_t>(kStart) + 100)}});
  process.runAll();
  process.answer(500, "");
  process.runAll();
  for (const std::string& message : process.messages()) {
    EXPECT_THAT(message, testing::Not(HasSubstr(TestProcess::kSecret)));
    EXPECT_THAT(message, testing::Not(HasSubstr("mac=")));
  }
  EXPECT_FALSE(process.messages().empty());
}

}  // namespace
}  // namespace test
