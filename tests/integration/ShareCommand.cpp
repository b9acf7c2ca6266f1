// Shares, the session-start patch and the cookie match: the real command and the real development server, over real HTTPS.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "platform/Value.h"
#include "support/CommandTest.h"
#include "support/DevServer.h"
#include "support/HttpsClient.h"

namespace test {
namespace {

using platform::Dictionary;
using platform::Value;
using testing::ElementsAre;
using testing::HasSubstr;

class ShareCommand : public CommandTest {
 protected:
  static std::string text(const Dictionary& object, std::string_view key) {
    const auto value = object.objectForKey(key);
    return value && value->isString() ? std::string(value->string().view()) : "";
  }

  /// The referral code of a share that is submitted.
  std::string submit(const DevServer& server) {
    const Run done = run({"--json", "share", "submit", "--data", R"({"gif": "g1"})"}, &server);
    EXPECT_EQ(done.end, "exited with 0") << done.errors << done.output;
    return text(done.report, "referralCode");
  }

  static HttpAnswer exchange(const DevServer& server, const std::string& request) {
    HttpsClient client(server.port(), server.authorityFile());
    EXPECT_EQ(client.fault(), "");
    EXPECT_TRUE(client.send(request));
    return client.read().value_or(HttpAnswer());
  }
  static HttpAnswer get(const DevServer& server, const std::string& target, const std::string& host = "") {
    return exchange(server, "GET " + target + " HTTP/1.1\r\nHost: " + (host.empty() ? server.host() : host) + "\r\n\r\n");
  }
  static HttpAnswer moveOn(const DevServer& server, const std::string& code, const std::string& state) {
    const std::string body = "{\"" + code + "\":\"" + state + "\"}";
    return exchange(server, "POST /dev/shares HTTP/1.1\r\nHost: " + server.host() +
                                "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  }

  /// `CODE:state`, in the report's order.
  static std::vector<std::string> statesIn(const Run& done) {
    std::vector<std::string> states;
    const auto shares = done.report.objectForKey("shares");
    if (!shares || !shares->isArray()) return {"the report has no shares: " + done.output};
    for (const Value& share : shares->array()) {
      const Value code = *share.objectForKey("referralCode");
      states.push_back(text(code.object(), "userId") + text(code.object(), "shareId") + ":" +
                       std::to_string(share.objectForKey("state")->integerValue()));
    }
    return states;
  }

  /// A folder for the front of PATH whose xdg-open does this; "$1" is the link.
  Program::Variables opener(const std::string& script) {
    const std::string folder = home.path() + "/programs";
    std::filesystem::create_directories(folder);
    std::ofstream(folder + "/xdg-open") << "#!/bin/sh\n" << script << "\n";
    std::filesystem::permissions(folder + "/xdg-open", std::filesystem::perms::owner_all);
    return {{"PATH", folder + ":" + std::getenv("PATH")}};
  }
  /// The target of the link that a cookie match had opened.
  std::string matchTarget(const DevServer& server) {
    const std::string file = home.path() + "/link";
    const Run done = run({"--json", "cookie-match"}, &server, opener("printf %s \"$1\" > '" + file + "'"));
    EXPECT_EQ(done.end, "exited with 0") << done.errors << done.output;
    EXPECT_EQ(done.report.objectForKey("didComplete"), Value(true));
    std::ifstream stream(file);
    const std::string link{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    const std::string start = "https://" + server.host();
    EXPECT_TRUE(link.starts_with(start + "/cookie-match?")) << link;
    return link.substr(start.size());
  }
};

// --- Submitting and refreshing.

TEST_F(ShareCommand, SubmittedClickedAndRefreshed) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const Run done =
      run({"--json", "share", "submit", "--data", R"({"gif": "grüße"})", "--url", "https://share.example.com/ab"}, &server);
  ASSERT_EQ(done.end, "exited with 0") << done.errors << done.output;
  const std::string code = text(done.report, "referralCode");
  EXPECT_EQ(code.size(), 18U);
  EXPECT_EQ(text(done.report, "userId"), code.substr(0, 8));
  EXPECT_EQ(done.report.objectForKey("submitted"), Value(true));
  EXPECT_EQ(done.report.objectForKey("reasons"), Value(Dictionary()));
  const Dictionary entry = server.requests().at(0);
  EXPECT_EQ(text(entry, "id"), code);
  EXPECT_EQ(entry.objectForKey("data")->objectForKey("data"), Value(Dictionary{{"gif", "grüße"}}));
  EXPECT_EQ(entry.objectForKey("data")->objectForKey("URL"), Value("https://share.example.com/ab"));

  const Run fresh = run({"share", "refresh", code}, &server);
  EXPECT_EQ(fresh.output, code + "  sent       https://share.example.com/ab\n1 share refreshed.\n");
  const HttpAnswer click = get(server, "/s/" + code);
  EXPECT_EQ(click.status, 200);
  EXPECT_EQ(click.body, "The share " + code + " is clicked.\n");
  const Run clicked = run({"share", "refresh", code}, &server);
  EXPECT_EQ(clicked.end, "exited with 0") << clicked.errors;
  EXPECT_EQ(clicked.output, code + "  clicked    https://share.example.com/ab\n1 share refreshed.\n");
  EXPECT_EQ(moveOn(server, code, "opened").status, 200);
  EXPECT_EQ(moveOn(server, code, "clicked").body, R"({"error":")" + code + R"( is opened already"})");
  EXPECT_EQ(get(server, "/s/" + code).body, "The share " + code + " is opened.\n");
  EXPECT_THAT(statesIn(run({"--json", "share", "refresh", code}, &server)), ElementsAre(code + ":2"));
}

TEST_F(ShareCommand, RefreshKeepsTheOrderAndAsksUnsigned) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const std::string a = submit(server);
  const std::string b = submit(server);
  const std::string c = submit(server);
  EXPECT_EQ(moveOn(server, b, "installed").status, 200);
  const Run done = run({"--json", "share", "refresh", c, a, b}, &server);
  EXPECT_EQ(done.end, "exited with 0") << done.errors;
  EXPECT_THAT(statesIn(done), ElementsAre(c + ":0", a + ":0", b + ":3"));
  const Dictionary entry = server.requests().back();
  EXPECT_EQ(text(entry, "target"), "/shares?ids=" + c + "," + a + "," + b);
  EXPECT_EQ(entry.objectForKey("app"), std::nullopt) << "it carried a signature";
}

TEST_F(ShareCommand, UnknownCodesAreToldAndTheOthersRefreshed) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const std::string code = submit(server);
  const Run done = run({"--json", "share", "refresh", "abcdefghnone", code}, &server);
  EXPECT_EQ(done.end, "exited with 2");
  EXPECT_EQ(done.errors, "kestrova: abcdefghnone: the server knows no such share\n");
  EXPECT_THAT(statesIn(done), ElementsAre(code + ":0"));
  EXPECT_EQ(done.report.objectForKey("unknown"), Value(platform::Array{"abcdefghnone"}));
}

TEST_F(ShareCommand, ClockOfTheDeviceIsCorrectedOnce) {
  DevServer server({"--clock-offset", "3600"});
  ASSERT_EQ(server.fault(), "");
  EXPECT_EQ(submit(server).size(), 18U);
  std::vector<std::string> verdicts;
  for (const Dictionary& entry : server.requests()) verdicts.push_back(text(entry, "verdict"));
  EXPECT_THAT(verdicts, ElementsAre("Stale timestamp", "ok"));
}

TEST_F(ShareCommand, WhatDoesNotArriveIsLostWithItsReason) {
  const Run away = run({"share", "submit", "--data", "{}"});
  EXPECT_EQ(away.end, "exited with 4");
  EXPECT_THAT(away.output,
              testing::StartsWith("The share was not submitted.\n  Kestrova: Couldn't submit share. Response was: (null), "
                                  "error message is: Could not connect to the server."));
  const Run refresh = run({"--json", "share", "refresh", "abcdefgh1"});
  EXPECT_EQ(refresh.end, "exited with 1");
  EXPECT_EQ(refresh.report.objectForKey("refreshed"), Value(false));
  EXPECT_THAT(refresh.output, HasSubstr("Could not get updated shares: Could not connect to the server."));
  const Run patch = run({"patch", R"({"link": "x"})"});
  EXPECT_EQ(patch.end, "exited with 4");
  EXPECT_THAT(patch.output, testing::StartsWith("The patch was lost.\n  Error: Could not send Universal Link Patch event."));
  EXPECT_EQ(run({"--json", "share", "list"}).report.objectForKey("shares")->count(), 0U);
}

TEST_F(ShareCommand, RefusedSignatureIsALossWithItsReason) {
  DevServer server({"--stale", R"({"tsm": "wrong"})"});
  ASSERT_EQ(server.fault(), "");
  const Run done = run({"share", "submit", "--data", "{}"}, &server);
  EXPECT_EQ(done.end, "exited with 4");
  EXPECT_EQ(
      done.output,
      "The share was not submitted.\n  The server refused the signature (401) and sent no time that could be trusted: check the "
      "secret and the application's identifier\n"
      "It is not kept: submit it again. `kestrova doctor` looks for the cause.\n");
}

TEST_F(ShareCommand, AnswerWithoutACodeIsTold) {
  DevServer server({"--answer", R"({"status": 201, "body": {"data": null}})"});
  ASSERT_EQ(server.fault(), "");
  const Run done = run({"share", "submit", "--data", "{}"}, &server);
  EXPECT_EQ(done.end, "exited with 4");
  EXPECT_EQ(done.output,
            "The share was not submitted.\n  The server's answer had no referral code\n"
            "It is not kept: submit it again. `kestrova doctor` looks for the cause.\n");
}

TEST_F(ShareCommand, SilentServerIsWaitedForNoLongerThanAsked) {
  DevServer server({"--delay", "3600000"});
  ASSERT_EQ(server.fault(), "");
  for (const auto& [command, status] : std::vector<std::pair<std::vector<std::string>, int>>{
           {{"share", "submit", "--data", "{}"}, 4}, {{"share", "refresh", "abcdefgh1"}, 1}, {{"patch", R"({"a": 1})"}, 4}}) {
    std::vector<std::string> arguments{"--timeout", "0.5"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    const Run done = run(arguments, &server);
    EXPECT_EQ(done.end, "exited with " + std::to_string(status)) << command[0];
    EXPECT_THAT(done.output, HasSubstr("cancelled"));
  }
}

TEST_F(ShareCommand, SignalEndsTheWaiting) {
  DevServer server({"--delay", "3600000"});
  ASSERT_EQ(server.fault(), "");
  Program program(binary("kestrova"), {"--json", "share", "submit", "--data", "{}"}, variables(&server));
  ASSERT_TRUE(server.waitForLine("201 POST /shares"));
  program.signal(SIGINT);
  const Run done = finish(program);
  EXPECT_EQ(done.end, "exited with 4") << done.errors;
  EXPECT_EQ(done.report.objectForKey("interrupted"), Value(true));
}

// --- Listing.

TEST_F(ShareCommand, ListShowsWhatWasSubmittedAndItsLastKnownState) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const std::string a = submit(server);
  const std::string b = submit(server);
  EXPECT_THAT(statesIn(run({"--json", "share", "list"})), ElementsAre(a + ":0", b + ":0"));
  EXPECT_EQ(moveOn(server, a, "opened").status, 200);
  EXPECT_EQ(run({"share", "refresh", a}, &server).end, "exited with 0");
  const Run list = run({"share", "list"});
  EXPECT_EQ(list.end, "exited with 0");
  EXPECT_THAT(list.output, testing::EndsWith("command-shares.json: 2 shares\n" + a + "  opened\n" + b + "  sent\n"));
}

TEST_F(ShareCommand, DamagedListIsToldAndLeftAlone) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  submit(server);
  const std::string path = text(run({"--json", "share", "list"}).report, "path");
  std::ofstream(path, std::ios::trunc) << "{";
  const std::string fault = path + ": it is no JSON object with a list of shares\n";
  const Run list = run({"share", "list"});
  EXPECT_EQ(list.end, "exited with 1");
  EXPECT_EQ(list.errors, "kestrova: " + fault);
  const Run done = run({"share", "submit", "--data", "{}"}, &server);
  EXPECT_EQ(done.end, "exited with 0");
  EXPECT_EQ(done.errors, "kestrova: cannot remember the share: " + fault);
  EXPECT_EQ(std::filesystem::file_size(path), 1U);
}

// --- Patches.

TEST_F(ShareCommand, PatchAddsToTheNewestSessionStart) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  ASSERT_EQ(run({"event", "session-started", "--data", R"({"n": 1})"}, &server).end, "exited with 0");
  const Run done = run({"patch", R"({"link": "x"})"}, &server);
  EXPECT_EQ(done.end, "exited with 0") << done.errors;
  EXPECT_EQ(done.output, "The server took the patch.\n");
  const Value patched = *server.requests().back().objectForKey("patched");
  EXPECT_EQ(patched.objectForKey("event"), Value("session-started"));
  const Value data = *patched.objectForKey("eventData");
  EXPECT_EQ(data.objectForKey("link"), Value("x"));
  EXPECT_EQ(data.objectForKey("n"), Value(1));
  EXPECT_THAT(get(server, "/dev/sessions").body, HasSubstr(R"("link":"x","n":1)"));
}

