// The debug trace: its bounds, its listener, and the messages that are not even formatted.
#include "companions/KSVDebugger.h"

#include <atomic>
#include <thread>

#include "CompanionsTest.h"
#include "support/Event.h"

namespace test {
namespace {

using Lines = std::vector<std::string>;

std::size_t bytesOf(const Lines& lines) {
  std::size_t bytes = 0;
  for (const std::string& line : lines) bytes += line.size();
  return bytes;
}

TEST_F(CompanionsTest, DebuggerIsOneForTheProcessRecord) {
  EXPECT_EQ(KSVDebugger::sharedDebugger(), KSVDebugger::sharedDebugger());
}

TEST(KSVDebugger, KeepsLinesInTheirOrder) {
  KSVDebugger debugger;
  EXPECT_EQ(debugger.trace(), Lines{});
  debugger.storeInTrace("one");
  debugger.storeInTrace("");
  debugger.storeInTrace("two\nlines");
  EXPECT_EQ(debugger.trace(), (Lines{"one", "", "two\nlines"}));
}

TEST(KSVDebugger, DropsTheOldestBeyondTheMostLines) {
  KSVDebugger debugger;
  for (std::size_t line = 0; line < KSVDebugger::kMaxLines + 3; ++line) debugger.storeInTrace(std::to_string(line));
  const Lines kept = debugger.trace();
  ASSERT_EQ(kept.size(), KSVDebugger::kMaxLines);
  EXPECT_EQ(kept.front(), "3");
  EXPECT_EQ(kept.back(), std::to_string(KSVDebugger::kMaxLines + 2));
}

TEST(KSVDebugger, DropsTheOldestBeyondTheMostBytes) {
  KSVDebugger debugger;
  const std::string quarter(KSVDebugger::kMaxBytes / 4, 'q');
  for (int line = 0; line < 4; ++line) debugger.storeInTrace(quarter);
  EXPECT_EQ(debugger.trace().size(), 4u);
  debugger.storeInTrace("x");
  EXPECT_EQ(debugger.trace(), (Lines{quarter, quarter, quarter, "x"}));
}

TEST(KSVDebugger, OfOneHugeLineOnlyTheBeginningIsKept) {
  KSVDebugger debugger;
  debugger.storeInTrace("small");
  debugger.storeInTrace(std::string(3 * KSVDebugger::kMaxBytes, 'h'));
  EXPECT_EQ(debugger.trace(), Lines{std::string(KSVDebugger::kMaxBytes, 'h')});
  debugger.storeInTrace("after");
  EXPECT_EQ(debugger.trace(), Lines{"after"});
  debugger.storeInTrace(std::string(KSVDebugger::kMaxBytes, 'f'));
  EXPECT_EQ(debugger.trace(), Lines{std::string(KSVDebugger::kMaxBytes, 'f')});
}

TEST(KSVDebugger, AHugeLineIsCutBetweenCharacters) {
  KSVDebugger debugger;
  const std::string start(KSVDebugger::kMaxBytes - 2, 'a');
  debugger.storeInTrace(start + "日本");
  EXPECT_EQ(debugger.trace(), Lines{start});
  debugger.storeInTrace(start + "ü" + "z");
  EXPECT_EQ(debugger.trace(), Lines{start + "ü"});
}

TEST(KSVDebugger, StaysInsideItsBoundsWhateverComes) {
  KSVDebugger debugger;
  std::uint32_t state = 1;  // a small generator with a fixed seed
  for (int line = 0; line < 3000; ++line) {
    state = state * 1664525 + 1013904223;
    debugger.storeInTrace(std::string((state >> 8) % 4000, 'r'));
  }
  const Lines kept = debugger.trace();
  EXPECT_LE(bytesOf(kept), KSVDebugger::kMaxBytes);
  EXPECT_GT(bytesOf(kept), KSVDebugger::kMaxBytes - 4000);
}

TEST(KSVDebugger, TheListenerHearsEachLineOnTheThreadThatStoresIt) {
  KSVDebugger debugger;
  Lines heard;
  std::thread::id thread;
  debugger.storeInTrace("before");
  debugger.setListener([&](std::string_view line) {
    heard.emplace_back(line);
    thread = std::this_thread::get_id();
  });
  debugger.storeInTrace("one");
  EXPECT_EQ(thread, std::this_thread::get_id());
  std::thread([&debugger] { debugger.storeInTrace("two"); }).join();
  EXPECT_NE(thread, std::this_thread::get_id());
  debugger.setListener(nullptr);
  debugger.storeInTrace("after");
  EXPECT_EQ(heard, (Lines{"one", "two"}));
  EXPECT_EQ(debugger.trace(), (Lines{"before", "one", "two", "after"}));
}

TEST(KSVDebugger, TheListenerHearsWhatIsKept) {
  KSVDebugger debugger;
  std::size_t length = 0;
  debugger.setListener([&length](std::string_view line) { length = line.size(); });
  debugger.storeInTrace(std::string(KSVDebugger::kMaxBytes + 1, 'h'));
  EXPECT_EQ(length, KSVDebugger::kMaxBytes);
}

TEST(KSVDebugger, AListenerMayReadTheTraceAndStoreALineItself) {
  KSVDebugger debugger;
  Lines heard;
  debugger.setListener([&](std::string_view line) {
    heard.emplace_back(line);
    debugger.storeInTrace("heard " + std::string(line));
    heard.push_back(std::to_string(debugger.trace().size()));
  });
  debugger.storeInTrace("one");
  debugger.storeInTrace("two");
  EXPECT_EQ(heard, (Lines{"one", "2", "two", "4"}));
  EXPECT_EQ(debugger.trace(), (Lines{"one", "heard one", "two", "heard two"}));
}

TEST(KSVDebugger, AListenerIsCalledOnceAtATimeAndInTheOrderOfTheTrace) {
  KSVDebugger debugger;
  std::atomic<int> inside = 0;
  bool overlapped = false;
  Lines heard;
  debugger.setListener([&](std::string_view line) {
    if (inside.fetch_add(1) != 0) overlapped = true;
    heard.emplace_back(line);
    inside.fetch_sub(1);
  });
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back([&debugger, thread] {
      for (int line = 0; line < 500; ++line) debugger.storeInTrace(std::to_string(thread) + ":" + std::to_string(line));
    });
  for (std::thread& thread : threads) thread.join();
  debugger.setListener(nullptr);
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(heard.size(), 2000u);
  EXPECT_EQ(heard, debugger.trace());
}

TEST(KSVDebugger, ReplacingTheListenerWaitsForTheOldOneAndReadingDoesNot) {
  KSVDebugger debugger;
  Event entered, mayLeave;
  std::atomic<bool> hasLeft = false;
  debugger.setListener([&](std::string_view) {
    entered.happen();
    EXPECT_TRUE(mayLeave.wait());
    hasLeft = true;
  });
  std::thread storing([&debugger] { debugger.storeInTrace("slow"); });
  ASSERT_TRUE(entered.wait());
  EXPECT_EQ(debugger.trace(), Lines{"slow"});  // while the listener is at work

  bool hadLeft = false;
  std::thread replacing([&] {
    debugger.setListener(nullptr);
    hadLeft = hasLeft;
  });
  mayLeave.happen();
  replacing.join();
  storing.join();
  EXPECT_TRUE(hadLeft);
}

/// Counts how often it is turned into text.
struct Witness {
  std::string description() const {
    ++*count;
    return "witness";
  }
  int* count;
};

TEST_F(CompanionsTest, AMessageIsFormattedAndStoredOnlyWhenTheDebugFlagIsOn) {
  int described = 0;
  debugTrace("Couldn't submit events, got %ld: %@", 500, Witness{&described});
  EXPECT_EQ(described, 0);
  EXPECT_EQ(KSVDebugger::sharedDebugger()->trace(), Lines{});
  EXPECT_FALSE(isDebugTraceOn());

  process.debug = true;
  EXPECT_TRUE(isDebugTraceOn());
  debugTrace("Couldn't submit events, got %ld: %@", 500, Witness{&described});
  debugTrace("No arguments");
  EXPECT_EQ(described, 1);
  EXPECT_EQ(KSVDebugger::sharedDebugger()->trace(), (Lines{"Couldn't submit events, got 500: witness", "No arguments"}));
}

}  // namespace
}  // namespace test
