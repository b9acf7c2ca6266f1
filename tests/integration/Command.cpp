// The kestrova command as people and scripts use it: real processes, a real server, exit statuses and reports.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/Value.h"
#include "support/CommandTest.h"
#include "support/DevServer.h"
#include "support/Program.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

using platform::Value;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

class Command : public CommandTest {
 protected:
  static std::string lines(int count, int first = 0) {
    std::string text;
    for (int n = first; n < first + count; ++n)
      text += "{\"event\": \"gif-viewed\", \"data\": {\"n\": " + std::to_string(n) + "}}\n";
    return text;
  }
  static std::vector<int> numbers(const DevServer& server) {
    std::vector<int> all;
    for (const Value& record : server.takenRecords())
      all.push_back(record.objectForKey("eventData")->objectForKey("n")->intValue());
    return all;
  }
};

TEST_F(Command, AThousandEventsAreDeliveredExactlyOnce) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const Run done = run({"--json", "events", file("events", lines(1000))}, &server);
  EXPECT_EQ(done.end, "exited with 0") << done.errors;
  EXPECT_EQ(done.number("recorded"), 1000U);
  EXPECT_EQ(done.number("delivered"), 1000U);
  EXPECT_EQ(done.number("kept"), 0U);
  EXPECT_EQ(done.number("lost"), 0U);
  std::vector<int> received = numbers(server);
  ASSERT_EQ(received.size(), 1000U);
  std::ranges::sort(received);
  for (int n = 0; n < 1000; ++n) ASSERT_EQ(received[static_cast<std::size_t>(n)], n);
}

TEST_F(Command, OneEventWithData) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const Run done = run({"event", "opened", "--data", R"({"n": 7, "text": "grüße"})"}, &server);
  EXPECT_EQ(done.end, "exited with 0") << done.errors;
  EXPECT_EQ(done.output, "1 event recorded: 1 delivered, 0 kept on disk, 0 lost.\n");
  ASSERT_EQ(server.takenRecords().size(), 1U);
  const Value record = server.takenRecords()[0];
  EXPECT_EQ(record.objectForKey("event"), Value("opened"));
  EXPECT_EQ(record.objectForKey("eventData")->objectForKey("text"), Value("grüße"));
}

TEST_F(Command, EventsComeFromStandardInputToo) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  Program program(binary("kestrova"), {"--json", "events", "-"}, variables(&server));
  ASSERT_TRUE(program.write(lines(12)));
  program.closeInput();
  const Run done = finish(program);
  EXPECT_EQ(done.end, "exited with 0") << done.errors;
  EXPECT_EQ(done.number("delivered"), 12U);
}

TEST_F(Command, BadLinesAreNamedAndSkippedAndTheRestGoesOn) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const std::string input =
      "{\"event\": \"a\", \"data\": {\"n\": 1}}\nno json\n[]\n{\"data\": {}}\n{\"event\": 5}\n\n{\"event\": \"b\", \"data\": 1}\n"
      "{\"event\": \"c\", \"date\": {}}\n{\"event\": \"\"}\n{\"event\": \"d\", \"data\": {\"n\": 2}}";
  const Run done = run({"--json", "events", file("events", input)}, &server);
  EXPECT_EQ(done.end, "exited with 2");
  EXPECT_EQ(done.number("delivered"), 2U);
  EXPECT_THAT(done.errors, testing::ContainsRegex("kestrova: line 2: not valid JSON: [^.]+\\. Byte [0-9]+; skipped\n"));
  EXPECT_THAT(done.errors, HasSubstr("kestrova: line 3: not a JSON object; skipped"));
  EXPECT_THAT(done.errors, HasSubstr("kestrova: line 4: \"event\" is missing; skipped"));
  EXPECT_THAT(done.errors, HasSubstr("kestrova: line 5: \"event\" is not a name; skipped"));
  EXPECT_THAT(done.errors, HasSubstr("kestrova: line 7: \"data\" is not a JSON object; skipped"));
  EXPECT_THAT(done.errors, HasSubstr("kestrova: line 8: unknown key \"date\"; skipped"));
  EXPECT_THAT(done.errors, HasSubstr("kestrova: line 9: \"event\" is not a name; skipped"));
  EXPECT_EQ(done.report.objectForKey("badLines")->count(), 7U);
  EXPECT_EQ(done.number("badLineCount"), 7U);
}

