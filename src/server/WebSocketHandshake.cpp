#include "server/WebSocketHandshake.h"

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/support/Encoding.h"
#include "server/TextFields.h"

namespace kestrune {
namespace {

constexpr std::string_view kKeySuffix = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
constexpr std::size_t kKeySize = 16;

bool hasToken(std::string_view list, std::string_view token) {
  while (!list.empty()) {
    if (lowerCased(trimmed(cutPiece(list, ","))) == token) return true;
  }
  return false;
}

bool isWebSocketKey(std::string_view text) {
  const auto key = base64Decode(text);
  return key && key->size() == kKeySize;
}

std::string acceptValue(std::string_view key) {
  const auto text = std::string(key).append(kKeySuffix);
  return base64Encode(sha1(Bytes(text.begin(), text.end())));
}

}  // namespace

std::optional<GatheredBytes> acceptWebSocketUpgrade(const HTTPRequest& request) {
  const auto* upgrade = request.header("upgrade");
  const auto* connection = request.header("connection");
  const auto* version = request.header("sec-websocket-version");
  const auto* key = request.header("sec-websocket-key");
  if (!upgrade || lowerCased(*upgrade) != "websocket") return std::nullopt;
  if (!connection || !hasToken(*connection, "upgrade")) return std::nullopt;
  if (!version || *version != "13") return std::nullopt;
  if (!key || !isWebSocketKey(*key)) return std::nullopt;

  const auto text =
      "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Accept: " +
      acceptValue(*key) + "\r\n\r\n";
  GatheredBytes response;
  response.head.assign(text.begin(), text.end());
  return response;
}

}  // namespace kestrune
