// The newest session-started event of each device: which it is, and what a patch adds.
#include "devserver/Sessions.h"

#include <gtest/gtest.h>

#include <string>

#include "devserver/Json.h"

namespace devserver {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;

Value record(const Value& time, int n, const std::string& event = "session-started") {
  return Value(Dictionary{{"event", event}, {"eventData", Dictionary{{"n", n}}}, {"localTime", time}});
}
std::string patched(Sessions& sessions, const Dictionary& data, const std::string& device = "device") {
  const auto event = sessions.patch("app", device, data);
  return event ? writeJson(*event->find("eventData")) : "none";
}

TEST(Sessions, NewestIsByItsTimeNotByItsComing) {
  Sessions sessions;
  sessions.note("app", "device", {record("2026-11-20T20:19:39.000Z", 1), record("2026-11-20T20:19:41.000Z", 2)});
  sessions.note("app", "device", {record("2026-11-20T20:19:40.000Z", 3), record("2026-11-20T21:00:00.000Z", 4, "opened")});
  EXPECT_EQ(patched(sessions, {{"link", "x"}}), R"({"link":"x","n":2})");
  sessions.note("app", "device", {record("2026-11-20T20:19:41.000Z", 5)});
  EXPECT_EQ(patched(sessions, {}), R"({"n":5})");
  sessions.note("app", "device", {record(nullptr, 6)});
  EXPECT_EQ(patched(sessions, {}), R"({"n":6})");
}

TEST(Sessions, PatchesAddUpAndReplace) {
  Sessions sessions;
  sessions.note("app", "device", {record("2026-11-20T20:19:39.000Z", 1)});
  EXPECT_EQ(patched(sessions, {{"a", 1}}), R"({"a":1,"n":1})");
  EXPECT_EQ(patched(sessions, {{"b", 2}, {"n", 9}}), R"({"a":1,"b":2,"n":9})");
  EXPECT_EQ(writeJson(Value(sessions.all())),
            R"([{"app":"app","device":"device","event":{"event":"session-started","eventData":{"a":1,"b":2,"n":9},)"
            R"("localTime":"2026-11-20T20:19:39.000Z"}}])");
}

TEST(Sessions, DevicesAreApart) {
  Sessions sessions;
  sessions.note("app", "device", {record("2026-11-20T20:19:39.000Z", 1)});
  EXPECT_EQ(patched(sessions, {{"a", 1}}, "another"), "none");
  EXPECT_FALSE(sessions.patch("other", "device", {{"a", 1}}).has_value());
  EXPECT_EQ(patched(sessions, {}), R"({"n":1})");
}

TEST(Sessions, OldestDeviceIsForgotten) {
  Sessions sessions({2, 100'000});
  for (const char* device : {"a", "b", "c"}) sessions.note("app", device, {record("2026-11-20T20:19:39.000Z", 1)});
  EXPECT_EQ(patched(sessions, {}, "a"), "none");
  EXPECT_EQ(patched(sessions, {}, "b"), R"({"n":1})");
  EXPECT_EQ(patched(sessions, {}, "c"), R"({"n":1})");
}

}  // namespace
}  // namespace devserver
