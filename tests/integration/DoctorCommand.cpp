// `kestrova doctor`: each thing that it looks at, well and ill, against a real server and a real transfer service's folder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Value.h"
#include "support/CommandTest.h"
#include "support/DevServer.h"
#include "support/Event.h"
#include "support/Files.h"
#include "support/Program.h"
#include "support/TlsTestServer.h"

namespace test {
namespace {

using platform::Value;
using testing::HasSubstr;
using testing::Not;

class Doctor : public CommandTest {
 protected:
  /// With a folder for the transfer service of this test alone.
  Run examine(const DevServer* server, Program::Variables more = {}, const std::vector<std::string>& options = {"--json"}) {
    more.emplace_back("KESTROVA_TRANSFER_DIR", transfers());
    std::vector<std::string> arguments = options;
    arguments.emplace_back("doctor");
    return run(arguments, server, more);
  }
  static std::string text(const Run& run, std::string_view subject, std::string_view key) {
    const auto findings = run.report.objectForKey("findings");
    if (!findings) return "no findings: " + run.output + run.errors;
    for (const Value& finding : findings->array())
      if (finding.objectForKey("subject") == Value(std::string(subject))) return finding.objectForKey(key)->description();
    return "nothing on " + std::string(subject);
  }
  std::string queueFile() const { return home.path() + "/home/" + DevServer::kAppId + "/application-support/event-queue.json"; }
};

TEST_F(Doctor, FindsAllWellBesideAServerThatAnswers) {
  const DevServer server;
  ASSERT_EQ(run({"event", "opened"}, &server).end, "exited with 0");
  const Run done = examine(&server);
  EXPECT_EQ(done.end, "exited with 0") << done.output << done.errors;
  for (const char* subject : {"application", "secret", "folder", "queue", "server", "clock", "uploads"})
    EXPECT_EQ(text(done, subject, "state"), "well") << subject << ": " << text(done, subject, "what");
  EXPECT_EQ(text(done, "last run", "state"), "nothing on last run");
  EXPECT_EQ(text(done, "clock", "what"), "the stored correction is 0 s, and agrees with the server's");
  EXPECT_EQ(text(done, "secret", "what"), "is the one that the server knows, and is shown nowhere");
  EXPECT_EQ(text(done, "queue", "what"), "is empty: nothing waits");
  EXPECT_EQ(text(done, "server", "what"), server.host() + " answers, and its certificate is trusted");
  EXPECT_THAT(done.output + done.errors, Not(HasSubstr(DevServer::kSecret)));
}

TEST_F(Doctor, ASecretThatTheServerDoesNotKnowIsIllAndNothingIsTaken) {
  const DevServer server;
  const Run done = examine(&server, {{"KESTROVA_SECRET", "another secret"}});
  EXPECT_EQ(done.end, "exited with 1");
  EXPECT_EQ(text(done, "secret", "state"), "ill");
  EXPECT_EQ(text(done, "secret", "what"), std::string("is not the one that the server knows for ") + DevServer::kAppId);
  EXPECT_EQ(text(done, "secret", "advice"), "compare it with the server's; events that are signed with it are refused and lost");
  EXPECT_THAT(done.output + done.errors, Not(HasSubstr("another secret")));
  (void)examine(&server);
  EXPECT_THAT(server.takenRecords(), testing::IsEmpty());
}

TEST_F(Doctor, AnApplicationThatTheServerDoesNotKnowIsIll) {
  const DevServer server;
  const Run done = examine(&server, {{"KESTROVA_BUNDLE_ID", "com.example.unknown"}});
  EXPECT_EQ(done.end, "exited with 1");
  EXPECT_EQ(text(done, "secret", "what"), "is not the one that the server knows for com.example.unknown");
}

TEST_F(Doctor, AuthoritiesThatCannotBeReadAreNamed) {
  const DevServer server;
  const Run done = examine(&server, {{"SSL_CERT_FILE", "/nowhere/ca.pem"}});
  EXPECT_EQ(text(done, "server", "state"), "ill");
  EXPECT_EQ(text(done, "server", "advice"), "SSL_CERT_FILE names /nowhere/ca.pem, which cannot be read");
}

TEST_F(Doctor, SaysInLinesWhatToDo) {
  const Run done = examine(nullptr, {}, {});
  EXPECT_EQ(done.end, "exited with 1");
  EXPECT_THAT(done.output, HasSubstr("well    application  com.example.app\n"));
  EXPECT_THAT(done.output, HasSubstr("ill     server       localhost:1: Could not connect to the server.\n"
                                     "                     check the port, and whether the server runs; "
                                     "`kestrova-devserver` starts one here\n"));
  EXPECT_THAT(done.output, Not(HasSubstr("\033"))) << "colours are for terminals";
}

TEST_F(Doctor, TellsWhyTheLastRunLeftEventsBehindUntilOneLeavesNone) {
  ASSERT_EQ(run({"event", "opened"}).end, "exited with 3");
  const DevServer server;
  const Run kept = examine(&server);
  EXPECT_EQ(kept.end, "exited with 0") << "a queue that waits is no fault";
  EXPECT_EQ(text(kept, "queue", "state"), "notice");
  EXPECT_THAT(text(kept, "queue", "what"), HasSubstr("1 record of "));
  EXPECT_THAT(text(kept, "last run", "what"),
              HasSubstr(": 1 kept, 0 lost; Couldn't submit events: Could not connect to the server."));
  ASSERT_EQ(run({"flush"}, &server).end, "exited with 0");
  EXPECT_EQ(text(examine(&server), "last run", "what"), "nothing on last run");
}

TEST_F(Doctor, AnAuthorityThatIsNotTrustedIsIll) {
  const DevServer server;
  const Run done = examine(&server, {{"SSL_CERT_FILE", certificateAuthorityFile()}});
  EXPECT_EQ(done.end, "exited with 1");
  EXPECT_THAT(text(done, "server", "what"), HasSubstr("The certificate for this server is invalid."));
  EXPECT_THAT(text(done, "server", "advice"), HasSubstr("SSL_CERT_FILE"));
}

TEST_F(Doctor, ACertificateThatIsOutOfItsDatesAndANameThatNobodyHasGetTheirOwnAdvice) {
  TlsTestServer server(TlsTestServer::answering(TlsTestServer::Answer{}), {.certificate = TlsTestServer::Certificate::kExpired});
  for (const auto& [host, advice] :
       {std::pair{"localhost:" + std::to_string(server.port()), "check this machine's date, then the server's certificate"},
        {std::string("nowhere.invalid"), "check the name, and whether this machine's name server answers"}}) {
    const Run done = examine(nullptr, {{"KESTROVA_API_HOST", host}, {"SSL_CERT_FILE", certificateAuthorityFile()}});
    EXPECT_EQ(done.end, "exited with 1");
    EXPECT_EQ(text(done, "server", "state"), "ill");
    EXPECT_EQ(text(done, "server", "advice"), advice);
  }
}

TEST_F(Doctor, AServerThatDoesNotAnswerIsIllWhenTheTimeIsUp) {
  TlsTestServer server([](TlsTestServer::Connection& connection) {
    (void)connection.readRequest();
    (void)connection.readRequest();
  });
  const Run done = examine(
      nullptr, {{"KESTROVA_API_HOST", "localhost:" + std::to_string(server.port())}, {"SSL_CERT_FILE", certificateAuthorityFile()}},
      {"--json", "--timeout", "0.5"});
  EXPECT_EQ(done.end, "exited with 1");
  EXPECT_EQ(text(done, "server", "state"), "ill");
  EXPECT_THAT(text(done, "server", "advice"), HasSubstr("--timeout"));
}

TEST_F(Doctor, AClockThatIsFarFromTheServersIsANotice) {
  TlsTestServer server([](TlsTestServer::Connection& connection) {
    while (connection.readRequest()) connection.send({404, {{"Date", "Sun, 06 Nov 1994 08:49:37 GMT"}}, ""});
  });
  const Run done = examine(nullptr, {{"KESTROVA_API_HOST", "localhost:" + std::to_string(server.port())},
                                     {"SSL_CERT_FILE", certificateAuthorityFile()}});
  EXPECT_EQ(done.end, "exited with 0") << "any answer shows that the server is there";
  EXPECT_EQ(text(done, "server", "state"), "well");
  EXPECT_EQ(text(done, "secret", "state"), "notice");
  EXPECT_EQ(text(done, "secret", "what"), "is there; whether the server knows it cannot be told from its answer");
  EXPECT_EQ(text(done, "clock", "state"), "notice");
  EXPECT_THAT(text(done, "clock", "what"), HasSubstr(" s away from the server's"));
}

TEST_F(Doctor, AClockThatIsFarFromTheDevelopmentServersIsANotice) {
  const DevServer server({"--clock-offset", "7200"});
  const Run done = examine(&server);
  EXPECT_EQ(text(done, "clock", "state"), "notice");
  EXPECT_THAT(text(done, "clock", "what"),
              testing::MatchesRegex("the stored correction is 0 s, and is 7[12][0-9][0-9] s away from the server's"));
}

TEST_F(Doctor, AServerThatTellsNoTimeIsANotice) {
  TlsTestServer server([](TlsTestServer::Connection& connection) {
    while (connection.readRequest()) connection.send({404, {}, ""});
  });
  const Run done = examine(nullptr, {{"KESTROVA_API_HOST", "localhost:" + std::to_string(server.port())},
                                     {"SSL_CERT_FILE", certificateAuthorityFile()}});
  EXPECT_EQ(text(done, "clock", "state"), "notice");
  EXPECT_EQ(text(done, "clock", "what"), "the stored correction is 0 s; no server told a time to compare with");
}

TEST_F(Doctor, WhatIsNotGivenIsNamed) {
  const Run done = examine(nullptr, {{"KESTROVA_BUNDLE_ID", ""}, {"KESTROVA_SECRET", ""}, {"KESTROVA_API_HOST", ""}});
  EXPECT_EQ(done.end, "exited with 1");
  EXPECT_EQ(text(done, "application", "state"), "notice");
  EXPECT_EQ(text(done, "secret", "state"), "ill");
  EXPECT_EQ(text(done, "server", "what"), "is not named");
  EXPECT_EQ(text(done, "uploads", "what"), "need an application's identifier");
}

TEST_F(Doctor, AFolderThatIsNotThereIsANoticeAndIsNotMade) {
  const DevServer server;
  const Run done = examine(&server);
  EXPECT_EQ(done.end, "exited with 0");
  EXPECT_EQ(text(done, "folder", "state"), "notice");
  EXPECT_EQ(text(done, "folder", "what"),
            home.path() + "/home/" + DevServer::kAppId + " is not there: nothing was ever kept under this identifier");
  EXPECT_EQ(text(done, "queue", "what"), "nothing on queue");
  EXPECT_FALSE(std::filesystem::exists(home.path() + "/home"));
}

TEST_F(Doctor, AnUploadThatWaitsForAMissingTransferServiceIsIll) {
  const DevServer server;
  const Program::Variables missing{{"KESTROVA_TRANSFERD", home.path() + "/nothing"}};
  Program::Variables all = missing;
  all.emplace_back("KESTROVA_TRANSFER_DIR", transfers());
  EXPECT_EQ(run({"upload", file("cat.gif", "GIF89a"), "--share-id", "x"}, &server, all).end, "exited with 3");
  const Run done = examine(&server, missing);
  EXPECT_EQ(done.end, "exited with 1");
  EXPECT_EQ(text(done, "uploads", "state"), "ill");
  EXPECT_EQ(text(done, "uploads", "what"),
            "there is no transfer service: " + home.path() + "/nothing cannot be started, so uploads wait");
}

TEST_F(Doctor, AnUploadWhoseTriesFailIsANoticeWithTheReason) {
  const DevServer server;
  ASSERT_EQ(server.misbehave(R"({"drop": 1000000})"), "");
  const Program::Variables transfer{{"KESTROVA_TRANSFER_DIR", transfers()}, {"KESTROVA_TRANSFERD", binary("kestrova-transferd")}};
  EXPECT_EQ(run({"upload", file("cat.gif", "GIF89a"), "--share-id", "x"}, &server, transfer).end, "exited with 0");
  Run done;
  ASSERT_TRUE(becomes([&] {
    done = examine(&server);
    return text(done, "uploads", "what").contains("the last try of one failed: ");
  })) << text(done, "uploads", "what");
  EXPECT_EQ(text(done, "uploads", "state"), "notice");
  EXPECT_THAT(text(done, "uploads", "what"), testing::StartsWith("the transfer service runs and has 1 upload under way; the last"));
  EXPECT_EQ(text(done, "uploads", "advice"), "it is tried again for up to 7 days; `kestrova uploads` has each one's state");
  endService();
}

TEST_F(Doctor, AnOutcomeThatTheApplicationHasNotTakenIsANotice) {
  const DevServer server;
  // An application that is not where it was cannot be launched.
  const std::string application = home.path() + "/application";
  std::filesystem::copy(binary("kestrova"), application);
  Program::Variables all = variables(&server);
  all.emplace_back("KESTROVA_TRANSFER_DIR", transfers());
  all.emplace_back("KESTROVA_TRANSFERD", binary("kestrova-transferd"));
  ASSERT_EQ(server.misbehave(R"({"drop": 1000000})"), "");
  Program upload(application, {"upload", file("cat.gif", "GIF89a"), "--share-id", "x"}, all);
  EXPECT_EQ(finish(upload).end, "exited with 0");
  std::filesystem::remove(application);
  ASSERT_EQ(server.misbehave(R"({"drop": null})"), "");
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  Run done;
  do done = examine(&server);
  while (text(done, "uploads", "what").find("0 uploads under way") == std::string::npos &&
         std::chrono::steady_clock::now() < limit);
  EXPECT_EQ(text(done, "uploads", "state"), "notice");
  EXPECT_EQ(text(done, "uploads", "what"),
            "the transfer service runs and has 0 uploads under way; of 1 ended upload the application has not taken the outcome");
  EXPECT_THAT(run({"uploads"}, &server, {{"KESTROVA_TRANSFER_DIR", transfers()}}).output,
              HasSubstr("; the application has not taken the outcome yet\n"));
  // Beside a service too, looking at an application that is not there makes nothing.
  const Run mistyped = examine(&server, {}, {"--json", "--bundle-id", "com.example.mistyped"});
  EXPECT_EQ(text(mistyped, "uploads", "what"), "none under way; the transfer service is started when one is");
  for (const std::vector<std::string>& look : {std::vector<std::string>{"uploads"}, {"share", "list"}}) {
    const Run listed = run(look, &server, {{"KESTROVA_TRANSFER_DIR", transfers()}, {"KESTROVA_BUNDLE_ID", "com.example.mistyped"}});
    EXPECT_EQ(listed.end, "exited with 0");
    EXPECT_EQ(listed.output,
              home.path() + "/home/com.example.mistyped is not there: nothing was ever kept under this identifier.\n");
  }
  EXPECT_FALSE(std::filesystem::exists(home.path() + "/home/com.example.mistyped"));
  endService();
}

TEST_F(Doctor, AMissingTransferServiceIsANotice) {
  const DevServer server;
  const Run done = examine(&server, {{"KESTROVA_TRANSFERD", home.path() + "/nothing"}});
  EXPECT_EQ(done.end, "exited with 0");
  EXPECT_EQ(text(done, "uploads", "what"),
            "there is no transfer service: " + home.path() + "/nothing cannot be started, so uploads would wait");
}

TEST_F(Doctor, DamagedLinesAreANoticeAndStayAsTheyAre) {
  const DevServer server;
  std::filesystem::create_directories(std::filesystem::path(queueFile()).parent_path());
  const std::string content = "{\"event\":\"a\",\"localTime\":\"2026-11-20T10:00:00.000Z\"}\nno json\n{\"half\":";
  std::ofstream(queueFile(), std::ios::binary) << content;
  const Run done = examine(&server);
  EXPECT_EQ(done.end, "exited with 0");
  EXPECT_THAT(text(done, "queue", "what"), HasSubstr("1 record of " + std::to_string(content.size()) +
                                                     " bytes, the oldest from 2026-11-20T10:00:00.000Z; 2 lines damaged"));
  EXPECT_EQ(contentOf(queueFile()), content);
}

TEST_F(Doctor, AQueueOverItsLimitIsANotice) {
  const DevServer server;
  std::filesystem::create_directories(std::filesystem::path(queueFile()).parent_path());
  std::ofstream queue(queueFile(), std::ios::binary);
  const std::string record = R"({"event":"a","localTime":"2026-11-20T10:00:00.000Z","name":")" + std::string(1021, 'x') + "\"}\n";
  for (std::size_t bytes = 0; bytes <= 1'048'576; bytes += record.size()) queue << record;
  queue.close();
  const std::string content = contentOf(queueFile());
  const Run done = examine(&server);
  EXPECT_EQ(done.end, "exited with 0");
  EXPECT_EQ(text(done, "queue", "state"), "notice");
  EXPECT_THAT(text(done, "queue", "what"),
              HasSubstr("; it is over its limit, and the next batch that fails cuts off the oldest ones"));
  EXPECT_TRUE(contentOf(queueFile()) == content);
}

TEST_F(Doctor, AQueueThatCannotBeReadIsIll) {
  const DevServer server;
  std::filesystem::create_directories(queueFile());
  const Run done = examine(&server);
  EXPECT_EQ(done.end, "exited with 1");
  EXPECT_EQ(text(done, "queue", "state"), "ill");
  EXPECT_THAT(text(done, "queue", "what"), testing::StartsWith("cannot be read: "));
  const Run shown = run({"queue"}, &server);
  EXPECT_EQ(shown.end, "exited with 1");
  EXPECT_THAT(shown.errors, HasSubstr("event-queue.json"));
}

TEST_F(Doctor, AFolderThatIsAFileIsIll) {
  const DevServer server;
  (void)file("home", "in the way");
  const Run done = examine(&server);
  EXPECT_EQ(done.end, "exited with 1");
  EXPECT_EQ(text(done, "folder", "state"), "ill");
  EXPECT_EQ(text(done, "folder", "what"), "cannot make " + home.path() + "/home/" + DevServer::kAppId + ": Not a directory");
  EXPECT_EQ(text(done, "queue", "what"), "nothing on queue") << "there can be none";
}

}  // namespace
}  // namespace test
