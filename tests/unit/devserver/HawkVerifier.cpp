// The server's verifier of Hawk: worked vectors of the scheme's reference library, its grammar, its order of steps and its limits.
#include "devserver/HawkVerifier.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace devserver {
namespace {

using std::chrono::milliseconds;

const std::string kKey = "s3cr3t-API-key-0123456789abcdef";
const std::string kMediaType = "application/vnd.kestrova.v1+json";
const std::string kBatch =
    R"({"data":[{"event":"opened","eventData":{"sessionId":"abcdefghijklmnopqrstuvwxyz0123"},"localTime":"2026-11-20T20:19:39Z"}]})";
constexpr milliseconds kBatchTime{1795205979000};

HawkVerifier verifierOfVectors() {
  return HawkVerifier({{"dh37fgj492je", "werxhqb98rpaxn39848xrunpaw3489ruxnpa98w4rxn"}, {"com.example.app", kKey}});
}

const std::string kBatchHeader =
    R"(Hawk id="com.example.app", ts="1795205979", nonce="Ab3dE6gH", hash="I4DXPH7HfGXbG5/v5MraHmZ/chelVqLZZE4FzeXBhRw=", )"
    R"(ext="3F2504E0-4F89-41D3-9A0C-0305E82C3301", mac="02ab6wEULqhNRl+hJcdbIzPDk7zvMcwz7QdcZ7gUMo8=")";

HawkRequest batchRequest() { return {"POST", "/events", "api.example.com", kBatchHeader}; }

/// `400 reason` or `401 reason | challenge`, or `taken`.
template <class T>
std::string outcome(const std::expected<T, HawkRefusal>& result) {
  if (result) return "taken";
  const HawkRefusal& refusal = result.error();
  return std::to_string(refusal.status) + " " + refusal.reason + (refusal.challenge.empty() ? "" : " | " + refusal.challenge);
}

std::string parsed(std::string_view header) { return outcome(parseHawkAuthorization(header)); }

/// A request to the port of HTTPS, signed for com.example.app.
std::string signedHeader(std::string ts, std::string nonce, const std::string& target = "/events") {
  HawkAttributes attributes{"com.example.app", std::move(ts), std::move(nonce), "",
                            std::nullopt,      std::nullopt,  std::nullopt,     std::nullopt};
  attributes.mac = hawkMac(kKey, hawkRequestText(attributes, "POST", target, "api.example.com", "443"));
  return "Hawk id=\"com.example.app\", ts=\"" + attributes.ts + "\", nonce=\"" + attributes.nonce + "\", mac=\"" + attributes.mac +
         "\"";
}

HawkTicket ticketFor(const HawkVerifier& verifier, const std::string& header) {
  return verifier.verifyHeader({"POST", "/events", "api.example.com", header}).value();
}

// --- Worked vectors.

TEST(HawkVerifierVectors, PublishedExampleWithoutPayloadOnAnExplicitPort) {
  const HawkVerifier verifier = verifierOfVectors();
  const auto ticket = verifier.verifyHeader(
      {"GET", "/resource/1?b=1&a=2", "example.com:8000",
       R"(Hawk id="dh37fgj492je", ts="1353832234", nonce="j4h3g2", ext="some-app-ext-data", mac="6R4rV5iE+NPoym+WwjeHzjAGXUtLNIxmo1vpMofpLAE=")"});
  ASSERT_EQ(outcome(ticket), "taken");
  EXPECT_EQ(ticket->attributes.ext, "some-app-ext-data");
  EXPECT_EQ(ticket->attributes.hash, std::nullopt);
  EXPECT_EQ(hawkRequestText(ticket->attributes, "get", "/resource/1?b=1&a=2", "EXAMPLE.com", "8000"),
            "hawk.1.header\n1353832234\nj4h3g2\nGET\n/resource/1?b=1&a=2\nexample.com\n8000\n\nsome-app-ext-data\n");
}

TEST(HawkVerifierVectors, PublishedExampleWithPayload) {
  const HawkVerifier verifier = verifierOfVectors();
  const auto ticket = verifier.verifyHeader(
      {"POST", "/resource/1?b=1&a=2", "example.com:8000",
       R"(Hawk id="dh37fgj492je", ts="1353832234", nonce="j4h3g2", hash="Yi9LfIIFRtBEPt74PVmbTF/xVAwPn7ub15ePICfgnuY=", )"
       R"(ext="some-app-ext-data", mac="aSe1DERmZuRl3pI36/9BdZmnErTw3sNzOOAUlfeKjVw=")"});
  ASSERT_EQ(outcome(ticket), "taken");
  EXPECT_EQ(outcome(HawkVerifier::verifyPayload(*ticket, "text/plain", "Thank you for flying Hawk")), "taken");
}

TEST(HawkVerifierVectors, EventBatchWhosePortIsThatOfHttps) {
  HawkVerifier verifier = verifierOfVectors();
  const auto ticket = verifier.verifyHeader(batchRequest());
  ASSERT_EQ(outcome(ticket), "taken");
  EXPECT_EQ(outcome(HawkVerifier::verifyPayload(*ticket, kMediaType, kBatch)), "taken");
  EXPECT_EQ(outcome(verifier.verifyFreshness(*ticket, kBatchTime)), "taken");
  EXPECT_EQ(outcome(verifier.verifyHeader({"post", "/events", "API.example.com:443", kBatchHeader})), "taken");
}

TEST(HawkVerifierVectors, ShareWithNonAsciiText) {
  const HawkVerifier verifier = verifierOfVectors();
  const auto ticket = verifier.verifyHeader(
      {"POST", "/shares", "localhost:8443",
       R"(Hawk id="com.example.app", ts="1795209579", nonce="zZ09yY18", hash="129LtuhJHE9hPBW//p5yon2aXDPH/bXNjgYHpf9EkGw=", )"
       R"(ext="3F2504E0-4F89-41D3-9A0C-0305E82C3301", mac="cBu3MA2MZd109DAsck3SREBQoxYiaDhpkoT/woC/g/0=")"});
  ASSERT_EQ(outcome(ticket), "taken");
  EXPECT_EQ(outcome(HawkVerifier::verifyPayload(*ticket, kMediaType, R"({"data":{"text":"grüße 日本 😀"}})")), "taken");
}

TEST(HawkVerifierVectors, GifUploadIsSignedWithoutItsBody) {
  const HawkVerifier verifier = verifierOfVectors();
  EXPECT_EQ(outcome(verifier.verifyHeader(
                {"POST", "/gifs?shareId=abc123", "api.example.com",
                 R"(Hawk id="com.example.app", ts="1795205979", nonce="q1W2e3R4", )"
                 R"(ext="3F2504E0-4F89-41D3-9A0C-0305E82C3301", mac="ryww+GFqlKDRI9QonjZM/DzJEsXeF5/PKiT6rH1CW7M=")"})),
            "taken");
}

TEST(HawkVerifierVectors, ExtWithEscapesIsNotReadable) {
  EXPECT_EQ(
      parsed(
          R"(Hawk id="com.example.app", ts="1795205979", nonce="00aaZZ99", hash="0XdLoYjwgqlgrmWRQ6YgU14Ywp4zzod86VMpQJR8vQ8=", ext="C:\\dir \"q\"", mac="oZ/HfUQSsBt7f684w4MlVyiiKa0vxI5Tkpo/JPpS2ao=")"),
      "400 Bad header format");
  EXPECT_EQ(hawkPayloadHash("APPLICATION/VND.KESTROVA.V1+JSON ; charset=utf-8", ""),
            "0XdLoYjwgqlgrmWRQ6YgU14Ywp4zzod86VMpQJR8vQ8=");
}

TEST(HawkVerifierVectors, StaleChallenge) {
  EXPECT_EQ(staleChallenge(kKey, "1795205979"),
            R"(Hawk ts="1795205979", tsm="36RU/lEX7qPLiEF2nEmzMCDF0JxudvQ2nnFBg0GbqiE=", error="Stale timestamp")");
  EXPECT_EQ(staleChallenge(kKey, "1795205979", Tsm::kWrong),
            R"(Hawk ts="1795205979", tsm="A6RU/lEX7qPLiEF2nEmzMCDF0JxudvQ2nnFBg0GbqiE=", error="Stale timestamp")");
  EXPECT_EQ(staleChallenge(kKey, "1795205979", Tsm::kMissing), R"(Hawk ts="1795205979", error="Stale timestamp")");
}

// --- The header's grammar.

TEST(HawkVerifierGrammar, NoHeaderOrAnotherSchemeIsChallengedBare) {
  EXPECT_EQ(outcome(parseHawkAuthorization(std::nullopt)), "401 No Authorization header | Hawk");
  EXPECT_EQ(parsed(""), "401 No Authorization header | Hawk");
  EXPECT_EQ(parsed("Basic dXNlcjpwYXNz"), "401 Not the Hawk scheme | Hawk");
  EXPECT_EQ(parsed("Basic"), "401 Not the Hawk scheme | Hawk");
}

TEST(HawkVerifierGrammar, AcceptsWhatTheSchemeTolerates) {
  for (const char* header : {
           R"(Hawk id="a", ts="1", nonce="n", mac="m")",
           R"(hAWK id="a", ts="1", nonce="n", mac="m")",
           "Hawk \t id=\"a\",ts=\"1\"  ,\t nonce=\"n\", mac=\"m\"",
           R"(Hawk mac="m", nonce="n", ts="1", id="a")",
           R"(Hawk id="a", ts="1", nonce="n", mac="m",)",
           R"(Hawk id="a", ts="1", nonce="n", mac="m" , )",
           R"(Hawk id="a=b, c", ts="0", nonce=" !#$%&'()*+-./:;<=>?@[]^_`{|}~", mac="m", hash="h", ext="e", app="p", dlg="d")",
       })
    EXPECT_EQ(parsed(header), "taken") << header;
}

TEST(HawkVerifierGrammar, RefusesEverythingElse) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"Hawk", "400 Invalid header syntax"},
      {"Hawk ", "400 Invalid header syntax"},
      {R"( Hawk id="a", ts="1", nonce="n", mac="m")", "400 Invalid header syntax"},
      {R"(Hawk,id="a", ts="1", nonce="n", mac="m")", "400 Invalid header syntax"},
      {"Hawk id=\"a\",\n ts=\"1\", nonce=\"n\", mac=\"m\"", "400 Invalid header syntax"},
      {R"(Hawk ,id="a", ts="1", nonce="n", mac="m")", "400 Bad header format"},
      {R"(Hawk id="a",, ts="1", nonce="n", mac="m")", "400 Bad header format"},
      {R"(Hawk id="a" ts="1", nonce="n", mac="m")", "400 Bad header format"},
      {R"(Hawk id = "a", ts="1", nonce="n", mac="m")", "400 Bad header format"},
      {R"(Hawk id='a', ts="1", nonce="n", mac="m")", "400 Bad header format"},
      {R"(Hawk id=a, ts="1", nonce="n", mac="m")", "400 Bad header format"},
      {R"(Hawk id="a", ts="1", nonce="n", mac="m)", "400 Bad header format"},
      {R"(Hawk id="a\\b", ts="1", nonce="n", mac="m")", "400 Bad header format"},
      {R"(Hawk ID="a", ts="1", nonce="n", mac="m")", "400 Unknown attribute: ID"},
      {R"(Hawk id="a", ts="1", nonce="n", mac="m", x="y")", "400 Unknown attribute: x"},
      {R"(Hawk id="a", id="a", ts="1", nonce="n", mac="m")", "400 Duplicate attribute: id"},
      {R"(Hawk id="", ts="1", nonce="n", mac="m")", "400 Bad attribute value: id"},
      {"Hawk id=\"a\tb\", ts=\"1\", nonce=\"n\", mac=\"m\"", "400 Bad attribute value: id"},
      {"Hawk id=\"\xc3\xa4\", ts=\"1\", nonce=\"n\", mac=\"m\"", "400 Bad attribute value: id"},
      {R"(Hawk ts="1", nonce="n", mac="m")", "400 Missing attributes"},
      {R"(Hawk id="a", nonce="n", mac="m")", "400 Missing attributes"},
      {R"(Hawk id="a", ts="1", mac="m")", "400 Missing attributes"},
      {R"(Hawk id="a", ts="1", nonce="n")", "400 Missing attributes"},
      {"Hawk " + std::string(4096, 'x'), "400 Header length too long"},
  };
  for (const auto& [header, expected] : cases) EXPECT_EQ(parsed(header), expected) << header;
}

