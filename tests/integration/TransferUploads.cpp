// Uploads of files over the real loop, against a server that a test programs: what it receives, and how each way of failing ends
// (platform row B3).
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/FileDescriptor.h"
#include "support/Event.h"
#include "support/TemporaryDirectory.h"
#include "support/TlsTestServer.h"
#include "transfer/linux/CurlUploads.h"
#include "transfer/linux/EventLoop.h"

namespace test {
namespace {

using Answer = TlsTestServer::Answer;
using Connection = TlsTestServer::Connection;
using Request = TlsTestServer::Request;
using transfer::TaskId;
using transfer::UploadOutcome;

constexpr TaskId kTask = 7;

class TransferUploads : public testing::Test {
 protected:
  std::string fileOf(const std::string& bytes, const std::string& name = "upload") {
    std::string path = folder_.path() + "/" + name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }

  /// Bytes of all values, so that a piece in the wrong place shows.
  static std::string bytes(std::size_t count) {
    std::string made(count, '\0');
    for (std::size_t i = 0; i < count; ++i) made[i] = static_cast<char>((i * 2654435761U) >> 13);
    return made;
  }

  static transfer::SpoolEntry entry(const std::string& url, const std::string& file) {
    transfer::SpoolEntry made;
    made.method = "POST";
    made.url = url;
    made.file = file;
    made.headerFields = {{"Accept", "application/json"}, {"Content-Type", "image/gif"}, {"Authorization", "Hawk id=\"a\""}};
    made.trustAnchors = certificateAuthorityFile();
    made.requestTimeout = 30;
    return made;
  }

  void turnUntil(const std::function<bool()>& isDone) {
    const auto limit = std::chrono::steady_clock::now() + kLimit;
    while (!isDone() && std::chrono::steady_clock::now() < limit) loop_.turn(std::chrono::milliseconds(100));
    ASSERT_TRUE(isDone()) << "not within the limit";
  }

  UploadOutcome upload(const transfer::SpoolEntry& entry) {
    uploads_.start(kTask, entry);
    EXPECT_TRUE(outcomes_.empty()) << "nobody may be called back from inside start()";
    turnUntil([this] { return outcomes_.contains(kTask); });
    return std::exchange(outcomes_, {})[kTask];
  }

  static void expectError(const UploadOutcome& outcome, const std::string& domain, std::int64_t code, const std::string& text,
                          bool mayBeTriedAgain) {
    ASSERT_TRUE(outcome.error) << "answered with " << outcome.statusCode;
    EXPECT_EQ(outcome.error->domain(), domain);
    EXPECT_EQ(outcome.error->code(), code) << outcome.error->debugDescription();
    EXPECT_EQ(outcome.error->localizedDescription(), text);
    EXPECT_EQ(outcome.mayBeTriedAgain, mayBeTriedAgain) << outcome.error->debugDescription();
  }

  static void expectURLError(const UploadOutcome& outcome, std::int64_t code, const std::string& text, bool mayBeTriedAgain) {
    expectError(outcome, platform::kURLErrorDomain, code, text, mayBeTriedAgain);
  }

