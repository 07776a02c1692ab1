#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "web/HttpMessage.h"

namespace kestrune::service {

/// A method and a form of path with what answers it.
struct HttpRoute {
  std::string method;
  /// Segments joined by "/", below the prefix of the public address: "api/devices/{id}/issues". A segment in
  /// braces stands for any one segment, which the handler reads at its place in `HttpRequest::segments`.
  std::string pattern;
  HttpHandler handler;
};

/// Whether a path has the form of `pattern`.
bool matchesPattern(std::string_view pattern, const std::vector<std::string>& segments);

}  // namespace kestrune::service