TEST(HawkVerifierGrammar, LongestHeaderIs4096Characters) {
  const std::string start = R"(Hawk id="a", ts="1", nonce="n", mac="m", ext=")";
  EXPECT_EQ(parsed(start + std::string(4096 - start.size() - 1, 'x') + "\""), "taken");
  EXPECT_EQ(parsed(start + std::string(4096 - start.size(), 'x') + "\""), "400 Header length too long");
}

TEST(HawkVerifierGrammar, TimestampIsPlainDigits) {
  for (const char* ts : {"+1", "-1", "01", "1.5", "1e9", "abc", " 1", "1 ", "0x1", "1234567890123456"})
    EXPECT_EQ(parsed(R"(Hawk id="a", nonce="n", mac="m", ts=")" + std::string(ts) + "\""), "400 Bad attribute value: ts") << ts;
  for (const char* ts : {"0", "1", "1795205979", "123456789012345"})
    EXPECT_EQ(parsed(R"(Hawk id="a", nonce="n", mac="m", ts=")" + std::string(ts) + "\""), "taken") << ts;
}

// --- What is signed.

TEST(HawkVerifierMac, CoversEveryPartOfTheRequest) {
  const HawkVerifier verifier = verifierOfVectors();
  const std::string refused = "401 Bad mac | Hawk error=\"Bad mac\"";
  EXPECT_EQ(outcome(verifier.verifyHeader({"PUT", "/events", "api.example.com", kBatchHeader})), refused);
  EXPECT_EQ(outcome(verifier.verifyHeader({"POST", "/events?", "api.example.com", kBatchHeader})), refused);
  EXPECT_EQ(outcome(verifier.verifyHeader({"POST", "/events", "api.example.org", kBatchHeader})), refused);
  EXPECT_EQ(outcome(verifier.verifyHeader({"POST", "/events", "api.example.com:8443", kBatchHeader})), refused);
  for (const auto& [from, to] : {std::pair("1795205979", "1795205980"), std::pair("Ab3dE6gH", "Ab3dE6gh"),
                                 std::pair("I4DX", "I4DY"), std::pair("3F2504E0", "3F2504E1"), std::pair("02ab6w", "02ab6x")}) {
    std::string header = kBatchHeader;
    header.replace(header.find(from), std::string_view(from).size(), to);
    EXPECT_EQ(outcome(verifier.verifyHeader({"POST", "/events", "api.example.com", header})), refused) << header;
  }
  EXPECT_EQ(outcome(verifier.verifyHeader({"POST", "/events", "api.example.com", kBatchHeader + R"(, app="x")"})), refused);
}

