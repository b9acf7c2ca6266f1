// Errors and their texts (platform rows U8 and U9).
#include <gtest/gtest.h>

#include "platform/Error.h"

namespace {

using platform::Error;

TEST(Error, U9WithoutATextOfItsOwn) {
  EXPECT_EQ(Error("NSCocoaErrorDomain", 4).localizedDescription(),
            "The operation couldn’t be completed. (NSCocoaErrorDomain error 4.)");
  EXPECT_EQ(Error("NSURLErrorDomain", -1103).localizedDescription(),
            "The operation couldn’t be completed. (NSURLErrorDomain error -1103.)");
}

TEST(Error, CarriesWhatItIsGiven) {
  const auto cause = std::make_shared<const Error>(platform::kPOSIXErrorDomain, 28);
  const Error error("domain", 7, "text", "detail", cause);
  EXPECT_EQ(error.domain(), "domain");
  EXPECT_EQ(error.code(), 7);
  EXPECT_EQ(error.localizedDescription(), "text");
  EXPECT_EQ(error.debugDescription(), "detail");
  EXPECT_EQ(error.underlyingError(), cause);
}

TEST(Error, U8TheTextsOfURLLoading) {
  const std::string certificate =
      "The certificate for this server is invalid. You might be connecting to a server that is pretending to be “api.example.com” "
      "which "
      "could put your confidential information at risk.";
  const std::pair<int, std::string> texts[] = {
      {-999, "cancelled"},
      {-1000, "bad URL"},
      {-1001, "The request timed out."},
      {-1002, "unsupported URL"},
      {-1003, "A server with the specified hostname could not be found."},
      {-1004, "Could not connect to the server."},
      {-1005, "The network connection was lost."},
      {-1007, "too many HTTP redirects"},
      {-1009, "The Internet connection appears to be offline."},
      {-1022,
       "The resource could not be loaded because the App Transport Security policy requires the use of a secure connection."},
      {-1103, "The operation couldn’t be completed. (NSURLErrorDomain error -1103.)"},
      {-1200, "An SSL error has occurred and a secure connection to the server cannot be made."},
      {-1201, certificate},
      {-1202, certificate},
  };
  for (const auto& [code, text] : texts) {
    const Error error = platform::urlError(code, "api.example.com");
    EXPECT_EQ(error.domain(), "NSURLErrorDomain");
    EXPECT_EQ(error.code(), code);
    EXPECT_EQ(error.localizedDescription(), text);
  }
}

}  // namespace
