#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/support/Json.h"

namespace kestrune::service {

/// A whole request (RFC 9110), within the server's limits of head and body.
struct HttpRequest {
  using Items = std::vector<std::pair<std::string, std::string>>;

  std::string method;  // as received
  /// The path below the prefix of the public address, percent-decoded; no empty, "." or ".." segment.
  std::vector<std::string> segments;
  /// In order, percent-decoded; an item without a value is empty.
  Items query;
  /// In order, names as received.
  Items headers;
  std::string body;
  /// The client's numeric address: the connection's, or what a trusted proxy says.
  std::string peerAddress;
  /// Whether the client itself, and no proxy for another, is on this machine.
  bool isLoopback = false;
  /// Whether the client reached the service, or the trusted proxy before it, over TLS.
  bool isSecure = false;

  /// The first field of that name, in any case; null if there is none.
  const std::string* header(std::string_view name) const;
  /// The first query item of that name; null if there is none.
  const std::string* queryItem(std::string_view name) const;
  /// The value of a cookie (RFC 6265 §4.2); nothing if there is none, or more than one of that name.
  std::optional<std::string> cookie(std::string_view name) const;
  /// The token of "Authorization: Bearer TOKEN" (RFC 6750 §2.1).
  std::optional<std::string> bearerToken() const;
};

/// The server adds "Content-Length", "Date" and the security headers that are not set here.
struct HttpResponse {
  int status = 200;
  HttpRequest::Items headers;
  std::string body;
};

/// Answers one request. Called on any thread of a bounded pool, several at a time; it may block, on the store
/// or on another server. An exception out of it becomes a 500 without details.
using HttpHandler = std::function<HttpResponse(const HttpRequest&)>;

/// "application/json", not to be cached.
HttpResponse jsonResponse(int status, const JsonValue& value);
/// {"error": text}, the form of every error of the programming interface.
HttpResponse errorResponse(int status, std::string_view text);
/// "text/html", not to be cached. `html` is complete and escaped.
HttpResponse htmlResponse(int status, std::string html);
/// 303 See Other: the browser goes on with GET. `location` is an absolute URL or begins with "/".
HttpResponse redirectResponse(std::string location);

}  // namespace kestrune::service
