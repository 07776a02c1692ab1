#pragma once

#include <optional>

#include "platform/Bytes.h"
#include "server/HTTPRequest.h"

namespace kestrune {

/// The 101 response to a WebSocket upgrade request (RFC 6455 §4.2), without subprotocols and extensions;
/// nothing if the request is none.
std::optional<GatheredBytes> acceptWebSocketUpgrade(const HTTPRequest& request);

}  // namespace kestrune