TEST(HawkVerifierMac, AppAndDlgAreSignedWhenTheyAreThere) {
  const HawkVerifier verifier = verifierOfVectors();
  const std::string text = "hawk.1.header\n1\nn\nPOST\n/events\napi.example.com\n443\n\n\nthe-app\nthe-dlg\n";
  const std::string header =
      R"(Hawk id="com.example.app", ts="1", nonce="n", mac=")" + hawkMac(kKey, text) + R"(", app="the-app", dlg=")";
  EXPECT_EQ(outcome(verifier.verifyHeader({"POST", "/events", "api.example.com", header + "the-dlg\""})), "taken");
  EXPECT_EQ(outcome(verifier.verifyHeader({"POST", "/events", "api.example.com", header + "another\""})),
            "401 Bad mac | Hawk error=\"Bad mac\"");
}

TEST(HawkVerifierMac, UnknownIdIsRefusedBeforeTheMac) {
  const HawkVerifier verifier({{"com.example.other", kKey}});
  EXPECT_EQ(outcome(verifier.verifyHeader(batchRequest())), "401 Unknown credentials | Hawk error=\"Unknown credentials\"");
}

TEST(HawkVerifierMac, HostHeaderThatIsNoneIsASyntaxError) {
  const HawkVerifier verifier = verifierOfVectors();
  for (const char* host : {"", ":443", "api.example.com:", "api.example.com:x", "api.example.com:123456", "[::1", "[::1]x"})
    EXPECT_EQ(outcome(verifier.verifyHeader({"POST", "/events", host, kBatchHeader})), "400 Invalid Host header") << host;
}

