// Tests of Value, Array and Dictionary.
#include "platform/Value.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/Exception.h"

namespace {

using platform::Array;
using platform::Data;
using platform::Date;
using platform::Dictionary;
using platform::Exception;
using platform::Member;
using platform::String;
using platform::Value;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

/// The raise of an action as "name: reason"; "no raise" when there is none.
std::string raiseOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const Exception& raise) {
    return raise.what();
  }
  return "no raise";
}

std::string keysOf(const Dictionary& dictionary) {
  std::string keys;
  for (const Member& member : dictionary) keys += std::string(member.key.view()) + ' ';
  return keys;
}

const Value kDate = Date::dateWithTimeIntervalSince1970(1.5);
const Value kData = Data("bytes");

TEST(Value, KeepsItsKind) {
  EXPECT_EQ(Value().kind(), Value::Kind::kNull);
  EXPECT_EQ(Value(nullptr).kind(), Value::Kind::kNull);
  EXPECT_EQ(Value(true).kind(), Value::Kind::kBoolean);
  EXPECT_EQ(Value(-1).kind(), Value::Kind::kSigned);
  EXPECT_EQ(Value(1u).kind(), Value::Kind::kSigned);
  EXPECT_EQ(Value(std::uint64_t{INT64_MAX}).kind(), Value::Kind::kSigned);
  EXPECT_EQ(Value(std::uint64_t{INT64_MAX} + 1).kind(), Value::Kind::kUnsigned);
  EXPECT_EQ(Value(1.0).kind(), Value::Kind::kDouble);
  EXPECT_EQ(Value("").kind(), Value::Kind::kString);
  EXPECT_EQ(Value(Array()).kind(), Value::Kind::kArray);
  EXPECT_EQ(Value(Dictionary()).kind(), Value::Kind::kObject);
  EXPECT_EQ(kDate.kind(), Value::Kind::kDate);
  EXPECT_EQ(kData.kind(), Value::Kind::kData);
}

TEST(Value, GivesBackWhatItHolds) {
  EXPECT_TRUE(Value(true).boolean());
  EXPECT_EQ(Value(INT64_MIN).signedInteger(), INT64_MIN);
  EXPECT_EQ(Value(UINT64_MAX).unsignedInteger(), UINT64_MAX);
  EXPECT_EQ(Value(0.5).number(), 0.5);
  EXPECT_EQ(Value("text").string().view(), "text");
  EXPECT_EQ(Value(Array{1, 2}).array().count(), 2u);
  EXPECT_EQ(Value(Dictionary{{"a", 1}}).object().count(), 1u);
  EXPECT_EQ(kDate.date().timeIntervalSince1970(), 1.5);
  EXPECT_EQ(kData.data().bytes(), "bytes");
}

TEST(Value, TypedReadingOfAnotherKindRaises) {
  EXPECT_EQ(raiseOf([] { Value(1).boolean(); }), "NSInvalidArgumentException: -[Value boolean]: sent to an integer");
  EXPECT_EQ(raiseOf([] { Value(1.5).signedInteger(); }),
            "NSInvalidArgumentException: -[Value signedInteger]: sent to a floating number");
  EXPECT_EQ(raiseOf([] { Value(1).unsignedInteger(); }),
            "NSInvalidArgumentException: -[Value unsignedInteger]: sent to an integer");
  EXPECT_EQ(raiseOf([] { Value(true).number(); }), "NSInvalidArgumentException: -[Value number]: sent to a boolean");
  EXPECT_EQ(raiseOf([] { Value().string(); }), "NSInvalidArgumentException: -[Value string]: sent to null");
  EXPECT_EQ(raiseOf([] { Value("a").array(); }), "NSInvalidArgumentException: -[Value array]: sent to a string");
  EXPECT_EQ(raiseOf([] { Value(Array()).object(); }), "NSInvalidArgumentException: -[Value object]: sent to an array");
  EXPECT_EQ(raiseOf([] { Value(Dictionary()).date(); }), "NSInvalidArgumentException: -[Value date]: sent to an object");
  EXPECT_EQ(raiseOf([] { kDate.data(); }), "NSInvalidArgumentException: -[Value data]: sent to a date");
  EXPECT_EQ(raiseOf([] { kData.string(); }), "NSInvalidArgumentException: -[Value string]: sent to data");
}

