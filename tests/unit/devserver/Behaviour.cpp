// The misbehaviour settings: what they take, what they refuse, and how they are used up.
#include "devserver/Behaviour.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "devserver/Json.h"

namespace devserver {
namespace {

using platform::Value;

/// Applies settings given as JSON; what is wrong with them, or nothing.
std::string change(Behaviour& behaviour, const std::string& json) {
  const auto settings = readJsonObject(json);
  if (!settings) return "not JSON: " + settings.error();
  const auto changed = behaviour.change(*settings);
  return changed ? "" : changed.error();
}

std::string stateOf(const Behaviour& behaviour) { return writeJson(behaviour.state()); }

const std::string kDefaults =
    R"({"answer":null,"clock-offset":0,"close-every":0,"delay":0,"directives":{},"drop":0,"read-rate":0,"stale":null,"status":null})";

TEST(Behaviour, StartsWellBehaved) {
  Behaviour behaviour;
  EXPECT_EQ(stateOf(behaviour), kDefaults);
  EXPECT_EQ(behaviour.take(true).kind, Misbehaviour::Kind::kNone);
  EXPECT_EQ(writeJson(behaviour.directives()), "{}");
}

TEST(Behaviour, KeepsAndShowsEverySetting) {
  Behaviour behaviour;
  EXPECT_EQ(change(behaviour, R"({"clock-offset": -3600, "delay": 250, "close-every": 2, "read-rate": 500, "drop": 3,
      "directives": {"features": 3}, "status": {"code": 503, "next": 4}, "stale": {"time": 17, "tsm": "missing"},
      "answer": {"status": 307, "headers": {"Location": "/shares"}, "body": "gone", "next": 5}})"),
            "");
  EXPECT_EQ(behaviour.clockOffset().count(), -3600);
  EXPECT_EQ(behaviour.delay().count(), 250);
  EXPECT_EQ(behaviour.closeEvery(), 2);
  EXPECT_EQ(behaviour.readRate(), 500);
  EXPECT_EQ(writeJson(behaviour.directives()), R"({"features":3})");
  EXPECT_EQ(
      stateOf(behaviour),
      R"({"answer":{"body":"gone","headers":{"Location":"/shares"},"next":5,"status":307},"clock-offset":-3600,"close-every":2,)"
      R"("delay":250,"directives":{"features":3},"drop":3,"read-rate":500,"stale":{"next":1,"time":17,"tsm":"missing"},)"
      R"("status":{"code":503,"next":4}})");
}

TEST(Behaviour, SummaryIsShortHoweverLongTheSettings) {
  Behaviour behaviour;
  EXPECT_EQ(writeJson(behaviour.summary()), kDefaults);
  EXPECT_EQ(change(behaviour, R"({"answer": {"status": 503, "headers": {"X": "y"}, "body": ")" + std::string(5000, 'b') +
                                  R"(", "next": 2}, "directives": {"d": "ü"}, "delay": 1})"),
            "");
  EXPECT_EQ(writeJson(behaviour.summary()),
            R"({"answer":{"bodyBytes":5000,"next":2,"status":503},"clock-offset":0,"close-every":0,"delay":1,)"
            R"("directives":{"d":"ü"},"drop":0,"read-rate":0,"stale":null,"status":null})");
  std::string most;
  while (most.size() < Behaviour::kMaxDirectives - 8) most += "ü";
  EXPECT_EQ(change(behaviour, R"({"directives": {"d": ")" + most + R"("}})"), "");
  EXPECT_EQ(writeJson(*behaviour.summary().objectForKey("directives")), R"({"d":")" + most + R"("})");
  EXPECT_EQ(change(behaviour, R"({"directives": {"d": ")" + most + R"(x"}})"), "");
  EXPECT_EQ(behaviour.summary().objectForKey("directives"), std::nullopt);
  EXPECT_EQ(behaviour.summary().objectForKey("directivesBytes"), Value(1025));
  EXPECT_EQ(behaviour.summary().objectForKey("directivesBeginning"), Value(R"({"d":")" + most + R"(x")"));
}

TEST(Behaviour, StateCanBeGivenBack) {
  Behaviour behaviour;
  ASSERT_EQ(change(behaviour, R"({"stale": {"tsm": "wrong", "next": 2}, "status": 500, "answer": {"body": {"a": [1]}}})"), "");
  Behaviour other;
  EXPECT_EQ(change(other, stateOf(behaviour)), "");
  EXPECT_EQ(stateOf(other), stateOf(behaviour));
}

TEST(Behaviour, NullAndResetGoBack) {
  Behaviour behaviour;
  const std::string all =
      R"({"clock-offset": 1, "delay": 1, "close-every": 1, "read-rate": 1, "drop": 1, "directives": {"a": 1}, "status": 500,
      "answer": {}, "stale": {}})";
  ASSERT_EQ(change(behaviour, all), "");
  ASSERT_NE(stateOf(behaviour), kDefaults);
  EXPECT_EQ(
      change(behaviour,
             R"({"clock-offset": null, "delay": null, "close-every": null, "read-rate": null, "drop": null, "directives": null,
      "status": null, "answer": null, "stale": null})"),
      "");
  EXPECT_EQ(stateOf(behaviour), kDefaults);
  ASSERT_EQ(change(behaviour, all), "");
  behaviour.reset();
  EXPECT_EQ(stateOf(behaviour), kDefaults);
}

