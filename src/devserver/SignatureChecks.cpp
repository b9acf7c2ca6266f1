// The steps of a signature's verification, told.
#include "devserver/SignatureChecks.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace devserver {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;

constexpr const char* kRight = "right";
constexpr const char* kWrong = "wrong";
constexpr const char* kUnreached = "unreached";

Dictionary check(const char* step, const char* state, std::string say) {
  return {{"step", step}, {"state", state}, {"say", std::move(say)}};
}

/// A header field as it can be shown: a client may send bytes that are no text.
std::string shown(std::string_view field) {
  std::string text(field);
  std::ranges::replace_if(text, [](char c) { return c < ' ' || c > '~'; }, '?');
  return text;
}

struct Place {
  std::string host;
  std::string port;
};

/// The host and port that are signed; a Host header field without a port means the port of HTTPS.
Place placeOf(std::string_view field) {
  const auto bracket = field.starts_with('[') ? field.find(']') : std::string_view::npos;
  const auto colon = field.find(':', bracket == std::string_view::npos ? 0 : bracket);
  if (colon == std::string_view::npos) return {shown(field), "443"};
  return {shown(field.substr(0, colon)), shown(field.substr(colon + 1))};
}

bool isKnown(const std::string& id, const std::vector<std::string>& applications) {
  return std::ranges::find(applications, id) != applications.end();
}

Dictionary applicationCheck(const std::string& id, const std::vector<std::string>& applications) {
  if (isKnown(id, applications)) return check("application", kRight, id + " is an application of this server.");
  std::string known;
  for (const std::string& one : applications) known += (known.empty() ? "" : ", ") + one;
  return check("application", kWrong, id + " is none of this server's applications, which are: " + known + ".");
}

/// What keeps the server from looking at a signature, and is no step of its verification.
bool isRefusedForOther(const Judged& request, std::string_view faultOfSyntax) {
  return !request.isSigned && request.verdict != "Bad mac" && request.verdict != "Unknown credentials" &&
         request.verdict != "Access expired" && request.verdict != faultOfSyntax;
}

Array unlookedAt(const Judged& request) {
  Dictionary refused =
      check("request", kWrong, "It was refused before anybody looked at its signature: " + std::string(request.verdict) + ".");
  if (request.verdict == "Invalid Host header") refused.setObjectForKey(Value(shown(request.host)), "came");
  return {refused, check("signature", kUnreached, "The MAC was not looked at.")};
}

Dictionary signatureCheck(bool isRight, const std::string& text) {
  Dictionary result = isRight
                          ? check("signature", kRight, "The MAC fits the text that the server has built from the request.")
                          : check("signature", kWrong,
                                  "The MAC does not fit the text that the server has built from the request. Either a line of the "
                                  "text differs from what the client has signed, or the secret does.");
  result.setObjectForKey(Value(text), "text");
  return result;
}

Dictionary payloadCheck(const Judged& request, const HawkAttributes& attributes) {
  if (request.isUpload) return check("payload", kRight, "An upload is signed by its header alone.");
  if (!request.hash) return check("payload", kUnreached, "The body was not read to its end.");
  const std::string over = std::to_string(request.bodyBytes) + " bytes, sent as \"" + shown(request.contentType) + "\"";
  const bool isRight = attributes.hash == *request.hash;
  Dictionary result =
      isRight ? check("payload", kRight, "The hash fits the body: " + over + ".")
              : check("payload", kWrong,
                      attributes.hash ? "The hash does not fit the body: " + over + ". Either differs from what was signed."
                                      : "The header has no hash, so that the body is not signed.");
  if (attributes.hash) result.setObjectForKey(Value(*attributes.hash), "came");
  result.setObjectForKey(Value(*request.hash), "computed");
  return result;
}