TEST(HawkVerifierMac, LiteralMayBeSignedWithOrWithoutItsBrackets) {
  const HawkVerifier verifier = verifierOfVectors();
  for (const char* host : {"::1", "[::1]"}) {
    const std::string mac = hawkMac(kKey, "hawk.1.header\n1\nn\nPOST\n/events\n" + std::string(host) + "\n8443\n\n\n");
    const std::string header = R"(Hawk id="com.example.app", ts="1", nonce="n", mac=")" + mac + "\"";
    EXPECT_EQ(outcome(verifier.verifyHeader({"POST", "/events", "[::1]:8443", header})), "taken") << host;
  }
}

// --- The body.

TEST(HawkVerifierPayload, MissingAndWrongHash) {
  const HawkVerifier verifier = verifierOfVectors();
  const HawkTicket hashed = verifier.verifyHeader(batchRequest()).value();
  const std::string bad = "401 Bad payload hash | Hawk error=\"Bad payload hash\"";
  EXPECT_EQ(outcome(HawkVerifier::verifyPayload(hashed, kMediaType, kBatch + " ")), bad);
  EXPECT_EQ(outcome(HawkVerifier::verifyPayload(hashed, kMediaType, "")), bad);
  EXPECT_EQ(outcome(HawkVerifier::verifyPayload(hashed, "application/json", kBatch)), bad);
  EXPECT_EQ(outcome(HawkVerifier::verifyPayload(ticketFor(verifier, signedHeader("1", "n")), kMediaType, kBatch)),
            "401 Missing required payload hash | Hawk error=\"Missing required payload hash\"");
}

