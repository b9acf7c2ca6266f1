// Errors and the texts that belong to their codes.
#include "platform/Error.h"

#include <utility>

namespace platform {
namespace {

std::string genericText(const std::string& domain, std::int64_t code) {
  return "The operation couldn’t be completed. (" + domain + " error " + std::to_string(code) + ".)";
}

std::string certificateText(std::string_view host) {
  return "The certificate for this server is invalid. You might be connecting to a server that is pretending to be “" +
         std::string(host) + "” which could put your confidential information at risk.";
}

/// Empty for a code without a text of its own.
std::string urlErrorText(std::int64_t code, std::string_view host) {
  switch (code) {
    case kURLErrorCancelled:
      return "cancelled";
    case kURLErrorBadURL:
      return "bad URL";
    case kURLErrorTimedOut:
      return "The request timed out.";
    case kURLErrorUnsupportedURL:
      return "unsupported URL";
    case kURLErrorCannotFindHost:
      return "A server with the specified hostname could not be found.";
    case kURLErrorCannotConnectToHost:
      return "Could not connect to the server.";
    case kURLErrorNetworkConnectionLost:
      return "The network connection was lost.";
    case kURLErrorHTTPTooManyRedirects:
      return "too many HTTP redirects";
    case kURLErrorNotConnectedToInternet:
      return "The Internet connection appears to be offline.";
    case kURLErrorAppTransportSecurityRequiresSecureConnection:
      return "The resource could not be loaded because the App Transport Security policy requires the use of a secure connection.";
    case kURLErrorSecureConnectionFailed:
      return "An SSL error has occurred and a secure connection to the server cannot be made.";
    // A certificate out of its dates is an invalid certificate to the person who reads this; the code tells the two apart.
    case kURLErrorServerCertificateHasBadDate:
    case kURLErrorServerCertificateUntrusted:
      return certificateText(host);
    default:
      return {};
  }
}

}  // namespace

Error::Error(std::string domain, std::int64_t code, std::string localizedDescription, std::string debugDescription,
             std::shared_ptr<const Error> underlyingError)
    : domain_(std::move(domain)),
      code_(code),
      localizedDescription_(localizedDescription.empty() ? genericText(domain_, code) : std::move(localizedDescription)),
      debugDescription_(std::move(debugDescription)),
      underlyingError_(std::move(underlyingError)) {}

Error urlError(std::int64_t code, std::string_view host) { return Error(kURLErrorDomain, code, urlErrorText(code, host)); }

}  // namespace platform
