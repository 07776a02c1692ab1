#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/support/Encoding.h"
#include "platform/support/Json.h"

namespace kestrune {
namespace {

TEST(Base64, RoundTripsEveryLengthAndRefusesWhatIsNotCanonicalText) {
  Bytes bytes;
  for (int length = 0; length < 9; ++length) {
    EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes) << length;
    bytes.push_back(static_cast<std::uint8_t>(length * 37 + 200));
  }
  for (const std::string_view text : {"Zg", "Zg===", "====", "=Zg=", "Z===", "Zm9v\n", " Zm9", "Zm8=Zm8="}) {
    EXPECT_FALSE(base64Decode(text)) << text;
  }
}

TEST(Utf8, IsStrictAndBecomesSurrogatePairs) {
  EXPECT_EQ(utf16("\xC3\xBC \xE6\x97\xA5 \xF0\x9F\x91\x8B"), u"\u00FC \u65E5 \U0001F44B");
  EXPECT_TRUE(isValidUtf8("Gr\xC3\xBC\xC3\x9F \xF4\x8F\xBF\xBF"));
  for (const std::string_view text : {"\x80", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "a\xE2\x82"}) {
    EXPECT_FALSE(isValidUtf8(text));
    EXPECT_TRUE(isValidUtf8(replacingInvalidUtf8(text)));
    EXPECT_NE(utf16(text).find(u'\uFFFD'), std::u16string::npos);
  }
}

TEST(Json, RefusesWhatIsNoSingleStrictTextOrNestedTooDeep) {
  for (const std::string_view text :
       {"", "[1,]", "NaN", "1 2", "\"\n\"", "\"\xFF\"", "\"\\ud800\"", "// c\n1", "1e400", "-1e999"}) {
    EXPECT_FALSE(parseJson(text)) << text;
  }
  EXPECT_FALSE(parseJson(std::string_view("{}\0", 3)));
  EXPECT_TRUE(parseJson(std::string(32, '[') + std::string(32, ']')));
  EXPECT_FALSE(parseJson(std::string(33, '[') + std::string(33, ']')));
  EXPECT_FALSE(parseJson(std::string(1'000'000, '[')));
}

TEST(Json, LastOfRepeatedNamesIsFoundAndOrderIsKept) {
  const auto value = parseJson(R"({"b":1,"a":{"x":[true,null,"\u00fc\ud83d\udc4b\/",1.0,0.1]},"b":2})");
  ASSERT_TRUE(value);
  EXPECT_EQ(value->find("b")->integer(), 2);
  EXPECT_EQ(value->find("c"), nullptr);
  EXPECT_EQ(serializeJson(*value),
            "{\"b\":1,\"a\":{\"x\":[true,null,\"\u00fc\U0001F44B/\",1.0,0.1]},\"b\":2}");
  EXPECT_EQ(*parseJson(quoteJson("a\"\\\n\xFF"))->string(), "a\"\\\n\uFFFD");
}

TEST(Json, NumbersKeepTheirRanges) {
  const auto at = [](std::string_view text) { return *parseJson(text); };
  EXPECT_EQ(at("-3.9").integer(), -3);
  EXPECT_EQ(at("-0.5").unsignedInteger(), 0u);
  EXPECT_FALSE(at("-1").unsignedInteger());
  EXPECT_EQ(at("18446744073709551615").unsignedInteger(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_FALSE(at("18446744073709551615").integer());
  EXPECT_FALSE(at("18446744073709551616").unsignedInteger());
  EXPECT_FALSE(at("9223372036854775808.0").integer());
  EXPECT_EQ(at("-9223372036854775808").integer(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(at("1e-400").number(), 0.0);
  EXPECT_FALSE(at("true").number());
  EXPECT_FALSE(at("\"1\"").integer());
  EXPECT_EQ(formatJsonNumber(std::nan("")), "null");
}

}  // namespace
}  // namespace kestrune
