#include <gmock/gmock.h>

#include "server/WebSocketCodec.h"
#include "server/WebSocketHandshake.h"
#include "support/WebSocketPeer.h"

namespace kestrune {
namespace {

std::string parsed(std::string_view bytes) {
  ReceiveBuffer buffer;
  buffer.append({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
  const auto result = parseFrame(buffer);
  if (std::holds_alternative<WebSocketNeedsMore>(result)) return "more";
  if (const auto* error = std::get_if<WebSocketCodecError>(&result)) {
    return "error " + std::to_string(static_cast<int>(*error));
  }
  const auto& frame = std::get<WebSocketFrame>(result);
  const std::string payload(frame.payload.begin(), frame.payload.end());
  return std::to_string(static_cast<int>(frame.opcode)) + (frame.fin ? " " : " open ") +
         (payload.size() > 20 ? std::to_string(payload.size()) : payload);
}

// How the stream is divided makes no difference: see the corpus of fuzz_websocket.
TEST(WebSocketCodecTest, ReadsTheLargestAndRefusesBadFrames) {
  EXPECT_EQ(parsed(maskedFrame(0x00, "x")), "0 open x");
  EXPECT_EQ(parsed(maskedFrame(0x81, "short", true)), "1 short");
  EXPECT_EQ(parsed(maskedFrame(0x81, std::string(65'536, 'x'))), "1 65536");
  EXPECT_EQ(parsed(std::string("\xC1\x01", 2)), "error 0");  // a reserved bit, before the missing mask
  EXPECT_EQ(parsed("\x83\x80"), "error 0");
  EXPECT_EQ(parsed("\x8B\x80"), "error 0");
  EXPECT_EQ(parsed(std::string("\x81\x01", 2)), "error 1");
  // Refused from the header alone.
  EXPECT_EQ(parsed(maskedFrame(0x81, std::string(65'537, 'x')).substr(0, 10)), "error 2");
  EXPECT_EQ(parsed("\x81\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"), "error 2");
}

TEST(WebSocketCodecTest, WritesTheShortestLengthAndSharesTheBody) {
  const auto header = [](std::size_t size) {
    auto bytes = encodeFrame(Bytes(size), WebSocketOpcode::binary).head;
    bytes.resize(bytes.size() - size);
    return bytes;
  };
  EXPECT_EQ(header(125), (Bytes{0x82, 125}));
  EXPECT_EQ(header(65'535), (Bytes{0x82, 126, 0xFF, 0xFF}));
  EXPECT_EQ(header(65'536), (Bytes{0x82, 127, 0, 0, 0, 0, 0, 1, 0, 0}));

  const auto body = std::make_shared<const Bytes>(200);
  const auto frame = encodeFrame(GatheredBytes{{9}, body}, WebSocketOpcode::text);
  EXPECT_EQ(frame.head, (Bytes{0x81, 126, 0, 201, 9}));
  EXPECT_EQ(frame.body, body);
}

TEST(WebSocketCodecTest, CutsALongCloseReason) {
  EXPECT_EQ(encodeCloseFrame({4001, "no"}).head, (Bytes{0x88, 4, 0x0F, 0xA1, 'n', 'o'}));
  const std::string longReason(124, 'r');
  EXPECT_EQ(encodeCloseFrame({1000, longReason}).head.size(), 2u + 125u);
}

TEST(WebSocketHandshakeTest, AnswersTheExampleOfTheStandard) {
  // RFC 6455 §1.3.
  const auto request = HTTPRequest::parse(
      "GET /stream HTTP/1.1\r\nUpgrade: WebSocket\r\nConnection: keep-alive ,\tUpgrade\r\n"
      "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
  const auto response = acceptWebSocketUpgrade(*request)->head;
  EXPECT_EQ(std::string(response.begin(), response.end()),
            "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n");
}

TEST(WebSocketHandshakeTest, RefusesWhatIsNoUpgrade) {
  const HTTPRequest::Fields good{{"upgrade", "websocket"},
                                 {"connection", "Upgrade"},
                                 {"sec-websocket-version", "13"},
                                 {"sec-websocket-key", "dGhlIHNhbXBsZSBub25jZQ=="}};
  const auto accepts = [&](const std::string& name, const char* value) {
    HTTPRequest request;
    request.headers = good;
    request.headers.erase(name);
    if (value) request.headers[name] = value;
    return acceptWebSocketUpgrade(request).has_value();
  };
  EXPECT_TRUE(accepts("upgrade", "WEBSOCKET"));
  for (const auto& [name, value] : good) EXPECT_FALSE(accepts(name, nullptr)) << name;
  EXPECT_FALSE(accepts("upgrade", "websocket, h2c"));
  EXPECT_FALSE(accepts("connection", "keep-alive, upgrades"));
  EXPECT_FALSE(accepts("sec-websocket-version", "8"));
  EXPECT_FALSE(accepts("sec-websocket-key", "dGhlIHNhbXBsZSBub25j"));     // 15 bytes
  EXPECT_FALSE(accepts("sec-websocket-key", "dGhlIHNhbXBsZSBub25jZQ="));  // bad padding
}

}  // namespace
}  // namespace kestrune
