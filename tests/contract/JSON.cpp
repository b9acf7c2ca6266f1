// The JSON service, row by row (platform rows J1 to J10).
//
// Tests in memory use this same service, for it touches nothing outside its arguments: there is no twin that could differ from it.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "platform/Exception.h"
#include "platform/JSONSerialization.h"
#include "platform/Process.h"
#include "platform/linux/RapidJSONSerialization.h"

namespace {

using platform::Array;
using platform::Data;
using platform::Date;
using platform::Dictionary;
using platform::Error;
using platform::Exception;
using platform::Value;

class JSON : public testing::Test {
 protected:
  /// The text of a value; the raise, or the error's domain and code, when there is none.
  std::string written(const Value& value) {
    try {
      const auto data = service_->write(value);
      return data ? std::string(data->bytes()) : data.error().domain() + ' ' + std::to_string(data.error().code());
    } catch (const Exception& raise) {
      return raise.what();
    }
  }
  std::string writtenInside(const Value& value) {
    const std::string text = written(Array{value});
    return text.starts_with('[') ? text.substr(1, text.size() - 2) : text;
  }
  std::expected<Value, Error> read(std::string_view text) { return service_->read(Data(text)); }
  /// The value that a text for one array element is read as.
  Value readInside(const std::string& text) {
    const auto value = read("[" + text + "]");
    if (!value) {
      ADD_FAILURE() << text << ": " << value.error().debugDescription();
      return {};
    }
    return value->array()[0];
  }
  std::string detailOf(std::string_view text) {
    const auto value = read(text);
    return value ? "read" : value.error().debugDescription();
  }

  std::shared_ptr<platform::JSONSerialization> service_ = platform::makeRapidJSONSerialization();
};

using JSONJ1 = JSON;
using JSONJ2 = JSON;
using JSONJ3 = JSON;
using JSONJ4 = JSON;
using JSONJ5 = JSON;
using JSONJ6 = JSON;
using JSONJ7 = JSON;
using JSONJ8 = JSON;
using JSONJ9 = JSON;
using JSONJ10 = JSON;

// ---- J1: the top level

TEST_F(JSONJ1, TopLevelMustBeAContainer) {
  for (const Value& scalar : {Value(), Value(true), Value(1), Value(UINT64_MAX), Value(1.5), Value("text"), Value(std::nan("")),
                              Value("\xFF"), Value(Date()), Value(Data())})
    EXPECT_EQ(written(scalar), "NSInvalidArgumentException: Invalid top-level type in JSON write");
  EXPECT_EQ(written(Array()), "[]");
  EXPECT_EQ(written(Dictionary()), "{}");
}

// ---- J2: what may stand inside

TEST_F(JSONJ2, EveryAllowedType) {
  EXPECT_EQ(
      written(Array{"text", 1, UINT64_MAX, 0.5, true, false, nullptr, Array(), Dictionary(), Array{Dictionary{{"key", "value"}}}}),
      R"(["text",1,18446744073709551615,0.5,true,false,null,[],{},[{"key":"value"}]])");
}

TEST_F(JSONJ2, DatesAndDataRaise) {
  EXPECT_EQ(writtenInside(Date()), "NSInvalidArgumentException: Invalid type in JSON write (NSDate)");
  EXPECT_EQ(writtenInside(Data("x")), "NSInvalidArgumentException: Invalid type in JSON write (NSData)");
  EXPECT_EQ(written(Dictionary{{"a", Dictionary{{"b", Array{Date()}}}}}),
            "NSInvalidArgumentException: Invalid type in JSON write (NSDate)");
}

// ---- J3: numbers that JSON has not

TEST_F(JSONJ3, NaNAndInfinitiesRaise) {
  EXPECT_EQ(writtenInside(std::nan("")), "NSInvalidArgumentException: Invalid number value (NaN) in JSON write");
  EXPECT_EQ(writtenInside(-std::nan("")), "NSInvalidArgumentException: Invalid number value (NaN) in JSON write");
  EXPECT_EQ(writtenInside(HUGE_VAL), "NSInvalidArgumentException: Invalid number value (infinite) in JSON write");
  EXPECT_EQ(writtenInside(-HUGE_VAL), "NSInvalidArgumentException: Invalid number value (infinite) in JSON write");
}

// ---- J4: strings that are no UTF-8

TEST_F(JSONJ4, IllFormedStringFailsWithAnError) {
  for (const char* text : {"\xFF", "long enough to be scanned by words \xC3", "\xED\xA0\x80", "\xC0\x80", "a\"b\\c\n\xF5"}) {
    EXPECT_EQ(writtenInside(text), "NSCocoaErrorDomain 3852");
    EXPECT_EQ(written(Dictionary{{text, 1}}), "NSCocoaErrorDomain 3852");
  }
  const auto result = service_->write(Dictionary{{"key", "\xFF"}});
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().localizedDescription(), "The data couldn’t be written because it isn’t in the correct format.");
  EXPECT_EQ(result.error().debugDescription(), "A string is not well-formed UTF-8, at byte 9 of the text.");
}

