// Uploads to the development server: what is kept of them, and how often and how long their one signature is good.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Process.h"
#include "platform/linux/OpenSSLDigest.h"
#include "support/DevServer.h"
#include "support/Event.h"
#include "support/Files.h"
#include "support/HttpsClient.h"
#include "support/SignedRequest.h"
#include "support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using platform::Dictionary;
using platform::Value;
using test::DevServer;
using test::HttpAnswer;
using test::HttpsClient;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::int64_t kDay = 86400;  // seconds

class DevServerGifs : public ::testing::Test {
 protected:
  DevServerGifs() { process_.digest = std::make_shared<platform::OpenSSLDigest>(); }

  std::unique_ptr<DevServer> serve(std::vector<std::string> more = {}) const {
    more.insert(more.end(), {"--gifs", folder_.string()});
    auto server = std::make_unique<DevServer>(more);
    EXPECT_EQ(server->fault(), "");
    return server;
  }

  /// The head of an upload, signed once; what is sent with the same one is what an upload that is tried again sends.
  static std::string head(const DevServer& server, std::size_t length, const std::string& nonce = "n", std::int64_t age = 0) {
    const test::SignedRequest request{
        .target = "/gifs?shareId=abc123", .contentType = "image/gif", .nonce = nonce, .ahead = -age, .signsBody = false};
    return test::head(request, server, test::authorization(request, server), length);
  }
  static HttpAnswer exchange(const DevServer& server, const std::string& text) { return test::answerTo(server, text); }
  static std::string told(const HttpAnswer& answer) { return std::to_string(answer.status) + " " + answer.body; }

  /// Waits until a part of that size, or more, is in the folder: the server has so much and not all.
  bool waitForPart(std::uint64_t size) const {
    for (const auto limit = std::chrono::steady_clock::now() + test::kLimit; std::chrono::steady_clock::now() < limit;) {
      for (const auto& entry : fs::directory_iterator(folder_)) {
        std::error_code gone;
        const std::uintmax_t there = entry.file_size(gone);
        if (!gone && entry.path().extension() == ".part" && there >= size) return true;
      }
      std::this_thread::yield();
    }
    return false;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(folder_)) found.push_back(entry.path().filename().string());
    std::ranges::sort(found);
    return found;
  }
  std::string content(const std::string& name) const { return test::contentOf(folder_ / name); }
  /// Each entry's verdict, bytes, file and whether it was taken.
  static std::vector<std::string> journal(const DevServer& server) {
    std::vector<std::string> lines;
    for (const Dictionary& entry : server.requests()) {
      const auto file = entry.objectForKey("file");
      lines.push_back(std::string(entry.objectForKey("verdict")->string().view()) + ", " +
                      std::to_string(entry.objectForKey("bytes")->integerValue()) + ", " +
                      (file ? std::string(file->string().view()) : "no file") +
                      (entry.objectForKey("taken")->boolean() ? ", taken" : ""));
    }
    return lines;
  }

  platform::Process process_;
  platform::Process::Scope scope_{process_};
  test::TemporaryDirectory directory_;
  const fs::path folder_ = fs::path(directory_.path()) / "gifs";
  const std::string gif_ = "GIF89a" + std::string(2'000'000, '\x2a') + ";";
  const std::string refused_ = R"(401 {"error":"Invalid nonce"})";
};

TEST_F(DevServerGifs, FileIsKeptByteForByte) {
  const auto server = serve();
  EXPECT_EQ(told(exchange(*server, head(*server, gif_.size()) + gif_)), "200 {}");
  EXPECT_THAT(names(), ElementsAre("000001.gif"));
  EXPECT_EQ(content("000001.gif"), gif_);
  EXPECT_THAT(journal(*server), ElementsAre("ok, 2000007, 000001.gif, taken"));
  EXPECT_EQ(server->requests().at(0).objectForKey("shareId"), Value("abc123"));
}

TEST_F(DevServerGifs, BodyThatStopsShortLeavesNoFileAndMayComeAgainUntilItWasTaken) {
  const auto server = serve();
  const std::string upload = head(*server, gif_.size()) + gif_;
  for (int cut = 0; cut < 2; ++cut) {
    HttpsClient client(server->port(), server->authorityFile());
    ASSERT_TRUE(client.send(upload.substr(0, upload.size() / 2)));
    ASSERT_TRUE(waitForPart(gif_.size() / 4));
  }
  ASSERT_TRUE(server->waitForLine("--- POST /gifs?shareId=abc123 com.example.app Body incomplete"));
  EXPECT_EQ(told(exchange(*server, upload)), "200 {}");
  EXPECT_EQ(told(exchange(*server, upload)), refused_);
  EXPECT_EQ(server->stop(), "exited with 0");
  EXPECT_THAT(names(), ElementsAre("000003.gif"));
  EXPECT_EQ(content("000003.gif"), gif_);
  const auto all = journal(*server);
  EXPECT_EQ(std::ranges::count(all, "ok, 2000007, 000003.gif, taken"), 1);
  EXPECT_EQ(std::ranges::count_if(all, [](const std::string& line) { return line.starts_with("Body incomplete, "); }), 2);
  EXPECT_EQ(std::ranges::count(all, "Invalid nonce, 0, no file"), 1);
  EXPECT_EQ(all.size(), 4U);
}

