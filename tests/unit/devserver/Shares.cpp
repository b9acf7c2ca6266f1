// The shares that the server keeps: their form, their codes, the way of their states, and their bounds.
#include "devserver/Shares.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "devserver/Json.h"

namespace devserver {
namespace {

using platform::Dictionary;
using platform::Value;
using std::chrono::milliseconds;

constexpr milliseconds kNow{1795205979250};
const std::string kApp = "com.example.app";
const std::string kDevice = "3F2504E0-4F89-41D3-9A0C-0305E82C3301";

std::string foundText(const Shares& shares, const std::string& codes) { return writeJson(Value(shares.find(codes))); }
std::string change(Shares& shares, const Dictionary& states, milliseconds now = kNow) {
  const auto changed = shares.change(states, now);
  return changed ? "" : changed.error();
}
std::string codeParts(const std::string& code) {
  return R"("referralCode":{"shareId":")" + code.substr(8) + R"(","userId":")" + code.substr(0, 8) + R"("})";
}

TEST(Shares, AreKeptWithCodeStateAndTimes) {
  Shares shares;
  const std::string code = shares.submit(kApp, kDevice, {{"data", Dictionary{{"gif", "a"}}}, {"state", 3}}, kNow);
  EXPECT_THAT(code, testing::MatchesRegex("[A-Za-z0-9]+"));
  EXPECT_EQ(code.size(), 18U);
  EXPECT_EQ(foundText(shares, code),
            R"([{"createdAt":1795205979.25,"data":{"gif":"a"},)" + codeParts(code) + R"(,"state":0,"updatedAt":1795205979.25}])");
}

TEST(Shares, TimeOfMakingIsTheSendersWhereItSaysOne) {
  Shares shares;
  const std::string code = shares.submit(kApp, kDevice, {{"createdAt", 17.5}, {"updatedAt", 18}}, kNow);
  EXPECT_EQ(foundText(shares, code), R"([{"createdAt":17.5,)" + codeParts(code) + R"(,"state":0,"updatedAt":1795205979.25}])");
}

TEST(Shares, DeviceOfAnApplicationIsOneUser) {
  Shares shares;
  const auto userOf = [&](const std::string& app, const std::string& device) {
    return shares.submit(app, device, {}, kNow).substr(0, 8);
  };
  const std::string user = userOf(kApp, kDevice);
  EXPECT_EQ(userOf(kApp, kDevice), user);
  EXPECT_NE(userOf(kApp, "another"), user);
  EXPECT_NE(userOf("com.example.other", kDevice), user);
}

TEST(Shares, AreFoundInTheOrderAskedForWithoutUnknownOnes) {
  Shares shares;
  const std::string a = shares.submit(kApp, kDevice, {}, kNow);
  const std::string b = shares.submit(kApp, kDevice, {}, kNow);
  const auto codesOf = [](const platform::Array& found) {
    std::vector<std::string> codes;
    for (const Value& share : found) {
      const Value code = *share.objectForKey("referralCode");
      codes.push_back(std::string(code.objectForKey("userId")->string().view()) +
                      std::string(code.objectForKey("shareId")->string().view()));
    }
    return codes;
  };
  EXPECT_THAT(codesOf(shares.find(b + ",unknown,," + a + "," + b)), testing::ElementsAre(b, a, b));
  EXPECT_THAT(codesOf(shares.find("")), testing::IsEmpty());
  EXPECT_THAT(codesOf(shares.all()), testing::ElementsAre(a, b));
}

TEST(Shares, StateOnlyMovesForwards) {
  Shares shares;
  const std::string code = shares.submit(kApp, kDevice, {}, kNow);
  EXPECT_EQ(shares.advance(code, ShareState::kClicked, kNow + milliseconds(1000)), ShareState::kClicked);
  EXPECT_THAT(foundText(shares, code), testing::HasSubstr(R"("state":1,"updatedAt":1795205980.25)"));
  EXPECT_EQ(change(shares, {{code, "installed"}}, kNow + milliseconds(2000)), "");
  EXPECT_EQ(shares.advance(code, ShareState::kClicked, kNow + milliseconds(3000)), ShareState::kInstalled);
  EXPECT_THAT(foundText(shares, code), testing::HasSubstr(R"("state":3,"updatedAt":1795205981.25)"));
  EXPECT_EQ(change(shares, {{code, "opened"}}), code + " is installed already");
  EXPECT_EQ(change(shares, {{code, "installed"}}, kNow + milliseconds(4000)), "");
  EXPECT_THAT(foundText(shares, code), testing::HasSubstr(R"("state":3,"updatedAt":1795205981.25)"));
  EXPECT_EQ(shares.advance("unknown", ShareState::kClicked, kNow), std::nullopt);
}

TEST(Shares, ChangeIsMadeWholeOrNotAtAll) {
  Shares shares;
  const std::string code = shares.submit(kApp, kDevice, {}, kNow);
  const std::string before = foundText(shares, code);
  EXPECT_EQ(change(shares, {{code, "opened"}, {"~", "opened"}}), "there is no share \"~\"");
  EXPECT_EQ(change(shares, {{code, "seen"}}), "the state of " + code + R"( must be "sent", "clicked", "opened" or "installed")");
  EXPECT_EQ(change(shares, {{code, 2}}), "the state of " + code + R"( must be "sent", "clicked", "opened" or "installed")");
  EXPECT_EQ(foundText(shares, code), before);
}

TEST(Shares, MembersOfTheWrongKindAreAFault) {
  EXPECT_EQ(faultOfShare({}), "");
  EXPECT_EQ(faultOfShare({{"more", 1}, {"state", nullptr}, {"URL", "https://a.example/b"}, {"createdAt", 1}, {"updatedAt", 1.5}}),
            "");
  EXPECT_EQ(faultOfShare({{"createdAt", UINT64_MAX}}), "");
  EXPECT_EQ(faultOfShare({{"isFallback", 1}}), "isFallback is no boolean");
  EXPECT_EQ(faultOfShare({{"state", 4}}), "state is no whole number from 0 to 3");
  EXPECT_EQ(faultOfShare({{"state", -1}}), "state is no whole number from 0 to 3");
  EXPECT_EQ(faultOfShare({{"state", 1.0}}), "state is no whole number from 0 to 3");
  EXPECT_EQ(faultOfShare({{"createdAt", "now"}}), "createdAt is no number");
  EXPECT_EQ(faultOfShare({{"updatedAt", true}}), "updatedAt is no number");
  EXPECT_EQ(faultOfShare({{"data", platform::Array()}}), "data is no object");
  EXPECT_EQ(faultOfShare({{"URL", 1}}), "URL is no URL");
  EXPECT_EQ(faultOfShare({{"URL", "http://["}}), "URL is no URL");
  EXPECT_EQ(faultOfShare({{"referralCode", "abcdefgh1"}}), "referralCode is no object");
}

TEST(Shares, OldestGoesWhenThereAreTooMany) {
  Shares shares({2, 1'000'000});
  const std::string a = shares.submit(kApp, kDevice, {}, kNow);
  const std::string b = shares.submit(kApp, kDevice, {}, kNow);
  shares.advance(a, ShareState::kClicked, kNow);  // what moves on grows no younger
  const std::string c = shares.submit(kApp, kDevice, {}, kNow);
  EXPECT_EQ(shares.find(a).count(), 0U);
  EXPECT_EQ(shares.find(b + "," + c).count(), 2U);
}

TEST(Shelf, BytesAreBounded) {
  Shelf shelf({100, 1000});
  for (int n = 0; n < 50; ++n) {
    shelf.put("name" + std::to_string(n), {{"text", std::string(100, 'x')}});
    EXPECT_LE(shelf.bytes(), 1000U);
  }
  EXPECT_EQ(shelf.find("name0"), nullptr);
  EXPECT_NE(shelf.find("name49"), nullptr);
  EXPECT_EQ(shelf.names().size(), 8U);  // 111 bytes of text and 6 of name each

  shelf.replace("name49", {{"text", std::string(500, 'x')}});
  EXPECT_LE(shelf.bytes(), 1000U);
  EXPECT_NE(shelf.find("name49"), nullptr);
  shelf.put("large", {{"text", std::string(2000, 'x')}});
  EXPECT_EQ(shelf.bytes(), 0U);
  EXPECT_TRUE(shelf.names().empty());
}

TEST(Shelf, PuttingAgainMakesNewest) {
  Shelf shelf({2, 1000});
  shelf.put("a", {});
  shelf.put("b", {});
  shelf.put("a", {{"n", 2}});
  shelf.put("c", {});
  EXPECT_THAT(shelf.names(), testing::ElementsAre("a", "c"));
  EXPECT_EQ(*shelf.find("a"), (Dictionary{{"n", 2}}));
}

}  // namespace
}  // namespace devserver
