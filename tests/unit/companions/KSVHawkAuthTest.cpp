// The Hawk signer: worked vectors, what it refuses to sign, and the challenges it believes.
//
// The vectors of SHA-256 were computed by the scheme's maintained reference library (npm hawk 9.0.2), the first two are those of
// its documentation. It knows no SHA-384 and SHA-512: their values were computed with the openssl command line, as said where they
// stand.
#include "companions/KSVHawkAuth.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <vector>

#include "CompanionsTest.h"

namespace test {
namespace {

using platform::Date;

const std::string kId = "com.example.app";
const std::string kKey = "s3cr3t-API-key-0123456789abcdef";
const std::string kDevice = "3F2504E0-4F89-41D3-9A0C-0305E82C3301";
const std::string kMediaType = "application/vnd.kestrova.v1+json";
const std::string kBatch =
    R"({"data":[{"event":"opened","eventData":{"sessionId":"abcdefghijklmnopqrstuvwxyz0123"},"localTime":"2026-11-20T20:19:39Z"}]})";

using HawkTest = CompanionsTest;

std::shared_ptr<KSVHawkCredentials> credentials(std::optional<std::string> id, std::optional<std::string> key,
                                                KSVCryptoAlgorithm algorithm = KSVCryptoAlgorithmSHA256) {
  return KSVHawkCredentials::initWithHawkIdWithKeyWithAlgorithm(std::move(id), std::move(key), algorithm);
}

// The example of the scheme's documentation.
KSVHawkAuth publishedExample() {
  KSVHawkAuth hawk;
  hawk.setCredentials(credentials("dh37fgj492je", "werxhqb98rpaxn39848xrunpaw3489ruxnpa98w4rxn"));
  hawk.setMethod("GET");
  hawk.setRequestUri("/resource/1?b=1&a=2");
  hawk.setHost("example.com");
  hawk.setPort(8000);
  hawk.setTimestamp(Date::dateWithTimeIntervalSince1970(1353832234));
  hawk.setNonce("j4h3g2");
  hawk.setExt("some-app-ext-data");
  return hawk;
}

// A batch of events as the client posts it.
KSVHawkAuth eventBatch(KSVCryptoAlgorithm algorithm = KSVCryptoAlgorithmSHA256) {
  KSVHawkAuth hawk;
  hawk.setCredentials(credentials(kId, kKey, algorithm));
  hawk.setContentType(kMediaType);
  hawk.setExt(kDevice);
  hawk.setMethod("POST");
  hawk.setTimestamp(Date::dateWithTimeIntervalSince1970(1795205979));
  hawk.setRequestUri("/events");
  hawk.setNonce("Ab3dE6gH");
  hawk.setHost("api.example.com");
  hawk.setPort(443);
  hawk.setPayload(kBatch);
  return hawk;
}

// --- Worked vectors.

TEST_F(HawkTest, PublishedExampleWithoutPayload) {
  const KSVHawkAuth hawk = publishedExample();
  EXPECT_FALSE(hawk.digest());
  EXPECT_EQ(hawk.hmac(), "6R4rV5iE+NPoym+WwjeHzjAGXUtLNIxmo1vpMofpLAE=");
  EXPECT_EQ(hawk.requestHeader(), R"(Hawk id="dh37fgj492je", ts="1353832234", nonce="j4h3g2", ext="some-app-ext-data", )"
                                  R"(mac="6R4rV5iE+NPoym+WwjeHzjAGXUtLNIxmo1vpMofpLAE=")");
}

TEST_F(HawkTest, PublishedExampleWithPayload) {
  KSVHawkAuth hawk = publishedExample();
  hawk.setMethod("POST");
  hawk.setContentType("text/plain");
  hawk.setPayload("Thank you for flying Hawk");
  EXPECT_EQ(hawk.digest(), "Yi9LfIIFRtBEPt74PVmbTF/xVAwPn7ub15ePICfgnuY=");
  EXPECT_EQ(hawk.hmac(), "aSe1DERmZuRl3pI36/9BdZmnErTw3sNzOOAUlfeKjVw=");
  EXPECT_EQ(hawk.requestHeader(),
            R"(Hawk id="dh37fgj492je", ts="1353832234", nonce="j4h3g2", hash="Yi9LfIIFRtBEPt74PVmbTF/xVAwPn7ub15ePICfgnuY=", )"
            R"(ext="some-app-ext-data", mac="aSe1DERmZuRl3pI36/9BdZmnErTw3sNzOOAUlfeKjVw=")");
}

TEST_F(HawkTest, EventBatch) {
  const KSVHawkAuth hawk = eventBatch();
  EXPECT_EQ(hawk.digest(), "I4DXPH7HfGXbG5/v5MraHmZ/chelVqLZZE4FzeXBhRw=");
  EXPECT_EQ(hawk.hmac(), "02ab6wEULqhNRl+hJcdbIzPDk7zvMcwz7QdcZ7gUMo8=");
  EXPECT_EQ(hawk.requestHeader(),
            R"(Hawk id="com.example.app", ts="1795205979", nonce="Ab3dE6gH", hash="I4DXPH7HfGXbG5/v5MraHmZ/chelVqLZZE4FzeXBhRw=", )"
            R"(ext="3F2504E0-4F89-41D3-9A0C-0305E82C3301", mac="02ab6wEULqhNRl+hJcdbIzPDk7zvMcwz7QdcZ7gUMo8=")");
}

TEST_F(HawkTest, ShareWithNonAsciiTextAndExplicitPort) {
  KSVHawkAuth hawk = eventBatch();
  hawk.setRequestUri("/shares");
  hawk.setTimestamp(Date::dateWithTimeIntervalSince1970(1795209579));
  hawk.setNonce("zZ09yY18");
  hawk.setHost("localhost");
  hawk.setPort(8443);
  hawk.setPayload(R"({"data":{"text":"grüße 日本 😀"}})");
  EXPECT_EQ(hawk.digest(), "129LtuhJHE9hPBW//p5yon2aXDPH/bXNjgYHpf9EkGw=");
  EXPECT_EQ(hawk.hmac(), "cBu3MA2MZd109DAsck3SREBQoxYiaDhpkoT/woC/g/0=");
  EXPECT_EQ(hawk.requestHeader(),
            R"(Hawk id="com.example.app", ts="1795209579", nonce="zZ09yY18", hash="129LtuhJHE9hPBW//p5yon2aXDPH/bXNjgYHpf9EkGw=", )"
            R"(ext="3F2504E0-4F89-41D3-9A0C-0305E82C3301", mac="cBu3MA2MZd109DAsck3SREBQoxYiaDhpkoT/woC/g/0=")");
}

TEST_F(HawkTest, GifUploadHasQueryAndNoPayloadAndItsContentTypeCountsForNothing) {
  KSVHawkAuth hawk = eventBatch();
  hawk.setRequestUri("/gifs?shareId=abc123");
  hawk.setNonce("q1W2e3R4");
  hawk.setPayload(std::nullopt);
  EXPECT_FALSE(hawk.digest());
  EXPECT_EQ(hawk.hmac(), "ryww+GFqlKDRI9QonjZM/DzJEsXeF5/PKiT6rH1CW7M=");
  EXPECT_EQ(hawk.requestHeader(),
            R"(Hawk id="com.example.app", ts="1795205979", nonce="q1W2e3R4", ext="3F2504E0-4F89-41D3-9A0C-0305E82C3301", )"
            R"(mac="ryww+GFqlKDRI9QonjZM/DzJEsXeF5/PKiT6rH1CW7M=")");
  hawk.setContentType("image/gif");
  EXPECT_EQ(hawk.hmac(), "ryww+GFqlKDRI9QonjZM/DzJEsXeF5/PKiT6rH1CW7M=");
}

TEST_F(HawkTest, OddInputs) {
  KSVHawkAuth hawk = eventBatch();
  hawk.setHost("API.Example.com");
  hawk.setRequestUri("/patch-previous-session-started");
  hawk.setNonce("00aaZZ99");
  hawk.setExt(R"(C:\dir "q")");
  hawk.setContentType("APPLICATION/VND.KESTROVA.V1+JSON ; charset=utf-8");
  hawk.setPayload("");
  EXPECT_EQ(hawk.digest(), "0XdLoYjwgqlgrmWRQ6YgU14Ywp4zzod86VMpQJR8vQ8=");
  EXPECT_EQ(hawk.hmac(), "oZ/HfUQSsBt7f684w4MlVyiiKa0vxI5Tkpo/JPpS2ao=");
  EXPECT_EQ(hawk.requestHeader(),
            R"(Hawk id="com.example.app", ts="1795205979", nonce="00aaZZ99", hash="0XdLoYjwgqlgrmWRQ6YgU14Ywp4zzod86VMpQJR8vQ8=", )"
            R"(ext="C:\\dir \"q\"", mac="oZ/HfUQSsBt7f684w4MlVyiiKa0vxI5Tkpo/JPpS2ao=")");
}

TEST_F(HawkTest, ALineFeedInExtIsEscapedUnderTheMacAndRefusedInTheHeader) {
  KSVHawkAuth hawk = eventBatch();
  hawk.setExt("line\nfeed \\ back");
  EXPECT_EQ(hawk.hmac(), "lNUnRks9tFfDQPTxYSIjjOJmaiLczzNr2g8hzEz1FVQ=");
  EXPECT_FALSE(hawk.requestHeader());
}

// The values of the next two tests come from the openssl command line: `openssl dgst -sha384 -binary | base64` over the three lines
// of the payload, and `openssl dgst -sha384 -hmac s3cr3t-API-key-0123456789abcdef -binary | base64` over the normalised string with
// that hash in it; likewise with -sha512.
TEST_F(HawkTest, EventBatchWithSha384) {
  const KSVHawkAuth hawk = eventBatch(KSVCryptoAlgorithmSHA384);
  EXPECT_EQ(hawk.digest(), "xcKJKZm6BrXGWdJ4mzBq7E+/6RHzdP19BvP7xlL6rR9M91fFB7TeBu0bDpvblL0P");
  EXPECT_EQ(hawk.hmac(), "oqqeotn3BIOqSMlLoC0HgwHyJjUUwfYs9x8/EjJPfcW4Aa6eUD97S1c3F6vwT6VY");
  EXPECT_EQ(
      hawk.getTimestampSkew(R"(Hawk ts="1795205979", tsm="SNzleZE90wEMwaKyj/n1WZuoQDjdatqbbj3NAFc0HZ7oqGR7A/qguq3yrru6XbDT")"),
      Date::dateWithTimeIntervalSince1970(1795205979));
}

TEST_F(HawkTest, EventBatchWithSha512) {
  const KSVHawkAuth hawk = eventBatch(KSVCryptoAlgorithmSHA512);
  EXPECT_EQ(hawk.digest(), "lmD1ZlefkF24+Lc3rCGee88vm3xpfEFlzskAVs1Q2lCGuDDb6hZDZxzVYHWWgKg4WMqY7hAgg3k7jz52H6fn1w==");
  EXPECT_EQ(hawk.hmac(), "j5HHor+HbzGiR9SpBLu1zjermrQJpZAaL94mgr9dAhBhM+0W7RxR6wAxfL89eAAmgILZGo7U4hsUT00QlbTQ4A==");
  EXPECT_EQ(
      hawk.getTimestampSkew(
          R"(Hawk ts="1795205979", tsm="ejg2xMQUI512f6OsDW6fSOWT17GgIk1hH+d7urz6e6ba9f/RTRLsYngdbsPy+SimqNJprp+naZLakUY1dzzBiA==")"),
      Date::dateWithTimeIntervalSince1970(1795205979));
}

// --- What enters the MAC.

TEST_F(HawkTest, TheMethodIsSignedInCapitalsAndTheHostInSmallLetters) {
  KSVHawkAuth hawk = eventBatch();
  hawk.setMethod("pOst");
  hawk.setHost("API.EXAMPLE.COM");
  EXPECT_EQ(hawk.hmac(), eventBatch().hmac());
}

TEST_F(HawkTest, EveryPartIsSigned) {
  const auto changed = [](auto change) {
    KSVHawkAuth hawk = eventBatch();
    change(hawk);
    return hawk.hmac();
  };
  const std::vector<std::optional<std::string>> macs = {
      eventBatch().hmac(),
      changed([](KSVHawkAuth& hawk) { hawk.setTimestamp(Date::dateWithTimeIntervalSince1970(1795205980)); }),
      changed([](KSVHawkAuth& hawk) { hawk.setNonce("Ab3dE6gI"); }),
      changed([](KSVHawkAuth& hawk) { hawk.setMethod("PUT"); }),
      changed([](KSVHawkAuth& hawk) { hawk.setRequestUri("/events?"); }),
      changed([](KSVHawkAuth& hawk) { hawk.setHost("api2.example.com"); }),
      changed([](KSVHawkAuth& hawk) { hawk.setPort(80); }),
      changed([](KSVHawkAuth& hawk) { hawk.setPayload(kBatch + "\n"); }),
      changed([](KSVHawkAuth& hawk) { hawk.setPayload(""); }),
      changed([](KSVHawkAuth& hawk) { hawk.setPayload(std::nullopt); }),
      changed([](KSVHawkAuth& hawk) { hawk.setContentType("text/plain"); }),
      changed([](KSVHawkAuth& hawk) { hawk.setExt("other"); }),
      changed([](KSVHawkAuth& hawk) { hawk.setExt(std::nullopt); }),
      changed([](KSVHawkAuth& hawk) { hawk.setApp("app"); }),
      changed([](KSVHawkAuth& hawk) { hawk.setCredentials(credentials(kId, "another key")); }),
  };
  for (std::size_t a = 0; a < macs.size(); ++a) {
    ASSERT_TRUE(macs[a]);
    for (std::size_t b = 0; b < a; ++b) EXPECT_NE(macs[a], macs[b]) << a << " and " << b;
  }
}

TEST_F(HawkTest, TheContentTypeIsSignedWithoutParametersBlanksAndCapitals) {
  const auto digestWith = [](std::string contentType) {
    KSVHawkAuth hawk = eventBatch();
    hawk.setContentType(std::move(contentType));
    return hawk.digest();
  };
  for (const char* same : {"application/vnd.kestrova.v1+json;charset=utf-8", " \tApplication/Vnd.Kestrova.V1+Json \t",
                           "application/vnd.kestrova.v1+json ; a=\"x;y\"; b", "application/vnd.kestrova.v1+json;"})
    EXPECT_EQ(digestWith(same), eventBatch().digest()) << same;
  EXPECT_EQ(digestWith(""), digestWith(";charset=utf-8"));
  EXPECT_NE(digestWith(""), eventBatch().digest());
}

TEST_F(HawkTest, AnEmptyPayloadIsSignedAndAnAbsentOneIsNot) {
  KSVHawkAuth hawk = eventBatch();
  hawk.setPayload("");
  EXPECT_TRUE(hawk.digest());
  EXPECT_NE(hawk.requestHeader()->find(", hash=\""), std::string::npos);
  hawk.setPayload(std::nullopt);
  EXPECT_FALSE(hawk.digest());
  EXPECT_EQ(hawk.requestHeader()->find("hash"), std::string::npos);
}

TEST_F(HawkTest, AbsentAndEmptyExtAreTheSame) {
  KSVHawkAuth absent = eventBatch();
  absent.setExt(std::nullopt);
  KSVHawkAuth empty = eventBatch();
  empty.setExt("");
  EXPECT_EQ(absent.requestHeader(), empty.requestHeader());
  EXPECT_EQ(absent.requestHeader()->find("ext"), std::string::npos);
}

std::string timestampIn(const KSVHawkAuth& hawk) {
  const std::string header = hawk.requestHeader().value_or("ts=\"no header\"");
  const std::size_t start = header.find("ts=\"") + 4;
  return header.substr(start, header.find('"', start) - start);
}

TEST_F(HawkTest, TheTimestampIsCutTowardZeroToPlainDigits) {
  const auto textOf = [](double seconds) {
    KSVHawkAuth hawk = eventBatch();
    hawk.setTimestamp(Date::dateWithTimeIntervalSince1970(seconds));
    return timestampIn(hawk);
  };
  EXPECT_EQ(textOf(1795205979.999), "1795205979");
  EXPECT_EQ(textOf(0.9), "0");
  EXPECT_EQ(textOf(-0.9), "0");
  EXPECT_EQ(textOf(1), "1");
  EXPECT_EQ(textOf(-1795205979), "0");
  EXPECT_EQ(textOf(253402300799), "253402300799");
  EXPECT_EQ(textOf(1e300), "253402300799");
  EXPECT_EQ(textOf(std::numeric_limits<double>::quiet_NaN()), "0");
}

// The values were computed by the reference library.
TEST_F(HawkTest, AppAndDlgFollowTheMac) {
  KSVHawkAuth hawk = publishedExample();
  hawk.setApp("asd23ased");
  hawk.setDlg("23434szr3q4d");
  EXPECT_EQ(hawk.requestHeader(), R"(Hawk id="dh37fgj492je", ts="1353832234", nonce="j4h3g2", ext="some-app-ext-data", )"
                                  R"(mac="h2QPeJmW2ZdvMQPFsbndVWpuEOCKa7PVeg5tChWidXE=", app="asd23ased", dlg="23434szr3q4d")");
  hawk.setDlg(std::nullopt);
  EXPECT_EQ(hawk.requestHeader(), R"(Hawk id="dh37fgj492je", ts="1353832234", nonce="j4h3g2", ext="some-app-ext-data", )"
                                  R"(mac="TriUuD8iLjsRykFEJriB4EqxgHvF6O73DN1g9tDubPE=", app="asd23ased")");
  hawk.setApp(std::nullopt);
  hawk.setDlg("23434szr3q4d");
  EXPECT_EQ(hawk.requestHeader(), publishedExample().requestHeader());
}

TEST_F(HawkTest, PropertiesReadBack) {
  KSVHawkAuth hawk = eventBatch(KSVCryptoAlgorithmSHA512);
  hawk.setApp("app");
  hawk.setDlg("dlg");
  EXPECT_EQ(hawk.credentials()->hawkId(), kId);
  EXPECT_EQ(hawk.credentials()->key(), kKey);
  EXPECT_EQ(hawk.credentials()->algorithm(), KSVCryptoAlgorithmSHA512);
  EXPECT_EQ(hawk.method(), "POST");
  EXPECT_EQ(hawk.requestUri(), "/events");
  EXPECT_EQ(hawk.host(), "api.example.com");
  EXPECT_EQ(hawk.port(), 443u);
  EXPECT_EQ(hawk.timestamp(), Date::dateWithTimeIntervalSince1970(1795205979));
  EXPECT_EQ(hawk.nonce(), "Ab3dE6gH");
  EXPECT_EQ(hawk.ext(), kDevice);
  EXPECT_EQ(hawk.app(), "app");
  EXPECT_EQ(hawk.dlg(), "dlg");
  EXPECT_EQ(hawk.payload(), platform::String(kBatch));
  EXPECT_EQ(hawk.contentType(), kMediaType);
}

// --- What is refused.

TEST_F(HawkTest, WithoutAKeyNothingIsSigned) {
  KSVHawkAuth hawk = eventBatch();
  for (const auto& keyless : {std::shared_ptr<KSVHawkCredentials>(), credentials(kId, std::nullopt), credentials(kId, "")}) {
    hawk.setCredentials(keyless);
    EXPECT_FALSE(hawk.requestHeader());
    EXPECT_FALSE(hawk.hmac());
    EXPECT_EQ(hawk.digest(), eventBatch().digest());
  }
  EXPECT_FALSE(KSVHawkAuth().requestHeader());
  EXPECT_FALSE(KSVHawkAuth().hmac());
  EXPECT_FALSE(KSVHawkAuth().digest());
}

std::optional<std::string> headerWith(void (KSVHawkAuth::*set)(std::optional<std::string>), std::string value) {
  KSVHawkAuth hawk = eventBatch();
  hawk.setApp("app");
  (hawk.*set)(std::move(value));
  return hawk.requestHeader();
}

std::optional<std::string> headerWithId(std::optional<std::string> id) {
  KSVHawkAuth hawk = eventBatch();
  hawk.setCredentials(credentials(std::move(id), kKey));
  return hawk.requestHeader();
}

std::optional<std::string> headerWithNonce(std::string nonce) {
  KSVHawkAuth hawk = eventBatch();
  hawk.setNonce(std::move(nonce));
  return hawk.requestHeader();
}

TEST_F(HawkTest, IdAndNonceMustBeThere) {
  EXPECT_FALSE(headerWithId(std::nullopt));
  EXPECT_FALSE(headerWithId(""));
  EXPECT_FALSE(headerWithNonce(""));
}

TEST_F(HawkTest, EachByteIsTakenOrRefusedWhereItStands) {
  for (int code = 0; code < 256; ++code) {
    const std::string value = std::string("a") + static_cast<char>(code) + "b";
    const bool isPrintable = code >= 0x20 && code <= 0x7e;
    const bool isPlain = isPrintable && code != '"' && code != '\\';
    EXPECT_EQ(headerWithId(value).has_value(), isPlain) << code;
    EXPECT_EQ(headerWithNonce(value).has_value(), isPlain) << code;
    EXPECT_EQ(headerWith(&KSVHawkAuth::setApp, value).has_value(), isPlain) << code;
    EXPECT_EQ(headerWith(&KSVHawkAuth::setDlg, value).has_value(), isPlain) << code;
    EXPECT_EQ(headerWith(&KSVHawkAuth::setExt, value).has_value(), isPrintable) << code;
  }
  EXPECT_FALSE(headerWithNonce("ü"));
  EXPECT_FALSE(headerWith(&KSVHawkAuth::setExt, "grüße"));
}

TEST_F(HawkTest, NothingGoesOutHalfSignedWhenTheLibraryFails) {
  process.digest = faulty(process.digest, plan);
  for (const char* operation : {"Digest.hash", "Digest.hmac"}) {
    plan->raise(operation, everyCall(), someException());
    EXPECT_FALSE(eventBatch().requestHeader()) << operation;
    EXPECT_FALSE(eventBatch().hmac()) << operation;
    plan->clear();
  }
  plan->raise("Digest.hash", everyCall(), someException());
  EXPECT_FALSE(eventBatch().digest());
  plan->raise("Digest.hmac", everyCall(), someException());
  EXPECT_FALSE(eventBatch().getTimestampSkew(R"(Hawk ts="1795205979", tsm="36RU/lEX7qPLiEF2nEmzMCDF0JxudvQ2nnFBg0GbqiE=")"));
}

// --- Challenges.

const std::string kTsm = R"(tsm="36RU/lEX7qPLiEF2nEmzMCDF0JxudvQ2nnFBg0GbqiE=")";  // of ts="1795205979"

std::optional<double> timeIn(std::string_view challenge) {
  const std::optional<Date> date = eventBatch().getTimestampSkew(challenge);
  return date ? std::optional(date->timeIntervalSince1970()) : std::nullopt;
}

TEST_F(HawkTest, AChallengeWithItsMacGivesTheServersTime) {
  EXPECT_EQ(timeIn(R"(Hawk ts="1795205979", )" + kTsm + R"(, error="Stale timestamp")"), 1795205979);
  EXPECT_EQ(timeIn(R"(Hawk ts="1795205979", )" + kTsm), 1795205979);
}

TEST_F(HawkTest, OrderCaseBlanksAndOneTrailingCommaDoNotMatter) {
  for (const std::string& challenge : {
           "Hawk " + kTsm + R"(, error="Stale timestamp", ts="1795205979")",
           R"(hawk ts="1795205979", )" + kTsm,
           R"(HAWK ts="1795205979", )" + kTsm,
           "Hawk  \t ts=\"1795205979\"  ,\t " + kTsm,
           R"(Hawk ts="1795205979",)" + kTsm,
           R"(Hawk ts="1795205979", )" + kTsm + ",",
           R"(Hawk ts="1795205979", )" + kTsm + " , ",
           R"(Hawk ts="1795205979", )" + kTsm + " ",
           R"(Hawk ts="1795205979", )" + kTsm + R"(, error="a=b, ts='1', and more")",
       })
    EXPECT_EQ(timeIn(challenge), 1795205979) << challenge;
}

TEST_F(HawkTest, ATsmThatIsNotTheVeryTextExpectedIsRefused) {
  for (const char* tsm : {"36RU/lEX7qPLiEF2nEmzMCDF0JxudvQ2nnFBg0GbqiE",
                          "36RU_lEX7qPLiEF2nEmzMCDF0JxudvQ2nnFBg0GbqiE=", "36ru/lex7qplief2nemzmcdf0jxudvq2nnfbg0gbqie=",
                          "36RU/lEX7qPLiEF2nEmzMCDF0JxudvQ2nnFBg0GbqiF=", "36RU/lEX7qPLiEF2nEmzMCDF0JxudvQ2nnFBg0GbqiE==",
                          " 36RU/lEX7qPLiEF2nEmzMCDF0JxudvQ2nnFBg0GbqiE=", "36RU/lEX7qPLiEF2nEmzMCDF0JxudvQ2nnFBg0GbqiE= ", "x"})
    EXPECT_FALSE(timeIn(R"(Hawk ts="1795205979", tsm=")" + std::string(tsm) + "\"")) << tsm;
  EXPECT_FALSE(timeIn(R"(Hawk ts="1795205979")"));
  EXPECT_FALSE(timeIn(R"(Hawk ts="1795205979", error="Stale timestamp")"));
  EXPECT_FALSE(timeIn(R"(Hawk ts="1795205980", )" + kTsm));
}

TEST_F(HawkTest, AChallengeWithoutTsHasNoTime) {
  EXPECT_FALSE(timeIn(R"(Hawk error="Bad mac")"));
  EXPECT_FALSE(timeIn("Hawk " + kTsm));
  EXPECT_FALSE(timeIn("Hawk " + kTsm + R"(, error="Stale timestamp")"));
}

TEST_F(HawkTest, EmptyValuesAreRefused) {
  EXPECT_FALSE(timeIn(R"(Hawk ts="", )" + kTsm));
  EXPECT_FALSE(timeIn(R"(Hawk ts="1795205979", tsm="")"));
  EXPECT_FALSE(timeIn(R"(Hawk ts="1795205979", )" + kTsm + R"(, error="")"));
}

TEST_F(HawkTest, WhatIsNoWellFormedHawkChallengeIsRefused) {
  const std::string good = R"(ts="1795205979", )" + kTsm;
  for (const std::string& challenge : {
           std::string("Hawk"),
           std::string("Hawk "),
           std::string("Basic realm=\"x\""),
           "Basic " + good,
           "HawkX " + good,
           "Hawk" + good,
           " Hawk " + good,
           "Basic realm=\"x\", Hawk " + good,
           "Hawk " + good + ", Basic realm=\"x\"",
           "Hawk " + good + ", Hawk " + good,
           "Hawk " + good + R"(, nonce="x")",
           "Hawk " + good + R"(, ts="1795205979")",
           "Hawk " + good + R"(, error="a", error="b")",
           R"(Hawk TS="1795205979", )" + kTsm,
           R"(Hawk ts='1795205979', )" + kTsm,
           "Hawk ts=1795205979, " + kTsm,
           R"(Hawk ts ="1795205979", )" + kTsm,
           R"(Hawk ts= "1795205979", )" + kTsm,
           R"(Hawk ts="1795205979" )" + kTsm,
           R"(Hawk ts="1795205979",, )" + kTsm,
           "Hawk , " + good,
           "Hawk " + good + ",,",
           "Hawk " + good + ", ,",
           "Hawk " + good + "x",
           "Hawk " + good + ", error",
           "Hawk " + good + R"(, error="a)",
           "Hawk " + good + R"(, error="a\"b")",
           "Hawk " + good + R"(, error="a\\b")",
           "Hawk " + good + ", error=\"a\tb\"",
           "Hawk " + good + ", error=\"grüße\"",
           "Hawk " + good + ", =\"x\"",
           "Hawk\n" + good,
           "Hawk ts=\"1795205979\",\r\n " + kTsm,
           "Hawk " + good + "\n",
           "Hawk " + good + std::string(1, '\0'),
       })
    EXPECT_FALSE(timeIn(challenge)) << challenge;
}