TEST_F(ShareCommand, PatchWithoutASessionStartIsTakenAndSaysSo) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  EXPECT_EQ(run({"patch", R"({"link": "x"})"}, &server).end, "exited with 0");
  EXPECT_EQ(server.requests().back().objectForKey("patched"), Value());
}

// --- The cookie match.

TEST_F(ShareCommand, MatchPageTakesAFreshLinkAndSaysWhoItWas) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const std::string target = matchTarget(server);
  const HttpAnswer page = get(server, target);
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.body, "This device is matched. This page may be closed.\n");
  const Dictionary entry = server.requests().back();
  EXPECT_EQ(text(entry, "verdict"), "ok");
  EXPECT_EQ(text(entry, "app"), DevServer::kAppId);
  EXPECT_EQ(text(entry, "device"), text(run({"--json", "status"}, &server).report, "device"));
  EXPECT_EQ(text(entry, "target"), target.substr(0, target.find("bewit=")) + "bewit=-");
  EXPECT_TRUE(server.waitForLine("bewit=- com.example.app"));
}

TEST_F(ShareCommand, MatchPageRefusesStaleAlteredAndStrayLinks) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const std::string target = matchTarget(server);
  const auto expectRefused = [&](const HttpAnswer& page, int status, const std::string& reason) {
    EXPECT_EQ(page.status, status);
    EXPECT_EQ(page.body, "This link cannot be used: " + reason + "\n");
    EXPECT_EQ(text(server.requests().back(), "verdict"), reason);
    EXPECT_EQ(server.requests().back().objectForKey("taken"), Value(false));
  };
  expectRefused(get(server, target, "127.0.0.1:" + std::to_string(server.port())), 401, "Bad mac");
  expectRefused(
      get(server, target.substr(0, target.find("&deviceId")) + "&deviceId=another" + target.substr(target.find("&bewit"))), 401,
      "Bad mac");
  expectRefused(get(server, target.substr(0, target.find("&bewit"))), 401, "No bewit, or more than one");
  expectRefused(get(server, target + "!"), 400, "Invalid bewit encoding");
  ASSERT_EQ(server.misbehave(R"({"clock-offset": 61})"), "");
  expectRefused(get(server, target), 401, "Access expired");
  ASSERT_EQ(server.misbehave(R"({"clock-offset": 0})"), "");
  EXPECT_EQ(get(server, target).status, 200);
}

