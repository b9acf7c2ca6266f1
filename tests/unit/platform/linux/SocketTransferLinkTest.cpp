// The link to the transfer service: when it tries, how long it waits, what it says in the system log, and what it does not get
// into. The service at the other end of the socket is played by the test; the time of the link's thread passes by hand.
#include "platform/linux/SocketTransferLink.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/Process.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/GetrandomSecureRandom.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "platform/linux/TransferDirectory.h"
#include "support/ChildProcess.h"
#include "support/Event.h"
#include "support/ForkedChild.h"
#include "support/ManualClock.h"
#include "support/RecordingUncaughtException.h"
#include "support/SteppedQueues.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using platform::FileDescriptor;
using testing::ElementsAre;
using testing::IsEmpty;
using Need = platform::TransferLinkListener::Need;
using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

constexpr int kForever = -1;
constexpr int kGreeting = 10'000;
constexpr int kMinute = 60'000;

int kLimitInMilliseconds() { return static_cast<int>(milliseconds(kLimit).count()); }

/// Texts that other threads write down.
class Notes {
 public:
  void add(std::string text) {
    const std::lock_guard lock(mutex_);
    texts_.push_back(std::move(text));
    changed_.notify_all();
  }
  Texts all() const {
    const std::lock_guard lock(mutex_);
    return texts_;
  }
  [[nodiscard]] bool waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kLimit, [&] { return texts_.size() >= count; });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Texts texts_;
};

class NotingSystemLog final : public platform::SystemLog {
 public:
  void log(std::string_view message) override { notes.add(std::string(message)); }
  Notes notes;
};

/// Stands still until the test lets it pass.
class HandTime final : public platform::LinkTime {
 public:
  std::chrono::steady_clock::time_point now() override {
    const std::lock_guard lock(mutex_);
    return now_;
  }

  void wait(std::span<pollfd> watched, int limit) override {
    std::vector<pollfd> all(watched.begin(), watched.end());
    all.push_back({passed_.get(), POLLIN, 0});
    enter(limit);
    (void)::poll(all.data(), all.size(), limit == 0 ? 0 : -1);
    enter(std::nullopt);
    eventfd_t ignored = 0;
    (void)eventfd_read(passed_.get(), &ignored);
  }

  void pass(int time) {
    {
      const std::lock_guard lock(mutex_);
      now_ += milliseconds(time);
      limit_.reset();
    }
    (void)eventfd_write(passed_.get(), 1);
  }
  /// Until the thread waits, and has begun to more than that many times.
  [[nodiscard]] bool comesToWaitAfter(std::size_t waits) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kLimit, [&] { return limit_ && waits_ > waits; });
  }
  std::size_t waits() {
    const std::lock_guard lock(mutex_);
    return waits_;
  }
  /// Until the thread waits for that long.
  [[nodiscard]] testing::AssertionResult comesToWait(int limit) {
    std::unique_lock lock(mutex_);
    if (changed_.wait_for(lock, kLimit, [&] { return limit_ == limit; })) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "it waits for " << (limit_ ? std::to_string(*limit_) : "nothing");
  }

 private:
  void enter(std::optional<int> limit) {
    const std::lock_guard lock(mutex_);
    limit_ = limit;
    if (limit) ++waits_;
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::chrono::steady_clock::time_point now_{};
  std::optional<int> limit_;  // while the thread waits
  std::size_t waits_ = 0;     // so far
  const FileDescriptor passed_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
};

class Listener final : public platform::TransferLinkListener {
 public:
  void linkConnected() override { notes.add("connected"); }
  void linkReceived(const transfer::Message& message) override { notes.add("received " + encode(message)); }
  void linkDisconnected() override { notes.add("disconnected"); }
  Need linkNeed() override {
    const std::lock_guard lock(mutex_);
    return need_;
  }
  void setNeed(Need need) {
    const std::lock_guard lock(mutex_);
    need_ = need;
  }

  Notes notes;

 private:
  std::mutex mutex_;
  Need need_ = Need::kConnect;
};

