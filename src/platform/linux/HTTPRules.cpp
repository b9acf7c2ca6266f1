// Refusals and redirects.
#include "platform/linux/HTTPRules.h"

#include <algorithm>

namespace platform {
namespace {

/// RFC 9110 section 9.1: a method is a token; anything else could break out of the request line.
bool isMethod(std::string_view method) {
  return !method.empty() && std::ranges::all_of(method, [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
  });
}

bool isFollowed(std::int64_t status) { return status == 301 || status == 302 || status == 303 || status == 307 || status == 308; }

/// 301 and 302 turn a POST into a GET, as every client has done since the beginning; 303 asks for it whatever the method was.
bool becomesGet(std::int64_t status, std::string_view method) {
  if (status == 303) return method != "GET" && method != "HEAD";
  return (status == 301 || status == 302) && method == "POST";
}

}  // namespace

std::optional<Error> refusalOfRequest(const URLRequest& request) {
  const std::optional<URL>& url = request.URL();
  if (!url) return urlError(kURLErrorUnsupportedURL);
  if (url->scheme() == "http") return urlError(kURLErrorAppTransportSecurityRequiresSecureConnection);
  if (url->scheme() != "https") return urlError(kURLErrorUnsupportedURL);
  if (!url->host() || url->host()->empty() || !isMethod(request.HTTPMethod())) return urlError(kURLErrorBadURL);
  return std::nullopt;
}

std::optional<std::expected<URLRequest, Error>> redirection(const URLRequest& request, const HTTPURLResponse& response) {
  if (!isFollowed(response.statusCode())) return std::nullopt;
  const std::optional<std::string> location = response.allHeaderFields().objectForKey("Location");
  if (!location || location->empty()) return std::nullopt;
  const std::optional<URL> target = response.URL().URLByResolving(*location);
  if (!target) return std::nullopt;
  if (target->scheme() != "https") return std::unexpected(urlError(kURLErrorAppTransportSecurityRequiresSecureConnection));

  URLRequest next(target);
  const bool asGet = becomesGet(response.statusCode(), request.HTTPMethod());
  next.setHTTPMethod(asGet ? "GET" : request.HTTPMethod());
  if (!asGet) next.setHTTPBody(request.HTTPBody());
  for (const auto& [name, value] : request.allHTTPHeaderFields()) next.setValueForHTTPHeaderField(value, name);
  // The signature is made for one URL; it must not travel to another, not even on the same host.
  next.setValueForHTTPHeaderField(std::nullopt, "Authorization");
  if (asGet) next.setValueForHTTPHeaderField(std::nullopt, "Content-Type");
  return next;
}

}  // namespace platform
