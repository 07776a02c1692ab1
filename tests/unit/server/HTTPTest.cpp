#include <gmock/gmock.h>

#include "server/HTTPRequest.h"
#include "server/HTTPResponse.h"
#include "server/ReceiveBuffer.h"

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
  for (const auto& block : {
           ""s,
           "\r\n\r\n"s,
           "GET /\r\n\r\n"s,
           "GET / HTTP/1.1 more\r\n\r\n"s,
           "GET / HTTP/2.0\r\n\r\n"s,
           "GET / http/1.1\r\n\r\n"s,
           "GET http://localhost/ HTTP/1.1\r\n\r\n"s,
           "GET * HTTP/1.1\r\n\r\n"s,
           "GET /%zz HTTP/1.1\r\n\r\n"s,
           "GET /\x01 HTTP/1.1\r\n\r\n"s,
           "GET /\0 HTTP/1.1\r\n\r\n"s,
           "GET / HTTP/1.1\r\nno colon\r\n\r\n"s,
           "GET / HTTP/1.1\r\n \t: no name\r\n\r\n"s,
           "GET / HTTP/1.1\r\nx: \xff\r\n\r\n"s,
       }) {
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

std::string serialized(HTTPResponse response) {
  const auto message = serializeResponse(std::move(response));
  std::string text(message.head.begin(), message.head.end());
  if (message.body) text.append(message.body->begin(), message.body->end());
  return text;
}

TEST(HTTPResponseTest, HasTheSameBytesEveryTime) {
  EXPECT_EQ(serialized(failureResponse(HTTPFailure::rateLimited)),
            "HTTP/1.1 429 Too Many Requests\r\n"
            "Cache-Control: no-store\r\n"
            "Connection: close\r\n"
            "Content-Length: 15\r\n"
            "Content-Type: text/plain; charset=utf-8\r\n"
            "Cross-Origin-Resource-Policy: same-origin\r\n"
            "Referrer-Policy: no-referrer\r\n"
            "Retry-After: 60\r\n"
            "X-Content-Type-Options: nosniff\r\n"
            "\r\n"
            "Try again later");
  HTTPResponse empty;
  empty.headers["Content-Length"] = "7";
  EXPECT_THAT(serialized(empty), testing::HasSubstr("Content-Length: 0\r\n"));
}

TEST(HTTPResponseTest, OnlyPagesCarryTheContentSecurityPolicy) {
  EXPECT_THAT(
      serialized(uncachedResponse("text/html; charset=utf-8", "x")),
      testing::HasSubstr(
          "\r\nContent-Security-Policy: default-src 'self'; script-src 'self' 'unsafe-eval' "
          "'wasm-unsafe-eval'; "
          "style-src 'self'; connect-src 'self' ws: wss:; worker-src 'self'; img-src 'self' data:; media-src "
          "blob:; object-src 'none'; base-uri 'none'; frame-ancestors 'none'\r\n"));
  EXPECT_THAT(serialized(uncachedResponse("text/javascript", "x")),
              testing::Not(testing::HasSubstr("Content-Security-Policy")));
}

TEST(ReceiveBufferTest, FindsATerminatorThatArrivesInPieces) {
  ReceiveBuffer buffer;
  const std::string text = "ab\r\n\rcd\r\n\r\nrest";
  std::size_t found = 0;
  for (std::size_t index = 0; index < text.size() && found == 0; ++index) {
    const auto byte = static_cast<std::uint8_t>(text[index]);
    buffer.append({&byte, 1});
    found = buffer.sizeThrough("\r\n\r\n");
  }
  EXPECT_EQ(found, 11u);
  buffer.consume(found);
  EXPECT_TRUE(buffer.empty());
}

}  // namespace
}  // namespace kestrune
