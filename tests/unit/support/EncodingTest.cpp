#include <gtest/gtest.h>

#include "platform/support/Encoding.h"

namespace kestrune {
namespace {

ByteView view(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

TEST(Encoding, Base64RoundTripsEveryLengthAndRefusesWhatIsNotCanonicalText) {
  Bytes bytes;
  for (int length = 0; length < 70; ++length) {
    EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes) << length;
    bytes.push_back(static_cast<std::uint8_t>(length * 37 + 200));
  }
  EXPECT_EQ(base64Encode(view("fo")), "Zm8=");
  for (const std::string_view text :
       {"Zg", "Zg===", "====", "=Zg=", "Z===", "Zm9v\n", " Zm9", "Zm8=Zm8=", "Zm9-", "Zm\xC3\xA9"}) {
    EXPECT_FALSE(base64Decode(text)) << text;
  }
  EXPECT_FALSE(base64Decode(std::string_view("Zm\0v", 4)));
}

TEST(Encoding, Utf8IsStrictAndUtf16UsesSurrogatePairs) {
  EXPECT_EQ(utf16("\xC3\xBC \xE6\x97\xA5 \xF0\x9F\x91\x8B"), u"\u00FC \u65E5 \U0001F44B");
  for (const std::string_view text :
       {"", "a", "Gr\xC3\xBC\xC3\x9F", "\xF0\x9F\x91\x8B", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(isValidUtf8(text)) << text;
  }
  for (const std::string_view text : {"\x80", "\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80",
                                      "\xF4\x90\x80\x80", "\xFF", "a\xE2\x82", "\xF0\x9F\x91"}) {
    EXPECT_FALSE(isValidUtf8(text));
    EXPECT_TRUE(isValidUtf8(replacingInvalidUtf8(text)));
    EXPECT_NE(utf16(text).find(u'\uFFFD'), std::u16string::npos);
  }
}

TEST(Encoding, GraphemeClustersStayWhole) {
  const std::vector<std::string_view> clusters{"a",
                                               "e\u0301",
                                               "\r\n",
                                               "\U0001F468\u200D\U0001F469\u200D\U0001F467",
                                               "\U0001F1E9\U0001F1EA",
                                               "\U0001F1EF\U0001F1F5",
                                               "\U0001F44B\U0001F3FD",
                                               "b"};
  std::string text;
  for (const auto cluster : clusters) text += cluster;
  EXPECT_EQ(graphemeClusters(text), clusters);
  EXPECT_TRUE(graphemeClusters("").empty());
}

}  // namespace
}  // namespace kestrune
