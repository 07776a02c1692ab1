#include "server/HTTPResponse.h"

#include <array>
#include <cstddef>
#include <memory>
#include <utility>

namespace kestrune {
namespace {

/// WebAssembly decoders compile at run time and run in workers; frames are shown as data and blob URLs; the
/// stream is a WebSocket to this server under the name by which the viewer reached it.
constexpr std::string_view kContentSecurityPolicy =
    "default-src 'self'; script-src 'self' 'unsafe-eval' 'wasm-unsafe-eval'; style-src 'self'; "
    "connect-src 'self' ws: wss:; worker-src 'self'; img-src 'self' data:; media-src blob:; "
    "object-src 'none'; base-uri 'none'; frame-ancestors 'none'";

struct FailureRow {
  int status;
  std::string_view reason;
  std::string_view body;
  std::string_view extraName;  // empty: no extra header
  std::string_view extraValue;
};

// In the order of HTTPFailure.
constexpr std::array<FailureRow, 8> kFailures{{
    {431, "Request Header Fields Too Large", "Header too large", "", ""},
    {400, "Bad Request", "Bad request", "", ""},
    {405, "Method Not Allowed", "GET required", "Allow", "GET"},
    {404, "Not Found", "Not found", "", ""},
    {400, "Bad Request", "WebSocket upgrade required", "", ""},
    {500, "Internal Server Error", "Server unavailable", "", ""},
    {401, "Unauthorized", "Unauthorized", "WWW-Authenticate", "Bearer"},
    {429, "Too Many Requests", "Try again later", "Retry-After", "60"},
}};

}  // namespace

GatheredBytes serializeResponse(HTTPResponse response) {
  auto& headers = response.headers;
  headers["Content-Length"] = std::to_string(response.body.size());
  headers["Connection"] = "close";
  headers["X-Content-Type-Options"] = "nosniff";
  headers["Referrer-Policy"] = "no-referrer";
  headers["Cross-Origin-Resource-Policy"] = "same-origin";
  const auto contentType = headers.find("Content-Type");
  if (contentType != headers.end() && contentType->second.starts_with("text/html")) {
    headers["Content-Security-Policy"] = kContentSecurityPolicy;
  }

  std::string head;
  head.reserve(512);
  head.append("HTTP/1.1 ").append(std::to_string(response.status)).append(" ");
  head.append(response.reason).append("\r\n");
  for (const auto& [name, value] : headers) head.append(name).append(": ").append(value).append("\r\n");
  head.append("\r\n");

  GatheredBytes message;
  message.head.assign(head.begin(), head.end());
  if (!response.body.empty()) message.body = std::make_shared<const Bytes>(std::move(response.body));
  return message;
}

HTTPResponse uncachedResponse(std::string contentType, std::string_view body) {
  HTTPResponse response;
  response.headers["Content-Type"] = std::move(contentType);
  response.headers["Cache-Control"] = "no-store";
  response.body.assign(body.begin(), body.end());
  return response;
}

HTTPResponse failureResponse(HTTPFailure failure) {
  const auto& row = kFailures.at(static_cast<std::size_t>(failure));
  auto response = uncachedResponse("text/plain; charset=utf-8", row.body);
  response.status = row.status;
  response.reason = row.reason;
  if (!row.extraName.empty()) response.headers[std::string(row.extraName)] = row.extraValue;
  return response;
}

}  // namespace kestrune
