// What a person is told of a signature, step by step.
#include "devserver/SignatureChecks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "devserver/Json.h"

namespace devserver {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

const std::vector<std::string> kApplications{"com.example.app", "com.example.other"};
const std::string kHeader = R"(Hawk id="com.example.app", ts="1795205979", nonce="abc", hash="HASH=", ext="device", mac="MACMAC")";

class SignatureChecksTest : public ::testing::Test {
 protected:
  SignatureChecksTest() {
    request_.method = "POST";
    request_.target = "/events";
    request_.host = "localhost:8443";
    request_.contentType = "application/json";
    request_.authorization = kHeader;
    request_.verdict = "ok";
    request_.bodyBytes = 12;
    request_.serverTime = std::chrono::milliseconds(1'795'205'979'400);
  }
  void makeSigned() {
    request_.isSigned = true;
    request_.hash = "HASH=";
  }
  std::vector<std::string> told() const {
    std::vector<std::string> lines;
    for (const Value& value : checksOfHeader(request_, kApplications)) lines.push_back(line(value.object()));
    return lines;
  }
  std::vector<std::string> linkTold() const {
    std::vector<std::string> lines;
    for (const Value& value : checksOfLink(request_, kApplications)) lines.push_back(line(value.object()));
    return lines;
  }
  static std::string text(const Dictionary& check, const char* key) {
    const auto value = check.objectForKey(key);
    return value ? std::string(value->string().view()) : "";
  }
  static std::string line(const Dictionary& check) {
    return text(check, "step") + " " + text(check, "state") + ": " + text(check, "say");
  }
  Dictionary step(std::string_view name) const {
    for (const Value& value : checksOfHeader(request_, kApplications))
      if (value.objectForKey("step") == Value(name)) return value.object();
    return {};
  }

