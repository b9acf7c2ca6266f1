// The rules of a fault plan: which call is meant, what becomes of it, and what the log keeps.
#include "support/FaultPlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

namespace test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(FaultPlan, EveryOperationIsListedOnce) {
  ASSERT_FALSE(allOperations().empty());
  for (const Operation& operation : allOperations()) EXPECT_EQ(&operationNamed(operation.name), &operation) << operation.name;
}

TEST(FaultPlan, ACallThatNoRuleConcernsPassesAndIsWrittenDown) {
  FaultPlan plan;
  const FaultPlan::Fate fate = plan.begin("FileManager.copyItem", "a to b");
  EXPECT_FALSE(fate.error);
  EXPECT_FALSE(fate.shortBytes);
  EXPECT_FALSE(fate.empty);
  EXPECT_THAT(plan.callTexts(), ElementsAre("FileManager.copyItem a to b"));
}

TEST(FaultPlan, NthMeansThatCallOnly) {
  FaultPlan plan;
  plan.fail("FileManager.copyItem", nth(2), someError("second"));
  EXPECT_FALSE(plan.begin("FileManager.copyItem", "").error);
  EXPECT_FALSE(plan.begin("FileManager.moveItem", "").error);
  EXPECT_EQ(plan.begin("FileManager.copyItem", "").error->localizedDescription(), "second");
  EXPECT_FALSE(plan.begin("FileManager.copyItem", "").error);
}

TEST(FaultPlan, FromNthMeansThatCallAndAllLaterOnes) {
  FaultPlan plan;
  plan.fail("FileManager.copyItem", fromNth(2), someError());
  EXPECT_FALSE(plan.begin("FileManager.copyItem", "").error);
  for (int call = 2; call < 6; ++call) EXPECT_TRUE(plan.begin("FileManager.copyItem", "").error);
}

TEST(FaultPlan, CallsAreCountedFromWhenTheRuleIsGiven) {
  FaultPlan plan;
  plan.begin("FileManager.copyItem", "");
  plan.fail("FileManager.copyItem", nth(1), someError());
  EXPECT_TRUE(plan.begin("FileManager.copyItem", "").error);
}

TEST(FaultPlan, OnCountsOnlyCallsWithThatArgument) {
  FaultPlan plan;
  plan.fail("FileManager.removeItem", nth(2).on("event-queue.json"), someError());
  EXPECT_FALSE(plan.begin("FileManager.removeItem", "event-queue.json").error);
  EXPECT_FALSE(plan.begin("FileManager.removeItem", "temporary").error);
  EXPECT_TRUE(plan.begin("FileManager.removeItem", "event-queue.json").error);
}

TEST(FaultPlan, TheOldestOfSeveralRulesDecidesAndAllOfThemCount) {
  FaultPlan plan;
  plan.fail("FileManager.copyItem", nth(1), someError("older"));
  plan.fail("FileManager.copyItem", fromNth(1), someError("younger"));
  EXPECT_EQ(plan.begin("FileManager.copyItem", "").error->localizedDescription(), "older");
  EXPECT_EQ(plan.begin("FileManager.copyItem", "").error->localizedDescription(), "younger");
}

TEST(FaultPlan, RaiseThrowsTheGivenException) {
  FaultPlan plan;
  plan.raise("FileHandle.writeData", nth(1), platform::Exception("Name", "reason"));
  try {
    plan.begin("FileHandle.writeData", "");
    FAIL() << "did not raise";
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "Name");
    EXPECT_EQ(exception.reason(), "reason");
  }
}

TEST(FaultPlan, ThrowStandardThrowsWhatIsNoPlatformException) {
  FaultPlan plan;
  plan.throwStandard("FileHandle.writeData", nth(1), "bang");
  try {
    plan.begin("FileHandle.writeData", "");
    FAIL() << "did not throw";
  } catch (const platform::Exception&) {
    FAIL() << "a platform exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "bang");
  }
}

TEST(FaultPlan, MistakesOfTheTestAreReportedAtOnce) {
  FaultPlan plan;
  EXPECT_THROW(plan.fail("FileManager.noSuchThing", nth(1), someError()), std::invalid_argument);
  EXPECT_THROW(plan.before("FileManager.noSuchThing", nth(1), [] {}), std::invalid_argument);
  EXPECT_THROW(plan.fail("FileHandle.seekToEndOfFile", nth(1), someError()), std::invalid_argument) << "a seek has no error result";
  EXPECT_THROW(plan.fail(FaultPlan::kAnyOperation, nth(1), someError()), std::invalid_argument);
  EXPECT_THROW(plan.writeShort("FileHandle.readDataOfLength", nth(1), 1), std::invalid_argument);
  EXPECT_THROW(plan.yieldEmpty("FileManager.copyItem", nth(1)), std::invalid_argument);
  EXPECT_THROW(plan.raise("FileHandle.writeData", nth(0), someException()), std::invalid_argument);
  EXPECT_THROW(plan.begin("FileManager.noSuchThing", ""), std::invalid_argument);
  EXPECT_THAT(plan.unused(), IsEmpty()) << "none of them became a rule";
}