TEST_F(HawkTest, AChallengeOf4096CharactersIsReadAndALongerOneIsNot) {
  std::string challenge = R"(Hawk ts="1795205979", )" + kTsm + R"(, error=")";
  challenge.append(4095 - challenge.size(), 'e').append("\"");
  ASSERT_EQ(challenge.size(), 4096u);
  EXPECT_EQ(timeIn(challenge), 1795205979);
  EXPECT_FALSE(timeIn(challenge + " "));
}

TEST_F(HawkTest, AnEmptyHeaderHasNoTime) { EXPECT_FALSE(timeIn("")); }

// A challenge whose tsm fits, whatever the text of its time.
std::string signedChallenge(const std::string& ts) {
  const auto mac = platform::Digest::digests().hmac(platform::Digest::Algorithm::kSHA256, kKey, {"hawk.1.ts\n" + ts + "\n"});
  return "Hawk ts=\"" + ts + "\", tsm=\"" + mac.base64EncodedString() + "\"";
}

TEST_F(HawkTest, OnlyPlainDigitsInASaneRangeAreATime) {
  EXPECT_EQ(signedChallenge("1795205979"), R"(Hawk ts="1795205979", )" + kTsm);
  EXPECT_EQ(timeIn(signedChallenge("1")), 1);
  EXPECT_EQ(timeIn(signedChallenge("253402300799")), 253402300799);
  EXPECT_EQ(timeIn(signedChallenge("01795205979")), 1795205979);
  for (const char* ts : {"0", "000", "253402300800", "18446744073709551617", "99999999999999999999999999999999", "abc", "-1", "+1",
                         "1795205979.5", "1.8e9", "0x10", " 1795205979", "1795205979 ", "1,795,205,979"})
    EXPECT_FALSE(timeIn(signedChallenge(ts))) << ts;
}