  TemporaryDirectory folder_;
  transfer::EventLoop loop_;
  std::map<TaskId, UploadOutcome> outcomes_;
  std::vector<std::uint64_t> progress_;
  std::set<std::uint64_t> expected_;  // what was told of the whole with it
  transfer::CurlUploads uploads_{loop_,
                                 {[this](TaskId, std::uint64_t sent, std::uint64_t expected) {
                                    progress_.push_back(sent);
                                    expected_.insert(expected);
                                  },
                                  [this](TaskId task, const UploadOutcome& outcome) {
                                    EXPECT_FALSE(outcomes_.contains(task)) << "ended twice";
                                    outcomes_[task] = outcome;
                                  }},
                                 {.maxAnswerBytes = 4096, .progressInterval = std::chrono::milliseconds(0)}};
};

TEST_F(TransferUploads, SendsTheFileWithExactlyTheRequestsFields) {
  TlsTestServer server(TlsTestServer::answering(Answer{200, {}, "thanks"}));
  const std::string sent = bytes(3'000'001);
  const UploadOutcome outcome = upload(entry(server.url("/gifs?shareId=5"), fileOf(sent)));
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.statusCode, 200);
  EXPECT_EQ(outcome.bytesSent, sent.size());
  EXPECT_EQ(outcome.bytesExpected, sent.size());
  ASSERT_EQ(server.requests().size(), 1U);
  const Request request = server.requests()[0];
  EXPECT_TRUE(request.body == sent) << request.body.size() << " bytes received";
  EXPECT_EQ(request.head, "POST /gifs?shareId=5 HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
                              "\r\nAccept-Encoding: gzip, deflate\r\nAccept: application/json\r\nContent-Type: image/gif\r\n"
                              "Authorization: Hawk id=\"a\"\r\nContent-Length: 3000001\r\n\r\n");
  EXPECT_TRUE(std::ranges::is_sorted(progress_));
  ASSERT_FALSE(progress_.empty());
  EXPECT_EQ(progress_.back(), sent.size());
  EXPECT_EQ(expected_, std::set{std::uint64_t{sent.size()}});
}

TEST_F(TransferUploads, SendsAnEmptyFile) {
  TlsTestServer server(TlsTestServer::answering(Answer{}));
  EXPECT_EQ(upload(entry(server.url(), fileOf(""))).statusCode, 200);
  ASSERT_EQ(server.requests().size(), 1U);
  EXPECT_EQ(server.requests()[0].field("Content-Length"), "0");
}

TEST_F(TransferUploads, AnyStatusIsAnAnswer) {
  std::atomic<int> status{0};
  TlsTestServer server(TlsTestServer::answering([&](const Request&) { return Answer{status, {{"Set-Cookie", "a=b"}}, "no"}; }));
  for (const int each : {204, 304, 401, 404, 500, 503}) {
    status = each;
    const UploadOutcome outcome = upload(entry(server.url(), fileOf("GIF89a")));
    EXPECT_FALSE(outcome.error) << each;
    EXPECT_EQ(outcome.statusCode, each);
    EXPECT_FALSE(server.requests().back().field("Cookie")) << "uploads of several applications share the loop";
  }
}

TEST_F(TransferUploads, A401BeforeTheBodyIsSentIsAnAnswer) {
  TlsTestServer server([](Connection& connection) {
    std::string head;
    while (head.find("\r\n\r\n") == std::string::npos) {
      const auto some = connection.readSome();
      if (!some) return;
      head += *some;
    }
    connection.send(Answer{401, {{"Connection", "close"}}, "no"});
    while (connection.readSome()) {
    }
  });
  const UploadOutcome outcome = upload(entry(server.url(), fileOf(bytes(50'000'000))));
  EXPECT_FALSE(outcome.error);
  EXPECT_EQ(outcome.statusCode, 401);
}

TEST_F(TransferUploads, A307SendsTheFileAgainWithoutTheSignature) {
  TlsTestServer server(TlsTestServer::answering(
      [](const Request& request) { return request.target == "/first" ? Answer{307, {{"Location", "/second"}}} : Answer{201}; }));
  const std::string sent = bytes(700'000);
  EXPECT_EQ(upload(entry(server.url("/first"), fileOf(sent))).statusCode, 201);
  ASSERT_EQ(server.requests().size(), 2U);
  EXPECT_EQ(server.requests()[0].field("Authorization"), "Hawk id=\"a\"");
  const Request second = server.requests()[1];
  EXPECT_EQ(second.method, "POST");
  EXPECT_TRUE(second.body == sent);
  EXPECT_FALSE(second.field("Authorization"));
  EXPECT_EQ(second.field("Content-Type"), "image/gif");
}

TEST_F(TransferUploads, A303DropsTheBody) {
  TlsTestServer server(TlsTestServer::answering(
      [](const Request& request) { return request.target == "/first" ? Answer{303, {{"Location", "/second"}}} : Answer{200}; }));
  EXPECT_EQ(upload(entry(server.url("/first"), fileOf("GIF89a"))).statusCode, 200);
  ASSERT_EQ(server.requests().size(), 2U);
  EXPECT_EQ(server.requests()[1].method, "GET");
  EXPECT_EQ(server.requests()[1].body, "");
  EXPECT_FALSE(server.requests()[1].field("Content-Type"));
}

TEST_F(TransferUploads, ARedirectToPlainHttpAndOneWithoutEndFailAtOnce) {
  TlsTestServer server(TlsTestServer::answering([](const Request& request) {
    return Answer{308, {{"Location", request.target == "/plain" ? "http://127.0.0.1/" : "/again"}}};
  }));
  expectURLError(
      upload(entry(server.url("/plain"), fileOf("GIF89a"))), -1022,
      "The resource could not be loaded because the App Transport Security policy requires the use of a secure connection.", false);
  expectURLError(upload(entry(server.url("/round"), fileOf("GIF89a"))), -1007, "too many HTTP redirects", false);
  EXPECT_EQ(server.requests().size(), 1U + 21U);
}

TEST_F(TransferUploads, AnAnswerPastItsBoundFailsAtOnce) {
  TlsTestServer server(TlsTestServer::answering(Answer{200, {}, std::string(5000, 'x')}));
  expectURLError(upload(entry(server.url(), fileOf("GIF89a"))), -1103,
                 "The operation couldn’t be completed. (NSURLErrorDomain error -1103.)", false);
}

TEST_F(TransferUploads, AConnectionThatIsCutInTheMiddleMayBeTriedAgain) {
  TlsTestServer server([](Connection& connection) {
    if (connection.readSome()) connection.reset();
  });
  expectURLError(upload(entry(server.url(), fileOf(bytes(20'000'000)))), -1005, "The network connection was lost.", true);
}

TEST_F(TransferUploads, AConnectionThatIsClosedUnansweredMayBeTriedAgain) {
  TlsTestServer server([](Connection& connection) {
    if (connection.readRequest()) connection.drop();
  });
  expectURLError(upload(entry(server.url(), fileOf("GIF89a"))), -1005, "The network connection was lost.", true);
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(TransferUploads, ASilentServerTimesOutAndMayBeTriedAgain) {
  TlsTestServer server([](Connection& connection) { connection.waitForClose(); });
  transfer::SpoolEntry made = entry(server.url(), fileOf(bytes(30'000'000)));
  made.requestTimeout = 0.5;
  expectURLError(upload(made), -1001, "The request timed out.", true);
}

TEST_F(TransferUploads, ASilentHandshakeTimesOutAndMayBeTriedAgain) {
  TlsTestServer server([](Connection&) {}, {.handshake = TlsTestServer::Handshake::kStall});
  transfer::SpoolEntry made = entry(server.url(), fileOf("GIF89a"));
  made.requestTimeout = 0.5;
  expectURLError(upload(made), -1001, "The request timed out.", true);
}

/// A port of loopback on which whoever connects is dropped before a word is said, or, before it listens, refused.
class DroppingPort {
 public:
  DroppingPort() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    port_ = ntohs(address.sin_port);
  }
  std::string url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/"; }
  void listen() { EXPECT_EQ(::listen(socket_.get(), 1), 0); }
  /// After its first bytes have come.
  void dropOne() {
    const platform::FileDescriptor connection(accept(socket_.get(), nullptr, nullptr));
    char hello[4096];
    EXPECT_GT(recv(connection.get(), hello, sizeof hello, 0), 0);
  }

 private:
  platform::FileDescriptor socket_;
  std::uint16_t port_ = 0;
};

TEST_F(TransferUploads, ARefusedConnectionMayBeTriedAgain) {
  const DroppingPort port;
  expectURLError(upload(entry(port.url(), fileOf("GIF89a"))), -1004, "Could not connect to the server.", true);
}

TEST_F(TransferUploads, AHandshakeThatIsCutMayBeTriedAgain) {
  DroppingPort port;
  port.listen();
  std::thread dropping([&port] { port.dropOne(); });
  const UploadOutcome outcome = upload(entry(port.url(), fileOf("GIF89a")));
  dropping.join();
  expectURLError(outcome, -1200, "An SSL error has occurred and a secure connection to the server cannot be made.", true);
}

TEST_F(TransferUploads, AServerThatSpeaksNoTlsFailsAtOnce) {
  TlsTestServer server([](Connection&) {}, {.handshake = TlsTestServer::Handshake::kGarbage});
  expectURLError(upload(entry(server.url(), fileOf("GIF89a"))), -1200,
                 "An SSL error has occurred and a secure connection to the server cannot be made.", false);
}

TEST_F(TransferUploads, ACertificateThatIsRefusedFailsAtOnce) {
  const std::string text =
      "The certificate for this server is invalid. You might be connecting to a server that is pretending to be “127.0.0.1” which "
      "could "
      "put your confidential information at risk.";
  using Certificate = TlsTestServer::Certificate;
  for (const auto& [certificate, code] : {std::pair{Certificate::kExpired, -1201},
                                          {Certificate::kNotYetValid, -1201},
                                          {Certificate::kWrongHost, -1202},
                                          {Certificate::kUnknownAuthority, -1202}}) {
    TlsTestServer server(TlsTestServer::answering(Answer{}), {.certificate = certificate});
    expectURLError(upload(entry(server.url(), fileOf("GIF89a"))), code, text, false);
    EXPECT_EQ(server.requests().size(), 0U);
  }
}

TEST_F(TransferUploads, OneUploadsTrustAnchorsAreNotTheNexts) {
  TlsTestServer server(TlsTestServer::answering(Answer{}));
  transfer::SpoolEntry made = entry(server.url(), fileOf("GIF89a"));
  EXPECT_EQ(upload(made).statusCode, 200);
  made.trustAnchors.reset();  // the system's do not know the server, and the living connection is none for this one
  EXPECT_EQ(upload(made).error.value_or(platform::Error("none", 0)).code(), -1202);
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(TransferUploads, AnUnknownHostMayBeTriedAgain) {
  expectURLError(upload(entry("https://nowhere.invalid/", fileOf("GIF89a"))), -1003,
                 "A server with the specified hostname could not be found.", true);
}

TEST_F(TransferUploads, WhatIsNoUrlOrNotHttpsFailsAtOnce) {
  expectURLError(upload(entry("", fileOf("GIF89a"))), -1000 - 2, "unsupported URL", false);
  expectURLError(upload(entry("ftp://127.0.0.1/", fileOf("GIF89a"))), -1002, "unsupported URL", false);
  expectURLError(upload(entry("https:///gifs", fileOf("GIF89a"))), -1000, "bad URL", false);
}

TEST_F(TransferUploads, AMissingFileAndAFolderFailAtOnce) {
  TlsTestServer server(TlsTestServer::answering(Answer{}));
  expectError(upload(entry(server.url(), folder_.path() + "/missing")), "NSCocoaErrorDomain", 260,
              "The file “missing” couldn’t be opened because there is no such file.", false);
  std::filesystem::create_directory(folder_.path() + "/folder");
  expectError(upload(entry(server.url(), folder_.path() + "/folder")), "NSCocoaErrorDomain", 256,
              "The file “folder” couldn’t be opened.", false);
  EXPECT_EQ(mkfifo((folder_.path() + "/pipe").c_str(), 0600), 0);
  expectError(upload(entry(server.url(), folder_.path() + "/pipe")), "NSCocoaErrorDomain", 256,
              "The file “pipe” couldn’t be opened.", false);
  EXPECT_EQ(server.connections(), 0U);
}

/// The file is changed while the server has some of it and reads no more.
class TransferUploadsOfChangingFiles : public TransferUploads {
 protected:
  void expectChangeError(const std::function<void(const std::string& path)>& change, const std::string& what) {
    const std::string path = fileOf(bytes(60'000'000));
    Event changed;
    TlsTestServer server([&](Connection& connection) {
      if (!connection.readSome()) return;
      change(path);
      changed.happen();
      while (connection.readSome()) {
      }
    });
    expectError(upload(entry(server.url(), path)), "NSCocoaErrorDomain", 256,
                "The file “upload” couldn’t be uploaded because it " + what + " while it was sent.", false);
    EXPECT_TRUE(changed.wait());
    EXPECT_EQ(server.requests().size(), 0U);
  }
};

TEST_F(TransferUploadsOfChangingFiles, AFileThatShrinks) {
  expectChangeError([](const std::string& path) { std::filesystem::resize_file(path, 1'000); }, "became shorter");
}

TEST_F(TransferUploadsOfChangingFiles, AFileThatGrows) {
  expectChangeError([](const std::string& path) { std::ofstream(path, std::ios::app) << "more"; }, "became longer");
}

TEST_F(TransferUploadsOfChangingFiles, AFileThatVanishes) {
  expectChangeError([](const std::string& path) { std::filesystem::remove(path); }, "was removed");
}

TEST_F(TransferUploadsOfChangingFiles, AFileThatIsReplaced) {
  expectChangeError(
      [](const std::string& path) {
        std::ofstream(path + ".new", std::ios::binary) << bytes(60'000'000);
        std::filesystem::rename(path + ".new", path);
      },
      "was replaced");
}

TEST_F(TransferUploads, NothingComesOfWhatWasStopped) {
  TlsTestServer server([](Connection& connection) { connection.waitForClose(); });
  uploads_.start(1, entry(server.url(), fileOf(bytes(30'000'000))));
  ASSERT_TRUE(server.waitForConnections(1));
  uploads_.stop(1);
  uploads_.start(2, entry(server.url(), folder_.path() + "/missing"));
  uploads_.stop(2);
  ASSERT_TRUE(server.waitForClosedConnections(1));
  EXPECT_EQ(upload(entry(server.url(), folder_.path() + "/missing")).error.value_or(platform::Error("none", 0)).code(), 260);
  EXPECT_TRUE(outcomes_.empty());
}

TEST_F(TransferUploads, ManyAtOnceAllArriveWhole) {
  TlsTestServer server(TlsTestServer::answering(Answer{200}));
  constexpr TaskId kCount = 200;
  std::multiset<std::string> sent;
  for (TaskId task = 1; task <= kCount; ++task) {
    const std::string body = std::to_string(task) + ":" + bytes(static_cast<std::size_t>(task) * 300);
    sent.insert(body);
    uploads_.start(task, entry(server.url(), fileOf(body, std::to_string(task))));
  }
  turnUntil([this] { return outcomes_.size() == kCount; });
  for (const auto& [task, outcome] : outcomes_) EXPECT_EQ(outcome.statusCode, 200) << task;
  std::multiset<std::string> received;
  for (const Request& request : server.requests()) received.insert(request.body);
  EXPECT_TRUE(received == sent);
  EXPECT_LE(server.connections(), 6U);
}

}  // namespace
}  // namespace test
