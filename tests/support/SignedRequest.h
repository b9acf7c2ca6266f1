// A request to the development server that is signed as a client signs it, by the client's own signer, which shares no code with
// the server's verifier. Each test spoils what it is about. Needs the digest of the current Process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "companions/KSVHawkAuth.h"
#include "support/DevServer.h"
#include "support/HttpsClient.h"

namespace test {

struct SignedRequest {
  /// The media type that is signed, whatever is sent.
  static constexpr const char* kMediaType = "application/vnd.kestrova.v1+json";
  static constexpr const char* kDevice = "3F2504E0-4F89-41D3-9A0C-0305E82C3301";

  std::string method = "POST";
  std::string target = "/events";
  std::string body = "";
  std::string contentType = kMediaType;
  std::string id = DevServer::kAppId;
  std::string key = DevServer::kSecret;
  std::string nonce = nextNonce();
  std::int64_t ahead = 0;  // of the machine's clock, in seconds
  bool signsBody = true;
  std::string moreFields = "";  // of the header, each with its line end

  static std::string nextNonce();
};

KSVHawkAuth signer(const SignedRequest& request, const DevServer& server);
/// The value of its Authorization.
std::string authorization(const SignedRequest& request, const DevServer& server);
/// The header on the wire, with the Content-Length of a body of `length` bytes.
std::string head(const SignedRequest& request, const DevServer& server, const std::string& authorizationField,
                 std::optional<std::size_t> length = std::nullopt);
/// All of it on the wire.
std::string wire(const SignedRequest& request, const DevServer& server);

/// One exchange on a connection of its own.
HttpAnswer answerTo(const DevServer& server, const std::string& text);

}  // namespace test
