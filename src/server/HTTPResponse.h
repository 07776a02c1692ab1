#pragma once

#include <map>
#include <string>
#include <string_view>

#include "platform/Bytes.h"

namespace kestrune {

struct HTTPResponse {
  int status = 200;
  std::string reason = "OK";
  /// Those that the route chose; serializeResponse() adds those that every response has.
  std::map<std::string, std::string> headers;
  Bytes body;
};

/// The whole message; the body is moved, not copied. Headers come in ascending order of their names. Every
/// response closes the connection and forbids sniffing, referrers and use by other origins; a page also gets
/// the content security policy.
GatheredBytes serializeResponse(HTTPResponse response);

/// A 200 with a body that no cache keeps.
HTTPResponse uncachedResponse(std::string contentType, std::string_view body);

/// The answers to requests that cannot be served, as plain text.
enum class HTTPFailure {
  headerTooLarge,
  badRequest,
  methodNotAllowed,
  notFound,
  upgradeRequired,
  serverUnavailable,
  unauthorized,
  rateLimited,
};
HTTPResponse failureResponse(HTTPFailure failure);

}  // namespace kestrune
