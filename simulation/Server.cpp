// What the server checks, keeps and answers.
#include "simulation/Server.h"

#include <utility>

#include "support/TestProcess.h"

namespace simulation {

using platform::URLRequest;
using test::TestProcess;

namespace {

constexpr const char* kAppId = "com.example.app";

std::string targetOf(const platform::URL& url) { return url.path() + (url.query() ? "?" + *url.query() : ""); }

}  // namespace

Server::Server(Random& random, Story& story, Swarm& swarm, Ledger& ledger)
    : random_(random),
      story_(story),
      swarm_(swarm),
      ledger_(ledger),
      time_(TestProcess::kStartTime),
      verifier_(devserver::HawkVerifier::Keys{{kAppId, TestProcess::kSecret}}) {}

bool Server::happens(Kind kind) {
  if (!random_.chance(swarm_.likelihood(kind))) return false;
  story_.fault(nameOf(kind));
  return true;
}

devserver::HawkTicket Server::ticketOf(const std::string& method, const std::string& target, const std::string& authorization,
                                       std::string_view what) {
  const auto ticket =
      verifier_.verifyHeader({.method = method, .target = target, .host = TestProcess::kApiHost, .authorization = authorization});
  if (!ticket) throw Violation("signature", std::string(what) + ": " + ticket.error().reason);
  return *ticket;
}

void Server::useNonce(const devserver::HawkTicket& ticket) {
  if (!nonces_.insert(ticket.attributes.nonce).second) throw Violation("nonce", ticket.attributes.nonce + " was used twice");
}

void Server::expectExcuse(const std::string& what) {
  if (digestFailures_ == 0) throw Violation("signature", what + " is not signed");
  --digestFailures_;
  story_.path("a request went out unsigned", what);
}

void Server::checkSignature(const URLRequest& request) {
  const auto authorization = request.valueForHTTPHeaderField("Authorization");
  const std::string what = request.HTTPMethod() + " " + request.URL()->path();
  if (!authorization) {
    if (request.HTTPMethod() == "GET") return;  // the refresh of shares is not signed
    return expectExcuse(what);
  }
  const auto ticket = ticketOf(request.HTTPMethod(), targetOf(*request.URL()), *authorization, what);
  const std::string body(request.HTTPBody() ? request.HTTPBody()->bytes() : "");
  const auto hash = verifier_.verifyPayload(ticket, request.valueForHTTPHeaderField("Content-Type").value_or(""), body);
  if (!hash) throw Violation("signature", what + ": " + hash.error().reason);
  useNonce(ticket);
}

void Server::checkUploadSignature(const transfer::SpoolEntry& entry) {
  const auto url = platform::URL::URLWithString(entry.url);
  for (const auto& [name, value] : entry.headerFields)
    if (name == "Authorization") return useNonce(ticketOf(entry.method, targetOf(*url), value, "upload"));
  expectExcuse("upload");
}

Server::Outcome Server::failure(std::int64_t code) {
  Outcome outcome;
  outcome.error = platform::urlError(code, TestProcess::kApiHost);
  outcome.text = "error " + std::to_string(code);
  return outcome;
}

Server::Outcome Server::answer(const URLRequest& request, std::int64_t status, std::string body,
                               const std::optional<std::string>& challenge) {
  platform::HTTPHeaderFields fields;
  fields.setValueForField("application/json", "Content-Type");
  if (challenge) fields.setValueForField(*challenge, "WWW-Authenticate");
  Outcome outcome;
  outcome.text = std::to_string(status) + " " + body.substr(0, 80) + (challenge ? " " + *challenge : "");
  outcome.saysTaken = status < 400;
  outcome.isChallenge = status == 401 && challenge;
  outcome.body = platform::Data(body);
  outcome.response = std::make_shared<platform::HTTPURLResponse>(*request.URL(), status, std::move(fields));
  return outcome;
}

std::optional<devserver::HawkRefusal> Server::refusal(const URLRequest& request) {
  const auto authorization = request.valueForHTTPHeaderField("Authorization");
  if (!authorization) return devserver::HawkRefusal{.status = 401, .reason = "unsigned", .challenge = "Hawk"};
  const std::string target = targetOf(*request.URL());
  const auto ticket = verifier_.verifyHeader(
      {.method = request.HTTPMethod(), .target = target, .host = TestProcess::kApiHost, .authorization = *authorization});
  if (!ticket) return ticket.error();
  const auto fresh = verifier_.verifyFreshness(*ticket, now());
  if (!fresh) return fresh.error();
  return std::nullopt;
}

Server::Outcome Server::taken(const URLRequest& request, bool isEvents) {
  if (happens(Kind::kPoisonedAnswer)) {
    constexpr const char* kPoison[] = {"[]", R"({"features":[1]})", R"({"notifications":7})"};
    return answer(request, 200, kPoison[random_.below(3)]);
  }
  if (happens(Kind::kInvalidAnswer))
    return random_.chance(0.5) ? answer(request, 204, "") : answer(request, 200, "<html>not JSON</html>");
  std::string body = "{}";
  if (isEvents && random_.chance(0.4))
    body = R"({"referralCode":"user-)" + std::to_string(random_.below(100)) +
           R"(","urlPath":"/a","notifications":[{"type":"hello"}],"matchQuality":"good","features":"3","reasons":{"1":"no"}})";
  if (request.URL()->path() == "/shares" && request.HTTPMethod() == "POST") body = R"({"data":{"id":"12345678share"}})";
  if (request.HTTPMethod() == "GET") body = R"({"data":[{"shareId":"s1","userId":"u1"}]})";
  if (happens(Kind::kTruncatedAnswer)) body = body.substr(0, random_.below(body.size()));
  return answer(request, 200, body);
}