TEST_F(JSONJ4, TheFirstFaultInWritingOrderDecides) {
  EXPECT_EQ(written(Array{"\xFF", Date(), std::nan("")}), "NSCocoaErrorDomain 3852");
  EXPECT_EQ(written(Array{Date(), "\xFF"}), "NSInvalidArgumentException: Invalid type in JSON write (NSDate)");
  EXPECT_EQ(written(Array{std::nan(""), "\xFF"}), "NSInvalidArgumentException: Invalid number value (NaN) in JSON write");
  EXPECT_EQ(written(Dictionary{{"\xFF", Date()}}), "NSCocoaErrorDomain 3852");
  EXPECT_EQ(written(Dictionary{{"b", "\xFF"}, {"a", HUGE_VAL}}),
            "NSInvalidArgumentException: Invalid number value (infinite) in JSON write");
}

// ---- J5: the text's form

TEST_F(JSONJ5, ControlCharactersAreEscapedInLowerCase) {
  std::string controls;
  for (char control = 0; control < 0x20; ++control) controls += control;
  EXPECT_EQ(writtenInside(controls),
            R"("\u0000\u0001\u0002\u0003\u0004\u0005\u0006\u0007\b\t\n\u000b\f\r\u000e\u000f)"
            R"(\u0010\u0011\u0012\u0013\u0014\u0015\u0016\u0017\u0018\u0019\u001a\u001b\u001c\u001d\u001e\u001f")");
}

