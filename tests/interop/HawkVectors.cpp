// The signer against the scheme's reference library: what it signs, the library's server accepts; what that server answers to a
// stale request, the signer believes; and of a challenge both read the same. Some hundred random inputs, the same in every run.
//
// The library runs in node, from the packages that `npm ci` puts into node_modules; without them these tests fail.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "companions/KSVHawkAuth.h"
#include "platform/JSONSerialization.h"
#include "platform/Process.h"
#include "support/Event.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

using platform::Array;
using platform::Date;
using platform::Dictionary;
using platform::Value;

const std::string kFolder = KESTROVA_SOURCE_DIR "/tests/interop";
const std::string kMediaType = "application/vnd.kestrova.v1+json";

std::string jsonText(const Value& value) { return std::string(platform::JSONSerialization::dataWithJSONObject(value)->bytes()); }
Value jsonValue(std::string_view text) { return *platform::JSONSerialization::JSONObjectWithData(platform::Data(text)); }

/// Asks the reference library many questions in one run; one answer for each.
std::vector<Value> askOracle(const std::vector<Dictionary>& questions) {
  const TemporaryDirectory folder;
  const std::string file = folder.path() + "/questions";
  {
    std::ofstream stream(file, std::ios::binary);
    for (const Dictionary& question : questions) stream << jsonText(question) << '\n';
  }
  FILE* pipe = popen(("node " + kFolder + "/hawk-oracle.mjs < " + file).c_str(), "r");
  if (!pipe) throw std::runtime_error("popen failed");
  std::string output;
  std::array<char, 4096> buffer;
  for (std::size_t got; (got = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) output.append(buffer.data(), got);
  const int status = pclose(pipe);
  std::vector<Value> answers;
  for (std::size_t start = 0, end; (end = output.find('\n', start)) != output.npos; start = end + 1)
    answers.push_back(jsonValue(output.substr(start, end - start)));
  if (status != 0 || answers.size() != questions.size())
    throw std::runtime_error("the oracle ended with status " + std::to_string(status) + " after " + std::to_string(answers.size()) +
                             " answers; is `npm ci` done?");
  return answers;
}

/// Random inputs from a generator whose results the standard fixes; its distributions are not fixed and so not used.
class Inputs {
 public:
  std::size_t below(std::size_t bound) { return generator_() % bound; }
  bool oneIn(std::size_t count) { return below(count) == 0; }

  std::string text(std::string_view alphabet, std::size_t least, std::size_t most) {
    std::string result;
    for (std::size_t length = least + below(most - least + 1); result.size() < length;) result += alphabet[below(alphabet.size())];
    return result;
  }
  template <class T>
  T oneOf(std::initializer_list<T> choices) {
    return choices.begin()[below(choices.size())];
  }

  // What a header's value may hold: printable ASCII without quote and backslash.
  std::string headerText(std::size_t least, std::size_t most) {
    return text("ABCxyz019 !#$%&'()*+,-./:;<=>?@[]^_`{|}~", least, most);
  }
  // Well-formed UTF-8, from one to four bytes a character, controls included.
  std::string utf8(std::size_t most) {
    std::string result;
    for (std::size_t count = below(most + 1); count > 0; --count)
      result += oneOf<std::string_view>({"a", "Z", "0", "\"", "\\", "\n", "\r", "\t", "{", "ü", "ß", "日", "本", "😀", " "});
    return result;
  }

 private:
  std::mt19937 generator_{20261120};
};

class HawkVectors : public testing::Test {
 protected:
  std::unique_ptr<platform::Process> process_ = platform::makeSystemProcess({});
  platform::Process::Scope scope_{*process_};
  Inputs inputs_;
};

std::shared_ptr<KSVHawkCredentials> credentials(std::string id, std::string key) {
  return KSVHawkCredentials::initWithHawkIdWithKeyWithAlgorithm(std::move(id), std::move(key), KSVCryptoAlgorithmSHA256);
}

KSVHawkAuth randomRequest(Inputs& inputs) {
  KSVHawkAuth hawk;
  hawk.setCredentials(credentials(inputs.headerText(1, 30), inputs.utf8(20) + "k"));
  hawk.setMethod(inputs.oneOf({"GET", "POST", "post", "Put"}));
  hawk.setRequestUri("/" + inputs.text("abcXYZ019-_.~/", 0, 30) +
                     (inputs.oneIn(2) ? "?" + inputs.text("abc019=&+%20,;/?@:", 0, 30) : ""));
  hawk.setHost(inputs.text("abcDEF019-.", 1, 30));
  hawk.setPort(1 + inputs.below(65535));
  hawk.setTimestamp(Date::dateWithTimeIntervalSince1970(static_cast<double>(inputs.below(4'000'000'000)) + 0.75));
  hawk.setNonce(inputs.headerText(1, 12));
  if (!inputs.oneIn(4)) hawk.setExt(inputs.headerText(0, 40));
  if (inputs.oneIn(4)) hawk.setApp(inputs.headerText(1, 10));
  if (inputs.oneIn(4)) hawk.setDlg(inputs.headerText(1, 10));
  hawk.setContentType(
      inputs.oneOf({kMediaType, std::string(), std::string("Text/PLAIN ; charset=\"a;b\""), std::string(" a/b\t")}));
  if (!inputs.oneIn(4)) hawk.setPayload(inputs.utf8(60));
  return hawk;
}

Dictionary questionAbout(const KSVHawkAuth& hawk, const std::string& header) {
  Dictionary question{
      {"ask", "request"},    {"method", hawk.method()}, {"url", hawk.requestUri()},          {"host", hawk.host()},
      {"port", hawk.port()}, {"header", header},        {"key", *hawk.credentials()->key()}, {"contentType", hawk.contentType()}};
  if (hawk.payload()) question.setObjectForKey(Value(*hawk.payload()), "payload");
  return question;
}

TEST_F(HawkVectors, TheReferenceServerAcceptsEveryRequest) {
  std::vector<Dictionary> questions;
  for (int request = 0; request < 400; ++request) {
    const KSVHawkAuth hawk = randomRequest(inputs_);
    const std::optional<std::string> header = hawk.requestHeader();
    ASSERT_TRUE(header) << request;
    questions.push_back(questionAbout(hawk, *header));
  }
  const std::vector<Value> answers = askOracle(questions);
  for (std::size_t request = 0; request < answers.size(); ++request)
    EXPECT_EQ(answers[request].objectForKey("error"), Value(nullptr)) << jsonText(questions[request]);
}

TEST_F(HawkVectors, TheReferenceServerRefusesWhatWasChangedOnTheWay) {
  std::vector<Dictionary> questions;
  std::vector<Value> refusals;
  for (int request = 0; request < 100; ++request) {
    KSVHawkAuth hawk = randomRequest(inputs_);
    hawk.setPayload("body");
    const std::string header = *hawk.requestHeader();
    for (const char* part : {"url", "host", "method", "payload", "key"}) {
      Dictionary question = questionAbout(hawk, header);
      question.setObjectForKey(Value(std::string(question.find(part)->string().view()) + "x"), part);
      questions.push_back(question);
      refusals.emplace_back(std::string_view(part) == "payload" ? "Bad payload hash" : "Bad mac");
    }
  }
  const std::vector<Value> answers = askOracle(questions);
  for (std::size_t question = 0; question < answers.size(); ++question)
    EXPECT_EQ(answers[question].objectForKey("error"), refusals[question]) << jsonText(questions[question]);
}

TEST_F(HawkVectors, TheReferenceServersChallengeIsBelieved) {
  std::vector<Dictionary> questions;
  for (int request = 0; request < 200; ++request) {
    const std::int64_t offset = static_cast<std::int64_t>(100 + inputs_.below(1'000'000)) * (inputs_.oneIn(2) ? 1 : -1);
    questions.push_back({{"ask", "challenge"},
                         {"key", inputs_.utf8(20) + "k"},
                         {"id", inputs_.headerText(1, 30)},
                         {"port", 8443},
                         {"offset", offset}});
  }
  const std::vector<Value> answers = askOracle(questions);
  for (std::size_t request = 0; request < answers.size(); ++request) {
    KSVHawkAuth hawk;
    hawk.setCredentials(credentials("id", std::string(questions[request].find("key")->string())));
    const Value header = *answers[request].objectForKey("header");
    const std::optional<Date> time = hawk.getTimestampSkew(header.string());
    ASSERT_TRUE(time) << jsonText(answers[request]);
    EXPECT_EQ(time->timeIntervalSince1970(), static_cast<double>(answers[request].objectForKey("ts")->signedInteger()));
    hawk.setCredentials(credentials("id", "another key"));
    EXPECT_FALSE(hawk.getTimestampSkew(header.string()));
  }
}

constexpr const char* kTs = "1795205979";

// A good challenge with a few places changed, so that most of the results lie close to the border.
std::string damagedChallenge(Inputs& inputs, const std::string& tsm) {
  std::vector<std::string> parts = {"ts=\"" + std::string(kTs) + "\"", "tsm=\"" + tsm + "\"", "error=\"Stale timestamp\""};
  if (inputs.oneIn(3)) std::swap(parts[inputs.below(3)], parts[inputs.below(3)]);
  if (inputs.oneIn(4)) parts.erase(parts.begin() + static_cast<std::ptrdiff_t>(inputs.below(parts.size())));
  std::string challenge = inputs.oneOf({"Hawk ", "Hawk ", "Hawk ", "hawk\t ", "Hawk", "Basic "});
  for (std::size_t part = 0; part < parts.size(); ++part)
    challenge += (part == 0 ? "" : inputs.oneOf({", ", ", ", ", ", ",", " , ", " ", ",,"})) + parts[part];
  for (std::size_t changes = inputs.below(3); changes > 0; --changes) {
    const std::size_t place = inputs.below(challenge.size() + 1);
    const std::string piece =
        inputs.oneOf<std::string>({",", " ", "\"", "=", "\\", "x", "\t", "'", "ts", ", ", "\"\"", "ts=\"1\", "});
    challenge.replace(place, inputs.oneIn(2) ? 0 : 1, piece);
  }
  return challenge;
}

TEST_F(HawkVectors, TheReferenceClientReadsTheSameInEveryChallenge) {
  const std::string key = "s3cr3t-API-key-0123456789abcdef";
  const Value tsm = *askOracle({{{"ask", "tsm"}, {"key", key}, {"ts", kTs}}})[0].objectForKey("tsm");
  std::vector<Dictionary> questions;
  for (int challenge = 0; challenge < 2000; ++challenge)
    questions.push_back({{"ask", "accepts"}, {"key", key}, {"header", damagedChallenge(inputs_, std::string(tsm.string()))}});
  const std::vector<Value> answers = askOracle(questions);

  KSVHawkAuth hawk;
  hawk.setCredentials(credentials("id", key));
  std::size_t believed = 0;
  for (std::size_t challenge = 0; challenge < answers.size(); ++challenge) {
    const std::optional<Date> time = hawk.getTimestampSkew(questions[challenge].find("header")->string());
    const std::optional<Value> ts = answers[challenge].objectForKey("ts");
    EXPECT_EQ(time.has_value(), ts == Value(kTs)) << jsonText(questions[challenge]) << jsonText(answers[challenge]);
    believed += time ? 1 : 0;
  }
  EXPECT_GT(believed, 200u);  // both outcomes occur
  EXPECT_LT(believed, 1800u);
}

// --- The reference server over HTTPS.

/// The server's program, with a certificate of its own that SSL_CERT_FILE names from then on.
class HawkServer {
 public:
  explicit HawkServer(const std::string& offset) {
    const std::string folder = folder_.path();
    const std::string make =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=localhost"
        " -addext subjectAltName=DNS:localhost -keyout " +
        folder + "/key.pem -out " + folder + "/cert.pem 2>/dev/null";
    if (system(make.c_str()) != 0) throw std::runtime_error("no certificate");
    std::ofstream(folder + "/credentials.json") << R"({"com.example.app":"s3cr3t"})";
    setenv("SSL_CERT_FILE", (folder + "/cert.pem").c_str(), 1);
    start({"node", kFolder + "/hawk-server.mjs", "--cert", folder + "/cert.pem", "--key", folder + "/key.pem", "--credentials",
           folder + "/credentials.json", "--offset", offset});
    port_ = static_cast<std::uint16_t>(nextLine().objectForKey("port")->signedInteger());
  }
  ~HawkServer() {
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
    close(output_);
  }
  HawkServer(const HawkServer&) = delete;
  HawkServer& operator=(const HawkServer&) = delete;

  std::uint16_t port() const { return port_; }

  /// The next line that the server prints.
  Value nextLine() {
    std::size_t end;
    while ((end = received_.find('\n')) == received_.npos) {
      pollfd readable{output_, POLLIN, 0};
      std::array<char, 4096> buffer;
      const ssize_t got = poll(&readable, 1, 30'000) == 1 ? read(output_, buffer.data(), buffer.size()) : 0;
      if (got <= 0) throw std::runtime_error("the server said nothing");
      received_.append(buffer.data(), static_cast<std::size_t>(got));
    }
    const Value line = jsonValue(received_.substr(0, end));
    received_.erase(0, end + 1);
    return line;
  }

 private:
  void start(const std::vector<std::string>& command) {
    std::array<int, 2> output{};
    if (pipe2(output.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    std::vector<char*> arguments;
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    const int failure = posix_spawnp(&process_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(output[1]);
    output_ = output[0];
    if (failure != 0) throw std::runtime_error("node cannot be started");
  }

  TemporaryDirectory folder_;
  pid_t process_ = -1;
  int output_ = -1;
  std::string received_;
  std::uint16_t port_ = 0;
};

/// Services that trust the server's certificate: URL loading takes its trust anchors when it is made.
class Trusting {
  std::unique_ptr<platform::Process> process_ = platform::makeSystemProcess({});
  platform::Process::Scope scope_{*process_};
};

struct Answer {
  std::int64_t status = 0;
  std::optional<std::string> challenge;
  std::string error;
};

Answer post(const HawkServer& server, const KSVHawkAuth& hawk) {
  const std::string host = "localhost:" + std::to_string(server.port());
  platform::URLRequest request(platform::URL::URLWithString("https://" + host + hawk.requestUri()));
  request.setHTTPMethod(hawk.method());
  request.setValueForHTTPHeaderField(kMediaType, "Content-Type");
  request.setValueForHTTPHeaderField(hawk.requestHeader(), "Authorization");
  request.setHTTPBody(platform::Data(hawk.payload().value_or("")));
  Answer answer;
  Event done;
  platform::URLSession::sharedSession()
      .dataTaskWithRequestCompletionHandler(request,
                                            [&](auto, const auto& response, const auto& error) {
                                              answer.status = platform::statusCode(response);
                                              answer.challenge = platform::headerField(response, "www-authenticate");
                                              if (error) answer.error = error->localizedDescription();
                                              done.happen();
                                            })
      ->resume();
  EXPECT_TRUE(done.wait());
  return answer;
}

KSVHawkAuth requestTo(const HawkServer& server, const std::string& uri, std::string nonce) {
  KSVHawkAuth hawk;
  hawk.setCredentials(credentials("com.example.app", "s3cr3t"));
  hawk.setContentType(kMediaType);
  hawk.setExt("3F2504E0-4F89-41D3-9A0C-0305E82C3301");
  hawk.setMethod("POST");
  hawk.setRequestUri(uri);
  hawk.setHost("localhost");
  hawk.setPort(server.port());
  hawk.setTimestamp(Date::date());
  hawk.setNonce(std::move(nonce));
  hawk.setPayload(R"({"data":[{"event":"grüße"},{"event":"😀"}]})");
  return hawk;
}

Value lineOf(const std::string& path, std::int64_t status, const Value& error, const Value& records) {
  return Dictionary{{"method", "POST"},      {"path", path},   {"authenticated", error.isNull()},
                    {"authorization", true}, {"error", error}, {"status", status},
                    {"records", records}};
}

TEST_F(HawkVectors, TheReferenceServerTakesEachSignedPathOverHttps) {
  HawkServer server("0");
  const Trusting trusting;
  for (const std::string path : {"/events", "/shares", "/patch-previous-session-started"}) {
    const Answer answer = post(server, requestTo(server, path, "nonce" + path));
    EXPECT_EQ(answer.status, 200) << answer.error;
    EXPECT_EQ(server.nextLine(), lineOf(path, 200, nullptr, 2));
  }
  KSVHawkAuth gif = requestTo(server, "/gifs?shareId=abc123", "nonce-gif");
  gif.setPayload(std::nullopt);
  EXPECT_EQ(post(server, gif).status, 200);
  EXPECT_EQ(server.nextLine(), lineOf("/gifs?shareId=abc123", 200, nullptr, nullptr));
}

TEST_F(HawkVectors, TheReferenceServerRefusesAReplay) {
  HawkServer server("0");
  const Trusting trusting;
  const KSVHawkAuth hawk = requestTo(server, "/events", "Ab3dE6gH");
  EXPECT_EQ(post(server, hawk).status, 200);
  EXPECT_EQ(server.nextLine(), lineOf("/events", 200, nullptr, 2));
  EXPECT_EQ(post(server, hawk).status, 401);
  EXPECT_EQ(server.nextLine(), lineOf("/events", 401, "Invalid nonce", 2));
}

TEST_F(HawkVectors, AStaleRequestIsAnsweredWithATimeThatMakesTheNextOneGood) {
  for (const std::int64_t offset : {std::int64_t{3600}, std::int64_t{-7200}}) {
    HawkServer server(std::to_string(offset));
    const Trusting trusting;
    KSVHawkAuth hawk = requestTo(server, "/events", "first");
    const Answer stale = post(server, hawk);
    EXPECT_EQ(stale.status, 401) << stale.error;
    EXPECT_EQ(server.nextLine(), lineOf("/events", 401, "Stale timestamp", 2));
    ASSERT_TRUE(stale.challenge);
    const std::optional<Date> serverTime = hawk.getTimestampSkew(*stale.challenge);
    ASSERT_TRUE(serverTime) << *stale.challenge;
    EXPECT_NEAR(serverTime->timeIntervalSinceDate(Date::date()), static_cast<double>(offset), 30);

    hawk.setTimestamp(*serverTime);
    hawk.setNonce("second");
    EXPECT_EQ(post(server, hawk).status, 200);
    EXPECT_EQ(server.nextLine(), lineOf("/events", 200, nullptr, 2));
  }
}

}  // namespace
}  // namespace test
