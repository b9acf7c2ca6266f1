// The real command on a bad network: a proxy between it and the development server delays, cuts, halves, garbles and stalls.
//
// Nothing that a network does may lose a record: what was not answered is written back. A record may arrive twice, when the server
// took it and the answer did not come through.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/FileDescriptor.h"
#include "support/CommandTest.h"
#include "support/DevServer.h"

namespace test {
namespace {

using platform::FileDescriptor;

/// Forwards connections on a port of its own to another, and does to each what its seed says.
class ChaosProxy {
 public:
  enum class Fate { kPass, kDelay, kCut, kHalve, kGarble, kStall, kRefuse };
  static constexpr int kFates = 7;

  /// Without a seed every connection passes.
  ChaosProxy(std::uint16_t target, std::optional<std::uint32_t> seed) : target_(target), seed_(seed) {
    listener_ = FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_.get(), 64), 0);
    socklen_t length = sizeof address;
    EXPECT_EQ(::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { accept(); });
  }
  ~ChaosProxy() {
    (void)eventfd_write(stop_.get(), 1);
    acceptor_.join();
    for (std::thread& connection : connections_) connection.join();
  }
  ChaosProxy(const ChaosProxy&) = delete;
  ChaosProxy& operator=(const ChaosProxy&) = delete;

  std::uint16_t port() const { return port_; }
  /// How many connections met each fate.
  std::map<Fate, int> fates() const {
    const std::lock_guard lock(mutex_);
    return fates_;
  }

 private:
  static sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }

  void accept() {
    for (std::uint32_t number = 0;; ++number) {
      std::array<pollfd, 2> watched{{{listener_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}}};
      (void)::poll(watched.data(), watched.size(), -1);
      if (watched[1].revents != 0) return;
      FileDescriptor client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!client.isOpen()) continue;
      std::mt19937 random(seed_.value_or(0) * 7919 + number);
      const Fate fate = seed_ ? static_cast<Fate>(random() % kFates) : Fate::kPass;
      {
        const std::lock_guard lock(mutex_);
        ++fates_[fate];
      }
      connections_.emplace_back([this, fate, random, client = std::move(client)]() mutable { forward(client, fate, random); });
    }
  }

  /// Waits for bytes on one of the two, or for the stop. The one that has them; -1 at the stop.
  int readable(const FileDescriptor& client, const FileDescriptor& server) const {
    std::array<pollfd, 3> watched{{{client.get(), POLLIN, 0}, {server.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}}};
    (void)::poll(watched.data(), watched.size(), -1);
    if (watched[2].revents != 0) return -1;
    return watched[0].revents != 0 ? client.get() : server.get();
  }
  void pause(int milliseconds) const {
    pollfd stop{stop_.get(), POLLIN, 0};
    (void)::poll(&stop, 1, milliseconds);
  }

  void forward(const FileDescriptor& client, Fate fate, std::mt19937& random) {
    if (fate == Fate::kRefuse) return;
    const FileDescriptor server(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(target_);
    if (::connect(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return;
    // A handshake takes about three thousand bytes, a small batch as many again: the fault comes somewhere in these.
    std::size_t untilFault = random() % 6000;
    std::array<char, 2048> buffer{};
    for (;;) {
      const int from = readable(client, server);
      if (from < 0) return;
      const ssize_t got = ::recv(from, buffer.data(), buffer.size(), 0);
      if (got <= 0) return;
      auto count = static_cast<std::size_t>(got);
      const bool isNow = count > untilFault;
      if (fate == Fate::kDelay) pause(static_cast<int>(random() % 40));
      if (isNow && fate == Fate::kCut) return;
      if (isNow && fate == Fate::kStall) return pause(-1);
      if (isNow && fate == Fate::kHalve) count /= 2;
      if (isNow && fate == Fate::kGarble) buffer.at(untilFault) = static_cast<char>(buffer.at(untilFault) ^ 0x20);
      untilFault = isNow ? SIZE_MAX : untilFault - count;
      const int to = from == client.get() ? server.get() : client.get();
      if (::send(to, buffer.data(), count, MSG_NOSIGNAL) != static_cast<ssize_t>(count)) return;
      if (isNow && fate == Fate::kHalve) return;
    }
  }

  const std::uint16_t target_;
  const std::optional<std::uint32_t> seed_;
  const FileDescriptor stop_{::eventfd(0, EFD_CLOEXEC)};
  FileDescriptor listener_;
  std::uint16_t port_ = 0;
  std::thread acceptor_;
  std::vector<std::thread> connections_;  // of the acceptor, until it has ended
  mutable std::mutex mutex_;
  std::map<Fate, int> fates_;
};

class BadNetwork : public CommandTest {
 protected:
  Run runThrough(const ChaosProxy& proxy, const DevServer& server, const std::vector<std::string>& arguments) {
    return run(arguments, &server, {{"KESTROVA_API_HOST", "localhost:" + std::to_string(proxy.port())}});
  }
  std::string events(int first, int count) {
    std::string lines;
    for (int n = first; n < first + count; ++n) lines += R"({"event": "gif-viewed", "data": {"n": )" + std::to_string(n) + "}}\n";
    return file("events", lines);
  }
};

TEST_F(BadNetwork, LosesNothing) {
  constexpr int kRounds = 25;
  constexpr int kEvents = 30;
  DevServer server;
  ASSERT_EQ(server.fault(), "");
  std::map<ChaosProxy::Fate, int> fates;
  std::set<int> reported;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("seed " + std::to_string(round));
    const ChaosProxy proxy(server.port(), static_cast<std::uint32_t>(round));
    const Run done = runThrough(proxy, server, {"--json", "--timeout", "1", "events", events(round * kEvents, kEvents)});
    // On a network that stalls the time may be up before the input is read: the rest was never reported.
    const bool isUnread = done.report.objectForKey("inputUnread") == platform::Value(true);
    EXPECT_THAT(done.end, testing::AnyOf("exited with 0", "exited with 3", isUnread ? "exited with 4" : "")) << done.output;
    EXPECT_EQ(done.number("lost"), 0U) << done.output;
    ASSERT_LE(done.number("recorded"), static_cast<std::uint64_t>(kEvents)) << done.output << done.errors;
    EXPECT_EQ(done.number("recorded") < kEvents, isUnread) << done.output;
    for (int n = 0; n < static_cast<int>(done.number("recorded")); ++n) reported.insert(round * kEvents + n);
    for (const auto& [fate, count] : proxy.fates()) fates[fate] += count;
  }
  for (int fate = 0; fate < ChaosProxy::kFates; ++fate)
    EXPECT_GT(fates[static_cast<ChaosProxy::Fate>(fate)], 0) << "no connection met fate " << fate;

  const ChaosProxy healed(server.port(), std::nullopt);
  const Run flushed = runThrough(healed, server, {"--json", "flush"});
  EXPECT_EQ(flushed.end, "exited with 0") << flushed.output << flushed.errors;
  std::map<int, int> taken;
  for (const platform::Value& record : server.takenRecords())
    ++taken[record.objectForKey("eventData")->objectForKey("n")->intValue()];
  for (const int n : reported) EXPECT_GE(taken[n], 1) << "record " << n << " was lost";
  EXPECT_EQ(taken.size(), reported.size()) << "records that nobody reported";
  const auto repeated = std::ranges::count_if(taken, [](const auto& each) { return each.second > 1; });
  RecordProperty("Reported", static_cast<int>(reported.size()));
  RecordProperty("Repeated", static_cast<int>(repeated));
}

}  // namespace
}  // namespace test