TEST_F(JSONJ5, QuotesAndBackslashesAreEscapedAndNothingElse) {
  EXPECT_EQ(writtenInside(R"(say "hi" \ there)"), R"("say \"hi\" \\ there")");
  EXPECT_EQ(writtenInside("http://a/b?c=d&e='f'<g>"), R"("http://a/b?c=d&e='f'<g>")");
  EXPECT_EQ(writtenInside("\x7F"), "\"\x7F\"");
  EXPECT_EQ(writtenInside(""), "\"\"");
}

TEST_F(JSONJ5, NonASCIIStandsRaw) {
  EXPECT_EQ(writtenInside("äöü € 😀 \u2028"), "\"äöü € 😀 \u2028\"");
  EXPECT_EQ(written(Dictionary{{"ä", "ö\n"}}), "{\"ä\":\"ö\\n\"}");
}

TEST_F(JSONJ5, EscapesAreFoundAtEveryOffset) {
  for (std::size_t length = 1; length < 40; ++length)
    for (std::size_t at = 0; at < length; ++at)
      for (const auto& [byte, escape] :
           {std::pair{'\n', "\\n"}, {'"', "\\\""}, {'\\', "\\\\"}, {'\x1f', "\\u001f"}, {' ', " "}, {'#', "#"}}) {
        std::string text(length, 'a');
        text[at] = byte;
        ASSERT_EQ(writtenInside(text), '"' + std::string(at, 'a') + escape + std::string(length - at - 1, 'a') + '"');
      }
}

TEST_F(JSONJ5, EveryCharacterReadsBack) {
  std::string text;
  for (char32_t point = 1; point < 0x110000; point = point < 0x3000 ? point + 1 : point + 101) {
    if (point >= 0xD800 && point <= 0xDFFF) continue;
    if (point < 0x80) {
      text += static_cast<char>(point);
    } else if (point < 0x800) {
      text += static_cast<char>(0xC0 | point >> 6);
      text += static_cast<char>(0x80 | (point & 63));
    } else if (point < 0x10000) {
      text += static_cast<char>(0xE0 | point >> 12);
      text += static_cast<char>(0x80 | (point >> 6 & 63));
      text += static_cast<char>(0x80 | (point & 63));
    } else {
      text += static_cast<char>(0xF0 | point >> 18);
      text += static_cast<char>(0x80 | (point >> 12 & 63));
      text += static_cast<char>(0x80 | (point >> 6 & 63));
      text += static_cast<char>(0x80 | (point & 63));
    }
  }
  EXPECT_EQ(readInside(writtenInside(text)), Value(text));
}

TEST_F(JSONJ5, IsOneLineWithoutBlanks) {
  EXPECT_EQ(written(Dictionary{{"a", Array{1, 2, Dictionary{{"b", nullptr}}}}, {"c", Dictionary{{"d", Array()}, {"e", 1}}}}),
            R"({"a":[1,2,{"b":null}],"c":{"d":[],"e":1}})");
}

// ---- J6: numbers, order, depth

TEST_F(JSONJ6, BooleansAreWords) { EXPECT_EQ(written(Array{true, false, 1, 0}), "[true,false,1,0]"); }

TEST_F(JSONJ6, IntegersKeepAll64Bits) {
  EXPECT_EQ(written(Array{INT64_MIN, INT64_MAX, std::uint64_t{INT64_MAX} + 1, UINT64_MAX, -1, 0}),
            "[-9223372036854775808,9223372036854775807,9223372036854775808,18446744073709551615,-1,0]");
}

TEST_F(JSONJ6, DoublesAreTheShortestTextThatReadsBack) {
  EXPECT_EQ(written(Array{0.1, -0.0, 1.5, 5e-324, 1.7976931348623157e308, 0.1 + 0.2, 1e21, 2.2250738585072014e-308}),
            "[0.1,-0,1.5,5e-324,1.7976931348623157e+308,0.30000000000000004,1e+21,2.2250738585072014e-308]");
}

TEST_F(JSONJ6, RandomDoublesReadBack) {
  std::mt19937_64 random(42);
  for (int round = 0; round < 100000; ++round) {
    std::uint64_t bits = random();
    if (round % 4 == 0) bits &= 0x800FFFFFFFFFFFFFu;  // zero and the subnormals
    const auto number = std::bit_cast<double>(bits);
    if (!std::isfinite(number)) continue;
    const std::string text = writtenInside(number);
    ASSERT_EQ(std::bit_cast<std::uint64_t>(std::strtod(text.c_str(), nullptr)), bits) << text;
    const Value back = readInside(text);
    if (back.kind() == Value::Kind::kDouble)
      ASSERT_EQ(std::bit_cast<std::uint64_t>(back.number()), bits) << text;
    else
      ASSERT_EQ(back, Value(number)) << text;  // a whole number, read as an integer
  }
}

TEST_F(JSONJ6, KeysComeInTheOrderOfTheirBytes) {
  EXPECT_EQ(written(Dictionary{{"b", 1}, {"ä", 2}, {"a", 3}, {"B", 4}, {"", 5}}), R"({"":5,"B":4,"a":3,"b":1,"ä":2})");
}

TEST_F(JSONJ6, WritesWithoutBoundOnDepth) {
  constexpr std::size_t kDeep = 100000;
  Value value = Array();
  std::string expected = "[]";
  for (std::size_t level = 1; level < kDeep; ++level) value = Array{std::move(value)};
  expected = std::string(kDeep, '[') + std::string(kDeep, ']');
  EXPECT_EQ(written(value), expected);
  for (std::size_t level = 0; level < kDeep; ++level) value = Dictionary{{"k", std::move(value)}};
  std::string objects;
  for (std::size_t level = 0; level < kDeep; ++level) objects += R"({"k":)";
  EXPECT_EQ(written(value), objects + expected + std::string(kDeep, '}'));
}

TEST_F(JSONJ6, WritesLongTexts) {
  const std::string longText(3'000'000, 'x');
  EXPECT_EQ(writtenInside(longText), '"' + longText + '"');
}

// ---- J7: what is no JSON text

TEST_F(JSONJ7, TheError) {
  const auto result = read("{\"a\":x}");
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().domain(), "NSCocoaErrorDomain");
  EXPECT_EQ(result.error().code(), 3840);
  EXPECT_EQ(result.error().localizedDescription(), "The data couldn’t be read because it isn’t in the correct format.");
  EXPECT_EQ(result.error().debugDescription(), "Invalid value. Byte 5.");
}