TEST_F(Command, WhatCannotBeDeliveredIsKeptAndFlushed) {
  const Run away = run({"--json", "events", file("events", lines(25))});
  EXPECT_EQ(away.end, "exited with 3") << away.errors;
  EXPECT_EQ(away.number("delivered"), 0U);
  EXPECT_EQ(away.number("kept"), 25U);
  EXPECT_EQ(away.number("lost"), 0U);
  EXPECT_THAT(away.output, HasSubstr("Could not connect to the server."));

  const Run queue = run({"queue", "--json"});
  EXPECT_EQ(queue.end, "exited with 0");
  EXPECT_EQ(queue.number("records"), 25U);
  EXPECT_EQ(queue.number("badLines"), 0U);

  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const Run flushed = run({"--json", "flush"}, &server);
  EXPECT_EQ(flushed.end, "exited with 0") << flushed.errors;
  EXPECT_EQ(flushed.number("waiting"), 25U);
  EXPECT_EQ(flushed.number("delivered"), 25U);
  EXPECT_EQ(numbers(server).size(), 25U);
  EXPECT_EQ(run({"queue", "--json"}).number("records"), 0U);
}

TEST_F(Command, FlushingAnEmptyQueueIsDone) {
  const Run done = run({"flush"});
  EXPECT_EQ(done.end, "exited with 0") << done.errors;
  EXPECT_EQ(done.output, "0 events recorded: 0 delivered, 0 kept on disk, 0 lost.\n");
}

TEST_F(Command, ARefusedClockChallengeIsALossWithItsReason) {
  DevServer server({"--stale", R"({"tsm": "wrong", "next": 5})"});
  ASSERT_EQ(server.fault(), "");
  const Run done = run({"event", "opened"}, &server);
  EXPECT_EQ(done.end, "exited with 4");
  EXPECT_THAT(done.output, testing::StartsWith("1 event recorded: 0 delivered, 0 kept on disk, 1 lost.\n"));
  EXPECT_THAT(done.output, testing::EndsWith("\n`kestrova doctor` looks for the cause.\n"));
  EXPECT_THAT(done.output, HasSubstr("refused a batch's signature (401)"));
}

TEST_F(Command, TheQueueShowsOldestNewestAndWhatIsBroken) {
  run({"event", "first", "--data", R"({"localTime": "2026-01-01T00:00:00.000Z"})"});
  run({"event", "last", "--data", R"({"localTime": "2026-02-02T00:00:00.000Z"})"});
  const std::string path = std::string(run({"queue", "--json"}).report.objectForKey("path")->string().view());
  std::ofstream(path, std::ios::app | std::ios::binary) << "broken\n{\"tail";
  const Run queue = run({"queue", "--json"});
  EXPECT_EQ(queue.number("records"), 2U);
  EXPECT_EQ(queue.number("badLines"), 1U);
  EXPECT_EQ(queue.report.objectForKey("oldest"), Value("2026-01-01T00:00:00.000Z"));
  EXPECT_EQ(queue.report.objectForKey("newest"), Value("2026-02-02T00:00:00.000Z"));
  EXPECT_EQ(queue.report.objectForKey("unendedTail"), Value(true));
  const Run text = run({"queue"});
  EXPECT_THAT(text.output, HasSubstr("2 records"));
  EXPECT_THAT(text.output, HasSubstr("1 line that does not parse; the next send drops it"));
}