TEST(Value, MovingLeavesNull) {
  Value from("text");
  const Value to = std::move(from);
  EXPECT_EQ(to, Value("text"));
  EXPECT_TRUE(from.isNull());  // NOLINT(bugprone-use-after-move): the state is what is tested
}

TEST(Value, CopiesShareAndOutliveEachOther) {
  Value copy;
  const char* bytes = nullptr;
  {
    const Value original = Array{"element"};
    copy = original;
    bytes = original.array()[0].string().view().data();
  }
  EXPECT_EQ(copy.array()[0].string().view().data(), bytes);
  EXPECT_EQ(copy, Value(Array{"element"}));
}

TEST(Value, AssigningAPartOfItselfKeepsThePart) {
  Value value = Array{Value(Array{Value("inner")})};
  value = value.array()[0];
  EXPECT_EQ(value, Value(Array{"inner"}));
}

// ---- Platform row V3

TEST(ValueV3, IntValueOfStrings) {
  EXPECT_EQ(Value("42").intValue(), 42);
  EXPECT_EQ(Value("  \t\n\v\f\r42").intValue(), 42);
  EXPECT_EQ(Value("+42").intValue(), 42);
  EXPECT_EQ(Value("-42").intValue(), -42);
  EXPECT_EQ(Value("--42").intValue(), 0);
  EXPECT_EQ(Value("- 42").intValue(), 0);
  EXPECT_EQ(Value("1e3").intValue(), 1);
  EXPECT_EQ(Value("12abc").intValue(), 12);
  EXPECT_EQ(Value("0x10").intValue(), 0);
  EXPECT_EQ(Value("1,000").intValue(), 1);
  EXPECT_EQ(Value("1.9").intValue(), 1);
  EXPECT_EQ(Value("").intValue(), 0);
  EXPECT_EQ(Value("   ").intValue(), 0);
  EXPECT_EQ(Value("-").intValue(), 0);
  EXPECT_EQ(Value("abc").intValue(), 0);
  EXPECT_EQ(Value("007").intValue(), 7);
}

TEST(ValueV3, IntValueOfStringsSaturates) {
  EXPECT_EQ(Value("2147483647").intValue(), INT32_MAX);
  EXPECT_EQ(Value("2147483648").intValue(), INT32_MAX);
  EXPECT_EQ(Value("-2147483648").intValue(), INT32_MIN);
  EXPECT_EQ(Value("-2147483649").intValue(), INT32_MIN);
  EXPECT_EQ(Value("99999999999999999999999999").intValue(), INT32_MAX);
  EXPECT_EQ(Value("-99999999999999999999999999").intValue(), INT32_MIN);
}

TEST(ValueV3, IntValueOfNumbers) {
  EXPECT_EQ(Value(true).intValue(), 1);
  EXPECT_EQ(Value(false).intValue(), 0);
  EXPECT_EQ(Value(0x1'0000'0005).intValue(), 5);
  EXPECT_EQ(Value(0xFFFFFFFFu).intValue(), -1);
  EXPECT_EQ(Value(UINT64_MAX).intValue(), -1);
  EXPECT_EQ(Value(INT64_MIN).intValue(), 0);
  EXPECT_EQ(Value(2.9).intValue(), 2);
  EXPECT_EQ(Value(-2.9).intValue(), -2);
  EXPECT_EQ(Value(4294967301.0).intValue(), 5);
  EXPECT_EQ(Value(1e300).intValue(), -1);  // INT64_MAX, its low 32 bits
  EXPECT_EQ(Value(-1e300).intValue(), 0);  // INT64_MIN, its low 32 bits
  EXPECT_EQ(Value(kInfinity).intValue(), -1);
  EXPECT_EQ(Value(std::nan("")).intValue(), 0);
  EXPECT_EQ(Value().intValue(), 0);
}

// ---- Platform row V1

