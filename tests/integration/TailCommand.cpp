// `kestrova tail` beside a running application.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "platform/Value.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/CommandTest.h"
#include "support/DevServer.h"
#include "support/Event.h"
#include "support/Program.h"

namespace test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class Tail : public CommandTest {};

constexpr const char* kFollowing = "kestrova: following ";

TEST_F(Tail, ShowsTheTraceOfAnotherProcessOfTheApplicationUntilItIsStopped) {
  const DevServer server;
  Program tail(binary("kestrova"), {"tail"}, variables(nullptr));
  ASSERT_TRUE(tail.waitForLine(kFollowing));
  ASSERT_EQ(run({"event", "opened"}, &server).end, "exited with 0");
  ASSERT_TRUE(tail.waitForLine("] Events successfully sent to server"));
  tail.signal(SIGINT);
  EXPECT_EQ(tail.waitForEnd(), "exited with 0");
}

TEST_F(Tail, GivesEachLineAsAnObject) {
  Program tail(binary("kestrova"), {"--json", "tail"}, variables(nullptr));
  ASSERT_TRUE(tail.waitForLine(kFollowing));
  ASSERT_EQ(run({"event", "opened"}).end, "exited with 3");
  ASSERT_TRUE(tail.waitForLine("Couldn't submit events: "));
  tail.signal(SIGTERM);
  EXPECT_EQ(tail.waitForEnd(), "exited with 0");
  const auto line = platform::makeRapidJSONSerialization()->read(platform::Data(tail.outputLines().front()));
  ASSERT_TRUE(line && line->isObject()) << tail.output();
  EXPECT_TRUE(line->objectForKey("line"));
  EXPECT_GT(line->objectForKey("process")->integerValue(), 0);
  EXPECT_THAT(line->objectForKey("time")->description(), StartsWith("20"));
}

TEST_F(Tail, EndsWhenNobodyReadsItAnyMoreAndLetsTheNextOneIn) {
  Program tail("/bin/sh", {"-c", "\"$0\" tail | head -n 1", binary("kestrova")}, variables(nullptr));
  ASSERT_TRUE(tail.waitForLine(kFollowing));
  EXPECT_TRUE(becomes([&] {
    (void)run({"event", "opened"});
    Program next(binary("kestrova"), {"tail"}, variables(nullptr));
    const bool isIn = next.waitForLine(kFollowing);
    next.signal(SIGTERM);
    return next.waitForEnd() == "exited with 0" && isIn;
  }));
  EXPECT_EQ(tail.waitForEnd(), "exited with 0");
}

TEST_F(Tail, WhatWouldSteerATerminalIsShownAsText) {
  const DevServer server;
  ASSERT_EQ(server.misbehave(R"({"directives": {"referralCode": "\u001b]0;x\u0007"}})"), "");
  Program tail(binary("kestrova"), {"tail"}, variables(nullptr));
  ASSERT_TRUE(tail.waitForLine(kFollowing));
  ASSERT_EQ(run({"event", "opened"}, &server).end, "exited with 0");
  ASSERT_TRUE(tail.waitForLine("\\x1b]0;x\\x07"));
  tail.signal(SIGTERM);
  EXPECT_EQ(tail.waitForEnd(), "exited with 0");
  EXPECT_EQ(tail.output().find('\x1b'), std::string::npos);
}

TEST_F(Tail, TwoOnOneApplicationAreOneTooMany) {
  Program first(binary("kestrova"), {"tail"}, variables(nullptr));
  ASSERT_TRUE(first.waitForLine(kFollowing));
  const Run second = run({"tail"});
  EXPECT_EQ(second.end, "exited with 1");
  EXPECT_THAT(second.errors, HasSubstr("another `kestrova tail` follows this application already"));
}

}  // namespace
}  // namespace test
