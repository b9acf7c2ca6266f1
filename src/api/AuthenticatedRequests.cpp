// The request format that every endpoint shares: URL, vendor media type, JSON body, Hawk authorization.
//
// A fresh signer is made for every request; nothing is kept between calls and nothing here sends anything.
#include <cstdint>
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVConstants.h"
#include "companions/KSVDebugger.h"
#include "companions/KSVHawkAuth.h"
#include "companions/KSVHawkCredentials.h"
#include "companions/KSVUtils.h"
#include "platform/Exception.h"
#include "platform/Format.h"
#include "platform/JSONSerialization.h"

using platform::stringWithFormat;
using platform::URLRequest;

std::string KSVData::getApiVersion() { return stringWithFormat("application/vnd.kestrova.v%@+json", {kAPIVersionString()}); }

URLRequest KSVData::buildRequestForApi(const std::string& path) {
  URLRequest request(platform::URL::URLWithString(stringWithFormat("https://%@%@", {kAPIHost(), path})));
  request.setValueForHTTPHeaderField(getApiVersion(), "Accept");
  return request;
}

URLRequest KSVData::buildAuthenticatedRequestForDataPathData(const std::string& method, const std::string& path,
                                                             const platform::Data& data) {
  URLRequest request = buildRequestForApi(path);
  request.setHTTPMethod(method);
  request.setValueForHTTPHeaderField(stringWithFormat("%ld", {data.length()}), "Content-Length");
  request.setValueForHTTPHeaderField(getApiVersion(), "Content-Type");
  // The signer reads method and URL from the request, so both are on it by now.
  request.setValueForHTTPHeaderField(authHeaderForDataRequest(data.utf8String(), request), "Authorization");
  request.setHTTPBody(data);
  return request;
}

namespace {

/// The body's JSON text; absent, with its message, when it cannot be written. The messages name one endpoint and serve all of them.
std::optional<platform::Data> serialized(const platform::Dictionary& body) {
  try {
    auto data = platform::JSONSerialization::dataWithJSONObject(body);
    if (data) return *std::move(data);
    debugTrace("Serializing post data for patching session-started failed: %@", data.error().localizedDescription());
  } catch (const platform::Exception& exception) {
    debugTrace("Serializing universal link patch event failed: %@", exception.reason());
  }
  return std::nullopt;
}

}  // namespace

std::optional<URLRequest> KSVData::buildAuthenticatedRequestPathBody(const std::string& method, const std::string& path,
                                                                     const platform::Dictionary& body) {
  const std::optional<platform::Data> data = serialized(body);
  if (!data) return std::nullopt;
  return buildAuthenticatedRequestForDataPathData(method, path, *data);
}

std::optional<std::string> KSVData::authHeaderForDataRequest(const std::optional<platform::String>& payload,
                                                             const URLRequest& request) {
  KSVHawkAuth auth = getHawkAuth();
  auth.setMethod(request.HTTPMethod());
  auth.setTimestamp(getSkewedLocalTime());
  const auto& url = request.URL();
  if (url) auth.setRequestUri(url->query() ? stringWithFormat("%@?%@", {url->path(), *url->query()}) : url->path());
  auth.setNonce(KSVUtils::randomStringWithLength(8));
  if (url) {
    auth.setHost(url->host().value_or(""));
    const std::uint16_t port = url->port().value_or(0);
    auth.setPort(port == 0 ? 443 : port);
  }
  auth.setPayload(payload);
  return auth.requestHeader();
}

KSVHawkAuth KSVData::getHawkAuth() {
  KSVHawkAuth auth;
  auth.setContentType(getApiVersion());
  auth.setCredentials(KSVHawkCredentials::initWithHawkIdWithKeyWithAlgorithm(appRDNS, appSecret, KSVCryptoAlgorithmSHA256));
  auth.setExt(deviceId);
  return auth;
}