TEST_F(HawkTest, HowFarTheServersTimeIsFromTheDevicesDoesNotMatter) {
  KSVHawkAuth hawk = eventBatch();
  hawk.setTimestamp(Date());
  EXPECT_EQ(hawk.getTimestampSkew(signedChallenge("253402300799")), Date::dateWithTimeIntervalSince1970(253402300799));
}

TEST_F(HawkTest, WithoutAKeyOrWithAnotherOneNoChallengeIsBelieved) {
  const std::string challenge = R"(Hawk ts="1795205979", )" + kTsm;
  KSVHawkAuth hawk = eventBatch();
  for (const auto& other : {std::shared_ptr<KSVHawkCredentials>(), credentials(kId, std::nullopt), credentials(kId, ""),
                            credentials(kId, "another key"), credentials(kId, kKey, KSVCryptoAlgorithmSHA512)}) {
    hawk.setCredentials(other);
    EXPECT_FALSE(hawk.getTimestampSkew(challenge));
  }
  hawk.setCredentials(credentials(std::nullopt, kKey));
  EXPECT_TRUE(hawk.getTimestampSkew(challenge));
}

TEST_F(HawkTest, TheComparisonIsTheConstantTimeOne) {
  process.digest = faulty(process.digest, plan);
  EXPECT_TRUE(timeIn(R"(Hawk ts="1795205979", )" + kTsm));
  EXPECT_EQ(plan->count("Digest.constantTimeEqual"), 1u);
}

