// The text form of responses (platform row V6) and the reading of absent ones (U3).
#include <gtest/gtest.h>

#include "platform/Format.h"
#include "platform/URLResponse.h"

namespace {

using platform::HTTPHeaderFields;
using platform::HTTPURLResponse;
using platform::URL;

TEST(HTTPURLResponse, V6DescribesURLStatusAndFieldsSortedByName) {
  HTTPHeaderFields fields;
  fields.setValueForField("Hawk tsm=\"x\"", "WWW-Authenticate");
  fields.setValueForField("17", "Content-Length");
  fields.setValueForField("text/plain", "Content-Type");
  const HTTPURLResponse response(*URL::URLWithString("https://api.example.com/v1/events?x=1"), 404, fields);
  EXPECT_EQ(response.description(),
            "<NSHTTPURLResponse> { URL: https://api.example.com/v1/events?x=1 } { Status Code: 404, Headers {\n"
            "    \"Content-Length\" = 17;\n"
            "    \"Content-Type\" = text/plain;\n"
            "    \"WWW-Authenticate\" = \"Hawk tsm=\\\"x\\\"\";\n"
            "} }");
}

TEST(HTTPURLResponse, V6WithoutFields) {
  EXPECT_EQ(HTTPURLResponse(*URL::URLWithString("https://h/"), 204, {}).description(),
            "<NSHTTPURLResponse> { URL: https://h/ } { Status Code: 204, Headers {\n} }");
}

TEST(HTTPURLResponse, IsPrintedByFormats) {
  const platform::HTTPURLResponseRef response =
      std::make_shared<HTTPURLResponse>(*URL::URLWithString("https://h/"), 204, HTTPHeaderFields());
  EXPECT_EQ(platform::stringWithFormat("%@", {response}), response->description());
  EXPECT_EQ(platform::stringWithFormat("%@", {platform::HTTPURLResponseRef()}), "(null)");
}

TEST(HTTPURLResponse, U3AnAbsentOneReadsZeroAndNothing) {
  EXPECT_EQ(platform::statusCode(nullptr), 0);
  EXPECT_EQ(platform::headerField(nullptr, "Date"), std::nullopt);
}

}  // namespace