TEST_F(ShareCommand, MatchWithoutABrowserDoesNotComplete) {
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  const Run failing = run({"cookie-match"}, &server, opener("exit 3"));
  EXPECT_EQ(failing.end, "exited with 1");
  const std::string reason = "No browser took the page: xdg-open (Debian package xdg-utils) must be there and know a browser";
  EXPECT_EQ(failing.output, "The match did not complete.\n  " + reason + "\n");
  const Run missing = run({"--json", "cookie-match"}, &server, {{"PATH", home.path() + "/nowhere"}});
  EXPECT_EQ(missing.end, "exited with 1");
  EXPECT_EQ(missing.report.objectForKey("didComplete"), Value(false));
  EXPECT_EQ(missing.report.objectForKey("reasons"), Value(Dictionary{{reason, 1}}));
}

TEST_F(ShareCommand, MatchIsWaitedForNoLongerThanAsked) {
  const Run done = run({"--timeout", "0.3", "cookie-match"}, nullptr, opener("exec sleep 5"));
  EXPECT_EQ(done.end, "exited with 1");
  EXPECT_EQ(done.output, "The match did not complete.\n  There was no answer in time\n");
}

// --- Usage.

TEST_F(ShareCommand, BadInputIsToldWithStatus2) {
  const auto withStatus2 = [&](const std::vector<std::string>& arguments, const std::string& word) {
    const Run done = run(arguments);
    EXPECT_EQ(done.end, "exited with 2") << word;
    EXPECT_THAT(done.errors, HasSubstr(word));
  };
  withStatus2({"share"}, "kestrova: share needs one of its commands: submit, refresh, list\n");
  withStatus2({"share", "submit"}, "kestrova: share submit needs --data\n");
  withStatus2({"share", "submit", "--data", "{"}, "kestrova: --data: not valid JSON");
  withStatus2({"share", "submit", "--data", "[1]"}, "kestrova: --data: not a JSON object");
  withStatus2({"share", "submit", "--data", "{}", "--url", "http://["}, "kestrova: --url: 'http://[' is no URL");
  withStatus2({"share", "refresh"}, "kestrova: share refresh needs REFERRAL-CODE\n");
  withStatus2({"share", "refresh", "abcdefgh1", "abcdefg"},
              "kestrova: 'abcdefg' is no referral code: it has eight characters for the user and then the share's own");
  withStatus2({"patch"}, "kestrova: patch needs JSON\n");
  withStatus2({"patch", "nonsense"}, "kestrova: JSON: not valid JSON");
  withStatus2({"patch", "{}"}, "kestrova: JSON: there is nothing to add in an empty object");
}

}  // namespace
}  // namespace test
