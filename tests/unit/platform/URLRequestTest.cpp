// Header fields and requests (platform rows U6 and U7).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/URLRequest.h"

namespace {

using platform::HTTPHeaderFields;
using platform::URLRequest;
using testing::ElementsAre;
using testing::Pair;

std::vector<HTTPHeaderFields::Field> all(const HTTPHeaderFields& fields) { return {fields.begin(), fields.end()}; }

TEST(HTTPHeaderFields, LookUpIgnoresCase) {
  HTTPHeaderFields fields;
  fields.setValueForField("v", "Content-Type");
  EXPECT_EQ(fields.objectForKey("content-TYPE"), "v");
  EXPECT_EQ(fields.objectForKey("Content-Typ"), std::nullopt);
  EXPECT_EQ(fields.objectForKey(""), std::nullopt);
}

TEST(HTTPHeaderFields, U6SettingReplacesRegardlessOfCaseAndKeepsTheOrder) {
  HTTPHeaderFields fields;
  fields.setValueForField("1", "X-A");
  fields.setValueForField("2", "X-B");
  fields.setValueForField("3", "x-a");
  EXPECT_THAT(all(fields), ElementsAre(Pair("x-a", "3"), Pair("X-B", "2")));
  EXPECT_EQ(fields.count(), 2u);
}

TEST(HTTPHeaderFields, U6SettingAbsentRemoves) {
  HTTPHeaderFields fields;
  fields.setValueForField("1", "X-A");
  fields.setValueForField(std::nullopt, "x-a");
  fields.setValueForField(std::nullopt, "never there");
  EXPECT_EQ(fields.count(), 0u);
}

TEST(HTTPHeaderFields, U6AddingJoinsWithTheSeparator) {
  HTTPHeaderFields fields;
  fields.addValueForField("1", "X-A", ", ");
  fields.addValueForField("2", "x-a", ", ");
  EXPECT_THAT(all(fields), ElementsAre(Pair("X-A", "1, 2")));
}

TEST(HTTPHeaderFields, U6AValueWithALineEndOrNulIsRefusedAndTheFieldStays) {
  HTTPHeaderFields fields;
  fields.setValueForField("good", "X-A");
  for (const std::string& bad : {std::string("a\rb"), std::string("a\nb"), std::string("a\r\nX-B: 1"), std::string("a\0b", 3),
                                 std::string("\n"), std::string("a\r")}) {
    fields.setValueForField(bad, "X-A");
    fields.addValueForField(bad, "X-A", ",");
    fields.setValueForField(bad, "X-New");
    fields.addValueForField(bad, "X-New", ",");
  }
  EXPECT_THAT(all(fields), ElementsAre(Pair("X-A", "good")));
}

TEST(HTTPHeaderFields, U6ANameThatIsNoTokenIsRefused) {
  HTTPHeaderFields fields;
  for (const std::string& name : {std::string(), std::string("a b"), std::string("a:"), std::string("a\r\nb"),
                                  std::string("a\0", 2), std::string("\xC3\xA9"), std::string("a;"), std::string("(a)")}) {
    fields.setValueForField("v", name);
    fields.addValueForField("v", name, ",");
  }
  EXPECT_EQ(fields.count(), 0u);
}

TEST(URLRequest, IsAGETWithoutFieldsAndBody) {
  const URLRequest request(platform::URL::URLWithString("https://h/"));
  EXPECT_EQ(request.HTTPMethod(), "GET");
  EXPECT_EQ(request.allHTTPHeaderFields().count(), 0u);
  EXPECT_EQ(request.HTTPBody(), std::nullopt);
}

TEST(URLRequest, U6AddValueJoinsWithAComma) {
  URLRequest request(std::nullopt);
  request.setValueForHTTPHeaderField("a", "Accept");
  request.addValueForHTTPHeaderField("b", "accept");
  EXPECT_EQ(request.valueForHTTPHeaderField("ACCEPT"), "a,b");
}

TEST(URLRequest, CopiesAreApart) {
  URLRequest request(std::nullopt);
  request.setValueForHTTPHeaderField("a", "X");
  URLRequest copy = request;
  copy.setValueForHTTPHeaderField("b", "X");
  EXPECT_EQ(request.valueForHTTPHeaderField("X"), "a");
}

}  // namespace