// --- Signed links.

// A link of the cookie match, as the reference library signs it.
KSVHawkAuth matchLink() {
  KSVHawkAuth hawk;
  hawk.setCredentials(credentials(kId, kKey));
  hawk.setTimestamp(Date::dateWithTimeIntervalSince1970(1795209579));
  hawk.setRequestUri("/cookie-match?appRDNS=com.example.app&deviceId=" + kDevice);
  hawk.setHost("api.example.com");
  hawk.setPort(443);
  return hawk;
}
const std::string kBewit = "Y29tLmV4YW1wbGUuYXBwXDE3OTUyMDk1NzlcdzJ0Ujk4QkY5K3g4UUYrL0E1R2V0d2F2clFPRzU2R2k4K2JKUGVZSkgycz1c";

TEST_F(HawkTest, ALinkIsSignedAsTheReferenceLibraryDoes) { EXPECT_EQ(matchLink().bewit(), kBewit); }

TEST_F(HawkTest, ALinkIsOfAGetWhateverElseIsSet) {
  KSVHawkAuth hawk = matchLink();
  hawk.setMethod("POST");
  hawk.setNonce("Ab3dE6gH");
  hawk.setPayload("payload");
  hawk.setContentType(kMediaType);
  hawk.setApp("app");
  hawk.setDlg("dlg");
  EXPECT_EQ(hawk.bewit(), kBewit);
}

