#pragma once

#include <chrono>
#include <cstddef>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "platform/Bytes.h"
#include "runtime/Clock.h"
#include "runtime/MoveOnlyFunction.h"

namespace kestrune {

struct HTTPClientRequest {
  std::string method = "GET";
  std::string url;  // absolute, http or https
  std::vector<std::pair<std::string, std::string>> headers;
  Bytes body;
  /// From the call to the last byte of the response.
  Duration timeout = std::chrono::seconds(15);
  /// A longer body is a failure, found before it is stored.
  std::size_t maximumResponseBody = std::size_t{1} << 20;
};

struct HTTPClientResponse {
  int status = 0;
  Bytes body;
};

/// Requests to foreign servers. No cache, no cookies, no redirects. A https server must show a certificate
/// for its host name that the system's store trusts, over TLS 1.2 or newer.
class HTTPClient {
 public:
  /// `failure` is an Error with a text for a person, or null.
  using ResponseHandler = MoveOnlyFunction<void(HTTPClientResponse response, std::exception_ptr failure)>;

  virtual ~HTTPClient() = default;
  /// Any thread may call; never blocks. The handler is called once, on another thread, or dropped if the
  /// client goes.
  virtual void send(HTTPClientRequest request, ResponseHandler handler) = 0;
};

}  // namespace kestrune