TEST_F(Command, StatusTellsIdentityCorrectionAndSwitchedOffFeatures) {
  DevServer server({"--clock-offset", "3600", "--directives", R"({"features": 5, "reasons": {"0": "maintenance"}})"});
  ASSERT_EQ(server.fault(), "");
  const Run before = run({"status", "--json"}, &server);
  EXPECT_EQ(before.end, "exited with 0");
  EXPECT_EQ(before.number("clockCorrection"), 0U);
  EXPECT_EQ(before.report.objectForKey("device"), Value()) << "it is made with the first event";
  EXPECT_EQ(run({"event", "opened"}, &server).end, "exited with 0");
  const Run after = run({"status", "--json"}, &server);
  EXPECT_NEAR(static_cast<double>(after.number("clockCorrection")), 3600, 30);
  EXPECT_EQ(after.number("disabledFeatures"), 5U);
  EXPECT_EQ(after.report.objectForKey("device")->string().length(), 36U);
  EXPECT_EQ(after.report.objectForKey("device"), run({"status", "--json"}).report.objectForKey("device"))
      << "the device keeps its identifier";
  EXPECT_EQ(after.report.objectForKey("application"), Value(DevServer::kAppId));
}

TEST_F(Command, WhenTheTimeIsUpWhatIsUnansweredIsWrittenBack) {
  DevServer server({"--delay", "60000"});
  ASSERT_EQ(server.fault(), "");
  const Run done = run({"--json", "--timeout", "1", "event", "opened"}, &server);
  EXPECT_EQ(done.end, "exited with 3") << done.errors;
  EXPECT_EQ(done.number("kept"), 1U);
  EXPECT_THAT(done.output, HasSubstr("Couldn't submit events: cancelled"));
}

TEST_F(Command, WhenTheTimeIsUpWhileTheInputIsReadTheRestIsToldAndTheStatusIsALoss) {
  DevServer server({"--delay", "60000"});
  ASSERT_EQ(server.fault(), "");
  const Run done = run({"--json", "--timeout", "1", "events", file("events", lines(300))}, &server);
  EXPECT_EQ(done.end, "exited with 4") << done.errors;
  EXPECT_EQ(done.report.objectForKey("inputUnread"), Value(true));
  EXPECT_EQ(done.number("recorded"), 10U);
  EXPECT_EQ(done.number("kept"), 10U);
  EXPECT_EQ(done.number("lost"), 0U);
}

TEST_F(Command, SignalsStopItAndWhatIsInMemoryIsKept) {
  for (const int signal : {SIGINT, SIGTERM}) {
    TemporaryDirectory fresh;
    DevServer server({"--delay", "60000"});
    ASSERT_EQ(server.fault(), "");
    Program::Variables all = variables(&server);
    all.emplace_back("KESTROVA_HOME", fresh.path());
    Program program(binary("kestrova"), {"--json", "--debug", "events", "-"}, all);
    ASSERT_TRUE(program.write(lines(3)));
    // Each of the first events is waited for, so the last one has been recorded when the one before it has.
    ASSERT_TRUE(program.write("not json\n"));
    ASSERT_TRUE(program.waitForLine("line 4: "));
    program.signal(signal);
    const Run done = finish(program);
    EXPECT_EQ(done.end, "exited with 3") << done.errors;
    EXPECT_EQ(done.number("kept"), 3U);
    EXPECT_EQ(done.report.objectForKey("interrupted"), Value(true));
  }
}

TEST_F(Command, DebugPrintsTraceLinesAsTheyAreStored) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const Run done = run({"--debug", "event", "opened"}, &server);
  EXPECT_THAT(done.errors, HasSubstr("Events successfully sent to server\n"));
  EXPECT_THAT(run({"event", "opened"}, &server).errors, Not(HasSubstr("Events successfully sent")));
}

TEST_F(Command, BadUsageIsToldWithStatus2) {
  const auto withStatus2 = [&](const std::vector<std::string>& arguments, const std::string& word, Program::Variables more = {}) {
    const Run done = run(arguments, nullptr, std::move(more));
    EXPECT_EQ(done.end, "exited with 2") << word;
    EXPECT_THAT(done.errors, HasSubstr(word));
  };
  withStatus2({"event", "a", "--data", "[1]"}, "--data: not a JSON object");
  withStatus2({"event", "a", "--data", "{"}, "--data: not valid JSON");
  withStatus2({"events", home.path() + "/none"}, "No such file");
}

