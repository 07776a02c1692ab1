#include <gtest/gtest.h>

#include "platform/support/Url.h"

namespace kestrune {
namespace {

TEST(Url, DecodesPathAndQuery) {
  const auto url = parseUrl("http://localhost/a%20b/%2e%2E/c?x=1%262&flag&y=&x=2+3#f");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path, "/a b/../c");
  using Items = decltype(url->queryItems);
  EXPECT_EQ(url->queryItems, (Items{{"x", "1&2"}, {"flag", std::nullopt}, {"y", ""}, {"x", "2+3"}}));
  EXPECT_EQ(parseUrl("http://localhost//a")->path, "//a");
  EXPECT_TRUE(parseUrl("http://localhost/a?")->queryItems.empty());
}

TEST(Url, RefusesWhatNoUrlMayHold) {
  for (const std::string_view text :
       {"http://localhost/a b", "http://localhost/\x01", "http://localhost/\x7F", "http://localhost/%",
        "http://localhost/%4", "http://localhost/%zz", "http://localhost/?a=%g0", "http://localhost/\xC3\xBC",
        "", "/a"}) {
    EXPECT_FALSE(parseUrl(text)) << text;
  }
  EXPECT_FALSE(parseUrl(std::string_view("http://localhost/\0", 18)));
}

TEST(Url, SetsTheFragment) {
  EXPECT_EQ(urlWithFragment("http://127.0.0.1:8080/?a=1#old", "token=Ab-_9"),
            "http://127.0.0.1:8080/?a=1#token=Ab-_9");
  EXPECT_EQ(urlWithFragment("https://host/p", "a b#c"), "https://host/p#a%20b%23c");
  EXPECT_FALSE(urlWithFragment("not a url", "x"));
}

}  // namespace
}  // namespace kestrune