TEST(ValueV1, IntegerValue) {
  EXPECT_EQ(Value(true).integerValue(), 1);
  EXPECT_EQ(Value(false).integerValue(), 0);
  EXPECT_EQ(Value(INT64_MIN).integerValue(), INT64_MIN);
  EXPECT_EQ(Value(-3.99).integerValue(), -3);
  EXPECT_EQ(Value(0x1p63).integerValue(), INT64_MAX);
  EXPECT_EQ(Value(-0x1p63).integerValue(), INT64_MIN);
  EXPECT_EQ(Value(" -17x").integerValue(), -17);
  EXPECT_EQ(Value("9223372036854775807").integerValue(), INT64_MAX);
  EXPECT_EQ(Value("9223372036854775808").integerValue(), INT64_MAX);
  EXPECT_EQ(Value("-9223372036854775808").integerValue(), INT64_MIN);
  EXPECT_EQ(Value("-9223372036854775809").integerValue(), INT64_MIN);
  for (const Value& other : {Value(), Value(Array{1}), Value(Dictionary{{"a", 1}}), kDate, kData})
    EXPECT_EQ(other.integerValue(), 0);
}

// ---- Platform row V7

TEST(ValueV7, LookUpOnNoObjectRaises) {
  EXPECT_EQ(raiseOf([] { Value("text").objectForKey("key"); }),
            "NSInvalidArgumentException: -[Value objectForKey:]: sent to a string");
  for (const Value& other : {Value(true), Value(1), Value(UINT64_MAX), Value(1.5), Value(Array()), kDate, kData})
    EXPECT_THROW(other.objectForKey("key"), Exception);
}

TEST(ValueV7, LookUpOnAnObject) {
  const Value object = Dictionary{{"key", "value"}, {"null", nullptr}};
  EXPECT_EQ(object.objectForKey("key"), Value("value"));
  EXPECT_EQ(object.objectForKey("null"), Value());
  EXPECT_EQ(object.objectForKey("other"), std::nullopt);
  EXPECT_EQ(Value(Dictionary()).objectForKey("key"), std::nullopt);
}

TEST(ValueV7, CountOfAScalarRaises) {
  EXPECT_EQ(Value(Array{1, 2, 3}).count(), 3u);
  EXPECT_EQ(Value(Dictionary{{"a", 1}}).count(), 1u);
  EXPECT_EQ(raiseOf([] { Value("text").count(); }), "NSInvalidArgumentException: -[Value count]: sent to a string");
  for (const Value& other : {Value(true), Value(1), Value(UINT64_MAX), Value(1.5), kDate, kData})
    EXPECT_THROW(other.count(), Exception);
}

TEST(ValueV7, EnumerationOfAScalarRaises) {
  EXPECT_EQ(Value(Array{1, "b"}).enumerated(), (Array{1, "b"}));
  EXPECT_EQ(Value(Dictionary{{"b", 1}, {"a", 2}}).enumerated(), (Array{"a", "b"}));
  EXPECT_EQ(raiseOf([] { Value(7).enumerated(); }),
            "NSInvalidArgumentException: -[Value countByEnumeratingWithState:objects:count:]: sent to an integer");
  for (const Value& other : {Value(true), Value("text"), Value(UINT64_MAX), Value(1.5), kDate, kData})
    EXPECT_THROW(other.enumerated(), Exception);
}

TEST(ValueV7, IntegerReadingOfContainersDatesAndDataRaises) {
  EXPECT_EQ(raiseOf([] { Value(Array()).intValue(); }), "NSInvalidArgumentException: -[Value intValue]: sent to an array");
  EXPECT_EQ(raiseOf([] { Value(Dictionary()).intValue(); }), "NSInvalidArgumentException: -[Value intValue]: sent to an object");
  EXPECT_EQ(raiseOf([] { kDate.intValue(); }), "NSInvalidArgumentException: -[Value intValue]: sent to a date");
  EXPECT_EQ(raiseOf([] { kData.intValue(); }), "NSInvalidArgumentException: -[Value intValue]: sent to data");
}

TEST(ValueV7, PrefixCountsCodePoints) {
  EXPECT_EQ(Value("abcdef").substringToIndex(3).view(), "abc");
  EXPECT_EQ(Value("abc").substringToIndex(3).view(), "abc");
  EXPECT_EQ(Value("abc").substringToIndex(0).view(), "");
  EXPECT_EQ(Value("").substringToIndex(0).view(), "");
  EXPECT_EQ(Value("äöü").substringToIndex(2).view(), "äö");
  EXPECT_EQ(Value("a😀b").substringToIndex(2).view(), "a😀");
  EXPECT_EQ(Value("€€").substringToIndex(2).view(), "€€");
}