TEST_F(Command, LookingAtAnApplicationThatIsNotThereMakesNothing) {
  const std::string folder = home.path() + "/home/com.example.mistyped";
  const Run queue = run({"--bundle-id", "com.example.mistyped", "queue"});
  EXPECT_EQ(queue.end, "exited with 0");
  EXPECT_EQ(queue.output, folder +
                              "/application-support/event-queue.json: 0 records, 0 bytes\n"
                              "Its folder is not there: nothing was ever kept under this identifier.\n");
  EXPECT_EQ(run({"--bundle-id", "com.example.mistyped", "--json", "queue"}).number("records"), 0U);
  const Run status = run({"--bundle-id", "com.example.mistyped", "status"});
  EXPECT_EQ(status.end, "exited with 0");
  EXPECT_THAT(status.output, HasSubstr("\ndevice            (none yet)\n"));
  EXPECT_THAT(status.output, HasSubstr("\nstate             " + folder + " (not there yet)\n"));
  EXPECT_FALSE(std::filesystem::exists(home.path() + "/home"));
}

TEST_F(Command, AHomeThatCannotBeMadeIsNamedAsItIs) {
  (void)file("home", "in the way");
  const Run done = run({"event", "opened"});
  EXPECT_EQ(done.end, "exited with 2");
  EXPECT_EQ(done.errors, "kestrova: cannot make " + home.path() + "/home/" + DevServer::kAppId + ": Not a directory\n");
}

TEST_F(Command, AHomeBelowTheWorkingFolderIsTaken) {
  const std::string relative = std::filesystem::relative(home.path() + "/elsewhere");
  EXPECT_EQ(run({"--home", relative, "event", "opened"}).end, "exited with 3");
  EXPECT_TRUE(std::filesystem::exists(home.path() + "/elsewhere/" + DevServer::kAppId + "/application-support/event-queue.json"));
}

TEST_F(Command, UploadsNeedAnIdentifier) {
  for (const std::vector<std::string>& command : {std::vector<std::string>{"uploads"}, {"upload", "cat.gif", "--share-id", "x"}}) {
    const Run done = run(command, nullptr, {{"KESTROVA_BUNDLE_ID", ""}});
    EXPECT_EQ(done.end, "exited with 2");
    EXPECT_EQ(done.errors, "kestrova: " + command[0] + " needs --bundle-id (or KESTROVA_BUNDLE_ID)\n" +
                               "Run `kestrova --help` to see what it takes.\n");
  }
}

TEST_F(Command, WhoWaitsForAnotherCommandSaysSo) {
  ASSERT_EQ(run({"event", "opened"}).end, "exited with 3");
  const std::string folder = home.path() + "/home/" + DevServer::kAppId + "/application-support";
  const int held = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(held, LOCK_EX), 0);
  const Run done = run({"--timeout", "0.1", "event", "opened"});
  EXPECT_EQ(done.end, "exited with 2");
  EXPECT_EQ(done.errors, "kestrova: another kestrova uses " + folder + "; waiting for its end\n" +
                             "kestrova: another kestrova still uses " + folder + "; wait longer with --timeout\n");
  close(held);
}

