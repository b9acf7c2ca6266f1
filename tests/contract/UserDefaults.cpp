// What every user defaults keep: one suite over the real ones in a temporary folder and over those in memory.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/Exception.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/MemoryUserDefaults.h"
#include "support/TemporaryDirectory.h"

namespace {

using platform::Array;
using platform::Data;
using platform::Date;
using platform::Dictionary;
using platform::String;
using platform::Value;

enum class Kind { kFile, kMemory };

class Defaults : public ::testing::TestWithParam<Kind> {
 protected:
  // What another process would have, or this one after its next launch.
  std::shared_ptr<platform::UserDefaults> anotherProcess() {
    if (GetParam() == Kind::kMemory) return std::make_shared<test::MemoryUserDefaults>(store_);
    return platform::makeFileUserDefaults({.bundleIdentifier = "com.example.app", .homeDirectory = directory_.path()},
                                          platform::makeRapidJSONSerialization());
  }

  void expectKept(const Value& value) {
    defaults_->setObjectForKey(value, "key");
    for (const auto& defaults : {defaults_, anotherProcess()}) {
      const std::optional<Value> read = defaults->objectForKey("key");
      ASSERT_TRUE(read) << value.description();
      EXPECT_EQ(read->kind(), value.kind()) << value.description();
      EXPECT_EQ(*read, value) << read->description();
    }
  }

  void expectRefused(const Value& value, const std::string& reason) {
    try {
      defaults_->setObjectForKey(value, "key");
      ADD_FAILURE() << "nothing was raised; expected " << reason;
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
      EXPECT_EQ(exception.reason(), reason);
    }
  }