TEST_F(JSONJ7, Details) {
  EXPECT_EQ(detailOf(""), "The document is empty. Byte 0.");
  EXPECT_EQ(detailOf("  "), "The document is empty. Byte 2.");
  EXPECT_EQ(detailOf("1"), "The document root is neither an object nor an array. Byte 0.");
  EXPECT_EQ(detailOf("\"text\""), "The document root is neither an object nor an array. Byte 0.");
  EXPECT_EQ(detailOf("null"), "The document root is neither an object nor an array. Byte 0.");
  EXPECT_EQ(detailOf("[1] x"), "The document root must not be followed by other values. Byte 4.");
  EXPECT_EQ(detailOf(std::string_view("[1]\0", 4)), "A NUL follows the document root. Byte 3.");
  EXPECT_EQ(detailOf("[\"\xFF\"]"), "Invalid encoding in string. Byte 2.");
  EXPECT_EQ(detailOf("[1e999]"), "Number too big to be stored in double. Byte 1.");
}

TEST_F(JSONJ7, AbsentDataFailsLikeEmptyData) {
  platform::Process process;
  process.json = service_;
  const platform::Process::Scope scope(process);
  const auto absent = platform::JSONSerialization::JSONObjectWithData(std::optional<Data>());
  ASSERT_FALSE(absent);
  EXPECT_EQ(absent.error().code(), 3840);
  EXPECT_EQ(absent.error().debugDescription(), "The document is empty. Byte 0.");
}

TEST_F(JSONJ7, EveryTruncationFails) {
  const std::string text = R"({"a":[1,-2.5e3,"x\n\u00e4ä",{"b":true}],"c":null,"d":false})";
  ASSERT_TRUE(read(text));
  for (std::size_t length = 0; length < text.size(); ++length) {
    const auto result = read(text.substr(0, length));
    ASSERT_FALSE(result) << text.substr(0, length);
    EXPECT_EQ(result.error().code(), 3840);
  }
}

// ---- J8: depth

std::string nest(int depth, const std::string& open, const std::string& close) {
  std::string text;
  for (int level = 0; level < depth; ++level) text += open;
  for (int level = 0; level < depth; ++level) text += close;
  return text;
}

TEST_F(JSONJ8, ContainersNest512Deep) {
  EXPECT_TRUE(read(nest(512, "[", "]")));
  EXPECT_EQ(detailOf(nest(513, "[", "]")), "Too many nested arrays or dictionaries. Byte 512.");
  EXPECT_TRUE(read(nest(256, "{\"k\":[", "]}")));
  EXPECT_EQ(detailOf("[" + nest(256, "{\"k\":[", "]}") + "]"), "Too many nested arrays or dictionaries. Byte 1536.");
}