TEST(ValueV7, PrefixOfWhatIsTooShortOrNoStringRaises) {
  EXPECT_EQ(raiseOf([] { Value("äöü").substringToIndex(4); }),
            "NSInvalidArgumentException: *** -[NSString substringToIndex:]: Index 4 out of bounds; string length 3");
  EXPECT_EQ(raiseOf([] { Value(12345678).substringToIndex(8); }),
            "NSInvalidArgumentException: -[Value substringToIndex:]: sent to an integer");
  for (const Value& other : {Value(), Value(true), Value(1.5), Value(Array()), Value(Dictionary()), kDate, kData})
    EXPECT_THROW(other.substringToIndex(0), Exception);
}

TEST(ValueV7, PuttingAnAbsentThingRaises) {
  EXPECT_EQ(raiseOf([] { Array().addObject(std::optional<Value>()); }),
            "NSInvalidArgumentException: *** -[NSMutableArray addObject:]: object cannot be absent");
  EXPECT_EQ(raiseOf([] { Dictionary().setObjectForKey(std::optional<Value>(), "key"); }),
            "NSInvalidArgumentException: *** -[NSMutableDictionary setObject:forKey:]: object cannot be absent");
}

TEST(Value, NullIsAnAbsentReceiver) {
  EXPECT_EQ(Value().objectForKey("key"), std::nullopt);
  EXPECT_EQ(Value().count(), 0u);
  EXPECT_TRUE(Value().enumerated().empty());
}

// ---- Equality

TEST(ValueEquality, OfScalars) {
  EXPECT_EQ(Value(), Value(nullptr));
  EXPECT_EQ(Value(true), Value(true));
  EXPECT_NE(Value(true), Value(false));
  EXPECT_NE(Value(true), Value(1));
  EXPECT_NE(Value(false), Value());
  EXPECT_EQ(Value("a"), Value(std::string("a")));
  EXPECT_NE(Value("a"), Value("b"));
  EXPECT_NE(Value("1"), Value(1));
  EXPECT_NE(Value("bytes"), kData);
  EXPECT_EQ(kData, Value(Data("bytes")));
  EXPECT_NE(kData, Value(Data("other")));
  EXPECT_EQ(kDate, Value(Date::dateWithTimeIntervalSince1970(1.5)));
  EXPECT_NE(kDate, Value(1.5));
}

TEST(ValueEquality, OfNumbersIsExact) {
  EXPECT_EQ(Value(1), Value(1u));
  EXPECT_EQ(Value(1), Value(1.0));
  EXPECT_EQ(Value(1.0), Value(1));
  EXPECT_NE(Value(1), Value(1.5));
  EXPECT_NE(Value(-1), Value(UINT64_MAX));
  EXPECT_EQ(Value(UINT64_MAX), Value(UINT64_MAX));
  EXPECT_EQ(Value(std::int64_t{1} << 53), Value(0x1p53));
  EXPECT_NE(Value((std::int64_t{1} << 53) + 1), Value(0x1p53));
  EXPECT_NE(Value(INT64_MAX), Value(0x1p63));
  EXPECT_EQ(Value(INT64_MIN), Value(-0x1p63));
  EXPECT_EQ(Value(std::uint64_t{1} << 63), Value(0x1p63));
  EXPECT_NE(Value(UINT64_MAX), Value(0x1p64));
  EXPECT_NE(Value(UINT64_MAX), Value(-1.0));
  EXPECT_NE(Value(std::nan("")), Value(std::nan("")));
  EXPECT_NE(Value(kInfinity), Value(INT64_MAX));
  EXPECT_EQ(Value(0.0), Value(-0.0));
}

