#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <variant>

#include "platform/Bytes.h"
#include "server/ReceiveBuffer.h"

namespace kestrune {

/// The server's side of WebSocket framing (RFC 6455 §5), as small as this server needs it: frames from the
/// client are masked and whole, frames to the client are neither masked nor fragmented, no extensions.

enum class WebSocketCodecError {
  invalidFrame,         // reserved bits, or an opcode that is not known
  unmaskedClientFrame,  // RFC 6455 §5.1
  payloadTooLarge,
};

enum class WebSocketOpcode { continuation, text, binary, close, ping, pong };

struct WebSocketFrame {
  bool fin = true;
  WebSocketOpcode opcode = WebSocketOpcode::text;
  Bytes payload;
};

/// The largest payload that a client may send.
inline constexpr std::size_t kMaximumClientPayload = 65'536;

struct WebSocketNeedsMore {};
using WebSocketParseResult = std::variant<WebSocketNeedsMore, WebSocketFrame, WebSocketCodecError>;

/// Takes the first frame out of `buffer`, which is left alone unless a whole frame is there. A frame that is
/// too large is refused by its header, before its payload is waited for.
WebSocketParseResult parseFrame(ReceiveBuffer& buffer);

/// One frame with FIN set around `payload`; its body stays shared.
GatheredBytes encodeFrame(GatheredBytes payload, WebSocketOpcode opcode);
GatheredBytes encodeFrame(ByteView payload, WebSocketOpcode opcode);

/// Why the server closes a connection: a status code (RFC 6455 §7.4) and a reason for people.
struct WebSocketClose {
  std::uint16_t code;
  std::string_view reason;
};

/// The reason is cut to its first 123 bytes, what a control frame can hold.
GatheredBytes encodeCloseFrame(WebSocketClose close);

namespace websocket_close {
inline constexpr WebSocketClose kByPeer{1000, ""};
inline constexpr WebSocketClose kBadFrame{1002, "Bad WebSocket frame"};
inline constexpr WebSocketClose kFragmentation{1003, "Fragmentation unsupported"};
inline constexpr WebSocketClose kTextRequired{1003, "Text control messages required"};
inline constexpr WebSocketClose kInvalidControl{1007, "Invalid control message"};
inline constexpr WebSocketClose kAuthenticateFirst{1008, "Authenticate first"};
inline constexpr WebSocketClose kAuthenticationTimeout{1008, "Authentication timeout"};
inline constexpr WebSocketClose kUnauthorized{1008, "Unauthorized"};
inline constexpr WebSocketClose kServerUnavailable{1011, "Server unavailable"};
inline constexpr WebSocketClose kSendQueueOverflow{1011, "Send queue overflow"};
inline constexpr WebSocketClose kTryAgainLater{1013, "Try again later"};
inline constexpr WebSocketClose kViewerActive{4001, "Another viewer is active"};
inline constexpr WebSocketClose kReplaced{4001, "Replaced by newer viewer"};
}  // namespace websocket_close

}  // namespace kestrune