TEST_F(JSONJ8, DepthIsNotCount) {
  std::string text = "[";
  for (int element = 0; element < 2000; ++element) text += "[],{},";
  EXPECT_TRUE(read(text + "1]"));
}

TEST_F(JSONJ8, HopelesslyDeepInputIsAnError) {
  EXPECT_EQ(detailOf(std::string(10'000'000, '[')), "Too many nested arrays or dictionaries. Byte 512.");
  std::string objects;
  for (int level = 0; level < 1'000'000; ++level) objects += "{\"\":";
  EXPECT_FALSE(read(objects));
}

// ---- J9: equal keys and numbers

TEST_F(JSONJ9, TheFirstOfEqualKeysWins) {
  EXPECT_EQ(*read(R"({"a":1,"b":2,"a":3})"), Value(Dictionary{{"a", 1}, {"b", 2}}));
  EXPECT_EQ(*read(R"({"a":1,"\u0061":3})"), Value(Dictionary{{"a", 1}}));
  std::string text = "{";
  for (int member = 0; member < 100; ++member) text += "\"k" + std::to_string(member % 30) + "\":" + std::to_string(member) + ",";
  const auto value = read(text + "\"z\":0}");
  ASSERT_TRUE(value);
  ASSERT_EQ(value->count(), 31u);
  for (int key = 0; key < 30; ++key) EXPECT_EQ(value->objectForKey("k" + std::to_string(key)), Value(key));
}

TEST_F(JSONJ9, IntegersAreExact) {
  const auto kindAndText = [this](const std::string& text) {
    const Value value = readInside(text);
    return std::to_string(static_cast<int>(value.kind())) + ' ' + value.description();
  };
  EXPECT_EQ(kindAndText("0"), "2 0");
  EXPECT_EQ(kindAndText("-1"), "2 -1");
  EXPECT_EQ(kindAndText("9223372036854775807"), "2 9223372036854775807");
  EXPECT_EQ(kindAndText("-9223372036854775808"), "2 -9223372036854775808");
  EXPECT_EQ(kindAndText("9223372036854775808"), "3 9223372036854775808");
  EXPECT_EQ(kindAndText("18446744073709551615"), "3 18446744073709551615");
  EXPECT_EQ(kindAndText("18446744073709551616"), "4 18446744073709551616");
  EXPECT_EQ(kindAndText("-9223372036854775809"), "4 -9223372036854775808");
  EXPECT_EQ(kindAndText("1.0"), "4 1");
  EXPECT_EQ(kindAndText("1e2"), "4 100");
}

TEST_F(JSONJ9, NegativeZeroKeepsItsSign) {
  for (const char* text : {"-0", "-0.0", "-0e5", "-1e-999"}) {
    const Value value = readInside(text);
    ASSERT_EQ(value.kind(), Value::Kind::kDouble) << text;
    EXPECT_TRUE(value.number() == 0 && std::signbit(value.number())) << text;
  }
}

TEST_F(JSONJ9, DoublesAreTheNearest) {
  std::mt19937_64 random(9);
  for (int round = 0; round < 100000; ++round) {
    std::string text = std::to_string(1 + random() % 9) + '.';
    for (std::size_t digits = 1 + random() % 30; digits > 0; --digits) text += static_cast<char>('0' + random() % 10);
    text += "e" + std::to_string(static_cast<int>(random() % 660) - 340);
    const double expected = std::strtod(text.c_str(), nullptr);
    if (std::isinf(expected)) {
      ASSERT_FALSE(read("[" + text + "]")) << text;
      continue;
    }
    const Value value = readInside(text);
    ASSERT_EQ(value.kind(), Value::Kind::kDouble) << text;
    ASSERT_EQ(std::bit_cast<std::uint64_t>(value.number()), std::bit_cast<std::uint64_t>(expected)) << text;
  }
}

