#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune {

/// The head of an HTTP/1.x request (RFC 9112), as far as this server reads it: no body, one per connection.
struct HTTPRequest {
  using Fields = std::map<std::string, std::string, std::less<>>;

  std::string method;  // as received
  std::string target;  // as received, with path and query
  std::string path;    // percent-decoded
  /// Percent-decoded; an item without a value is empty, of repeated names the last one counts.
  Fields query;
  /// Names in lower case, of repeated names the last one counts.
  Fields headers;

  /// `block` is a head with the empty line that ends it. Nothing if it is malformed.
  static std::optional<HTTPRequest> parse(std::string_view block);

  const std::string* header(std::string_view lowerCaseName) const;
  /// The token of "Authorization: Bearer TOKEN" (RFC 6750 §2.1).
  std::optional<std::string> bearerToken() const;
};

}  // namespace kestrune