  test::TemporaryDirectory directory_;
  std::shared_ptr<test::MemoryUserDefaults::Store> store_ = std::make_shared<test::MemoryUserDefaults::Store>();
  std::shared_ptr<platform::UserDefaults> defaults_ = anotherProcess();
};

Value nested(int levels) {
  Value value = 1;
  for (int i = 0; i < levels; ++i) value = Value(Array{value});
  return value;
}

TEST_P(Defaults, V1_AbsentReadsZero) {
  EXPECT_EQ(defaults_->objectForKey("key"), std::nullopt);
  EXPECT_EQ(defaults_->integerForKey("key"), 0);
}

TEST_P(Defaults, V1_IntegerReadings) {
  const std::pair<Value, std::int64_t> cases[] = {{true, 1},     {false, 0},  {INT64_MIN, INT64_MIN}, {INT64_MAX, INT64_MAX},
                                                  {2.9, 2},      {-2.9, -2},  {" 12abc", 12},         {"-9000000000", -9000000000},
                                                  {Array{1}, 0}, {Date(), 0}, {Data("1"), 0}};
  for (const auto& [value, integer] : cases) {
    defaults_->setObjectForKey(value, "key");
    EXPECT_EQ(defaults_->integerForKey("key"), integer) << value.description();
    EXPECT_EQ(anotherProcess()->integerForKey("key"), integer) << value.description();
  }
}

TEST_P(Defaults, V2_EveryKindIsKeptAsItIs) {
  for (const Value& value :
       {Value(true), Value(false), Value(0), Value(INT64_MIN), Value(INT64_MAX), Value(UINT64_MAX),
        Value(Date::dateWithTimeIntervalSince1970(1763673579.25)), Value(Date::dateWithTimeIntervalSince1970(-3)), Value(Data("")),
        Value(Data(std::string_view("\0\xff"
                                    "a",
                                    3))),
        Value(Data("ab")), Value(Data("abcd")), Value(Array()), Value(Dictionary())}) {
    expectKept(value);
  }
}

TEST_P(Defaults, V2_DoublesAreKeptToTheLastBit) {
  for (const double number : {0.0, -0.0, 1.0, -1.0, 0.1, 1e22, 1e300, 5e-324, 1.7976931348623157e308, 9007199254740993.0,
                              std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()}) {
    expectKept(number);
    EXPECT_EQ(std::signbit(anotherProcess()->objectForKey("key")->number()), std::signbit(number)) << number;
  }
  defaults_->setObjectForKey(std::numeric_limits<double>::quiet_NaN(), "key");
  EXPECT_TRUE(std::isnan(anotherProcess()->objectForKey("key")->number()));
}

TEST_P(Defaults, V2_StringsKeepEveryByte) {
  for (const std::string_view text : {std::string_view(""), std::string_view("plain"), std::string_view("“ü” \xF0\x9F\x98\x80"),
                                      std::string_view("a\0b\n\"\\/\x01\x7f", 9), std::string_view("\xff\xfe"),
                                      std::string_view("\xed\xa0\x80"), std::string_view("\xc0\x80")}) {
    expectKept(text);
  }
}

TEST_P(Defaults, V2_NothingStoredIsTakenForAWrapper) {
  expectKept(Dictionary{{"$date", 1}});
  expectKept(Dictionary{{"$data", "YQ=="}, {"other", 2}});
  expectKept(Dictionary{{"$object", Array{}}});
  expectKept(Dictionary{{"\xff", Dictionary{{"$", Array{Data("x"), Dictionary{{"$$", 1.5}}}}}}, {"", 1}});
  expectKept(Array{Array{Dictionary{{"a", Date()}}}, "$date"});
}

TEST_P(Defaults, V2_AnyKeyWillDo) {
  const std::string_view keys[] = {"", "$date", "a.b/c", "\xff", std::string_view("a\0b", 3), "ü"};
  for (std::size_t i = 0; i < std::size(keys); ++i) defaults_->setObjectForKey(Value(i + 1), keys[i]);
  const auto other = anotherProcess();
  for (std::size_t i = 0; i < std::size(keys); ++i) EXPECT_EQ(other->objectForKey(keys[i]), Value(i + 1)) << i;
  EXPECT_EQ(other->objectForKey("a"), std::nullopt);
}

TEST_P(Defaults, V2_NullIsRefusedAlsoInside) {
  defaults_->setObjectForKey(1, "key");
  const std::string reason = "Attempt to store null in a property list for the key 'key'";
  expectRefused(nullptr, reason);
  expectRefused(Array{1, nullptr}, reason);
  expectRefused(Dictionary{{"a", Dictionary{{"b", Array{nullptr}}}}}, reason);
  EXPECT_EQ(defaults_->objectForKey("key"), Value(1));
}

TEST_P(Defaults, V2_DepthIsBounded) {
  expectKept(nested(508));
  expectRefused(nested(509), "Attempt to store a value that is nested too deeply in a property list for the key 'key'");
  expectRefused(nested(200'000), "Attempt to store a value that is nested too deeply in a property list for the key 'key'");
  defaults_->setObjectForKey(1, "$");  // takes more levels of the file for every value
  expectKept(nested(508));
}

TEST_P(Defaults, V2_SettingNothingRemoves) {
  defaults_->setObjectForKey(1, "a");
  defaults_->setObjectForKey(2, "b");
  defaults_->setObjectForKey(std::nullopt, "a");
  EXPECT_EQ(defaults_->objectForKey("a"), std::nullopt);
  defaults_->removeObjectForKey("never there");
  const auto other = anotherProcess();
  EXPECT_EQ(other->objectForKey("a"), std::nullopt);
  EXPECT_EQ(other->objectForKey("b"), Value(2));
}

TEST_P(Defaults, V2_ValuesReadAreImmutable) {
  defaults_->setObjectForKey(Array{1}, "key");
  Array mine = defaults_->objectForKey("key")->array();
  mine.addObject(Value(2));
  EXPECT_EQ(defaults_->objectForKey("key"), Value(Array{1}));
}

TEST_P(Defaults, ProcessesThatWriteDifferentKeysLoseNothing) {
  const auto other = anotherProcess();
  EXPECT_EQ(other->objectForKey("a"), std::nullopt);
  defaults_->setObjectForKey(1, "a");
  other->setObjectForKey(2, "b");
  defaults_->setObjectForKey(3, "c");
  other->removeObjectForKey("a");
  for (const auto& defaults : {defaults_, other, anotherProcess()}) {
    defaults->synchronize();
    EXPECT_EQ(defaults->objectForKey("a"), std::nullopt);
    EXPECT_EQ(defaults->objectForKey("b"), Value(2));
    EXPECT_EQ(defaults->objectForKey("c"), Value(3));
  }
}

TEST_P(Defaults, SynchronizeTakesInWhatOthersWrote) {
  const auto other = anotherProcess();
  other->setObjectForKey("first", "key");
  defaults_->synchronize();
  EXPECT_EQ(defaults_->objectForKey("key"), Value("first"));
  other->setObjectForKey("second", "key");
  defaults_->synchronize();
  EXPECT_EQ(defaults_->objectForKey("key"), Value("second"));
}

INSTANTIATE_TEST_SUITE_P(Over, Defaults, ::testing::Values(Kind::kFile, Kind::kMemory),
                         [](const auto& instance) { return instance.param == Kind::kFile ? "File" : "Memory"; });

}  // namespace