TEST_F(JSONJ9, HardDoubles) {
  for (const char* text :
       {"2.2250738585072011e-308", "2.2250738585072012e-308", "4.9406564584124654e-324", "2.4703282292062327e-324",
        "2.4703282292062328e-324", "1.7976931348623158e308", "9007199254740993.0",
        "0.500000000000000166533453693773481063544750213623046875", "3.518437208883201171875e13", "8.98846567431158e307",
        "179769313486231570000000000000000000000000000000000000.0e254", "1e-1000",
        "0.00000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000000001e90"}) {
    const Value value = readInside(text);
    ASSERT_EQ(value.kind(), Value::Kind::kDouble) << text;
    EXPECT_EQ(std::bit_cast<std::uint64_t>(value.number()), std::bit_cast<std::uint64_t>(std::strtod(text, nullptr))) << text;
  }
}

TEST_F(JSONJ9, ANumberBeyondTheDoublesIsAnError) {
  for (const char* text :
       {"1e309", "-1e309", "1.8e308", "1.7976931348623159e308", "18e307", "0.18e309", "1e99999999999999999999"}) {
    const auto value = read("[" + std::string(text) + "]");
    ASSERT_FALSE(value) << text;
    EXPECT_EQ(value.error().code(), 3840);
  }
}

/// A sum of the exponent and the places before the first digit used to leave 64 bits, and the number was refused as too large.
TEST_F(JSONJ9, ATinyNumberWithAnExponentAtTheEndOf64BitsIsZero) {
  for (const char* text : {"0.001e-9223372036854775807", "0.001e-9223372036854775808", "0.001e-9223372036854775809"}) {
    EXPECT_EQ(readInside(text), Value(0.0)) << text;
    EXPECT_EQ(readInside("-" + std::string(text)), Value(-0.0)) << text;
  }
}

/// The one gap: the reader judges a number by its exponent before it looks at the digits, so that a few texts that mean a small
/// number in a roundabout way are refused. None is ever misread.
TEST_F(JSONJ9, RoundaboutNumbersAreRefused) {
  for (const std::string& text : {std::string("0e309"), std::string("0.00e313"), "1" + std::string(400, '0') + "e-300"})
    EXPECT_EQ(detailOf("[" + text + "]"), "Number too big to be stored in double. Byte 1.") << text;
  EXPECT_EQ(readInside("0e308"), Value(0));
  EXPECT_EQ(readInside("0.00e310"), Value(0));
}

// ---- J10: strictness

TEST_F(JSONJ10, WhatIsJSONIsRead) {
  const std::vector<std::pair<const char*, Value>> cases = {
      {"[]", Array()},
      {"{}", Dictionary()},
      {" \t\r\n[ 1 , 2 ] \n", Array{1, 2}},
      {"{ \"a\" : 1 , \"b\" : [ ] }", Dictionary{{"a", 1}, {"b", Array()}}},
      {"[null,true,false]", Array{nullptr, true, false}},
      {"[0,-1,10,-10]", Array{0, -1, 10, -10}},
      {"[0.5,-0.5,1.25E2,1.25e+2,125e-2]", Array{0.5, -0.5, 125.0, 125.0, 1.25}},
      {R"(["\"\\\/\b\f\n\r\t"])", Array{"\"\\/\b\f\n\r\t"}},
      {R"(["\u0041\u00e4\u00E4\u20ac\ud83d\ude00"])", Array{"Aää€😀"}},
      {R"(["\u0000"])", Array{std::string_view("\0", 1)}},
      {R"({"\u0000":1})", Dictionary{{std::string_view("\0", 1), 1}}},
      {R"({"":""})", Dictionary{{"", ""}}},
      {"[\"ä€😀\"]", Array{"ä€😀"}},
      {"[\"\x7F\"]", Array{"\x7F"}},
      {"[\"\xEF\xBF\xBF\"]", Array{"\xEF\xBF\xBF"}},
      {R"(["\uFFFF"])", Array{"\xEF\xBF\xBF"}},
      {R"(["\udbff\udfff"])", Array{"\xF4\x8F\xBF\xBF"}},
      {"[[[[]]],{\"a\":{\"b\":{}}}]",
       Array{Array{Value(Array{Value(Array())})}, Dictionary{{"a", Dictionary{{"b", Dictionary()}}}}}},
      {R"(["// no comment /* here */"])", Array{"// no comment /* here */"}},
  };
  for (const auto& [text, expected] : cases) {
    const auto value = read(text);
    ASSERT_TRUE(value) << text << ": " << value.error().debugDescription();
    EXPECT_EQ(*value, expected) << text;
  }
}

