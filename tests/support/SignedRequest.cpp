// Signing, and sending what was signed.
#include "support/SignedRequest.h"

#include <gtest/gtest.h>

#include <ctime>

#include "platform/Date.h"

namespace test {

std::string SignedRequest::nextNonce() {
  static int count = 0;
  return "nonce" + std::to_string(++count);
}

KSVHawkAuth signer(const SignedRequest& request, const DevServer& server) {
  KSVHawkAuth hawk;
  hawk.setCredentials(KSVHawkCredentials::initWithHawkIdWithKeyWithAlgorithm(request.id, request.key, KSVCryptoAlgorithmSHA256));
  hawk.setContentType(SignedRequest::kMediaType);
  hawk.setExt(SignedRequest::kDevice);
  hawk.setMethod(request.method);
  hawk.setRequestUri(request.target);
  hawk.setHost("localhost");
  hawk.setPort(server.port());
  hawk.setNonce(request.nonce);
  hawk.setTimestamp(platform::Date::dateWithTimeIntervalSince1970(static_cast<double>(std::time(nullptr) + request.ahead)));
  if (request.signsBody) hawk.setPayload(request.body);
  return hawk;
}

std::string authorization(const SignedRequest& request, const DevServer& server) {
  return signer(request, server).requestHeader().value();
}

std::string head(const SignedRequest& request, const DevServer& server, const std::string& authorizationField,
                 std::optional<std::size_t> length) {
  std::string text = request.method + " " + request.target + " HTTP/1.1\r\nHost: " + server.host() + "\r\n";
  if (!authorizationField.empty()) text += "Authorization: " + authorizationField + "\r\n";
  text += "Content-Type: " + request.contentType + "\r\n";
  if (length) text += "Content-Length: " + std::to_string(*length) + "\r\n";
  return text + request.moreFields + "\r\n";
}

std::string wire(const SignedRequest& request, const DevServer& server) {
  return head(request, server, authorization(request, server), request.body.size()) + request.body;
}

HttpAnswer answerTo(const DevServer& server, const std::string& text) {
  HttpsClient client(server.port(), server.authorityFile());
  EXPECT_EQ(client.fault(), "");
  EXPECT_TRUE(client.send(text));
  const auto answer = client.read();
  EXPECT_TRUE(answer.has_value()) << "no answer to " << text.substr(0, 200);
  return answer.value_or(HttpAnswer());
}

}  // namespace test
