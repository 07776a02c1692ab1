#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/support/Json.h"

namespace kestrune {
namespace {

TEST(Json, RefusesWhatIsNoSingleStrictText) {
  for (const std::string_view text :
       {"",        " ",        "{",           "[1,]",    "{\"a\":1,}", "{a:1}", "'a'", "01",
        "+1",      "1.",       ".5",          "NaN",     "nul",        "1 2",   "{}x", "\"\n\"",
        "\"\\x\"", "\"\xFF\"", "\"\\ud800\"", "// c\n1", "1e400",      "-1e999"}) {
    EXPECT_FALSE(parseJson(text)) << text;
  }
  EXPECT_FALSE(parseJson(std::string_view("{}\0", 3)));
}

TEST(Json, LimitsNesting) {
  EXPECT_TRUE(parseJson(std::string(32, '[') + std::string(32, ']')));
  EXPECT_FALSE(parseJson(std::string(33, '[') + std::string(33, ']')));
  EXPECT_FALSE(parseJson(std::string(1'000'000, '[')));
}

TEST(Json, LastOfRepeatedNamesIsFoundAndOrderIsKept) {
  const auto value = parseJson(R"({"b":1,"a":{"x":[true,null,"\u00fc\ud83d\udc4b\/"]},"b":2})");
  ASSERT_TRUE(value);
  EXPECT_EQ(value->find("b")->integer(), 2);
  EXPECT_EQ(value->find("c"), nullptr);
  EXPECT_EQ(value->object()->size(), 3u);
  EXPECT_EQ(serializeJson(*value), "{\"b\":1,\"a\":{\"x\":[true,null,\"\u00fc\U0001F44B/\"]},\"b\":2}");
}

TEST(Json, NumbersKeepTheirRanges) {
  const auto at = [](std::string_view text) { return *parseJson(text); };
  EXPECT_EQ(at("-3.9").integer(), -3);
  EXPECT_EQ(at("3.9").unsignedInteger(), 3u);
  EXPECT_EQ(at("-0.5").unsignedInteger(), 0u);
  EXPECT_FALSE(at("-1").unsignedInteger());
  EXPECT_EQ(at("18446744073709551615").unsignedInteger(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_FALSE(at("18446744073709551615").integer());
  EXPECT_FALSE(at("18446744073709551616").unsignedInteger());
  EXPECT_FALSE(at("9223372036854775808.0").integer());
  EXPECT_EQ(at("-9223372036854775808").integer(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(at("1e-400").number(), 0.0);
  EXPECT_EQ(at("7").number(), 7.0);
  EXPECT_FALSE(at("true").number());
  EXPECT_FALSE(at("1").boolean());
  EXPECT_FALSE(at("\"1\"").integer());
}

TEST(Json, FloatsReadBackTheSame) {
  for (const double value : {0.5, 1.0, 0.1, 1.0 / 3, 5e-324, 1.7976931348623157e308, 123456789012345680.0,
                             8.41e21, 9007199254740993.0, 0.30000000000000004, -2.2250738585072014e-308}) {
    const std::string text = formatJsonNumber(value);
    const auto back = parseJson(text);
    ASSERT_TRUE(back) << text;
    EXPECT_EQ(back->number(), value) << text;
    EXPECT_TRUE(back->isFloat()) << text;
  }
  EXPECT_EQ(formatJsonNumber(1), "1.0");
  EXPECT_EQ(formatJsonNumber(0.5), "0.5");
  EXPECT_EQ(serializeJson(JsonValue(std::nan(""))), "null");
  EXPECT_EQ(serializeJson(JsonValue(std::numeric_limits<std::uint64_t>::max())), "18446744073709551615");
}

TEST(Json, QuotesEveryTextReadably) {
  std::string text;
  for (char c = 0; c < 127; ++c) text.push_back(c);
  text.append("\u2028\U0001F44B");
  EXPECT_EQ(*parseJson(quoteJson(text))->string(), text);
  EXPECT_EQ(*parseJson(quoteJson("a\xFF"))->string(), "a\uFFFD");
}

}  // namespace
}  // namespace kestrune