TEST_F(JSONJ10, WhatIsNotIsRefused) {
  const std::vector<std::string> cases = {
      // structure
      "", " ", "[", "]", "{", "}", "[}", "{]", "[1", "[1,", "[1,]", "[,1]", "[1,,2]", "[,]", "[1 2]", "[1]]", "[][]", "[] []",
      "[1],", "{,}", "{\"a\"}", "{\"a\":}", "{\"a\" 1}", "{\"a\":1,}", "{,\"a\":1}", "{\"a\":1 \"b\":2}", "{\"a\"::1}",
      "{\"a\":1:2}", "{1:2}", "{null:1}", "{a:1}", "{'a':1}", "{\"a\":1}}", "[\"a\":1]", "[:]", "[(1)]", "<null>", "{[1]:2}",
      "[1;2]", "[\v1]", "[\f1]",
      "[\xC2\xA0"
      "1]",
      // comments, byte order marks, NULs
      "[1] // comment", "[1] /* comment */", "/**/[1]", "[1,/**/2]", "# [1]", "[1]#", "\xEF\xBB\xBF[1]", std::string("[1]\0", 4),
      std::string("\0[1]", 4),
      std::string("[\0"
                  "1]",
                  4),
      std::string("[1\0]", 4), std::string("[\"\0\"]", 5), std::string("[1]\0\0[2]", 8),
      // literals
      "[nul]", "[nulll]", "[NULL]", "[Null]", "[tru]", "[TRUE]", "[True]", "[fals]", "[undefined]", "[nullnull]", "[truefalse]",
      "true", "null", "false",
      // numbers
      "[NaN]", "[nan]", "[-NaN]", "[Infinity]", "[-Infinity]", "[Inf]", "[inf]", "[+1]", "[++1]", "[--1]", "[-]", "[01]", "[-01]",
      "[00]", "[1.]", "[.5]", "[-.5]", "[1.e1]", "[1e]", "[1e+]", "[1E-]", "[1e1.5]", "[1.2.3]", "[0x10]", "[1_000]", "[1,000]x",
      "[1a]", "[- 1]", "[1e 1]", "[0e]", "[\xEF\xBC\x91]", "1", "-1.5",
      // strings
      "[\"]", "[\"a]", "[a\"]", "['a']", "[\"\\\"]", "[\"\\x41\"]", "[\"\\a\"]", "[\"\\'\"]", "[\"\\0\"]", "[\"\\u\"]",
      "[\"\\u12\"]", "[\"\\u123g\"]", "[\"\\U0041\"]", "[\"\\ud800\"]", "[\"\\ud800x\"]", "[\"\\ud800\\n\"]",
      "[\"\\ud800\\u0041\"]", "[\"\\ud800\\ud800\"]", "[\"\\udc00\"]", "[\"\\udc00\\ud800\"]", "[\"a\\udfffb\"]", "{\"\\udc00\":1}",
      "{\"\\ud800\":1}", "[\"\n\"]", "[\"\t\"]", "[\"\x01\"]", "[\"\x1f\"]", "[\"\\\n\"]", "[\"\\\xC3\xA4\"]", "\"a\"",
      // encoding
      "[\"\xFF\"]", "[\"\xC3\"]", "[\"\xC3(\"]", "[\"\x80\"]", "[\"\xC0\xAF\"]", "[\"\xE0\x80\xAF\"]", "[\"\xED\xA0\x80\"]",
      "[\"\xED\xBF\xBF\"]", "[\"\xF4\x90\x80\x80\"]", "[\"\xF5\x80\x80\x80\"]", "[\"\xFC\x80\x80\x80\x80\x80\"]", "[\"\xE2\x82\"]",
      "[\xFF]", "\xFF[]", "[]\xFF", "{\"\xFF\":1}", std::string("\xFE\xFF\0[\0]", 6), std::string("\xFF\xFE[\0]\0", 6),
      std::string("[\0]\0", 4)};
  for (const std::string& text : cases) {
    const auto value = read(text);
    ASSERT_FALSE(value) << text;
    EXPECT_EQ(value.error().code(), 3840) << text;
    EXPECT_EQ(value.error().localizedDescription(), "The data couldn’t be read because it isn’t in the correct format.");
  }
}