TEST(ValueEquality, OfContainers) {
  EXPECT_EQ(Value(Array()), Value(Array()));
  EXPECT_NE(Value(Array()), Value(Dictionary()));
  EXPECT_NE(Value(Array()), Value());
  EXPECT_EQ((Array{1, Value(Array{2})}), (Array{1, Value(Array{2})}));
  EXPECT_NE((Array{1, 2}), (Array{2, 1}));
  EXPECT_NE((Array{1}), (Array{1, 2}));
  EXPECT_NE((Array{1, Value(Array{2})}), (Array{1, Value(Array{3})}));
  EXPECT_EQ((Dictionary{{"a", 1}, {"b", Dictionary{{"c", 2}}}}), (Dictionary{{"b", Dictionary{{"c", 2}}}, {"a", 1}}));
  EXPECT_NE((Dictionary{{"a", 1}}), (Dictionary{{"b", 1}}));
  EXPECT_NE((Dictionary{{"a", 1}}), (Dictionary{{"a", 2}}));
  EXPECT_NE((Dictionary{{"a", 1}}), (Dictionary{{"a", 1}, {"b", 1}}));
}

// ---- Depth

constexpr int kDeep = 100000;

Value nested(int depth, const Value& innermost) {
  Value value = innermost;
  for (int level = 0; level < depth; ++level)
    value = level % 2 == 0 ? Value(Array{std::move(value)}) : Value(Dictionary{{"k", std::move(value)}});
  return value;
}

TEST(ValueDepth, IsDestroyedWithoutRecursion) {
  Value value = nested(kDeep, 1);
  EXPECT_EQ(value.count(), 1u);
  value = Value();
  EXPECT_TRUE(value.isNull());
}

TEST(ValueDepth, AMillionLevelsAreDestroyed) {
  Value value = nested(1000000, "innermost");
  Value copy = value;
  value = Value();
  EXPECT_EQ(copy.count(), 1u);
}

TEST(ValueDepth, IsComparedWithoutRecursion) {
  const Value value = nested(kDeep, 1);
  EXPECT_EQ(value, nested(kDeep, 1));
  EXPECT_NE(value, nested(kDeep, 2));
}

TEST(ValueDepth, IsPrintedWithoutRecursion) {
  const std::string text = nested(kDeep, "innermost").description();
  EXPECT_NE(text.find("innermost"), std::string::npos);
  EXPECT_EQ(text.front(), '{');
  EXPECT_EQ(text.back(), '}');
}

TEST(ValueDepth, SharedPartsOutliveADeepTree) {
  const Value part = Array{"kept"};
  Value tree = nested(1000, Array{part, part});
  tree = Value();
  EXPECT_EQ(part, Value(Array{"kept"}));
}

// ---- Array

TEST(Array, GrowsAndGivesItsElements) {
  Array array;
  EXPECT_TRUE(array.empty());
  for (int number = 0; number < 100; ++number) array.addObject(Value(number));
  ASSERT_EQ(array.count(), 100u);
  int expected = 0;
  for (const Value& value : array) EXPECT_EQ(value, Value(expected++));
  EXPECT_EQ(expected, 100);
  EXPECT_EQ(array[99], Value(99));
  EXPECT_EQ(Array(std::vector<Value>{1, "b"}), (Array{1, "b"}));
  EXPECT_TRUE(Array(std::vector<Value>()).empty());
}

TEST(Array, BeyondTheEndRaises) {
  EXPECT_EQ(raiseOf([] { (void)Array{1}[1]; }), "NSRangeException: *** -[NSArray objectAtIndex:]: index 1 beyond the count of 1");
  EXPECT_EQ(raiseOf([] { (void)Array()[0]; }), "NSRangeException: *** -[NSArray objectAtIndex:]: index 0 beyond the count of 0");
}

TEST(Array, ChangeOfACopyLeavesTheOriginal) {
  Array original{1, 2};
  Array copy = original;
  copy.addObject(Value(3));
  EXPECT_EQ(original, (Array{1, 2}));
  EXPECT_EQ(copy, (Array{1, 2, 3}));
  original.removeAllObjects();
  EXPECT_TRUE(original.empty());
  EXPECT_EQ(copy.count(), 3u);
}

TEST(Array, ChangeOfAnArrayInsideAValueLeavesTheValue) {
  const Value value = Array{1};
  Array taken = value.array();
  taken.addObject(Value(2));
  EXPECT_EQ(value, Value(Array{1}));
}