TEST_F(DevServerGifs, OfTwoAtOnceUnderOneSignatureTheFirstToEndIsTaken) {
  const auto server = serve();
  const std::string upload = head(*server, gif_.size()) + gif_;
  HttpsClient slow(server->port(), server->authorityFile());
  ASSERT_TRUE(slow.send(upload.substr(0, upload.size() - 1)));
  ASSERT_TRUE(waitForPart(gif_.size() / 2));
  EXPECT_EQ(told(exchange(*server, upload)), "200 {}");
  ASSERT_TRUE(slow.send(upload.substr(upload.size() - 1)));
  EXPECT_EQ(told(slow.read().value_or(HttpAnswer())), refused_);
  EXPECT_EQ(server->stop(), "exited with 0");
  EXPECT_THAT(names(), ElementsAre("000002.gif"));
  EXPECT_THAT(journal(*server), ElementsAre("ok, 2000007, 000002.gif, taken", "Invalid nonce, 2000007, no file"));
}

TEST_F(DevServerGifs, WhatIsNotAnsweredAsTakenMayComeAgain) {
  const auto server = serve({"--drop", "1", "--status", "500"});
  const std::string upload = head(*server, gif_.size()) + gif_;
  HttpsClient dropped(server->port(), server->authorityFile());
  ASSERT_TRUE(dropped.send(upload));
  EXPECT_TRUE(dropped.isClosedByServer());
  EXPECT_EQ(told(exchange(*server, upload)), "500 ");
  EXPECT_EQ(told(exchange(*server, upload)), "200 {}");
  EXPECT_EQ(told(exchange(*server, upload)), refused_);
  EXPECT_EQ(server->stop(), "exited with 0");
  EXPECT_THAT(names(), ElementsAre("000003.gif"));
  EXPECT_THAT(journal(*server), ElementsAre("ok, 2000007, no file", "ok, 2000007, no file", "ok, 2000007, 000003.gif, taken",
                                            "Invalid nonce, 0, no file"));
}

TEST_F(DevServerGifs, SignatureIsGoodForEightDays) {
  const auto server = serve();
  const std::string upload = head(*server, gif_.size()) + gif_;
  const auto moveTheClock = [&](std::int64_t seconds) {
    EXPECT_EQ(server->misbehave("{\"clock-offset\": " + std::to_string(seconds) + "}"), "");
  };
  moveTheClock(8 * kDay + 30);
  EXPECT_EQ(told(exchange(*server, upload)), R"(401 {"error":"Stale timestamp"})");
  moveTheClock(-90);
  EXPECT_EQ(told(exchange(*server, upload)), R"(401 {"error":"Stale timestamp"})");
  moveTheClock(8 * kDay - 60);
  EXPECT_EQ(told(exchange(*server, upload)), "200 {}");
}

TEST_F(DevServerGifs, StrictServerTakesASignatureOnceAndForAMinute) {
  const auto server = serve({"--strict-uploads"});
  const std::string upload = head(*server, gif_.size()) + gif_;
  {
    HttpsClient client(server->port(), server->authorityFile());
    ASSERT_TRUE(client.send(upload.substr(0, upload.size() / 2)));
    ASSERT_TRUE(waitForPart(gif_.size() / 4));
  }
  EXPECT_EQ(told(exchange(*server, upload)), refused_);
  EXPECT_EQ(told(exchange(*server, head(*server, gif_.size(), "old", 90) + gif_)), R"(401 {"error":"Stale timestamp"})");
  EXPECT_EQ(told(exchange(*server, head(*server, gif_.size(), "new") + gif_)), "200 {}");
  EXPECT_EQ(server->stop(), "exited with 0");
  EXPECT_THAT(names(), ElementsAre("000002.gif"));
}

TEST_F(DevServerGifs, RefusedHeaderLeavesNoFile) {
  const auto server = serve();
  std::string upload = head(*server, gif_.size()) + gif_;
  upload.replace(upload.find("shareId=abc123"), 14, "shareId=abc124");
  EXPECT_EQ(told(exchange(*server, upload)), R"(401 {"error":"Bad mac"})");
  EXPECT_EQ(told(exchange(*server, head(*server, 1'073'741'825))), R"(413 {"error":"Body too long"})");
  EXPECT_EQ(server->stop(), "exited with 0");
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(DevServerGifs, ReadRateSlowsABodyDown) {
  const auto server = serve({"--read-rate", "4000000"});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(told(exchange(*server, head(*server, gif_.size()) + gif_)), "200 {}");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(350));  // half a second, rounded down by pieces
}

}  // namespace
