#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrune {

/// The parts of a URL that the program reads (RFC 3986).
struct UrlParts {
  std::string scheme;  // as written
  std::string host;    // percent-decoded; empty where there is none
  std::string path;    // percent-decoded
  /// In order, percent-decoded; an item without "=" has no value.
  std::vector<std::pair<std::string, std::optional<std::string>>> queryItems;
};

/// Nothing if `text` is not a URL: spaces, control characters and broken percent escapes are refused.
std::optional<UrlParts> parseUrl(std::string_view text);

/// `url` with `fragment` (percent-encoded as needed) in place of any it has; nothing if `url` is not a URL.
std::optional<std::string> urlWithFragment(std::string_view url, std::string_view fragment);

}  // namespace kestrune