TEST(Array, AddsAnotherOrItself) {
  Array array{1, 2};
  array.addObjectsFromArray(Array());
  array.addObjectsFromArray(Array{3});
  array.addObjectsFromArray(array);
  EXPECT_EQ(array, (Array{1, 2, 3, 1, 2, 3}));
  Array empty;
  empty.addObjectsFromArray(array);
  EXPECT_EQ(empty, array);
}

TEST(Array, HoldsACopyOfItself) {
  Array array{1};
  array.addObject(Value(array));
  EXPECT_EQ(array, (Array{1, Value(Array{1})}));
}

TEST(Array, ReserveKeepsTheElementsWhereTheyAre) {
  Array array{1};
  array.reserve(50);
  const Value* const place = array.begin();
  for (int number = 0; number < 49; ++number) array.addObject(Value(number));
  EXPECT_EQ(array.begin(), place);
  EXPECT_EQ(array.count(), 50u);
}

// ---- Dictionary

TEST(Dictionary, KeepsItsKeysSortedByBytes) {
  const Dictionary dictionary{{"b", 1}, {"", 2}, {"ä", 3}, {"a", 4}, {"B", 5}, {"aa", 6}};
  EXPECT_EQ(keysOf(dictionary), " B a aa b ä ");
}

TEST(Dictionary, FindsItsEntries) {
  for (const int size : {0, 1, 7, 8, 9, 100}) {
    Dictionary dictionary;
    for (int number = 0; number < size; ++number) dictionary.setObjectForKey(Value(number), "key" + std::to_string(number));
    ASSERT_EQ(dictionary.count(), static_cast<std::size_t>(size));
    for (int number = 0; number < size; ++number) {
      const Value* found = dictionary.find("key" + std::to_string(number));
      ASSERT_NE(found, nullptr);
      EXPECT_EQ(*found, Value(number));
      EXPECT_EQ(dictionary.objectForKey("key" + std::to_string(number)), Value(number));
    }
    EXPECT_EQ(dictionary.find("key"), nullptr);
    EXPECT_EQ(dictionary.find("key1000"), nullptr);
    EXPECT_EQ(dictionary.find(""), nullptr);
    EXPECT_EQ(dictionary.objectForKey("zzz"), std::nullopt);
  }
}

TEST(Dictionary, OfEqualKeysTheFirstWins) {
  EXPECT_EQ((Dictionary{{"a", 1}, {"b", 2}, {"a", 3}}), (Dictionary{{"a", 1}, {"b", 2}}));
  for (const int size : {2, 16, 17, 200}) {
    std::vector<Member> members;
    for (int number = 0; number < size; ++number)
      members.push_back({String("k" + std::to_string(number % (size / 2))), Value(number)});
    const Dictionary dictionary = Dictionary::fromMembers(std::move(members));
    ASSERT_EQ(dictionary.count(), static_cast<std::size_t>(size / 2));
    for (int number = 0; number < size / 2; ++number) EXPECT_EQ(*dictionary.find("k" + std::to_string(number)), Value(number));
  }
  EXPECT_TRUE(Dictionary::fromMembers(std::vector<Member>()).empty());
}

TEST(Dictionary, SettingReplaces) {
  Dictionary dictionary{{"a", 1}};
  dictionary.setObjectForKey(Value(2), "a");
  dictionary.setObjectForKey(std::optional<Value>(3), "b");
  EXPECT_EQ(dictionary, (Dictionary{{"a", 2}, {"b", 3}}));
}

TEST(Dictionary, RemovesWhatIsThere) {
  Dictionary dictionary{{"a", 1}, {"b", 2}, {"c", 3}};
  dictionary.removeObjectForKey("x");
  EXPECT_EQ(dictionary.count(), 3u);
  dictionary.removeObjectForKey("b");
  EXPECT_EQ(dictionary, (Dictionary{{"a", 1}, {"c", 3}}));
  dictionary.removeObjectForKey("c");
  dictionary.removeObjectForKey("a");
  EXPECT_TRUE(dictionary.empty());
  EXPECT_EQ(dictionary, Dictionary());
  dictionary.removeObjectForKey("a");
  dictionary.setObjectForKey(Value(1), "a");
  EXPECT_EQ(dictionary, (Dictionary{{"a", 1}}));
}