TEST(HawkVerifierPayload, ContentTypeIsNormalised) {
  const std::string plain = hawkPayloadHash("text/plain", "x");
  EXPECT_EQ(hawkPayloadHash("TEXT/Plain", "x"), plain);
  EXPECT_EQ(hawkPayloadHash("  text/plain\t; a=\"b;c\"", "x"), plain);
  EXPECT_NE(hawkPayloadHash("", "x"), plain);
  EXPECT_EQ(hawkPayloadHash("", "x"), hawkPayloadHash(" ; charset=utf-8", "x"));
}

// --- Nonce and age.

TEST(HawkVerifierFreshness, ExactlySixtySecondsPassAMillisecondMoreDoesNot) {
  HawkVerifier verifier = verifierOfVectors();
  const auto at = [&](const char* nonce, std::int64_t now) {
    return outcome(verifier.verifyFreshness(ticketFor(verifier, signedHeader("1000", nonce)), milliseconds(now)));
  };
  EXPECT_EQ(at("a", 1'060'000), "taken");
  EXPECT_EQ(at("b", 940'000), "taken");
  EXPECT_EQ(at("c", 1'060'001), "401 Stale timestamp | " + staleChallenge(kKey, "1060"));
  EXPECT_EQ(at("d", 939'999), "401 Stale timestamp | " + staleChallenge(kKey, "939"));  // the server's time, rounded down
}

TEST(HawkVerifierFreshness, NonceIsUsedUpByOneKeyAtOneTime) {
  HawkVerifier verifier({{"com.example.app", kKey}, {"com.example.other", "another key"}});
  const HawkTicket first = ticketFor(verifier, signedHeader("1000", "n"));
  HawkTicket ofAnother = first;
  ofAnother.key = "another key";
  const milliseconds now(1'000'000);
  EXPECT_EQ(outcome(verifier.verifyFreshness(first, now)), "taken");
  EXPECT_EQ(outcome(verifier.verifyFreshness(first, now)), "401 Invalid nonce | Hawk error=\"Invalid nonce\"");
  EXPECT_EQ(outcome(verifier.verifyFreshness(ticketFor(verifier, signedHeader("1001", "n")), now)), "taken");
  EXPECT_EQ(outcome(verifier.verifyFreshness(ofAnother, now)), "taken");
}

TEST(HawkVerifierFreshness, StaleRequestHasUsedUpItsNonce) {
  HawkVerifier verifier = verifierOfVectors();
  const HawkTicket ticket = ticketFor(verifier, signedHeader("1000", "n"));
  EXPECT_EQ(outcome(verifier.verifyFreshness(ticket, milliseconds(2'000'000))),
            "401 Stale timestamp | " + staleChallenge(kKey, "2000"));
  EXPECT_EQ(outcome(verifier.verifyFreshness(ticket, milliseconds(1'000'000))), "401 Invalid nonce | Hawk error=\"Invalid nonce\"");
}

TEST(HawkVerifierUpload, EightDaysPassAMillisecondMoreDoesNot) {
  const HawkVerifier verifier = verifierOfVectors();
  const HawkTicket ticket = ticketFor(verifier, signedHeader("1000", "n"));
  const auto at = [&](std::int64_t now) { return outcome(verifier.verifyUpload(ticket, milliseconds(now))); };
  EXPECT_EQ(at(692'200'000), "taken");  // eight days are 691200 s
  EXPECT_EQ(at(692'200'001), "401 Stale timestamp | " + staleChallenge(kKey, "692200"));
  EXPECT_EQ(at(940'000), "taken");
  EXPECT_EQ(at(939'999), "401 Stale timestamp | " + staleChallenge(kKey, "939"));
}

TEST(HawkVerifierUpload, NonceIsGoodUntilItIsSpent) {
  HawkVerifier verifier = verifierOfVectors();
  const HawkTicket ticket = ticketFor(verifier, signedHeader("1000", "n"));
  const milliseconds now(1'000'000);
  const std::string refused = "401 Invalid nonce | Hawk error=\"Invalid nonce\"";
  EXPECT_EQ(outcome(verifier.verifyUpload(ticket, now)), "taken");
  EXPECT_EQ(outcome(verifier.verifyUpload(ticket, now)), "taken");
  EXPECT_EQ(outcome(verifier.spend(ticket)), "taken");
  EXPECT_EQ(outcome(verifier.spend(ticket)), refused);
  EXPECT_EQ(outcome(verifier.verifyUpload(ticket, now)), refused);
  EXPECT_EQ(outcome(verifier.verifyFreshness(ticket, now)), refused);
  EXPECT_EQ(outcome(verifier.verifyUpload(ticketFor(verifier, signedHeader("1000", "m")), now)), "taken");
}

TEST(HawkVerifierUpload, StaleUploadHasNotUsedUpItsNonce) {
  HawkVerifier verifier = verifierOfVectors();
  const HawkTicket ticket = ticketFor(verifier, signedHeader("1000", "n"));
  EXPECT_EQ(outcome(verifier.verifyUpload(ticket, milliseconds(0))), "401 Stale timestamp | " + staleChallenge(kKey, "0"));
  EXPECT_EQ(outcome(verifier.verifyUpload(ticket, milliseconds(1'000'000))), "taken");
}

// --- Signed links.

const std::string kLinkPath = "/cookie-match?appRDNS=com.example.app&deviceId=3F2504E0-4F89-41D3-9A0C-0305E82C3301";
/// Of the reference library, for api.example.com on the port of HTTPS; it dies at 1795209579.
const std::string kBewit = "Y29tLmV4YW1wbGUuYXBwXDE3OTUyMDk1NzlcdzJ0Ujk4QkY5K3g4UUYrL0E1R2V0d2F2clFPRzU2R2k4K2JKUGVZSkgycz1c";
constexpr milliseconds kLinkEnd{1795209579000};

std::string linkOutcome(const std::string& target, milliseconds now = kLinkEnd - milliseconds(10'000),
                        std::string_view host = "api.example.com", std::string_view method = "GET") {
  return outcome(verifierOfVectors().verifyLink({method, target, host, std::nullopt}, now));
}

TEST(HawkVerifierLink, LinkOfTheReferenceLibraryIsTaken) {
  const auto bewit = verifierOfVectors().verifyLink({"GET", kLinkPath + "&bewit=" + kBewit, "API.example.com", std::nullopt},
                                                    kLinkEnd - milliseconds(10'000));
  ASSERT_EQ(outcome(bewit), "taken");
  EXPECT_EQ(bewit->id, "com.example.app");
  EXPECT_EQ(bewit->exp, "1795209579");
  EXPECT_EQ(bewit->mac, "w2tR98BF9+x8QF+/A5GetwavrQOG56Gi8+bJPeYJH2s=");
  EXPECT_EQ(bewit->ext, "");
  EXPECT_EQ(hawkLinkText(*bewit, kLinkPath, "API.example.com", "443"),
            "hawk.1.bewit\n1795209579\n\nGET\n" + kLinkPath + "\napi.example.com\n443\n\n\n");
}

TEST(HawkVerifierLink, BewitMayStandAnywhereInTheQuery) {
  const std::string path = "/cookie-match?";
  const std::string query = kLinkPath.substr(path.size());
  const auto both = query.find('&');
  EXPECT_EQ(linkOutcome(path + "bewit=" + kBewit + "&" + query), "taken");
  EXPECT_EQ(linkOutcome(path + query.substr(0, both) + "&bewit=" + kBewit + query.substr(both)), "taken");
}

TEST(HawkVerifierLink, DiesAtItsTime) {
  const std::string expired = "401 Access expired | Hawk error=\"Access expired\"";
  EXPECT_EQ(linkOutcome(kLinkPath + "&bewit=" + kBewit, kLinkEnd - milliseconds(1)), "taken");
  EXPECT_EQ(linkOutcome(kLinkPath + "&bewit=" + kBewit, kLinkEnd), expired);
  EXPECT_EQ(linkOutcome(kLinkPath + "&bewit=" + kBewit, kLinkEnd + milliseconds(1)), expired);
}

TEST(HawkVerifierLink, AlteredOneIsRefused) {
  const std::string bad = "401 Bad mac | Hawk error=\"Bad mac\"";
  std::string another = kLinkPath;
  another.back() = '2';
  EXPECT_EQ(linkOutcome(another + "&bewit=" + kBewit), bad);
  EXPECT_EQ(linkOutcome(kLinkPath + "&more=1&bewit=" + kBewit), bad);
  EXPECT_EQ(linkOutcome(kLinkPath + "&bewit=" + kBewit, kLinkEnd - milliseconds(10'000), "other.example.com"), bad);
  EXPECT_EQ(linkOutcome(kLinkPath + "&bewit=" + kBewit, kLinkEnd - milliseconds(10'000), "api.example.com:8443"), bad);
  EXPECT_EQ(linkOutcome(kLinkPath + "&bewit=" + kBewit, kLinkEnd - milliseconds(10'000), "api.example.com", "POST"),
            "401 Invalid method | Hawk error=\"Invalid method\"");
  // com.example.app\1795209580\ and the mac above: a longer life than was signed
  EXPECT_EQ(linkOutcome(kLinkPath +
                        "&bewit=Y29tLmV4YW1wbGUuYXBwXDE3OTUyMDk1ODBcdzJ0Ujk4QkY5K3g4UUYrL0E1R2V0d2F2clFPRzU2R2k4K2JKUGVZSkgycz1c"),
            bad);
  // com.example.xyz\1795209579\m\ .
  EXPECT_EQ(linkOutcome("/cookie-match?bewit=Y29tLmV4YW1wbGUueHl6XDE3OTUyMDk1NzlcbVw"),
            "401 Unknown credentials | Hawk error=\"Unknown credentials\"");
}

TEST(HawkVerifierLink, SyntaxIsStrict) {
  const std::string none = "401 No bewit, or more than one | Hawk";
  EXPECT_EQ(linkOutcome("/cookie-match"), none);
  EXPECT_EQ(linkOutcome(kLinkPath), none);
  EXPECT_EQ(linkOutcome(kLinkPath + "&bewit="), none);
  EXPECT_EQ(linkOutcome(kLinkPath + "&bewit=" + kBewit + "&bewit=" + kBewit), none);
  const auto withBewit = [](const std::string& bewit) { return linkOutcome("/cookie-match?bewit=" + bewit); };
  EXPECT_EQ(withBewit("a+b"), "400 Invalid bewit encoding");
  EXPECT_EQ(withBewit(kBewit + "="), "400 Invalid bewit encoding");
  EXPECT_EQ(withBewit("A"), "400 Invalid bewit encoding");                   // a lone digit
  EXPECT_EQ(withBewit("YQ"), "400 Invalid bewit structure");                 // a
  EXPECT_EQ(withBewit("YR"), "400 Invalid bewit encoding");                  // a, and bits that belong to nothing
  EXPECT_EQ(withBewit("YVxiXGM"), "400 Invalid bewit structure");            // a\b\c
  EXPECT_EQ(withBewit("YVxiXGNcZFxl"), "400 Invalid bewit structure");       // a\b\c\d\e
  EXPECT_EQ(withBewit("XDFcYlw"), "400 Missing bewit attributes");           // \1\b\ .
  EXPECT_EQ(withBewit("YVxcYlw"), "400 Missing bewit attributes");           // a\\b\ .
  EXPECT_EQ(withBewit("YVwxXFw"), "400 Missing bewit attributes");           // a\1\\ .
  EXPECT_EQ(withBewit("YVwwMVxiXA"), "400 Bad bewit attribute value: exp");  // a\01\b\ .
  EXPECT_EQ(withBewit("YVwtMVxiXA"), "400 Bad bewit attribute value: exp");  // a\-1\b\ .
  EXPECT_EQ(withBewit("YQpcMVxiXA"), "400 Bad bewit attribute value");       // a line feed in the id
  EXPECT_EQ(outcome(verifierOfVectors().verifyLink({"GET", kLinkPath + "&bewit=" + kBewit, "api.example.com", kBatchHeader},
                                                   kLinkEnd - milliseconds(10'000))),
            "400 Multiple authentications");
}

}  // namespace
}  // namespace devserver