Dictionary nonceCheck(const Judged& request, const HawkAttributes& attributes, bool isReached) {
  Dictionary result;
  if (!isReached)
    result = check("nonce", kUnreached, "The nonce was not looked at.");
  else if (request.verdict == "Invalid nonce")
    result = check("nonce", kWrong, "The nonce was used before" + (request.firstUse.empty() ? "" : ": " + request.firstUse) + ".");
  else if (request.isRepeatable)
    result = check("nonce", kRight, "No upload with this nonce was taken before.");
  else
    result = check("nonce", kRight, "The nonce is new.");
  result.setObjectForKey(Value(attributes.nonce), "came");
  return result;
}

Dictionary clockCheck(const Judged& request, const HawkAttributes& attributes, bool isReached) {
  const std::chrono::seconds came(std::strtoll(attributes.ts.c_str(), nullptr, 10));
  const std::string distance = clockDistance(came - request.serverTime);
  const std::string allowed =
      request.isRepeatable ? "an upload may be 8 days behind and 60 s ahead" : "60 s to either side are allowed";
  const bool isWrong = request.verdict == "Stale timestamp";
  Dictionary result =
      check("clock",
            isWrong     ? kWrong
            : isReached ? kRight
                        : kUnreached,
            "The signature's time is " + distance + "; " + allowed + (isWrong || isReached ? "." : ". It was not judged."));
  result.setObjectForKey(Value(attributes.ts), "came");
  result.setObjectForKey(Value(std::to_string(std::chrono::floor<std::chrono::seconds>(request.serverTime).count())), "computed");
  return result;
}

}  // namespace

std::string clockDistance(std::chrono::milliseconds ahead) {
  std::array<char, 48> text{};
  (void)std::snprintf(text.data(), text.size(), "%.1f s ", static_cast<double>(std::abs(ahead.count())) / 1000);
  return text.data() + std::string(ahead.count() < 0 ? "behind" : "ahead of") + " the server";
}

Array checksOfHeader(const Judged& request, const std::vector<std::string>& applications) {
  const auto attributes = parseHawkAuthorization(request.authorization);
  if (isRefusedForOther(request, attributes ? "" : attributes.error().reason)) return unlookedAt(request);
  if (!attributes) return {check("header", kWrong, "The Authorization header cannot be used: " + attributes.error().reason + ".")};
  Array steps{check("header", kRight, "The Authorization header has all that the scheme asks for.")};
  steps.addObject(Value(applicationCheck(attributes->id, applications)));
  if (!isKnown(attributes->id, applications)) return steps;

  const Place place = placeOf(request.host);
  steps.addObject(Value(
      signatureCheck(request.isSigned, hawkRequestText(*attributes, request.method, request.target, place.host, place.port))));
  if (!request.isSigned) return steps;

  const bool isPayloadRight = request.isUpload || (request.hash && attributes->hash == *request.hash);
  steps.addObject(Value(payloadCheck(request, *attributes)));
  steps.addObject(Value(nonceCheck(request, *attributes, isPayloadRight)));
  steps.addObject(Value(clockCheck(request, *attributes, isPayloadRight && request.verdict != "Invalid nonce")));
  return steps;
}

Array checksOfLink(const Judged& request, const std::vector<std::string>& applications) {
  const auto link = parseHawkLink(request.target);
  if (isRefusedForOther(request, link ? "" : link.error().reason)) return unlookedAt(request);
  if (!link) return {check("link", kWrong, "The link's signature cannot be used: " + link.error().reason + ".")};
  Array steps{check("link", kRight, "The link has all that the scheme asks for.")};
  const std::chrono::seconds end(std::strtoll(link->bewit.exp.c_str(), nullptr, 10));
  const bool isOver = request.verdict == "Access expired";
  Dictionary clock = check("clock", isOver ? kWrong : kRight, "The link's end is " + clockDistance(end - request.serverTime) + ".");
  clock.setObjectForKey(Value(link->bewit.exp), "came");
  steps.addObject(Value(clock));
  if (isOver) return steps;

  steps.addObject(Value(applicationCheck(link->bewit.id, applications)));
  if (!isKnown(link->bewit.id, applications)) return steps;
  const Place place = placeOf(request.host);
  steps.addObject(Value(signatureCheck(request.isSigned, hawkLinkText(link->bewit, link->target, place.host, place.port))));
  return steps;
}

}  // namespace devserver
