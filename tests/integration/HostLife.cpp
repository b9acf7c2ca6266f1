// A host that starts and stops the client a thousand times, with a real delivery over TLS in each life: threads, descriptors and
// memory are those of the first lives.
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/Value.h"
#include "support/ChildProcess.h"
#include "support/DevServer.h"
#include "support/Event.h"
#include "support/RealClient.h"
#include "support/TemporaryDirectory.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KESTROVA_TEST_MALLOC_IS_REPLACED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KESTROVA_TEST_MALLOC_IS_REPLACED
#endif
#endif

namespace test {
namespace {

using platform::Dictionary;
using platform::Value;

constexpr int kFirstLives = 50;
constexpr int kLives = 1000;
constexpr const char* kSent = "Events successfully sent to server";

std::ptrdiff_t entriesOf(const char* folder) { return std::distance(std::filesystem::directory_iterator(folder), {}); }

#ifndef KESTROVA_TEST_MALLOC_IS_REPLACED
/// The number in the attribute `size` of the last element that begins with `element`: those of all arenas together come last.
long sizeIn(const std::string& report, const std::string& element) {
  const auto start = report.rfind(element);
  if (start == std::string::npos) throw std::runtime_error("no " + element + " in what malloc_info() says");
  const auto size = report.find("size=\"", start);
  return std::stol(report.substr(size + 6));
}

/// Bytes that were allocated and not freed, in all arenas.
long bytesInUse() {
  char* text = nullptr;
  std::size_t length = 0;
  FILE* const stream = open_memstream(&text, &length);
  if (!stream || malloc_info(0, stream) != 0 || std::fclose(stream) != 0) throw std::runtime_error("malloc_info() failed");
  const std::string report(text, length);
  std::free(text);
  return sizeIn(report, "<system type=\"current\"") - sizeIn(report, "<total type=\"fast\"") -
         sizeIn(report, "<total type=\"rest\"");
}
#endif

void createEvents(RealClient& client, int first, int end) {
  for (int n = first; n < end; ++n) client->createEventWithData("gif-viewed", Dictionary{{"n", n}});
}
/// The numbers of those events that the server took, smallest first.
std::vector<int> numbersTakenBy(const DevServer& server) {
  std::vector<int> numbers;
  for (const Value& record : server.takenRecords()) {
    const auto data = record.objectForKey("eventData");
    const auto number = data ? data->objectForKey("n") : std::nullopt;
    if (number) numbers.push_back(number->intValue());
  }
  std::ranges::sort(numbers);
  return numbers;
}
std::vector<int> upTo(int end) {
  std::vector<int> all(static_cast<std::size_t>(end));
  std::iota(all.begin(), all.end(), 0);
  return all;
}

/// One life: start, deliver a batch, leave one event waiting, stop.
void live(const DevServer& server) {
  RealClient client(server.host(), server.authorityFile());
  client->createEvent(RealClient::kSessionStarted);
  ASSERT_TRUE(client.waitForMessage(kSent));
  client->createEventWithData("gif-viewed", Dictionary{{"n", 1}});
}

/// Lives with a server of their own, which is gone afterwards with all that it has been told.
void liveTimes(int lives) {
  const DevServer server;
  for (int i = 0; i < lives; ++i) ASSERT_NO_FATAL_FAILURE(live(server)) << "life " << i;
}

TEST(HostLife, AThousandStartsAndStopsLeaveNothingBehind) {
  ASSERT_NO_FATAL_FAILURE(liveTimes(kFirstLives));
  const auto threads = entriesOf("/proc/self/task");
  const auto descriptors = entriesOf("/proc/self/fd");
#ifndef KESTROVA_TEST_MALLOC_IS_REPLACED
  const long before = bytesInUse();
#endif
  ASSERT_NO_FATAL_FAILURE(liveTimes(kLives - kFirstLives));
  EXPECT_EQ(entriesOf("/proc/self/task"), threads);
  EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
#ifndef KESTROVA_TEST_MALLOC_IS_REPLACED
  const long growth = bytesInUse() - before;
  RecordProperty("bytes", std::to_string(growth));
  EXPECT_LT(growth, 16L * (kLives - kFirstLives)) << "less than the smallest block that malloc() gives, for each life";
#endif
}

TEST(HostLife, CallsFromSixtyFourThreadsAtOnceAreEachDeliveredOnce) {
  constexpr int kThreads = 64;
  constexpr int kCalls = 40;
  const DevServer server;
  RealClient client(server.host(), server.authorityFile());
  {
    std::barrier together(kThreads);
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
      threads.emplace_back([&, thread] {
        together.arrive_and_wait();
        createEvents(client, thread * kCalls, (thread + 1) * kCalls);
      });
  }
  client->createEvent(RealClient::kSessionStarted);  // takes what is less than a batch along
  ASSERT_TRUE(becomes([&] { return server.takenRecords().size() > kThreads * kCalls; }));

  EXPECT_EQ(numbersTakenBy(server), upTo(kThreads * kCalls));
}

/// The second half of a test, in a process of its own whose server and temporary files are this process's.
ChildResult runHost(const DevServer& server) {
  const TemporaryDirectory files;
  setenv("TMPDIR", files.path().c_str(), 1);
  setenv("HOST_LIFE_API", server.host().c_str(), 1);
  setenv("HOST_LIFE_AUTHORITY", server.authorityFile().c_str(), 1);
  ChildResult result = runThisTestInChild(LeakCheck::kOff);  // nothing is dropped in a host that ends in the middle of its work
  unsetenv("TMPDIR");
  return result;
}
RealClient& clientOfHost() {
  static auto* const client = new RealClient(std::getenv("HOST_LIFE_API"), std::getenv("HOST_LIFE_AUTHORITY"));
  return *client;
}

TEST(HostLife, ExitWithEventsQueuedNeitherHangsNorCrashes) {
  if (isChild()) {
    createEvents(clientOfHost(), 0, 500);
    std::exit(0);
  }
  const DevServer server;
  const ChildResult host = runHost(server);
  EXPECT_EQ(host.status, "exited with 0");
  EXPECT_EQ(host.errors, "");
}

TEST(HostLife, AForkedChildThatExitsDeliversNothingAndTheHostGoesOn) {
  if (isChild()) {
    RealClient& client = clientOfHost();
    createEvents(client, 0, 10);
    const pid_t forked = fork();
    if (forked == 0) std::exit(5);
    say(waitForEnd(forked) + "\n");
    if (!client.waitForMessage(kSent)) say("the batch was not delivered\n");
    createEvents(client, 10, 20);
    if (!client.waitForMessage(kSent, 2)) say("the host did not go on\n");
    if (client.queueFile()) say("there is a queue file\n");
    std::exit(0);
  }
  const DevServer server;
  const ChildResult host = runHost(server);
  EXPECT_EQ(host.status, "exited with 0");
  EXPECT_EQ(host.errors, "exited with 5\n");
  EXPECT_EQ(numbersTakenBy(server), upTo(20));
}

}  // namespace
}  // namespace test
