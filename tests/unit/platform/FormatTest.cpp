// Tests of the texts that %@ prints and of stringWithFormat.
#include "platform/Format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "platform/Exception.h"
#include "platform/URL.h"
#include "platform/Value.h"

namespace {

using platform::Array;
using platform::Data;
using platform::Date;
using platform::Dictionary;
using platform::Exception;
using platform::FormatArgument;
using platform::String;
using platform::stringWithFormat;
using platform::Value;

TEST(FormatV4, AbsentAndNull) {
  EXPECT_EQ(stringWithFormat("%@", {std::nullopt}), "(null)");
  EXPECT_EQ(stringWithFormat("%@", {std::optional<Value>()}), "(null)");
  EXPECT_EQ(stringWithFormat("%@", {std::optional<std::string>()}), "(null)");
  EXPECT_EQ(stringWithFormat("%@", {std::shared_ptr<Dictionary>()}), "(null)");
  EXPECT_EQ(stringWithFormat("%@", {Value()}), "<null>");
  EXPECT_EQ(stringWithFormat("%@", {std::optional<Value>(Value())}), "<null>");
}

TEST(FormatV5, Dictionary) {
  const Dictionary dictionary{{"status", "ok"}, {"on", true}, {"count", 3}, {"nothing", nullptr}, {"two words", "a b"}};
  EXPECT_EQ(dictionary.description(),
            "{\n"
            "    count = 3;\n"
            "    nothing = \"<null>\";\n"
            "    on = 1;\n"
            "    status = ok;\n"
            "    \"two words\" = \"a b\";\n"
            "}");
}

TEST(FormatV5, Array) {
  EXPECT_EQ((Array{1, "two", false, nullptr}.description()),
            "(\n"
            "    1,\n"
            "    two,\n"
            "    0,\n"
            "    \"<null>\"\n"
            ")");
}

TEST(FormatV5, Empty) {
  EXPECT_EQ(Array().description(), "(\n)");
  EXPECT_EQ(Dictionary().description(), "{\n}");
}

TEST(FormatV5, NestedContainersStartOnTheirKeysLineFourMoreIn) {
  const Dictionary dictionary{{"list", Array{1, Value(Array{2}), Dictionary{{"a", 3}}}},
                              {"map", Dictionary{{"inner", Dictionary()}}}};
  EXPECT_EQ(dictionary.description(),
            "{\n"
            "    list =     (\n"
            "        1,\n"
            "                (\n"
            "            2\n"
            "        ),\n"
            "                {\n"
            "            a = 3;\n"
            "        }\n"
            "    );\n"
            "    map =     {\n"
            "        inner =         {\n"
            "        };\n"
            "    };\n"
            "}");
}

TEST(FormatV5, QuotesWhatIsNotPlain) {
  const auto inside = [](const char* text) {
    const std::string whole = Array{text}.description();
    return whole.substr(6, whole.size() - 8);
  };
  EXPECT_EQ(inside("aZ09_$/:."), "aZ09_$/:.");
  EXPECT_EQ(inside(""), "\"\"");
  EXPECT_EQ(inside("a-b"), "\"a-b\"");
  EXPECT_EQ(inside("say \"hi\""), "\"say \\\"hi\\\"\"");
  EXPECT_EQ(inside("back\\slash"), "\"back\\\\slash\"");
  EXPECT_EQ(inside("a\nb\rc\td"), "\"a\\nb\\rc\\td\"");
  EXPECT_EQ(inside("\x01\x7F"), "\"\\U0001\\U007f\"");
  EXPECT_EQ(inside("\xC3\xA4"), "\"\\U00e4\"");
  EXPECT_EQ(inside("x\xE2\x82\xAC"), "\"x\\U20ac\"");
  EXPECT_EQ(inside("\xF0\x9F\x98\x80"), "\"\\Ud83d\\Ude00\"");
  EXPECT_EQ(inside("\xFF"
                   "a\xC3"),
            "\"\\Ufffda\\Ufffd\"");
  EXPECT_EQ(Dictionary({{"\xC3\xA4", 1}}).description(), "{\n    \"\\U00e4\" = 1;\n}");
}

TEST(FormatV5, ATopLevelStringPrintsRaw) {
  EXPECT_EQ(Value("ä \"b\"\n").description(), "ä \"b\"\n");
  EXPECT_EQ(Value("").description(), "");
}

TEST(FormatV5, IndentationEndsSomewhere) {
  Value value = 1;
  for (int level = 0; level < 70; ++level) value = Array{std::move(value)};
  const std::string text = value.description();
  EXPECT_NE(text.find("\n" + std::string(256, ' ') + "1\n"), std::string::npos);
  EXPECT_EQ(text.find(std::string(513, ' ')), std::string::npos);
}

TEST(FormatV8, NumbersPrintTheShortestTextThatReadsBack) {
  EXPECT_EQ(Value(0).description(), "0");
  EXPECT_EQ(Value(INT64_MIN).description(), "-9223372036854775808");
  EXPECT_EQ(Value(UINT64_MAX).description(), "18446744073709551615");
  EXPECT_EQ(Value(0.1).description(), "0.1");
  EXPECT_EQ(Value(1.0).description(), "1");
  EXPECT_EQ(Value(-2.5).description(), "-2.5");
  EXPECT_EQ(Value(1e300).description(), "1e+300");
  EXPECT_EQ(Value(0.1 + 0.2).description(), "0.30000000000000004");
  EXPECT_EQ(Value(std::numeric_limits<double>::infinity()).description(), "inf");
  EXPECT_EQ(Value(std::nan("")).description(), "nan");
  EXPECT_EQ(Value(true).description(), "1");
  EXPECT_EQ(Value(false).description(), "0");
}

TEST(Format, DatesAndData) {
  EXPECT_EQ(Value(Date()).description(), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ((Array{Date()}.description()), "(\n    \"1970-01-01 00:00:00 +0000\"\n)");
  EXPECT_EQ(Value(Data("abc")).description(), "{length = 3, bytes = 0x616263}");
  EXPECT_EQ(Value(Data()).description(), "{length = 0, bytes = 0x}");
  EXPECT_EQ((Array{Data("abc")}.description()), "(\n    \"{length = 3, bytes = 0x616263}\"\n)");
  EXPECT_EQ(Value(Data("0123456789abcdefghijklmn")).description(),
            "{length = 24, bytes = 0x303132333435363738396162636465666768696a6b6c6d6e}");
  EXPECT_EQ(Value(Data("0123456789abcdefghijklmnopqrstuvwxyz")).description(),
            "{length = 36, bytes = 0x30313233 34353637 38396162 63646566 ... 73747576 7778797a}");
}

TEST(Format, Integers) {
  EXPECT_EQ(stringWithFormat("%d %i", {-1, 2}), "-1 2");
  EXPECT_EQ(stringWithFormat("%d", {0x1'0000'0002}), "2");
  EXPECT_EQ(stringWithFormat("%d", {4294967295u}), "-1");
  EXPECT_EQ(stringWithFormat("%u", {-1}), "4294967295");
  EXPECT_EQ(stringWithFormat("%ld %li %lld", {INT64_MIN, -5, INT64_MAX}), "-9223372036854775808 -5 9223372036854775807");
  EXPECT_EQ(stringWithFormat("%lu", {UINT64_MAX}), "18446744073709551615");
  EXPECT_EQ(stringWithFormat("%lu", {-1}), "18446744073709551615");
  EXPECT_EQ(stringWithFormat("%ld", {UINT64_MAX}), "-1");
}

TEST(Format, Texts) {
  EXPECT_EQ(stringWithFormat("no placeholder", {}), "no placeholder");
  EXPECT_EQ(stringWithFormat("", {}), "");
  EXPECT_EQ(stringWithFormat("100%%", {}), "100%");
  EXPECT_EQ(stringWithFormat("%@%@%@%@", {"a", std::string("b"), String("c"), std::string_view("d")}), "abcd");
  EXPECT_EQ(stringWithFormat("\"%@\"", {std::optional<std::string>("x")}), "\"x\"");
  EXPECT_EQ(stringWithFormat("[%@]", {Value("ä%@")}), "[ä%@]");
  EXPECT_EQ(stringWithFormat("%@", {Dictionary{{"a", 1}}}), "{\n    a = 1;\n}");
  EXPECT_EQ(stringWithFormat("%@", {std::make_shared<Array>()}), "(\n)");
  EXPECT_EQ(stringWithFormat("Couldn't submit events, got %ld: %@", {404, "x"}), "Couldn't submit events, got 404: x");
}

TEST(Format, ArgumentsTooManyAreLeftOut) { EXPECT_EQ(stringWithFormat("%@", {"a", "b"}), "a"); }

std::string raiseOf(std::string_view format, std::initializer_list<FormatArgument> arguments) {
  try {
    return stringWithFormat(format, arguments);
  } catch (const Exception& raise) {
    return raise.what();
  }
}

TEST(Format, WrongFormatsRaise) {
  EXPECT_EQ(raiseOf("%@ %@", {"a"}),
            "NSInvalidArgumentException: *** stringWithFormat: placeholder without an argument in \"%@ %@\"");
  EXPECT_EQ(raiseOf("%@", {1}), "NSInvalidArgumentException: *** stringWithFormat: argument of another sort in \"%@\"");
  EXPECT_EQ(raiseOf("%d", {"1"}), "NSInvalidArgumentException: *** stringWithFormat: argument of another sort in \"%d\"");
  EXPECT_EQ(raiseOf("%ld", {std::nullopt}),
            "NSInvalidArgumentException: *** stringWithFormat: argument of another sort in \"%ld\"");
  for (const char* format : {"%", "%l", "%ll", "%llld", "%x", "%l@", "%l%", "% d"})
    EXPECT_EQ(raiseOf(format, {1}),
              "NSInvalidArgumentException: *** stringWithFormat: unknown placeholder in \"" + std::string(format) + "\"");
}

struct CountsDescriptions {
  int* count;
  std::string description() const {
    ++*count;
    return "described";
  }
};

TEST(Format, DescribesOnlyWhatIsPrinted) {
  int count = 0;
  const CountsDescriptions object{&count};
  EXPECT_EQ(stringWithFormat("nothing", {object}), "nothing");
  EXPECT_EQ(count, 0);
  EXPECT_EQ(stringWithFormat("%@", {object}), "described");
  EXPECT_EQ(count, 1);
}

}  // namespace
