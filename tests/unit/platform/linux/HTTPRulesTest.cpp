// Refusals and redirects without a wire (platform rows U4, U5, U8).
#include <gtest/gtest.h>

#include "platform/linux/HTTPRules.h"

namespace {

using platform::Data;
using platform::HTTPHeaderFields;
using platform::HTTPURLResponse;
using platform::URL;
using platform::URLRequest;

URLRequest requestTo(const char* url, std::string method = "GET") {
  URLRequest request(URL::URLWithString(url));
  request.setHTTPMethod(std::move(method));
  return request;
}

std::int64_t refusalCode(const URLRequest& request) {
  const auto refusal = platform::refusalOfRequest(request);
  return refusal ? refusal->code() : 0;
}

HTTPURLResponse answer(std::int64_t status, std::optional<std::string> location, const char* url = "https://h/a/b?q") {
  HTTPHeaderFields fields;
  fields.setValueForField(location, "Location");
  return HTTPURLResponse(*URL::URLWithString(url), status, fields);
}

TEST(RefusalOfRequest, WhatCanBeSent) {
  EXPECT_EQ(refusalCode(requestTo("https://h/")), 0);
  EXPECT_EQ(refusalCode(requestTo("HTTPS://h")), 0);
  EXPECT_EQ(refusalCode(requestTo("https://h/", "PROPFIND")), 0);
}

TEST(RefusalOfRequest, WhatCannot) {
  EXPECT_EQ(refusalCode(requestTo("no url")), -1002);
  EXPECT_EQ(refusalCode(requestTo("ftp://h/")), -1002);
  EXPECT_EQ(refusalCode(requestTo("h/")), -1002);
  EXPECT_EQ(refusalCode(requestTo("http://h/")), -1022);
  EXPECT_EQ(refusalCode(requestTo("https:/h")), -1000);
  EXPECT_EQ(refusalCode(requestTo("https://:443/")), -1000);
  EXPECT_EQ(refusalCode(requestTo("https://h/", "GET /\r\n")), -1000);
}

TEST(Redirection, U4OnlyTheFiveStatusesAreFollowed) {
  for (int status = 100; status < 600; ++status) {
    const bool followed = status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
    EXPECT_EQ(platform::redirection(requestTo("https://h/a/b?q"), answer(status, "/c")).has_value(), followed) << status;
  }
}

TEST(Redirection, U4TheLocationIsResolved) {
  const auto next = platform::redirection(requestTo("https://h/a/b?q"), answer(302, "../c?d"));
  ASSERT_TRUE(next && *next);
  EXPECT_EQ((*next)->URL()->absoluteString(), "https://h/c?d");
}

TEST(Redirection, U4WithoutAUsableLocationTheAnswerIsHandedOver) {
  for (const std::optional<std::string>& location : {std::optional<std::string>(), {""}, {"a b"}, {"https://h:port/"}, {"/a, /b"}})
    EXPECT_FALSE(platform::redirection(requestTo("https://h/a"), answer(302, location)).has_value());
}

TEST(Redirection, U4AnotherSchemeIsAnError) {
  const auto next = platform::redirection(requestTo("https://h/a"), answer(302, "http://h/a"));
  ASSERT_TRUE(next.has_value());
  ASSERT_FALSE(next->has_value());
  EXPECT_EQ(next->error().code(), -1022);
}

TEST(Redirection, U4U5WhatTheNextRequestKeeps) {
  struct Case {
    int status;
    const char* method;
    const char* nextMethod;
    bool keepsBody;
  };
  for (const auto& [status, method, nextMethod, keepsBody] :
       {Case{301, "POST", "GET", false}, Case{302, "POST", "GET", false}, Case{303, "POST", "GET", false},
        Case{303, "DELETE", "GET", false}, Case{307, "POST", "POST", true}, Case{308, "POST", "POST", true},
        Case{301, "PUT", "PUT", true}, Case{302, "DELETE", "DELETE", true}, Case{303, "HEAD", "HEAD", true},
        Case{303, "GET", "GET", true}}) {
    URLRequest request = requestTo("https://h/a", method);
    request.setHTTPBody(Data("body"));
    request.setValueForHTTPHeaderField("signature", "AUTHORIZATION");
    request.setValueForHTTPHeaderField("text/plain", "content-type");
    request.setValueForHTTPHeaderField("x", "X-Other");
    const auto next = platform::redirection(request, answer(status, "/c"));
    ASSERT_TRUE(next && *next);
    EXPECT_EQ((*next)->HTTPMethod(), nextMethod) << status << method;
    EXPECT_EQ((*next)->HTTPBody().has_value(), keepsBody) << status << method;
    EXPECT_EQ((*next)->valueForHTTPHeaderField("Content-Type").has_value(), keepsBody) << status << method;
    EXPECT_EQ((*next)->valueForHTTPHeaderField("Authorization"), std::nullopt) << status << method;
    EXPECT_EQ((*next)->valueForHTTPHeaderField("X-Other"), "x") << status << method;
  }
}

}  // namespace