/// The service's end of one connection.
class Peer {
 public:
  explicit Peer(FileDescriptor socket) : socket_(std::move(socket)) {}

  void say(std::string_view text) const {
    EXPECT_EQ(::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  }
  void say(const transfer::Message& message) const { say(encode(message)); }
  /// The next message as its line without its end; "(end)" when the link has closed, or at the limit.
  std::string hear() {
    std::array<char, 4096> buffer{};
    for (;;) {
      if (const auto message = reader_.next()) {
        last_ = **message;
        const std::string line = encode(last_);
        return line.substr(0, line.size() - 1);
      }
      pollfd waiting{socket_.get(), POLLIN, 0};
      if (::poll(&waiting, 1, kLimitInMilliseconds()) != 1) return "(end)";
      const ssize_t got = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
      if (got <= 0) return "(end)";
      reader_.append({buffer.data(), static_cast<std::size_t>(got)});
    }
  }
  /// Hears the hello and answers it.
  void welcome() {
    (void)hear();
    EXPECT_TRUE(std::holds_alternative<transfer::Hello>(last_));
    say(transfer::Welcome{});
  }
  const transfer::Message& last() const { return last_; }

 private:
  FileDescriptor socket_;
  transfer::MessageReader reader_;
  transfer::Message last_;
};

class SocketTransferLinkTest : public testing::Test {
 protected:
  SocketTransferLinkTest() {
    record_.json = platform::makeRapidJSONSerialization();
    record_.systemLog = log_;
    scope_.emplace(record_);
    options_.bundleIdentifier = "com.example.app";
    options_.homeDirectory = folder_.path() + "/home";
    options_.launchCommand = {"/bin/app", "--events"};
    options_.transferServicePath = "/bin/true";
  }
  ~SocketTransferLinkTest() override {
    if (link_) link_->stop();
  }

  std::string transfers() const { return folder_.path() + "/transfers"; }
  std::shared_ptr<platform::TransferIdentity> identity() const {
    return std::make_shared<platform::TransferIdentity>(options_, std::make_shared<platform::GetrandomSecureRandom>());
  }
  platform::TransferLink& link() {
    if (!link_) {
      link_ = platform::makeSocketTransferLink(options_, transfers(), identity(), time_);
      link_->setListener(listener_);
    }
    return *link_;
  }