TEST_F(Command, AWrongCommandLineIsToldInOneSentenceWithTheWayToHelp) {
  struct Case {
    std::vector<std::string> arguments;
    std::string sentence;
    std::string helpOf;  // the command whose help is offered
  };
  const std::string missing = home.path() + "/none";
  for (const Case& wrong : std::vector<Case>{
           {{}, "a command is missing", ""},
           {{"nonsense"}, "there is no command \"nonsense\"", ""},
           {{"evnet", "opened"}, "there is no command \"evnet\"; did you mean \"event\"?", ""},
           {{"share"}, "share needs one of its commands: submit, refresh, list", " share"},
           {{"share", "lst"}, "there is no command \"lst\"; did you mean \"list\"?", " share"},
           {{"event"}, "event needs NAME", " event"},
           {{"--home", "", "queue"}, "--home: \"\" is no folder", ""},
           {{"event", ""}, "the event's name is empty", " event"},
           {{"event", "opened", "--data"}, "--data needs a value", " event"},
           {{"share", "submit"}, "share submit needs --data", " share submit"},
           {{"flush"}, "flush needs --secret-file (or KESTROVA_SECRET)", ""},
           {{"queue", "x", "y"}, "\"x\" is one word too many for queue", " queue"},
           {{"queue", "--jsn"}, "there is no option --jsn; did you mean \"--json\"?", ""},
           {{"event", "--dta={}"}, "there is no option --dta; did you mean \"--data\"?", " event"},
           {{"--nonsense", "queue"}, "there is no option --nonsense", " queue"},
           {{"queue", "--home"}, "--home needs a value", ""},
           {{"--home", "a", "--home", "b", "queue"}, "--home stands more than once", ""},
           {{"--json=maybe", "queue"}, "--json takes no value", ""},
           {{"--timeout", "soon", "queue"}, "--timeout: \"soon\" is no number from 0 to 1000000", ""},
           {{"--timeout", "-1", "queue"}, "--timeout: \"-1\" is no number from 0 to 1000000", ""},
           {{"--secret-file", missing, "queue"}, "--secret-file: cannot read " + missing + ": No such file or directory", ""},
           {{"--api-host", "https://example.com/", "queue"},
            "--api-host: \"https://example.com/\" is no host name with an optional port, as in api.example.com:8443",
            ""}}) {
    const Run done = run(wrong.arguments, nullptr, {{"KESTROVA_SECRET", ""}});
    EXPECT_EQ(done.end, "exited with 2");
    EXPECT_EQ(done.output, "");
    EXPECT_EQ(done.errors, "kestrova: " + wrong.sentence + "\nRun `kestrova" + wrong.helpOf + " --help` to see what it takes.\n");
  }
}

TEST_F(Command, AFileOfBadLinesDoesNotFloodTheTerminal) {
  std::string input;
  for (int line = 1; line <= 1000; ++line) input += line == 500 ? "{\"event\": \"a\"}\n" : "[]\n";
  const Run done = run({"--json", "events", file("events", input)});
  EXPECT_EQ(done.end, "exited with 3");
  std::string expected;
  for (int line = 1; line <= 10; ++line) expected += "kestrova: line " + std::to_string(line) + ": not a JSON object; skipped\n";
  EXPECT_EQ(done.errors, expected + "kestrova: 989 more lines skipped\n");
  EXPECT_EQ(done.number("recorded"), 1U);
  EXPECT_EQ(done.number("badLineCount"), 999U);
  EXPECT_EQ(done.report.objectForKey("badLines")->count(), 10U);

  const Run eleven = run({"events", file("events", "[]\n[]\n[]\n[]\n[]\n[]\n[]\n[]\n[]\n[]\n[]\n")});
  EXPECT_THAT(eleven.errors, EndsWith("kestrova: line 10: not a JSON object; skipped\nkestrova: 1 more line skipped\n"));
}

TEST_F(Command, HelpIsNoError) {
  const Run help = run({"--help"});
  EXPECT_EQ(help.end, "exited with 0");
  EXPECT_THAT(help.output, HasSubstr("Examples:"));
  const Run ofCommand = run({"event", "--help"});
  EXPECT_EQ(ofCommand.end, "exited with 0");
  EXPECT_THAT(ofCommand.output, Not(HasSubstr("Examples:")));
  EXPECT_THAT(ofCommand.output, HasSubstr("`kestrova --help` has the options of all commands"));
}

TEST_F(Command, TheSecretIsReadFromAFileAndIsNowhereToBeSeen) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const std::string secretFile = file("secret", std::string(DevServer::kSecret) + "\n");
  const Run done = run({"--debug", "--secret-file", secretFile, "event", "opened"}, &server, {{"KESTROVA_SECRET", "wrong"}});
  EXPECT_EQ(done.end, "exited with 0") << done.errors;
  EXPECT_THAT(done.output + done.errors, Not(HasSubstr(DevServer::kSecret)));
}

}  // namespace
}  // namespace test