TEST(FaultPlan, EveryKindOfFaultIsRefusedOrTakenAsTheListSays) {
  for (const Operation& operation : allOperations()) {
    SCOPED_TRACE(operation.name);
    FaultPlan plan;
    const auto refused = [](auto give) {
      try {
        give();
        return false;
      } catch (const std::invalid_argument&) {
        return true;
      }
    };
    EXPECT_EQ(refused([&] { plan.fail(operation.name, nth(1), someError()); }), !operation.fails);
    EXPECT_EQ(refused([&] { plan.writeShort(operation.name, nth(1), 1); }), !operation.writesShort);
    EXPECT_EQ(refused([&] { plan.yieldEmpty(operation.name, nth(1)); }), !operation.yieldsEmpty);
    EXPECT_FALSE(refused([&] { plan.raise(operation.name, nth(1), someException()); }));
  }
}

TEST(FaultPlan, BreakCallSpoilsTheKthCallThatCanGoWrong) {
  FaultPlan plan;
  plan.breakCall(2);
  EXPECT_FALSE(plan.begin("FileManager.copyItem", "a").error);
  plan.begin("FileManager.fileExists", "b");  // has no way to go wrong
  plan.begin("FileHandle.closeFile", "c");    // neither
  EXPECT_FALSE(plan.brokenCall());
  EXPECT_THROW(plan.begin("FileHandle.writeData", "d"), platform::Exception);
  EXPECT_EQ(plan.brokenCall(), "FileHandle.writeData d");
  EXPECT_FALSE(plan.begin("FileManager.copyItem", "e").error);

  plan.clear();
  EXPECT_FALSE(plan.brokenCall());
  plan.breakCall(1);
  EXPECT_TRUE(plan.begin("JSON.write", "").error) << "an error is preferred where the operation has one";
}

TEST(FaultPlan, AnyOperationCountsAllCalls) {
  FaultPlan plan;
  plan.raise(FaultPlan::kAnyOperation, nth(3), someException());
  plan.begin("Clock.now", "");
  plan.begin("FileManager.copyItem", "");
  EXPECT_THROW(plan.begin("JSON.read", ""), platform::Exception);
}

TEST(FaultPlan, HooksRunBeforeAndAfterTheirCallAndNotInsideThemselves) {
  FaultPlan plan;
  std::vector<std::string> order;
  plan.before("FileManager.copyItem", everyCall(), [&] {
    order.push_back("before");
    plan.begin("FileManager.copyItem", "inner");
  });
  plan.after("FileManager.copyItem", nth(2), [&] { order.push_back("after"); });
  // The hook's own copy is the second one and is counted by the hook after it, whose turn belongs to that inner call.
  const FaultPlan::Fate outer = plan.begin("FileManager.copyItem", "outer");
  EXPECT_THAT(order, ElementsAre("before"));
  EXPECT_THAT(outer.after, IsEmpty());
  EXPECT_THAT(plan.callTexts(), ElementsAre("FileManager.copyItem outer", "FileManager.copyItem inner"));
}

TEST(FaultPlan, UnusedNamesTheRulesThatNoCallReached) {
  FaultPlan plan;
  plan.fail("FileManager.copyItem", nth(2), someError());
  plan.before("JSON.read", nth(1).on("9"), [] {});
  plan.begin("FileManager.copyItem", "");
  EXPECT_THAT(plan.unused(), ElementsAre("FileManager.copyItem call 2, seen 1", "JSON.read call 1 on 9, seen 0"));
  plan.begin("FileManager.copyItem", "");
  plan.begin("JSON.read", "9");
  EXPECT_THAT(plan.unused(), IsEmpty());
}

TEST(FaultPlan, TheLogCanBeReadByOperation) {
  FaultPlan plan;
  plan.begin("FileManager.copyItem", "a");
  plan.begin("FileHandle.writeData", "a 5");
  plan.begin("JSON.write", "");
  EXPECT_THAT(plan.callTexts({"FileManager.", "FileHandle."}), ElementsAre("FileManager.copyItem a", "FileHandle.writeData a 5"));
  EXPECT_THAT(plan.callNames({"JSON."}), ElementsAre("JSON.write"));
  EXPECT_EQ(plan.count("JSON.write"), 1u);
  plan.clearCalls();
  EXPECT_THAT(plan.calls(), IsEmpty());
}

TEST(FaultPlan, ManyThreadsShareOneCount) {
  constexpr int kThreads = 8;
  constexpr int kCallsEach = 500;
  FaultPlan plan;
  plan.fail("FileManager.copyItem", fromNth(kThreads * kCallsEach / 2 + 1), someError());
  std::atomic<int> failures = 0;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
      threads.emplace_back([&] {
        for (int call = 0; call < kCallsEach; ++call)
          if (plan.begin("FileManager.copyItem", "").error) ++failures;
      });
  }
  EXPECT_EQ(failures, kThreads * kCallsEach / 2);
  EXPECT_EQ(plan.count("FileManager.copyItem"), static_cast<std::uint64_t>(kThreads * kCallsEach));
}

}  // namespace
}  // namespace test