TEST(Dictionary, ChangeOfACopyLeavesTheOriginal) {
  const Dictionary original{{"a", 1}, {"b", 2}};
  Dictionary set = original;
  Dictionary replaced = original;
  Dictionary removed = original;
  Dictionary merged = original;
  Dictionary reserved = original;
  set.setObjectForKey(Value(3), "c");
  replaced.setObjectForKey(Value(3), "a");
  removed.removeObjectForKey("a");
  merged.addEntriesFromDictionary(Dictionary{{"a", 4}});
  reserved.reserve(20);
  EXPECT_EQ(original, (Dictionary{{"a", 1}, {"b", 2}}));
  EXPECT_EQ(set, (Dictionary{{"a", 1}, {"b", 2}, {"c", 3}}));
  EXPECT_EQ(replaced, (Dictionary{{"a", 3}, {"b", 2}}));
  EXPECT_EQ(removed, (Dictionary{{"b", 2}}));
  EXPECT_EQ(merged, (Dictionary{{"a", 4}, {"b", 2}}));
  EXPECT_EQ(reserved, original);
}

TEST(Dictionary, UnchangedCopiesShare) {
  const Dictionary original{{"a", 1}};
  const Dictionary copy = original;
  EXPECT_EQ(copy.begin(), original.begin());
  Dictionary empty;
  empty.addEntriesFromDictionary(original);
  EXPECT_EQ(empty.begin(), original.begin());
  Dictionary untouched = original;
  untouched.removeObjectForKey("none");
  untouched.addEntriesFromDictionary(Dictionary());
  untouched.addEntriesFromDictionary(original);
  EXPECT_EQ(untouched.begin(), original.begin());
}

TEST(Dictionary, MergeTakesTheOthersEntries) {
  Dictionary dictionary{{"b", 1}, {"d", 1}, {"e", 1}};
  dictionary.addEntriesFromDictionary(Dictionary{{"a", 2}, {"b", 2}, {"c", 2}, {"f", 2}});
  EXPECT_EQ(dictionary, (Dictionary{{"a", 2}, {"b", 2}, {"c", 2}, {"d", 1}, {"e", 1}, {"f", 2}}));
}

/// Every operation in random order, against a std::map.
TEST(Dictionary, AgreesWithAMap) {
  std::mt19937 random(20261120);
  for (int round = 0; round < 200; ++round) {
    Dictionary dictionary;
    std::map<std::string, int> map;
    std::vector<std::pair<Dictionary, std::map<std::string, int>>> kept;
    for (int step = 0; step < 60; ++step) {
      const std::string key = "k" + std::to_string(random() % 24);
      const int value = static_cast<int>(random() % 1000);
      switch (random() % 5) {
        case 0:
          dictionary.removeObjectForKey(key);
          map.erase(key);
          break;
        case 1: {
          Dictionary other{{key, value}, {"k3", value + 1}};
          dictionary.addEntriesFromDictionary(other);
          map["k3"] = value + 1;
          map[key] = value;
          if (key == "k3") map[key] = value;  // of equal keys the first wins
          break;
        }
        case 2:
          kept.emplace_back(dictionary, map);
          break;
        default:
          dictionary.setObjectForKey(Value(value), key);
          map[key] = value;
      }
    }
    kept.emplace_back(dictionary, map);
    for (const auto& [ours, theirs] : kept) {
      ASSERT_EQ(ours.count(), theirs.size());
      auto expected = theirs.begin();
      for (const Member& member : ours) {
        ASSERT_EQ(member.key.view(), expected->first);
        ASSERT_EQ(member.value, Value(expected->second));
        ++expected;
      }
    }
  }
}

TEST(Value, ThreadsCopyChangeAndDropTheSameOne) {
  const Dictionary shared{{"a", 1}, {"b", Array{"x", "y"}}};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back([&shared, thread] {
      for (int round = 0; round < 5000; ++round) {
        Dictionary mine = shared;
        mine.setObjectForKey(Value(thread), "a");
        ASSERT_EQ(*mine.find("a"), Value(thread));
        Array inner = mine.find("b")->array();
        inner.addObject(Value(round));
        ASSERT_EQ(inner.count(), 3u);
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(shared, (Dictionary{{"a", 1}, {"b", Array{"x", "y"}}}));
}

}  // namespace