  /// The service's socket is there from now on.
  void listen() {
    const auto directory = *platform::TransferDirectory::open(transfers());
    fs::remove(directory.socket());
    listening_ = FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = directory.socketAddress();
    ASSERT_EQ(::bind(listening_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listening_.get(), 16), 0);
  }
  Peer accept() const {
    pollfd waiting{listening_.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&waiting, 1, kLimitInMilliseconds()), 1) << "nobody connects";
    return Peer(FileDescriptor(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
  }
  /// A connection that the service has taken.
  Peer connected() {
    Peer peer = accept();
    peer.welcome();
    return peer;
  }
  std::string script(const std::string& lines) const {
    std::string path = folder_.path() + "/program";
    std::ofstream(path) << "#!/bin/sh\n" << lines << "\n";
    EXPECT_EQ(::chmod(path.c_str(), 0700), 0);
    return path;
  }
  void letPass(std::initializer_list<int> waits) {
    for (const int wait : waits) {
      ASSERT_TRUE(time_->comesToWait(wait));
      time_->pass(wait);
    }
  }
  Texts log() const { return log_->notes.all(); }

  TemporaryDirectory folder_;
  std::shared_ptr<NotingSystemLog> log_ = std::make_shared<NotingSystemLog>();
  platform::Process record_;
  std::optional<platform::Process::Scope> scope_;
  platform::SystemOptions options_;
  std::shared_ptr<HandTime> time_ = std::make_shared<HandTime>();
  std::shared_ptr<Listener> listener_ = std::make_shared<Listener>();
  FileDescriptor listening_;
  std::shared_ptr<platform::TransferLink> link_;
};

// Connecting.

TEST_F(SocketTransferLinkTest, TheServiceHearsWhoItIsAndThenWhatIsSaid) {
  listen();
  link().send(transfer::Wake{});  // dropped: there is no connection
  link().connect();
  Peer peer = connected();
  const auto* const hello = std::get_if<transfer::Hello>(&peer.last());
  ASSERT_TRUE(hello);
  EXPECT_EQ(hello->version, transfer::kProtocolVersion);
  EXPECT_EQ(hello->application, *identity()->identity());
  EXPECT_THAT(hello->launchCommand, ElementsAre("/bin/app", "--events"));
  ASSERT_TRUE(listener_->notes.waitFor(1));
  link().connect();  // it stands
  link().send(transfer::Cancel{"session-1"});
  EXPECT_EQ(peer.hear(), R"({"is":"cancel","session":"session-1"})");
  peer.say(transfer::EventsDelivered{"session-1"});
  ASSERT_TRUE(listener_->notes.waitFor(2));
  EXPECT_THAT(listener_->notes.all(),
              ElementsAre("connected", "received {\"is\":\"eventsDelivered\",\"session\":\"session-1\"}\n"));
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(SocketTransferLinkTest, MessagesThatComeInPiecesAreWhole) {
  listen();
  link().connect();
  const Peer peer = connected();
  const std::string line = encode(transfer::EventsDelivered{"session-1"});
  ASSERT_TRUE(listener_->notes.waitFor(1));
  for (const char letter : line + line) peer.say(std::string_view(&letter, 1));
  ASSERT_TRUE(listener_->notes.waitFor(3));
  EXPECT_THAT(listener_->notes.all(), ElementsAre("connected", "received " + line, "received " + line));
}

TEST_F(SocketTransferLinkTest, ItLeavesWhenNobodyNeedsIt) {
  listen();
  link().connect();
  Peer peer = connected();
  ASSERT_TRUE(listener_->notes.waitFor(1));
  listener_->setNeed(Need::kNone);
  link().send(transfer::Wake{});
  EXPECT_EQ(peer.hear(), R"({"is":"wake"})");
  EXPECT_EQ(peer.hear(), "(end)");
  ASSERT_TRUE(listener_->notes.waitFor(2));
  EXPECT_THAT(listener_->notes.all(), ElementsAre("connected", "disconnected"));
  EXPECT_TRUE(time_->comesToWait(kForever));
}

// Waiting.

TEST_F(SocketTransferLinkTest, WaitsGrowUpToAMinuteWhileTheServiceIsAway) {
  options_.transferServicePath = folder_.path() + "/missing";
  link().connect();
  letPass({10, 20, 40, 80, 160, 320, 640, 1280, 2560, 5120, 10240, 20480, 40960, kMinute, kMinute});
  ASSERT_TRUE(time_->comesToWait(kMinute));
  listen();
  time_->pass(kMinute);
  const Peer peer = connected();
  ASSERT_TRUE(listener_->notes.waitFor(1));
  EXPECT_THAT(listener_->notes.all().front(), "connected");
}

TEST_F(SocketTransferLinkTest, WhoAsksDoesNotWaitForTheEndOfAPause) {
  link().connect();
  letPass({10, 20, 40, 80});
  ASSERT_TRUE(time_->comesToWait(160));
  listen();
  link().connect();
  const Peer peer = connected();
  EXPECT_TRUE(listener_->notes.waitFor(1));
}

// An application that took up eighty sessions while its service was starting came to it after a minute.
TEST_F(SocketTransferLinkTest, AsksInARowDoNotMakeThePausesLonger) {
  options_.transferServicePath = folder_.path() + "/missing";  // its end would wake the thread as well
  for (int i = 0; i < 20; ++i) {
    const std::size_t before = time_->waits();
    link().connect();
    ASSERT_TRUE(time_->comesToWaitAfter(before));
    ASSERT_TRUE(time_->comesToWait(10));
  }
  letPass({10, 20});
  EXPECT_TRUE(time_->comesToWait(40));
}

TEST_F(SocketTransferLinkTest, WhatNobodyNeedsIsTriedTenTimesSinceItWasAskedForLast) {
  options_.transferServicePath = folder_.path() + "/missing";
  listener_->setNeed(Need::kNone);
  for (int i = 0; i < 20; ++i) {
    const std::size_t before = time_->waits();
    link().connect();
    ASSERT_TRUE(time_->comesToWaitAfter(before));
  }
  letPass({10, 20, 40, 80, 160, 320, 640, 1280, 2560});
  EXPECT_TRUE(time_->comesToWait(kForever));
}

TEST_F(SocketTransferLinkTest, WhatNobodyNeedsIsGivenUpAfterTenTries) {
  options_.transferServicePath = folder_.path() + "/missing";
  listener_->setNeed(Need::kNone);
  link().connect();
  letPass({10, 20, 40, 80, 160, 320, 640, 1280, 2560});
  EXPECT_TRUE(time_->comesToWait(kForever));
}

TEST_F(SocketTransferLinkTest, AServiceThatDoesNotAnswerIsLeftAfterTenSeconds) {
  listen();
  link().connect();
  Peer peer = accept();
  (void)peer.hear();
  ASSERT_TRUE(time_->comesToWait(kGreeting));
  time_->pass(kGreeting);
  EXPECT_EQ(peer.hear(), "(end)");
  letPass({10});
  peer = connected();
  ASSERT_TRUE(listener_->notes.waitFor(1));
  EXPECT_THAT(listener_->notes.all(), ElementsAre("connected"));
}

TEST_F(SocketTransferLinkTest, AfterADeathOfTheServiceItConnectsAgain) {
  listen();
  link().connect();
  {
    const Peer peer = connected();
    ASSERT_TRUE(listener_->notes.waitFor(1));
    time_->pass(60'000);
  }
  letPass({10});
  const Peer peer = connected();
  ASSERT_TRUE(listener_->notes.waitFor(3));
  EXPECT_THAT(listener_->notes.all(), ElementsAre("connected", "disconnected", "connected"));
}

TEST_F(SocketTransferLinkTest, AfterADeathItStaysAwayFromWhatOnlyWantedItToStay) {
  listener_->setNeed(Need::kKeep);
  listen();
  link().connect();
  {
    const Peer peer = connected();
    ASSERT_TRUE(listener_->notes.waitFor(1));
    ASSERT_TRUE(time_->comesToWait(kForever));
  }
  ASSERT_TRUE(listener_->notes.waitFor(2));
  EXPECT_TRUE(time_->comesToWait(kForever)) << "there is nothing to wait for";
}

TEST_F(SocketTransferLinkTest, AServiceThatDiesAgainAndAgainIsVisitedTwiceASecondAtMost) {
  listen();
  link().connect();
  for (const int wait : {10, 20, 40, 80, 160, 320, 500, 500, 500, 500}) {
    (void)connected();
    letPass({wait});
  }
  {
    const Peer steady = connected();
    ASSERT_TRUE(listener_->notes.waitFor(21));
    time_->pass(5'000);
  }
  EXPECT_TRUE(time_->comesToWait(10)) << "a life that lasts ends the row";
}

// Starting the service.

/// A program that says when it starts and ends with the status that it is given.
class StartedPrograms : public SocketTransferLinkTest {
 protected:
  StartedPrograms() {
    EXPECT_EQ(::mkfifo(path("starts").c_str(), 0600), 0);
    EXPECT_EQ(::mkfifo(path("statuses").c_str(), 0600), 0);
    starts_ = FileDescriptor(::open(path("starts").c_str(), O_RDWR | O_CLOEXEC));
    statuses_ = FileDescriptor(::open(path("statuses").c_str(), O_RDWR | O_CLOEXEC));
    options_.transferServicePath =
        script("exec 3< " + path("statuses") + "; echo > " + path("starts") + "; read status <&3; exit $status");
  }
  ~StartedPrograms() override { end(0); }

  bool startsWithin(int limit) const {
    pollfd waiting{starts_.get(), POLLIN, 0};
    char word = 0;
    return ::poll(&waiting, 1, limit) == 1 && ::read(starts_.get(), &word, 1) == 1;
  }
  bool starts() const { return startsWithin(kLimitInMilliseconds()); }
  bool hasStarted() const { return startsWithin(0); }
  /// One that runs, or the next one.
  void end(int status) { (void)statuses_.writeAll(std::to_string(status) + "\n"); }
  std::string said(int status) const {
    return "The transfer service “" + *options_.transferServicePath + "” ended with status " + std::to_string(status) + ".";
  }

 private:
  std::string path(const std::string& name) const { return folder_.path() + "/" + name; }

  FileDescriptor starts_;
  FileDescriptor statuses_;
};

TEST_F(StartedPrograms, TheServiceIsStartedAtOnceAndThenAfterFiveSecondsAndTwiceAsLongEachTime) {
  link().connect();
  ASSERT_TRUE(starts());
  end(1);
  ASSERT_TRUE(log_->notes.waitFor(1)) << "its end is seen";
  letPass({10, 20, 40, 80, 160, 320, 640, 1280});
  ASSERT_TRUE(time_->comesToWait(2560));
  EXPECT_FALSE(hasStarted());
  time_->pass(2560);
  ASSERT_TRUE(starts());
  end(2);
  ASSERT_TRUE(log_->notes.waitFor(2));
  letPass({10, 20, 40, 80, 160, 320, 640, 1280, 2560});
  ASSERT_TRUE(time_->comesToWait(5120));
  EXPECT_FALSE(hasStarted());
  time_->pass(5120);
  ASSERT_TRUE(starts());
  end(3);
  ASSERT_TRUE(log_->notes.waitFor(3));
  EXPECT_THAT(log(), ElementsAre(said(1), said(2), said(3)));
}

TEST_F(StartedPrograms, OneThatEndsAtOnceIsSaidOnce) {
  link().connect();
  ASSERT_TRUE(starts());
  end(3);
  ASSERT_TRUE(log_->notes.waitFor(1));
  const auto nextStarts = [this] {
    time_->pass(kMinute);
    return hasStarted();
  };
  ASSERT_TRUE(becomes(nextStarts));
  end(3);
  ASSERT_TRUE(becomes(nextStarts)) << "so its end was seen";
  end(4);
  ASSERT_TRUE(log_->notes.waitFor(2));
  EXPECT_THAT(log(), ElementsAre(said(3), said(4)));
}

TEST_F(StartedPrograms, OneThatRunsIsNotStartedAgain) {
  link().connect();
  ASSERT_TRUE(starts());
  letPass({10, 20, 40, 80, 160, 320, 640, 1280, 2560, 5120, 10240, 20480, 40960});
  ASSERT_TRUE(time_->comesToWait(kMinute));
  EXPECT_FALSE(hasStarted());
}

TEST_F(StartedPrograms, WhoAsksDoesNotWaitUntilTheNextStartIsDue) {
  link().connect();
  ASSERT_TRUE(starts());
  end(1);
  ASSERT_TRUE(log_->notes.waitFor(1));
  letPass({10, 20, 40, 80, 160, 320, 640, 1280, 2560});
  ASSERT_TRUE(starts());
  end(2);
  ASSERT_TRUE(log_->notes.waitFor(2));
  letPass({10, 20, 40, 80, 160, 320, 640, 1280, 2560});  // 5.11 seconds of 10
  ASSERT_TRUE(time_->comesToWait(5120));
  EXPECT_FALSE(hasStarted());
  link().connect();
  EXPECT_TRUE(starts());
}

TEST_F(StartedPrograms, WhatNobodyNeedsIsNotGivenUpWhileTheProgramStarts) {
  listener_->setNeed(Need::kKeep);
  link().connect();
  ASSERT_TRUE(starts());
  letPass({10, 20, 40, 80, 160, 320, 640, 1280, 2560, 5120});
  ASSERT_TRUE(time_->comesToWait(10240));
  listen();
  time_->pass(10240);
  const Peer peer = connected();
  EXPECT_TRUE(listener_->notes.waitFor(1));
}

// It was met after the long wait to which the tries before its start had grown.
TEST_F(StartedPrograms, AServiceThatIsStartedLateIsMetSoon) {
  link().connect();
  ASSERT_TRUE(starts());
  letPass({10, 20, 40, 80, 160, 320, 640, 1280, 2560, 5120, 10240, 20480});
  ASSERT_TRUE(time_->comesToWait(40960));
  end(1);
  ASSERT_TRUE(log_->notes.waitFor(1));
  time_->pass(40960);
  ASSERT_TRUE(starts());
  ASSERT_TRUE(time_->comesToWait(10));
  listen();
  time_->pass(10);
  const Peer peer = connected();
  EXPECT_TRUE(listener_->notes.waitFor(1));
}

TEST_F(SocketTransferLinkTest, AMissingProgramIsSaidOnceUntilAServiceWasThere) {
  options_.transferServicePath = folder_.path() + "/missing";
  const std::string said =
      "The transfer service cannot be started as “" + *options_.transferServicePath + "”: No such file or directory.";
  link().connect();
  letPass({10, 20, 40, 80, 160, 320, 640, 1280, 2560, 5120});
  ASSERT_TRUE(time_->comesToWait(10240));
  EXPECT_THAT(log(), ElementsAre(said));
  listen();
  time_->pass(10240);
  {
    const Peer peer = connected();
    ASSERT_TRUE(listener_->notes.waitFor(1));
    listening_ = FileDescriptor();
  }
  letPass({10});
  ASSERT_TRUE(time_->comesToWait(20));
  EXPECT_THAT(log(), ElementsAre(said, said));
}

TEST_F(SocketTransferLinkTest, AFolderThatCannotBeUsedIsSaidOnce) {
  fs::create_directory(transfers());
  fs::permissions(transfers(), fs::perms::all);
  link().connect();
  letPass({10, 20, 40});
  ASSERT_TRUE(time_->comesToWait(80));
  EXPECT_THAT(log(), ElementsAre("The transfer service cannot be reached: The folder “" + transfers() +
                                 "” cannot be used: other users can write to it."));
}

TEST_F(SocketTransferLinkTest, ADamagedTokenIsSaidOnceAndMayBeMended) {
  const std::string token = *identity()->folder() + "/transfer-token";
  fs::create_directories(*identity()->folder());
  std::ofstream(token) << "no token";
  listen();
  link().connect();
  letPass({10, 20});
  ASSERT_TRUE(time_->comesToWait(40));
  EXPECT_THAT(log(), ElementsAre("The transfer service cannot be asked: The file “transfer-token” couldn’t be opened."));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(accept().hear(), "(end)") << "nobody says hello without a name";
  std::ofstream(token) << std::string(64, 'a');
  time_->pass(40);
  const Peer peer = connected();
  EXPECT_TRUE(listener_->notes.waitFor(1));
}

// A service that does not behave.

TEST_F(SocketTransferLinkTest, ARefusalIsSaidOnceAndFollowedByALongWait) {
  listen();
  link().connect();
  for (int i = 0; i < 3; ++i) {
    Peer peer = accept();
    (void)peer.hear();
    peer.say(transfer::Refused{"the application “a” in “/b” is known with another token"});
    EXPECT_EQ(peer.hear(), "(end)");
    letPass({kMinute});
  }
  EXPECT_THAT(log(), ElementsAre("The transfer service refuses this application: the application “a” in “/b” is known with another "
                                 "token."));
  const Peer peer = connected();
  ASSERT_TRUE(listener_->notes.waitFor(1));
  EXPECT_THAT(listener_->notes.all().front(), "connected") << "once it is let in, all is well";
}

TEST_F(SocketTransferLinkTest, ANewQuestionAfterARefusalIsAskedAtOnce) {
  listen();
  link().connect();
  Peer refusing = accept();
  (void)refusing.hear();
  refusing.say(transfer::Refused{"the service speaks version 2, not version 1"});
  ASSERT_TRUE(time_->comesToWait(kMinute));
  link().connect();
  const Peer peer = connected();
  EXPECT_TRUE(listener_->notes.waitFor(1));
}

TEST_F(SocketTransferLinkTest, AQuestionWhileTheAnswerIsARefusalIsAskedAtOnce) {
  listen();
  link().connect();
  Peer refusing = accept();
  (void)refusing.hear();
  const std::size_t before = time_->waits();
  link().connect();
  ASSERT_TRUE(time_->comesToWaitAfter(before)) << "it has heard of it, and waits for the answer to the first";
  refusing.say(transfer::Refused{"hello did not come in time"});
  const Peer peer = connected();
  EXPECT_TRUE(listener_->notes.waitFor(1));
}

TEST_F(SocketTransferLinkTest, ARefusalInTheMiddleIsNotHandedOn) {
  listen();
  link().connect();
  const Peer peer = connected();
  ASSERT_TRUE(listener_->notes.waitFor(1));
  peer.say(transfer::Refused{"hello came twice"});
  ASSERT_TRUE(time_->comesToWait(kMinute));
  EXPECT_THAT(listener_->notes.all(), ElementsAre("connected", "disconnected"));
  EXPECT_THAT(log(), ElementsAre("The transfer service refuses this application: hello came twice."));
}

TEST_F(SocketTransferLinkTest, ARefusalOfWhatNobodyNeedsEndsIt) {
  listener_->setNeed(Need::kNone);
  listen();
  link().connect();
  Peer peer = accept();
  (void)peer.hear();
  ASSERT_TRUE(time_->comesToWait(kGreeting));
  for (int i = 0; i < 9; ++i) {
    peer.say(transfer::Refused{"no"});
    letPass({kMinute});
    peer = accept();
    (void)peer.hear();
  }
  peer.say(transfer::Refused{"no"});
  EXPECT_TRUE(time_->comesToWait(kForever));
}

TEST_F(SocketTransferLinkTest, WhatIsNoMessageEndsTheConnectionForAWhile) {
  listen();
  link().connect();
  for (const std::string& garbage : {std::string("HTTP/1.1 400 Bad Request\r\n"), std::string("{\"is\":\"nothing known\"}\n")}) {
    Peer peer = accept();
    (void)peer.hear();
    peer.say(garbage);
    EXPECT_EQ(peer.hear(), "(end)");
    letPass({kMinute});
  }
  Peer peer = connected();
  ASSERT_TRUE(listener_->notes.waitFor(1));
  peer.say("\xff\xfe\n" + encode(transfer::EventsDelivered{"session-1"}));
  EXPECT_EQ(peer.hear(), "(end)");
  ASSERT_TRUE(time_->comesToWait(kMinute));
  EXPECT_THAT(listener_->notes.all(), ElementsAre("connected", "disconnected")) << "nothing after it is read";
  EXPECT_THAT(log(), ElementsAre("The transfer service says what is no message: not JSON.",
                                 "The transfer service says what is no message: “is” is unknown.",
                                 "The transfer service says what is no message: not UTF-8."));
}

TEST_F(SocketTransferLinkTest, ALineWithoutEndIsNotKept) {
  listen();
  link().connect();
  Peer peer = accept();
  (void)peer.hear();
  peer.say(std::string(transfer::kMaxMessageBytes, 'x'));
  EXPECT_TRUE(time_->comesToWait(kMinute));
  EXPECT_THAT(log(), ElementsAre("The transfer service says what is no message: longer than 1048576 bytes."));
}

TEST_F(SocketTransferLinkTest, AnythingButWelcomeIsNoGreeting) {
  listen();
  link().connect();
  for (const transfer::Message& answer :
       {transfer::Message(transfer::EventsDelivered{"s"}), transfer::Message(transfer::Welcome{2})}) {
    Peer peer = accept();
    (void)peer.hear();
    peer.say(answer);
    EXPECT_EQ(peer.hear(), "(end)");
    letPass({kMinute});
  }
  EXPECT_THAT(listener_->notes.all(), IsEmpty());
  EXPECT_THAT(log(), ElementsAre("The transfer service says something else than welcome."));
}

// The end.

TEST_F(SocketTransferLinkTest, NothingIsToldAfterTheStop) {
  listen();
  link().connect();
  const Peer peer = connected();
  ASSERT_TRUE(listener_->notes.waitFor(1));
  link().stop();
  const Texts before = listener_->notes.all();
  link().connect();
  link().send(transfer::Wake{});
  link().stop();
  EXPECT_EQ(listener_->notes.all(), before);
}

TEST_F(SocketTransferLinkTest, AStopDoesNotWaitForTheEndOfAPause) {
  link().connect();
  letPass({10, 20});
  ASSERT_TRUE(time_->comesToWait(40));
  link().stop();
}

TEST_F(SocketTransferLinkTest, AChildMadeByForkJoinsNothing) {
  listen();
  link().connect();
  Peer peer = connected();
  ASSERT_TRUE(listener_->notes.waitFor(1));
  EXPECT_EQ(runInChild([this] {
              link().send(transfer::Wake{});
              link().connect();
              link().stop();  // would wait for a thread that is not there
              EXPECT_THAT(listener_->notes.all(), ElementsAre("connected"));
            }),
            0);
  link().send(transfer::Cancel{"of the parent"});
  EXPECT_EQ(peer.hear(), R"({"is":"cancel","session":"of the parent"})") << "the first that is heard";
}

TEST_F(SocketTransferLinkTest, AProcessEndsWithItsLinkAlive) {
  if (!isChild()) {
    const ChildResult child = runThisTestInChild();
    EXPECT_EQ(child.status, "exited with 0");
    EXPECT_EQ(child.errors, "");
    return;
  }
  listen();
  static auto* const living = new std::shared_ptr<platform::TransferLink>(std::move((link(), link_)));
  static auto* const peers = new std::vector<Peer>;
  (*living)->connect();
  peers->push_back(connected());
  if (!listener_->notes.waitFor(1)) std::abort();
  std::exit(testing::Test::HasFailure() ? 1 : 0);
}

// With the sessions above it.

class WillingSpool final : public platform::TransferSpool {
 public:
  std::expected<std::uint64_t, platform::Error> reserveTaskIdentifier() override { return ++last_; }
  std::expected<void, platform::Error> write(transfer::SpoolEntry /*entry*/) override { return {}; }
  bool hasInterruptedTransfers() override { return false; }

 private:
  std::uint64_t last_ = 0;
};

TEST_F(SocketTransferLinkTest, AServiceThatComesBackIsToldAgainWhichSessionsAreHeld) {
  listen();
  (void)link();
  auto queues = std::make_shared<SteppedQueues>(std::make_shared<RecordingUncaughtException>());
  platform::TransferSessions sessions({link_, std::make_shared<WillingSpool>(), std::make_shared<ManualClock>(0), queues}, {});
  const auto session = sessions.sessionWithConfigurationDelegateDelegateQueue(
      platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("session-1"), nullptr, nullptr);
  platform::URLRequest request(platform::URL::URLWithString("https://api.example.com/gifs"));
  const auto task = session->uploadTaskWithRequestFromFile(request, platform::URL::fileURLWithPath("/host/cat.gif"));
  task->resume();
  for (const int wait : {10, 20}) {
    Peer peer = connected();
    EXPECT_EQ(peer.hear(), R"({"is":"wake"})");
    EXPECT_EQ(peer.hear(), R"({"is":"hold","session":"session-1","wasLaunchedForIt":false})") << "before the wait of " << wait;
    peer = Peer(FileDescriptor());
    letPass({wait});
  }
  Peer peer = connected();
  EXPECT_EQ(peer.hear(), R"({"is":"wake"})");
  EXPECT_EQ(peer.hear(), R"({"is":"hold","session":"session-1","wasLaunchedForIt":false})");
  task->cancel();
  EXPECT_EQ(peer.hear(), R"({"is":"cancel","session":"session-1"})");
}

}  // namespace
}  // namespace test