TEST(Behaviour, IsUsedUpInItsOrder) {
  using Kind = Misbehaviour::Kind;
  Behaviour behaviour;
  ASSERT_EQ(change(behaviour, R"({"stale": {}, "status": {"code": 502, "next": 2}, "drop": 1, "answer": {"body": "x"}})"), "");
  EXPECT_EQ(behaviour.take(true).kind, Kind::kDrop);
  const Misbehaviour answer = behaviour.take(true);
  EXPECT_EQ(answer.kind, Kind::kAnswer);
  EXPECT_EQ(answer.answer.status, 200);
  EXPECT_EQ(answer.answer.body, "x");
  EXPECT_EQ(behaviour.take(true).answer.status, 502);
  EXPECT_EQ(behaviour.take(true).kind, Kind::kStatus);
  EXPECT_EQ(behaviour.take(false).kind, Kind::kNone);  // nothing to sign a challenge with
  EXPECT_EQ(behaviour.take(true).kind, Kind::kStale);
  EXPECT_EQ(behaviour.take(true).kind, Kind::kNone);
}

TEST(Behaviour, StaleTakesTheServersTimeUnlessToldAnother) {
  Behaviour behaviour;
  ASSERT_EQ(change(behaviour, R"({"stale": {"next": 1}})"), "");
  const Misbehaviour own = behaviour.take(true);
  EXPECT_EQ(own.time, std::nullopt);
  EXPECT_EQ(own.tsm, Tsm::kGood);
  ASSERT_EQ(change(behaviour, R"({"stale": {"time": 1795205979, "tsm": "wrong"}})"), "");
  const Misbehaviour told = behaviour.take(true);
  EXPECT_EQ(told.time, "1795205979");
  EXPECT_EQ(told.tsm, Tsm::kWrong);
}

TEST(Behaviour, BodyOfAnAnswerIsTextOrJson) {
  Behaviour behaviour;
  ASSERT_EQ(change(behaviour, R"({"answer": {"body": [1, {"a": "b"}]}})"), "");
  EXPECT_EQ(behaviour.take(true).answer.body, R"([1,{"a":"b"}])");
  ASSERT_EQ(change(behaviour, R"({"answer": {"body": "{not json"}})"), "");
  EXPECT_EQ(behaviour.take(true).answer.body, "{not json");
}

TEST(Behaviour, RefusesWhatItDoesNotUnderstandAndChangesNothing) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {R"({"delays": 1})", "there is no setting \"delays\""},
      {R"({"delay": -1})", "delay must be a whole number from 0 to 3600000"},
      {R"({"delay": 1.5})", "delay must be a whole number from 0 to 3600000"},
      {R"({"delay": true})", "delay must be a whole number from 0 to 3600000"},
      {R"({"delay": "1"})", "delay must be a whole number from 0 to 3600000"},
      {R"({"clock-offset": 99999999999})", "clock-offset must be a whole number from -3162240000 to 3162240000"},
      {R"({"read-rate": -1})", "read-rate must be a whole number from 0 to 2147483647"},
      {R"({"drop": -1})", "drop must be a whole number from 0 to 2147483647"},
      {R"({"status": 199})", "status's code must be a whole number from 200 to 999"},
      {R"({"status": {"next": 1}})", "status's code must be a whole number from 200 to 999"},
      {R"({"status": {"code": 500, "times": 1}})", "status has no member \"times\""},
      {R"({"status": {"code": 500, "next": -1}})", "status's next must be a whole number from 0 to 2147483647"},
      {R"({"answer": 200})", "answer must be an object"},
      {R"({"answer": {"status": 1000}})", "answer's status must be a whole number from 200 to 999"},
      {R"({"answer": {"headers": []}})", "answer's headers must be an object of texts"},
      {R"({"answer": {"headers": {"a b": "c"}}})", "\"a b\" is no header field name"},
      {R"({"answer": {"headers": {"a": "b\nc: d"}}})", "the value of a must be a text of one line"},
      {R"({"answer": {"headers": {"a": 1}}})", "the value of a must be a text of one line"},
      {R"({"answer": {"headers": {"Content-Length": "1"}}})", "Content-Length is the server's own to set"},
      {R"({"answer": {"body": 1}})", "answer's body must be a text, an object or an array"},
      {R"({"stale": {"tsm": "bad"}})", "stale's tsm must be \"good\", \"wrong\" or \"missing\""},
      {R"({"stale": {"time": -1}})", "stale's time must be a whole number from 0 to 9223372036854775807"},
      {R"({"directives": []})", "directives must be an object"},
  };
  for (const auto& [json, expected] : cases) {
    Behaviour behaviour;
    EXPECT_EQ(change(behaviour, json), expected) << json;
    EXPECT_EQ(stateOf(behaviour), kDefaults) << json;
  }
  Behaviour behaviour;
  EXPECT_EQ(change(behaviour, R"({"clock-offset": 5, "delay": "x"})"), "delay must be a whole number from 0 to 3600000");
  EXPECT_EQ(stateOf(behaviour), kDefaults);  // all of it or none
}

}  // namespace
}  // namespace devserver