Server::Outcome Server::handle(std::uint64_t number, const URLRequest& request, bool isEvents) {
  ++requests_;
  constexpr std::int64_t kLoss[] = {platform::kURLErrorTimedOut, platform::kURLErrorCannotConnectToHost,
                                    platform::kURLErrorNetworkConnectionLost, platform::kURLErrorNotConnectedToInternet,
                                    platform::kURLErrorSecureConnectionFailed};
  if (happens(Kind::kRequestLost)) return failure(kLoss[random_.below(5)]);
  if (happens(Kind::kServerError))
    return answer(request, 500 + static_cast<std::int64_t>(random_.below(4)), "{\"error\":\"down\"}");
  if (request.HTTPMethod() != "GET") {
    if (const auto refused = refusal(request))
      return answer(request, refused->status, "{}", refused->challenge.empty() ? std::nullopt : std::optional(refused->challenge));
  }
  if (happens(Kind::kRequestRepeated) && request.HTTPMethod() != "GET" && !refusal(request))
    throw Violation("simulated server", "it took a request twice");
  if (happens(Kind::kChallenge))
    return answer(request, 401, "{}",
                  devserver::staleChallenge(TestProcess::kSecret, std::to_string(static_cast<std::int64_t>(time_))));
  if (happens(Kind::kFalseChallenge)) {
    const std::string years = std::to_string(static_cast<std::int64_t>(time_) + 400'000'000);
    switch (random_.below(4)) {
      case 0:
        return answer(request, 401, "{}", devserver::staleChallenge("another key", years));
      case 1:
        return answer(request, 401, "{}", devserver::staleChallenge(TestProcess::kSecret, years));
      case 2:
        return answer(request, 401, "{}", "Hawk ts=\"twelve\"");
      default:
        return answer(request, 401, "{}");
    }
  }
  if (isEvents) ledger_.accepted(number);
  if (happens(Kind::kServerErrorAfterTaking)) return answer(request, 503, "");
  if (happens(Kind::kAnswerLost)) return failure(platform::kURLErrorNetworkConnectionLost);
  return taken(request, isEvents);
}

transfer::UploadOutcome Server::upload(const transfer::SpoolEntry& entry) {
  transfer::UploadOutcome outcome;
  if (happens(Kind::kUploadFails)) {
    outcome.error = platform::urlError(platform::kURLErrorNetworkConnectionLost);
    outcome.mayBeTriedAgain = true;
    return outcome;
  }
  if (happens(Kind::kUploadRefused)) {
    if (random_.chance(0.5)) {
      outcome.error = platform::urlError(platform::kURLErrorServerCertificateUntrusted, TestProcess::kApiHost);
    } else {
      outcome.statusCode = 500;
    }
    return outcome;
  }
  outcome.statusCode = 200;
  outcome.bytesSent = outcome.bytesExpected = entry.file.size();
  return outcome;
}

}  // namespace simulation
