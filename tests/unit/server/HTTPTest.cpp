#include <gmock/gmock.h>

#include "server/HTTPRequest.h"

namespace kestrune {
namespace {

using namespace std::string_literals;

TEST(HTTPRequestTest, ReadsTheRequestLineAndTheHeaders) {
  const auto request = HTTPRequest::parse(
      "GET  /a%20b/c?x=1&x=2&flag&sum=1%2B1&plus=a+b HTTP/1.0\r\n"
      "Host:localhost:8080\r\nX-Note: \t first \r\nx-note:second: with colon\t\r\nEmpty:\r\n\r\n");
  ASSERT_TRUE(request);
  EXPECT_EQ(request->method, "GET");
  EXPECT_EQ(request->target, "/a%20b/c?x=1&x=2&flag&sum=1%2B1&plus=a+b");
  EXPECT_EQ(request->path, "/a b/c");
  EXPECT_EQ(request->query, (HTTPRequest::Fields{{"x", "2"}, {"flag", ""}, {"sum", "1+1"}, {"plus", "a+b"}}));
  EXPECT_EQ(
      request->headers,
      (HTTPRequest::Fields{{"host", "localhost:8080"}, {"x-note", "second: with colon"}, {"empty", ""}}));
}

TEST(HTTPRequestTest, RefusesWhatIsMalformed) {
  for (const auto& block :
       {""s, "\r\n\r\n"s, "GET /\r\n\r\n"s, "GET / HTTP/1.1 more\r\n\r\n"s, "GET / HTTP/2.0\r\n\r\n"s,
        "GET / http/1.1\r\n\r\n"s, "GET http://localhost/ HTTP/1.1\r\n\r\n"s, "GET * HTTP/1.1\r\n\r\n"s,
        "GET /%zz HTTP/1.1\r\n\r\n"s, "GET /\x01 HTTP/1.1\r\n\r\n"s, "GET /\0 HTTP/1.1\r\n\r\n"s,
        "GET / HTTP/1.1\r\nno colon\r\n\r\n"s, "GET / HTTP/1.1\r\n \t: no name\r\n\r\n"s,
        "GET / HTTP/1.1\r\nx: \xff\r\n\r\n"s}) {
    EXPECT_FALSE(HTTPRequest::parse(block)) << testing::PrintToString(block);
  }
  EXPECT_EQ(HTTPRequest::parse("get / HTTP/1.9\r\n\r\n")->method, "get");
}

TEST(HTTPRequestTest, FindsTheBearerToken) {
  const auto token = [](const std::string& value) {
    return HTTPRequest::parse("GET / HTTP/1.1\r\nAUTHORIZATION: " + value + "\r\n\r\n")->bearerToken();
  };
  EXPECT_EQ(token("bEaReR secret"), "secret");
  EXPECT_EQ(token("Bearer  secret"), " secret");
  EXPECT_EQ(token("Bearer two words"), "two words");
  EXPECT_EQ(token("Bearer "), std::nullopt);
  EXPECT_EQ(token("Basic secret"), std::nullopt);
  EXPECT_EQ(HTTPRequest::parse("GET / HTTP/1.1\r\n\r\n")->bearerToken(), std::nullopt);
}

}  // namespace
}  // namespace kestrune