TEST_F(HawkTest, EveryPartOfALinkIsSigned) {
  const auto changed = [](auto change) {
    KSVHawkAuth hawk = matchLink();
    change(hawk);
    return hawk.bewit();
  };
  std::vector<std::optional<std::string>> all = {
      changed([](KSVHawkAuth& hawk) { hawk.setHost("other.example.com"); }),
      changed([](KSVHawkAuth& hawk) { hawk.setPort(8443); }),
      changed([](KSVHawkAuth& hawk) { hawk.setRequestUri("/cookie-match?appRDNS=com.example.other"); }),
      changed([](KSVHawkAuth& hawk) { hawk.setTimestamp(Date::dateWithTimeIntervalSince1970(1795209580)); }),
      changed([](KSVHawkAuth& hawk) { hawk.setExt("ext"); }),
      changed([](KSVHawkAuth& hawk) { hawk.setCredentials(credentials(kId, "another key")); }),
      changed([](KSVHawkAuth&) {}),
  };
  std::ranges::sort(all);
  EXPECT_EQ(std::ranges::adjacent_find(all), all.end());
  EXPECT_TRUE(all.front().has_value());
}

TEST_F(HawkTest, ALinkNeedsNoEscapesInAQuery) {
  for (int second = 0; second < 64; ++second) {
    KSVHawkAuth hawk = matchLink();
    hawk.setTimestamp(Date::dateWithTimeIntervalSince1970(1795209579 + second));
    hawk.setExt("~~~???" + std::to_string(second));
    const std::string bewit = hawk.bewit().value_or("/");
    EXPECT_TRUE(std::ranges::all_of(bewit, [](unsigned char c) { return std::isalnum(c) || c == '-' || c == '_'; })) << bewit;
  }
}

TEST_F(HawkTest, WhatCannotBeSignedGivesNoLink) {
  EXPECT_FALSE(KSVHawkAuth().bewit());
  for (const auto& bad : {credentials(kId, std::nullopt), credentials(kId, ""), credentials(std::nullopt, kKey),
                          credentials("", kKey), credentials("a\\b", kKey), credentials("ä", kKey), credentials("a\n", kKey)}) {
    KSVHawkAuth hawk = matchLink();
    hawk.setCredentials(bad);
    EXPECT_FALSE(hawk.bewit()) << bad->hawkId().value_or("absent");
  }
  for (const char* ext : {"a\\b", "a\"b", "a\nb", "ä"}) {
    KSVHawkAuth hawk = matchLink();
    hawk.setExt(ext);
    EXPECT_FALSE(hawk.bewit()) << ext;
  }
}

}  // namespace
}  // namespace test
