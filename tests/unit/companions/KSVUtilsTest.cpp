// Times as text, random text, directories and temporary files.
#include "companions/KSVUtils.h"

#include <cstdio>
#include <ctime>
#include <limits>
#include <map>
#include <numeric>
#include <set>
#include <thread>

#include "CompanionsTest.h"
#include "support/FixedSecureRandom.h"

namespace test {
namespace {

using platform::Data;
using platform::Date;
using platform::URL;

std::string isoOf(double seconds) { return KSVUtils::getIso8601(Date::dateWithTimeIntervalSince1970(seconds)); }

// --- Times.

TEST(KSVUtilsIso8601, IsUtcWithMilliseconds) {
  EXPECT_EQ(isoOf(1795205979), "2026-11-20T20:19:39.000Z");
  EXPECT_EQ(isoOf(1795205979.123), "2026-11-20T20:19:39.123Z");
  EXPECT_EQ(isoOf(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(isoOf(951827696.5), "2000-02-29T12:34:56.500Z");
  EXPECT_EQ(isoOf(4107542399.999), "2100-02-28T23:59:59.999Z");
  EXPECT_EQ(isoOf(4107542400), "2100-03-01T00:00:00.000Z");
}

TEST(KSVUtilsIso8601, IsRoundedDownOnBothSidesOf1970) {
  EXPECT_EQ(isoOf(1795205979.9996), "2026-11-20T20:19:39.999Z");
  EXPECT_EQ(isoOf(0.0009), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(isoOf(-0.0001), "1969-12-31T23:59:59.999Z");
  EXPECT_EQ(isoOf(-0.0011), "1969-12-31T23:59:59.998Z");
  EXPECT_EQ(isoOf(-1), "1969-12-31T23:59:59.000Z");
}

TEST(KSVUtilsIso8601, EveryWholeMillisecondKeepsItsOwnText) {
  for (int millisecond = 0; millisecond < 1000; ++millisecond) {
    char expected[32];
    std::snprintf(expected, sizeof expected, "2026-11-20T20:19:39.%03dZ", millisecond);
    EXPECT_EQ(isoOf(static_cast<double>(1795205979000 + millisecond) / 1000.0), expected);
  }
}

TEST(KSVUtilsIso8601, AgreesWithTheCalendarOfTheSystem) {
  for (std::int64_t day = -719528; day <= 2932896; day += 37) {  // the years 0 to 9999
    const std::time_t time = day * 86400 + 45296;
    std::tm parts{};
    ASSERT_TRUE(gmtime_r(&time, &parts));
    char expected[64];
    std::snprintf(expected, sizeof expected, "%04d-%02d-%02dT%02d:%02d:%02d.000Z", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    ASSERT_EQ(isoOf(static_cast<double>(time)), expected);
  }
}

TEST(KSVUtilsIso8601, YearsWithoutFourDigitsAreHeldAtTheNearestThatHasThem) {
  EXPECT_EQ(isoOf(-62167219200), "0000-01-01T00:00:00.000Z");
  EXPECT_EQ(isoOf(-62167219200.5), "0000-01-01T00:00:00.000Z");
  EXPECT_EQ(isoOf(253402300799.999), "9999-12-31T23:59:59.999Z");
  EXPECT_EQ(isoOf(253402300800), "9999-12-31T23:59:59.999Z");
  EXPECT_EQ(isoOf(1e300), "9999-12-31T23:59:59.999Z");
  EXPECT_EQ(isoOf(-1e300), "0000-01-01T00:00:00.000Z");
  EXPECT_EQ(isoOf(std::numeric_limits<double>::infinity()), "9999-12-31T23:59:59.999Z");
  EXPECT_EQ(isoOf(-std::numeric_limits<double>::infinity()), "0000-01-01T00:00:00.000Z");
  EXPECT_EQ(isoOf(std::numeric_limits<double>::quiet_NaN()), "0000-01-01T00:00:00.000Z");
}

// --- Random text.

TEST_F(CompanionsTest, RandomTextHasItsLengthInLettersAndDigits) {
  for (const std::int32_t length : {1, 8, 30, 63, 64, 65, 1000}) {
    const std::string text = KSVUtils::randomStringWithLength(length);
    EXPECT_EQ(text.size(), static_cast<std::size_t>(length));
    EXPECT_EQ(text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"), std::string::npos);
  }
  for (const std::int32_t length : {0, -1, std::numeric_limits<std::int32_t>::min()})
    EXPECT_EQ(KSVUtils::randomStringWithLength(length), "");
}

TEST_F(CompanionsTest, EachByteBelow248StandsForItsCharacterAndTheRestAreThrownAway) {
  const auto random = std::make_shared<FixedSecureRandom>();
  process.secureRandom = random;
  random->give({0, 25, 26, 51, 52, 61, 62, 247});
  EXPECT_EQ(KSVUtils::randomStringWithLength(8), "AZaz09A9");
  random->give({248, 249, 250, 251, 252, 253, 254, 255});  // eight that do not count, then eight that do
  random->give({0, 1, 2, 3, 4, 5, 6, 7});
  EXPECT_EQ(KSVUtils::randomStringWithLength(8), "ABCDEFGH");
}

TEST_F(CompanionsTest, EveryCharacterIsEquallyLikely) {
  const auto random = std::make_shared<FixedSecureRandom>();
  process.secureRandom = random;
  std::vector<std::uint8_t> everyByte(256);
  std::iota(everyByte.begin(), everyByte.end(), std::uint8_t{0});
  random->give(everyByte);  // eight of them are thrown away, and eight more asked for
  std::map<char, int> counts;
  for (const char c : KSVUtils::randomStringWithLength(256).substr(0, 248)) ++counts[c];
  EXPECT_EQ(counts.size(), 62u);
  for (const auto& [character, count] : counts) EXPECT_EQ(count, 4) << character;
}

TEST_F(CompanionsTest, TheSystemsSourceShowsNoBias) {
  constexpr int kDraws = 62'000;
  std::map<char, int> counts;
  for (const char c : KSVUtils::randomStringWithLength(kDraws)) ++counts[c];
  double chiSquare = 0;
  for (const auto& [character, count] : counts) chiSquare += (count - 1000.0) * (count - 1000.0) / 1000.0;
  EXPECT_EQ(counts.size(), 62u);
  // 61 degrees of freedom: mean 61, standard deviation 11. 150 is passed once in 10^8 runs; a plain remainder by 62 of all 256
  // bytes gives about 470.
  EXPECT_LT(chiSquare, 150);
}

TEST_F(CompanionsTest, RandomTextsDiffer) {
  std::set<std::string> texts;
  for (int text = 0; text < 1000; ++text) texts.insert(KSVUtils::randomStringWithLength(8));
  EXPECT_EQ(texts.size(), 1000u);
}

// --- Directories.

TEST_F(CompanionsTest, TheDirectoryInApplicationSupportIsMadeAndStaysTheSame) {
  const auto parent = KSVUtils::applicationSupportDirectory();
  ASSERT_TRUE(parent);
  EXPECT_EQ(parent, *files->applicationSupportDirectory());
  const auto uploads = KSVUtils::createDirectoryInApplicationSupport("uploads");
  ASSERT_TRUE(uploads);
  EXPECT_EQ(uploads->path(), parent->path() + "/uploads");
  EXPECT_EQ(files->attributesOfItemAtPath(uploads->path())->type, platform::FileAttributes::Type::kDirectory);
  files->setBytesAtPath(uploads->path() + "/kept", "x");
  EXPECT_EQ(KSVUtils::createDirectoryInApplicationSupport("uploads"), uploads);
  EXPECT_EQ(KSVUtils::createDirectoryInApplicationSupport("uploads"), uploads);
  EXPECT_EQ(files->bytesAtPath(uploads->path() + "/kept"), "x");
}

TEST_F(CompanionsTest, ADirectoryThatCannotBeMadeIsAbsent) {
  files->setBytesAtPath(KSVUtils::applicationSupportDirectory()->path() + "/uploads", "a file in its place");
  EXPECT_FALSE(KSVUtils::createDirectoryInApplicationSupport("uploads"));
  plan->fail("FileManager.applicationSupportDirectory", everyCall(), someError());
  EXPECT_FALSE(KSVUtils::applicationSupportDirectory());
  EXPECT_FALSE(KSVUtils::createDirectoryInApplicationSupport("other"));
}

// --- Temporary files.

TEST_F(CompanionsTest, ATemporaryFileHoldsExactlyTheData) {
  const std::string bytes("a\0b\xff\n", 5);
  const auto url = KSVUtils::createTempfileWithContents(Data(bytes));
  ASSERT_TRUE(url);
  EXPECT_EQ(files->bytesAtPath(url->path()), bytes);
}

TEST_F(CompanionsTest, ATemporaryFileOfAbsentDataIsThereAndEmpty) {
  const auto absent = KSVUtils::createTempfileWithContents(std::nullopt);
  ASSERT_TRUE(absent);
  EXPECT_EQ(files->bytesAtPath(absent->path()), "");
  const auto empty = KSVUtils::createTempfileWithContents(Data());
  ASSERT_TRUE(empty);
  EXPECT_EQ(files->bytesAtPath(empty->path()), "");
  EXPECT_NE(absent, empty);
}

TEST_F(CompanionsTest, TemporaryFilesLieInTheTemporaryDirectoryUnderNamesWithEnoughChance) {
  std::set<std::string> names;
  for (int file = 0; file < 100; ++file) {
    const auto url = KSVUtils::createTempfileWithContents(std::nullopt);
    ASSERT_TRUE(url);
    EXPECT_TRUE(url->path().starts_with(files->temporaryDirectory()->path() + "/kestrova-"));
    EXPECT_EQ(url->lastPathComponent().size(), std::string("kestrova-").size() + 32);  // 32 characters of 62: 190 bits
    names.insert(url->lastPathComponent());
  }
  EXPECT_EQ(names.size(), 100u);
}

TEST_F(CompanionsTest, ATakenNameIsLeftAloneAndAnotherOneUsed) {
  const auto random = std::make_shared<FixedSecureRandom>();
  process.secureRandom = random;
  random->give(std::vector<std::uint8_t>(32, 0));
  const auto first = KSVUtils::createTempfileWithContents(Data("first"));
  random->give(std::vector<std::uint8_t>(32, 0));
  random->give(std::vector<std::uint8_t>(32, 1));
  const auto second = KSVUtils::createTempfileWithContents(Data("second"));
  ASSERT_TRUE(first && second);
  EXPECT_EQ(files->bytesAtPath(first->path()), "first");
  EXPECT_EQ(files->bytesAtPath(second->path()), "second");
  random->give(std::vector<std::uint8_t>(64, 0));
  random->give(std::vector<std::uint8_t>(32, 2));
  const auto fresh = KSVUtils::getNewTempfileUrl();
  ASSERT_TRUE(fresh);
  EXPECT_EQ(fresh->lastPathComponent(), "kestrova-" + std::string(32, 'C'));
  EXPECT_FALSE(files->fileExistsAtPath(fresh->path()));
}

TEST_F(CompanionsTest, ARandomSourceThatOnlyRepeatsItselfEndsInAbsence) {
  const auto random = std::make_shared<FixedSecureRandom>();
  process.secureRandom = random;
  random->give(std::vector<std::uint8_t>(32 * 100, 0));
  const auto first = KSVUtils::createTempfileWithContents(Data("first"));
  ASSERT_TRUE(first);
  EXPECT_FALSE(KSVUtils::createTempfileWithContents(Data("second")));
  EXPECT_FALSE(KSVUtils::getNewTempfileUrl());
  EXPECT_EQ(files->bytesAtPath(first->path()), "first");
}

TEST_F(CompanionsTest, ATemporaryFileThatCannotBeWrittenIsAbsentAndLeavesNothing) {
  plan->writeShort("FileManager.writeDataWithoutOverwriting", nth(1), 3);
  EXPECT_FALSE(KSVUtils::createTempfileWithContents(Data("too long for the disk")));
  EXPECT_EQ(files->allFiles(), std::vector<std::string>{});
  plan->fail("FileManager.writeDataWithoutOverwriting", nth(1), someError());
  EXPECT_FALSE(KSVUtils::createTempfileWithContents(std::nullopt));
  EXPECT_EQ(files->allFiles(), std::vector<std::string>{});
}

TEST_F(CompanionsTest, WithoutATemporaryDirectoryThereAreNoTemporaryFiles) {
  plan->fail("FileManager.temporaryDirectory", everyCall(), someError());
  EXPECT_FALSE(KSVUtils::createTempfileWithContents(Data("x")));
  EXPECT_FALSE(KSVUtils::getNewTempfileUrl());
  EXPECT_EQ(files->allFiles(), std::vector<std::string>{});
}

TEST_F(CompanionsTest, AFreshTemporaryUrlHasNothingAtIt) {
  const auto url = KSVUtils::getNewTempfileUrl();
  ASSERT_TRUE(url);
  EXPECT_FALSE(files->fileExistsAtPath(url->path()));
  EXPECT_TRUE(files->copyItemAtURLToURL(KSVUtils::createTempfileWithContents(Data("copied")), url));
  EXPECT_NE(KSVUtils::getNewTempfileUrl(), url);
}

// --- The sweep of old files.

class OldFilesTest : public CompanionsTest {
 protected:
  void makeAt(double age, const std::string& name) {
    clock->setNow(now.dateByAddingTimeInterval(-age));
    files->setBytesAtPath(directory.path() + "/" + name, "x");
  }
  std::set<std::string> left() {
    const auto names = files->contentsOfDirectoryAtPath(directory.path());
    return {names->begin(), names->end()};
  }
  std::set<std::string> sweep(Date cutOff) {
    std::set<std::string> names;
    for (const URL& url : KSVUtils::deleteFilesOlderThanInDirectory(cutOff, directory)) names.insert(url.lastPathComponent());
    return names;
  }

  using Names = std::set<std::string>;
  const Date now = Date::dateWithTimeIntervalSince1970(1795205979);
  const URL directory = *KSVUtils::createDirectoryInApplicationSupport("uploads");
};

TEST_F(OldFilesTest, FilesBeforeTheCutOffGoAndThoseAtItStay) {
  makeAt(100, "older");
  makeAt(99, "at the cut-off");
  makeAt(98, "younger");
  EXPECT_EQ(sweep(now.dateByAddingTimeInterval(-99)), Names{"older"});
  EXPECT_EQ(left(), (Names{"at the cut-off", "younger"}));
  EXPECT_EQ(sweep(now.dateByAddingTimeInterval(-99)), Names{});
}

TEST_F(OldFilesTest, OddNamesGoToo) {
  for (const char* name : {"a b", "per%20cent", "quest?ion", "hash#tag", "ümläut", ".hidden"}) makeAt(100, name);
  EXPECT_EQ(sweep(now).size(), 6u);
  EXPECT_EQ(left(), Names{});
}

TEST_F(OldFilesTest, ALinkIsAsOldAsItsMaking) {
  makeAt(1000, "gif of the host");
  clock->setNow(now);
  ASSERT_TRUE(files->linkItemAtURLToURL(directory.URLByAppendingPathComponent("gif of the host"),
                                        directory.URLByAppendingPathComponent("upload")));
  EXPECT_EQ(sweep(now), Names{});
  EXPECT_EQ(sweep(now.dateByAddingTimeInterval(1)), (Names{"gif of the host", "upload"}));
}

TEST_F(OldFilesTest, SymbolicLinksGoAsThemselvesAndFoldersStay) {
  clock->setNow(now.dateByAddingTimeInterval(-100));
  files->setBytesAtPath("/elsewhere/target", "kept");
  files->makeSymbolicLink(directory.path() + "/link", "/elsewhere/target");
  files->setBytesAtPath(directory.path() + "/folder/inner", "x");
  EXPECT_EQ(sweep(now), Names{"link"});
  EXPECT_EQ(left(), Names{"folder"});
  EXPECT_EQ(files->bytesAtPath("/elsewhere/target"), "kept");
  EXPECT_EQ(files->bytesAtPath(directory.path() + "/folder/inner"), "x");
}

TEST_F(OldFilesTest, WhatCannotBeExaminedOrRemovedStaysAndTheRestGoes) {
  makeAt(100, "one");
  makeAt(100, "two");
  makeAt(100, "three");
  plan->fail("FileManager.removeItem", nth(1), someError());
  plan->fail("FileManager.attributesOfItem", nth(2), someError());
  EXPECT_EQ(sweep(now).size(), 1u);
  EXPECT_EQ(left().size(), 2u);
  EXPECT_EQ(plan->unused(), std::vector<std::string>{});
}

TEST_F(OldFilesTest, NoDirectoryIsNoFailure) {
  EXPECT_TRUE(KSVUtils::deleteFilesOlderThanInDirectory(now, std::nullopt).empty());
  EXPECT_TRUE(KSVUtils::deleteFilesOlderThanInDirectory(now, URL::fileURLWithPath("/nowhere")).empty());
  makeAt(100, "a file");
  EXPECT_TRUE(KSVUtils::deleteFilesOlderThanInDirectory(now, directory.URLByAppendingPathComponent("a file")).empty());
  EXPECT_EQ(left(), Names{"a file"});
}

// --- Any thread, any time.

TEST_F(CompanionsTest, AllOfItMayBeCalledFromManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back([this] {
      for (int round = 0; round < 50; ++round) {
        const auto url = KSVUtils::createTempfileWithContents(Data(KSVUtils::randomStringWithLength(30)));
        ASSERT_TRUE(url);
        EXPECT_EQ(files->bytesAtPath(url->path())->size(), 30u);
        const auto uploads = KSVUtils::createDirectoryInApplicationSupport("uploads");
        ASSERT_TRUE(uploads);
        EXPECT_TRUE(KSVUtils::deleteFilesOlderThanInDirectory(Date(), uploads).empty());
        EXPECT_EQ(isoOf(0), "1970-01-01T00:00:00.000Z");
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(files->allFiles().size(), 200u);
}

}  // namespace
}  // namespace test