// ---- Both ways

/// A random value; deeper ones are more often scalars.
Value randomValue(std::mt19937_64& random, int depth) {
  const auto text = [&random] {
    static constexpr const char* kPieces[] = {"a", "Z", "0", " ", "\"", "\\", "/", "\n", "\x01", "ä", "€", "😀", "\x7F", "key"};
    std::string whole;
    for (std::size_t pieces = random() % 8; pieces > 0; --pieces) whole += kPieces[random() % std::size(kPieces)];
    return whole;
  };
  switch (random() % (depth > 0 ? 9 : 7)) {
    case 0:
      return {};
    case 1:
      return random() % 2 == 0;
    case 2:
      return static_cast<std::int64_t>(random()) >> random() % 64;
    case 3:
      return random() >> random() % 64;
    case 4: {
      const auto number = std::bit_cast<double>(random());
      return std::isfinite(number) ? number : 0.25;
    }
    case 5:
    case 6:
      return text();
    case 7: {
      Array array;
      for (std::size_t count = random() % 5; count > 0; --count) array.addObject(randomValue(random, depth - 1));
      return array;
    }
    default: {
      Dictionary object;
      for (std::size_t count = random() % 5; count > 0; --count) object.setObjectForKey(randomValue(random, depth - 1), text());
      return object;
    }
  }
}

TEST_F(JSON, RandomValuesReadBackAndWriteTheSameAgain) {
  std::mt19937_64 random(20261120);
  for (int round = 0; round < 20000; ++round) {
    const Value value = Array{randomValue(random, 5), randomValue(random, 5)};
    const std::string text = written(value);
    const auto back = read(text);
    ASSERT_TRUE(back) << text << ": " << back.error().debugDescription();
    ASSERT_EQ(*back, value) << text;
    ASSERT_EQ(written(*back), text);
  }
}

/// Whatever bytes come, the answer is a value or an error, and a value that was read can be written and read again.
TEST_F(JSON, RandomDamageNeverHurts) {
  std::mt19937_64 random(3840);
  int survivors = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text = written(Array{randomValue(random, 4)});
    for (std::size_t damage = 1 + random() % 3; damage > 0; --damage) {
      const std::size_t at = random() % text.size();
      if (random() % 2 == 0)
        text[at] = static_cast<char>(random());
      else
        text.erase(at, 1 + random() % 2);
      if (text.empty()) break;
    }
    const auto value = read(text);
    if (!value) {
      ASSERT_EQ(value.error().code(), 3840);
      continue;
    }
    ++survivors;
    const auto again = read(written(*value));
    ASSERT_TRUE(again) << text;
    ASSERT_EQ(*again, *value) << text;
  }
  EXPECT_GT(survivors, 100);
}

}  // namespace