  Judged request_;
  static constexpr const char* kHeaderIsRight = "header right: The Authorization header has all that the scheme asks for.";
  static constexpr const char* kIdIsRight = "application right: com.example.app is an application of this server.";
  static constexpr const char* kMacIsRight = "signature right: The MAC fits the text that the server has built from the request.";
};

TEST_F(SignatureChecksTest, RightInAllSteps) {
  makeSigned();
  EXPECT_THAT(told(),
              ElementsAre(kHeaderIsRight, kIdIsRight, kMacIsRight,
                          "payload right: The hash fits the body: 12 bytes, sent as \"application/json\".",
                          "nonce right: The nonce is new.",
                          "clock right: The signature's time is 0.4 s behind the server; 60 s to either side are allowed."));
  EXPECT_EQ(text(step("clock"), "came"), "1795205979");
  EXPECT_EQ(text(step("clock"), "computed"), "1795205979");
}

TEST_F(SignatureChecksTest, HeaderThatCannotBeUsed) {
  request_.authorization = "Hawk nonsense";
  request_.verdict = "Bad header format";
  EXPECT_THAT(told(), ElementsAre("header wrong: The Authorization header cannot be used: Bad header format."));
  request_.authorization.reset();
  request_.verdict = "No Authorization header";
  EXPECT_THAT(told(), ElementsAre("header wrong: The Authorization header cannot be used: No Authorization header."));
}

TEST_F(SignatureChecksTest, UnknownApplication) {
  request_.authorization = R"(Hawk id="com.example.unknown", ts="1", nonce="n", mac="m")";
  request_.verdict = "Unknown credentials";
  EXPECT_THAT(told(), ElementsAre(kHeaderIsRight,
                                  "application wrong: com.example.unknown is none of this server's applications, which are: "
                                  "com.example.app, com.example.other."));
}

TEST_F(SignatureChecksTest, WrongMacShowsTheTextThatWasBuiltAndNoMac) {
  request_.verdict = "Bad mac";
  EXPECT_THAT(told(),
              ElementsAre(kHeaderIsRight, kIdIsRight,
                          "signature wrong: The MAC does not fit the text that the server has built from the request. Either a "
                          "line of the text differs from what the client has signed, or the secret does."));
  EXPECT_EQ(text(step("signature"), "text"), "hawk.1.header\n1795205979\nabc\nPOST\n/events\nlocalhost\n8443\nHASH=\ndevice\n");
  EXPECT_THAT(writeJson(checksOfHeader(request_, kApplications)), Not(HasSubstr("MACMAC")));
}

TEST_F(SignatureChecksTest, HostWithoutPortAndWithBrackets) {
  makeSigned();
  request_.host = "localhost";
  EXPECT_THAT(text(step("signature"), "text"), HasSubstr("\nlocalhost\n443\n"));
  request_.host = "[::1]:8443";
  EXPECT_THAT(text(step("signature"), "text"), HasSubstr("\n[::1]\n8443\n"));
  request_.host = "[::1]";
  EXPECT_THAT(text(step("signature"), "text"), HasSubstr("\n[::1]\n443\n"));
}

TEST_F(SignatureChecksTest, WrongPayloadShowsBothHashesAndJudgesNothingAfterIt) {
  makeSigned();
  request_.verdict = "Bad payload hash";
  request_.hash = "OTHER=";
  const auto lines = told();
  EXPECT_EQ(lines.at(3),
            "payload wrong: The hash does not fit the body: 12 bytes, sent as \"application/json\". Either differs from what was "
            "signed.");
  EXPECT_EQ(lines.at(4), "nonce unreached: The nonce was not looked at.");
  EXPECT_EQ(
      lines.at(5),
      "clock unreached: The signature's time is 0.4 s behind the server; 60 s to either side are allowed. It was not judged.");
  EXPECT_EQ(text(step("payload"), "came"), "HASH=");
  EXPECT_EQ(text(step("payload"), "computed"), "OTHER=");
}

TEST_F(SignatureChecksTest, FieldsThatAreNoTextCanBeShown) {
  makeSigned();
  request_.contentType = "a\xff\x01";
  request_.host = "h\xc3\xa4:8\x80";
  EXPECT_EQ(told().at(3), "payload right: The hash fits the body: 12 bytes, sent as \"a??\".");
  EXPECT_THAT(text(step("signature"), "text"), HasSubstr("\nh??\n8?\n"));
}

TEST_F(SignatureChecksTest, MissingHashAndUnreadBody) {
  makeSigned();
  request_.authorization = R"(Hawk id="com.example.app", ts="1795205979", nonce="abc", mac="m")";
  request_.verdict = "Missing required payload hash";
  EXPECT_EQ(told().at(3), "payload wrong: The header has no hash, so that the body is not signed.");
  request_.hash.reset();
  EXPECT_EQ(told().at(3), "payload unreached: The body was not read to its end.");
}

TEST_F(SignatureChecksTest, NonceThatCameBefore) {
  makeSigned();
  request_.verdict = "Invalid nonce";
  request_.firstUse = "number 7, at 2026-11-20T20:19:39.000Z";
  EXPECT_EQ(told().at(4), "nonce wrong: The nonce was used before: number 7, at 2026-11-20T20:19:39.000Z.");
  request_.firstUse = "";
  EXPECT_EQ(told().at(4), "nonce wrong: The nonce was used before.");
  EXPECT_EQ(text(step("nonce"), "came"), "abc");
}

TEST_F(SignatureChecksTest, StaleTime) {
  makeSigned();
  request_.verdict = "Stale timestamp";
  request_.serverTime += std::chrono::hours(1);
  EXPECT_EQ(told().at(5), "clock wrong: The signature's time is 3600.4 s behind the server; 60 s to either side are allowed.");
  EXPECT_EQ(text(step("clock"), "computed"), "1795209579");
  request_.serverTime -= std::chrono::hours(2);
  EXPECT_EQ(told().at(5), "clock wrong: The signature's time is 3599.6 s ahead of the server; 60 s to either side are allowed.");
}

TEST_F(SignatureChecksTest, UploadIsSignedByItsHeaderForDays) {
  makeSigned();
  request_.isUpload = true;
  request_.isRepeatable = true;
  request_.hash.reset();
  const auto lines = told();
  EXPECT_EQ(lines.at(3), "payload right: An upload is signed by its header alone.");
  EXPECT_EQ(lines.at(4), "nonce right: No upload with this nonce was taken before.");
  EXPECT_EQ(lines.at(5),
            "clock right: The signature's time is 0.4 s behind the server; an upload may be 8 days behind and 60 s ahead.");
}

TEST_F(SignatureChecksTest, UploadThatMayNotBeRepeatedIsAsOldAsAnythingElse) {
  makeSigned();
  request_.isUpload = true;
  request_.hash.reset();
  const auto lines = told();
  EXPECT_EQ(lines.at(3), "payload right: An upload is signed by its header alone.");
  EXPECT_EQ(lines.at(4), "nonce right: The nonce is new.");
  EXPECT_EQ(lines.at(5), "clock right: The signature's time is 0.4 s behind the server; 60 s to either side are allowed.");
}

TEST_F(SignatureChecksTest, MacThatNobodyComputedIsNeitherRightNorWrong) {
  request_.verdict = "Invalid Host header";
  request_.host = "a:b";
  const auto refused = [](const std::string& verdict) {
    return ElementsAre("request wrong: It was refused before anybody looked at its signature: " + verdict + ".",
                       "signature unreached: The MAC was not looked at.");
  };
  EXPECT_THAT(told(), refused("Invalid Host header"));
  EXPECT_EQ(text(step("request"), "came"), "a:b");
  request_.verdict = "Host must stand once, and Authorization no more than once";
  EXPECT_THAT(told(), refused("Host must stand once, and Authorization no more than once"));
  EXPECT_EQ(step("request").objectForKey("came"), std::nullopt);
  request_.authorization = "Hawk nonsense";
  EXPECT_THAT(told(), refused("Host must stand once, and Authorization no more than once"));

  request_.target = "/cookie-match?a=b&bewit=Y29tLmV4YW1wbGUuYXBwXDE3OTUyMDYwMzlcbVw";
  for (const char* verdict : {"Invalid method", "Multiple authentications", "Invalid Host header"}) {
    request_.verdict = verdict;
    EXPECT_THAT(linkTold(), refused(verdict));
  }
  request_.target = "/cookie-match?a=b";
  EXPECT_THAT(linkTold(), refused("Invalid Host header"));
}

TEST_F(SignatureChecksTest, Link) {
  request_.method = "GET";
  request_.target = "/cookie-match?a=b";
  request_.verdict = "No bewit, or more than one";
  EXPECT_THAT(linkTold(), ElementsAre("link wrong: The link's signature cannot be used: No bewit, or more than one."));
  // com.example.app\1795206039\m\ in base64url
  request_.target = "/cookie-match?a=b&bewit=Y29tLmV4YW1wbGUuYXBwXDE3OTUyMDYwMzlcbVw";
  request_.verdict = "ok";
  request_.isSigned = true;
  EXPECT_THAT(linkTold(), ElementsAre("link right: The link has all that the scheme asks for.",
                                      "clock right: The link's end is 59.6 s ahead of the server.", kIdIsRight, kMacIsRight));
  request_.verdict = "Bad mac";
  request_.isSigned = false;
  EXPECT_EQ(text(checksOfLink(request_, kApplications)[3].object(), "text"),
            "hawk.1.bewit\n1795206039\n\nGET\n/cookie-match?a=b\nlocalhost\n8443\n\n\n");
  request_.verdict = "Access expired";
  request_.serverTime += std::chrono::seconds(100);
  EXPECT_THAT(linkTold(), ElementsAre("link right: The link has all that the scheme asks for.",
                                      "clock wrong: The link's end is 40.4 s behind the server."));
}

}  // namespace
}  // namespace devserver
