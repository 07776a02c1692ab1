#include "server/HTTPRequest.h"

#include <array>
#include <cstddef>
#include <utility>

#include "platform/support/Encoding.h"
#include "platform/support/Url.h"
#include "server/TextFields.h"

namespace kestrune {
namespace {

/// The three pieces of the request line; nothing if there are more or fewer.
std::optional<std::array<std::string_view, 3>> splitRequestLine(std::string_view line) {
  std::array<std::string_view, 3> pieces;
  std::size_t count = 0;
  while (!line.empty()) {
    const auto piece = cutPiece(line, " ");
    if (piece.empty()) continue;
    if (count == pieces.size()) return std::nullopt;
    pieces.at(count++) = piece;
  }
  if (count != pieces.size()) return std::nullopt;
  return pieces;
}

bool readHeaderLine(std::string_view line, HTTPRequest::Fields& headers) {
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  auto name = lowerCased(trimmed(line.substr(0, colon)));
  if (name.empty()) return false;
  headers.insert_or_assign(std::move(name), std::string(trimmed(line.substr(colon + 1))));
  return true;
}

}  // namespace

std::optional<HTTPRequest> HTTPRequest::parse(std::string_view block) {
  constexpr std::string_view kLineEnd = "\r\n";
  if (!isValidUtf8(block)) return std::nullopt;
  const auto pieces = splitRequestLine(cutPiece(block, kLineEnd));
  if (!pieces) return std::nullopt;
  const auto& [method, target, version] = *pieces;
  if (!version.starts_with("HTTP/1.") || !target.starts_with('/')) return std::nullopt;
  auto url = parseUrl("http://localhost" + std::string(target));
  if (!url) return std::nullopt;

  HTTPRequest request;
  request.method = method;
  request.target = target;
  while (!block.empty()) {
    const auto line = cutPiece(block, kLineEnd);
    if (!line.empty() && !readHeaderLine(line, request.headers)) return std::nullopt;
  }
  for (auto& [name, value] : url->queryItems) {
    request.query.insert_or_assign(std::move(name), std::move(value).value_or(std::string()));
  }
  request.path = std::move(url->path);
  return request;
}

const std::string* HTTPRequest::header(std::string_view lowerCaseName) const {
  const auto found = headers.find(lowerCaseName);
  return found == headers.end() ? nullptr : &found->second;
}

std::optional<std::string> HTTPRequest::bearerToken() const {
  const auto* value = header("authorization");
  if (!value) return std::nullopt;
  const auto space = value->find(' ');
  if (space == std::string::npos || lowerCased(value->substr(0, space)) != "bearer") return std::nullopt;
  return value->substr(space + 1);
}

}  // namespace kestrune
