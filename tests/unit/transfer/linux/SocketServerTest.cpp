// The socket: who may connect, what comes in and goes out, and clients that do not behave.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/TransferDirectory.h"
#include "support/Event.h"
#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"
#include "support/TestProcess.h"
#include "transfer/linux/EventLoop.h"
#include "transfer/linux/SocketServer.h"

namespace test {
namespace {

using platform::FileDescriptor;
using testing::ElementsAre;
using transfer::ConnectionId;
using transfer::Message;

class SocketServerTest : public testing::Test {
 protected:
  SocketServerTest() {
    const auto listens = server_.listen();
    EXPECT_TRUE(listens) << listens.error().localizedDescription();
  }

  FileDescriptor connectClient() const {
    FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = directory_.socketAddress();
    EXPECT_EQ(connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return socket;
  }
  static void say(const FileDescriptor& client, std::string_view text) {
    EXPECT_EQ(::send(client.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  }
  /// All that comes until the end.
  static std::string hear(const FileDescriptor& client) {
    std::string all;
    char piece[4096];
    for (ssize_t count = 0; (count = recv(client.get(), piece, sizeof piece, 0)) > 0;)
      all.append(piece, static_cast<std::size_t>(count));
    return all;
  }
  void turnUntil(const std::function<bool()>& isDone) {
    const auto limit = std::chrono::steady_clock::now() + kLimit;
    while (!isDone() && std::chrono::steady_clock::now() < limit) loop_.turn(std::chrono::milliseconds(50));
    ASSERT_TRUE(isDone()) << "not within the limit";
  }
  void turnUntilHeard(const std::vector<std::string>& what) {
    turnUntil([&] { return happened_.size() >= what.size(); });
    EXPECT_EQ(happened_, what);
  }

  TestProcess process_;
  TemporaryDirectory folder_;
  platform::TransferDirectory directory_ = *platform::TransferDirectory::open(folder_.path() + "/transfer");
  transfer::EventLoop loop_;
  std::vector<std::string> happened_;
  std::function<void(ConnectionId)> onMessage_ = [](ConnectionId) {};
  transfer::SocketServer server_{loop_,
                                 directory_,
                                 {[this](ConnectionId id) { happened_.push_back("opened " + std::to_string(id)); },
                                  [this](ConnectionId id, const Message& message) {
                                    happened_.push_back("message " + std::to_string(id) + " " + transfer::encode(message));
                                    onMessage_(id);
                                  },
                                  [this](ConnectionId id, const std::string&) {
                                    happened_.push_back("garbage " + std::to_string(id));
                                    server_.send(id, transfer::Refused{"no message"});
                                    server_.close(id);
                                    EXPECT_NE(happened_.back(), "closed " + std::to_string(id))
                                        << "called back from inside close()";
                                  },
                                  [this](ConnectionId id) { happened_.push_back("closed " + std::to_string(id)); }}};
};

TEST_F(SocketServerTest, OnlyTheOwnUserMayOpenTheSocket) {
  struct stat status{};
  ASSERT_EQ(stat(directory_.socket().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  ASSERT_EQ(stat(directory_.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700U);
}

TEST_F(SocketServerTest, MessagesComeInPiecesAndSeveralAtOnce) {
  const FileDescriptor client = connectClient();
  const std::string wake = transfer::encode(transfer::Wake{});
  const std::string cancel = transfer::encode(transfer::Cancel{"s"});
  say(client, wake.substr(0, 4));
  turnUntilHeard({"opened 1"});
  say(client, wake.substr(4) + cancel);
  turnUntilHeard({"opened 1", "message 1 " + wake, "message 1 " + cancel});
}

TEST_F(SocketServerTest, EachConnectionHasItsOwnAnswers) {
  onMessage_ = [this](ConnectionId id) {
    server_.send(id, transfer::Listed{id});
    server_.close(id);
  };
  const FileDescriptor first = connectClient();
  const FileDescriptor second = connectClient();
  say(second, transfer::encode(transfer::Wake{}));
  say(first, transfer::encode(transfer::Wake{}));
  turnUntil([this] { return happened_.size() == 6; });
  EXPECT_EQ(hear(first), transfer::encode(transfer::Listed{1}));
  EXPECT_EQ(hear(second), transfer::encode(transfer::Listed{2}));
}

TEST_F(SocketServerTest, GarbageIsReportedOnceAndNothingAfterItIsRead) {
  for (const std::string& garbage : {std::string("\n"), std::string("GET / HTTP/1.1\r\n\r\n"), std::string("{\"is\":\"wake\"}x\n"),
                                     std::string("\xff\xfe\n"), std::string(4, '\0') + "\n"}) {
    happened_.clear();
    const FileDescriptor client = connectClient();
    say(client, garbage + transfer::encode(transfer::Wake{}));
    turnUntil([this] { return happened_.size() == 3; });
    EXPECT_THAT(happened_,
                ElementsAre(testing::StartsWith("opened"), testing::StartsWith("garbage"), testing::StartsWith("closed")));
    EXPECT_EQ(hear(client), transfer::encode(transfer::Refused{"no message"}));
  }
}

TEST_F(SocketServerTest, ALineWithoutEndIsRefused) {
  const FileDescriptor client = connectClient();
  const std::string piece(65536, 'x');
  bool isRefused = false;
  for (int i = 0; i < 40 && !isRefused; ++i) {
    (void)::send(client.get(), piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    loop_.turn(std::chrono::milliseconds(0));
    isRefused = std::ranges::count(happened_, "garbage 1") == 1;
  }
  EXPECT_TRUE(isRefused);
}

TEST_F(SocketServerTest, AClientThatDoesNotReadIsClosed) {
  const FileDescriptor client = connectClient();
  turnUntilHeard({"opened 1"});
  const Message message = transfer::Refused{std::string(100'000, 'x')};
  for (int i = 0; i < 100; ++i) server_.send(1, message);
  EXPECT_THAT(happened_, ElementsAre("opened 1")) << "called back from inside send()";
  turnUntilHeard({"opened 1", "closed 1"});
  server_.send(1, message);
  server_.close(1);
}

TEST_F(SocketServerTest, ASlowReaderGetsAll) {
  const FileDescriptor client = connectClient();
  turnUntilHeard({"opened 1"});
  std::string sent;
  for (std::uint64_t i = 0; i < 40; ++i) {
    const Message message = transfer::Refused{std::to_string(i) + std::string(100'000, 'x')};
    sent += transfer::encode(message);
    server_.send(1, message);
  }
  server_.close(1);
  std::string received;
  turnUntil([&] {
    char piece[65536];
    const ssize_t count = recv(client.get(), piece, sizeof piece, MSG_DONTWAIT);
    if (count > 0) received.append(piece, static_cast<std::size_t>(count));
    return happened_.size() == 2;
  });
  received += hear(client);
  EXPECT_TRUE(received == sent) << received.size() << " of " << sent.size();
}

TEST_F(SocketServerTest, TheEndOfAClientIsSeen) {
  FileDescriptor client = connectClient();
  turnUntilHeard({"opened 1"});
  client = FileDescriptor();
  turnUntilHeard({"opened 1", "closed 1"});
}

TEST_F(SocketServerTest, TooManyConnectionsAreRefused) {
  std::vector<FileDescriptor> clients;
  for (std::size_t i = 0; i <= transfer::SocketServer::kMaxConnections; ++i) {
    clients.push_back(connectClient());
    loop_.turn(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(happened_.size(), transfer::SocketServer::kMaxConnections);
  EXPECT_EQ(hear(clients.back()), transfer::encode(transfer::Refused{"The service has too many connections."}));
}

TEST_F(SocketServerTest, WhoConnectsUpToTheEndIsNotLost) {
  EXPECT_TRUE(server_.stopListening());
  ASSERT_TRUE(server_.listen());
  const FileDescriptor client = connectClient();
  EXPECT_FALSE(server_.stopListening());
  EXPECT_THAT(happened_, ElementsAre("opened 1"));
}

TEST_F(SocketServerTest, AFolderWithALongPathHasASocketToo) {
  const auto directory = platform::TransferDirectory::open(folder_.path() + "/" + std::string(120, 'l'));
  ASSERT_TRUE(directory);
  int opened = 0;
  transfer::SocketServer server(loop_, *directory, {[&](ConnectionId) { ++opened; }, {}, {}, [](ConnectionId) {}});
  ASSERT_TRUE(server.listen());
  const auto socket = directory->connect();
  EXPECT_TRUE(socket) << socket.error();
  turnUntil([&] { return opened == 1; });
}

// The modes alone would keep the other user out: they are loosened, so that the kernel's word on who connects has to do it.
TEST_F(SocketServerTest, AnotherUsersProcessIsRefused) {
  ASSERT_EQ(geteuid(), 0U) << "only root can become another user";
  const std::string own = folder_.path() + "/own";
  ASSERT_EQ(mkdir(own.c_str(), 0700), 0);
  EXPECT_EQ(runInChild([&] {
              becomeNobody(own);
              EXPECT_FALSE(directory_.connect());
            }),
            0);
  for (const std::string& path : {folder_.path(), directory_.path(), directory_.socket()}) ASSERT_EQ(chmod(path.c_str(), 0777), 0);
  const pid_t child = startChild([&] {
    becomeNobody(own);
    EXPECT_EQ(hear(connectClient()), transfer::encode(transfer::Refused{"The service belongs to another user."}));
  });
  turnUntil([this] { return !process_.systemLog().empty(); });
  EXPECT_EQ(waitForChild(child), 0);
  EXPECT_THAT(process_.systemLog(), ElementsAre("Refused a connection of another user"));
  EXPECT_TRUE(happened_.empty());
}

}  // namespace
}  // namespace test
